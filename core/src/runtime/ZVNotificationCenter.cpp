#include <ZorvaneCoreKit/ZVNotificationCenter.h>

#include <algorithm>

namespace {

bool matches(const std::string& name, const ZVObject* object, const ZVNotification& notification) {
  return (name.empty() || name == notification.name) &&
         (object == nullptr || object == notification.object);
}

// `observers` is sorted by token: tokens only grow and removal keeps the order.
template <class Observers>
auto findToken(Observers& observers, ZVObserverToken token) {
  auto it = std::lower_bound(observers.begin(), observers.end(), token,
                             [](const auto& o, ZVObserverToken t) { return o.token < t; });
  return (it != observers.end() && it->token == token) ? it : observers.end();
}

}  // namespace

ZVNotificationCenter* ZVNotificationCenter::defaultCenter() {
  // Leaked: managers that live until exit remove their observers from their
  // destructors, which may run after the statics of this library are gone.
  static ZVNotificationCenter* const center = new ZVNotificationCenter();
  return center;
}

ZVObserverToken ZVNotificationCenter::addObserver(std::string name, const ZVObject* object,
                                                  Callback callback, const void* owner) {
  auto shared = std::make_shared<const Callback>(std::move(callback));
  std::lock_guard lock(mutex_);
  const ZVObserverToken token = nextToken_++;
  observers_.push_back(Observer{token, std::move(name), object, owner, std::move(shared)});
  return token;
}

void ZVNotificationCenter::removeObserver(ZVObserverToken token) {
  std::shared_ptr<const Callback> removed;  // destroyed after the lock is released
  std::lock_guard lock(mutex_);
  if (auto it = findToken(observers_, token); it != observers_.end()) {
    removed = std::move(it->callback);
    observers_.erase(it);
  }
}

void ZVNotificationCenter::removeObserverForOwner(const void* owner) {
  std::vector<Observer> removed;  // destroyed after the lock is released
  std::lock_guard lock(mutex_);
  auto keep = std::stable_partition(observers_.begin(), observers_.end(),
                                    [owner](const Observer& o) { return o.owner != owner; });
  removed.assign(std::make_move_iterator(keep), std::make_move_iterator(observers_.end()));
  observers_.erase(keep, observers_.end());
}

void ZVNotificationCenter::postNotification(const ZVNotification& notification) {
  struct Match {
    ZVObserverToken token;
    std::shared_ptr<const Callback> callback;
  };
  std::vector<Match> matching;
  {
    std::lock_guard lock(mutex_);
    for (const Observer& o : observers_) {
      if (matches(o.name, o.object, notification)) matching.push_back({o.token, o.callback});
    }
  }
  for (const Match& m : matching) {
    // An earlier observer of this post may have removed this one; honour that, so a
    // removal made on the posting thread takes effect at once.
    bool live;
    {
      std::lock_guard lock(mutex_);
      live = findToken(observers_, m.token) != observers_.end();
    }
    if (live && *m.callback) (*m.callback)(notification);
  }
}

void ZVNotificationCenter::postNotificationName(std::string name, const ZVObject* object,
                                                ZVUserInfo userInfo) {
  postNotification(ZVNotification{std::move(name), object, std::move(userInfo)});
}
