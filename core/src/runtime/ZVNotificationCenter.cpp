#include <ZorvaneCoreKit/ZVNotificationCenter.h>

#include <algorithm>

#include "base/ZVStrings.h"
#include "runtime/ZVHostCode.h"

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

ZVObservation ZVNotificationCenter::observe(std::string name, const ZVObject* object,
                                            Callback callback) {
  return ZVObservation(this, addObserver(std::move(name), object, std::move(callback)));
}

void ZVNotificationCenter::waitForCalls(std::unique_lock<std::mutex>& lock,
                                        const std::vector<ZVObserverToken>& removed) {
  const auto self = std::this_thread::get_id();
  callEnded_.wait(lock, [&] {
    for (const auto& [token, thread] : calls_)
      if (thread != self && std::binary_search(removed.begin(), removed.end(), token)) return false;
    return true;
  });
}

void ZVNotificationCenter::removeObserver(ZVObserverToken token) {
  std::shared_ptr<const Callback> removed;  // destroyed after the lock is released
  std::unique_lock lock(mutex_);
  if (auto it = findToken(observers_, token); it != observers_.end()) {
    removed = std::move(it->callback);
    observers_.erase(it);
    waitForCalls(lock, {token});
  }
}

void ZVNotificationCenter::removeObserverForOwner(const void* owner) {
  std::vector<Observer> removed;  // destroyed after the lock is released
  std::unique_lock lock(mutex_);
  auto keep = std::stable_partition(observers_.begin(), observers_.end(),
                                    [owner](const Observer& o) { return o.owner != owner; });
  removed.assign(std::make_move_iterator(keep), std::make_move_iterator(observers_.end()));
  observers_.erase(keep, observers_.end());
  std::vector<ZVObserverToken> tokens;
  for (const Observer& o : removed) tokens.push_back(o.token);  // sorted, as observers_ is
  if (!tokens.empty()) waitForCalls(lock, tokens);
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
  const auto self = std::this_thread::get_id();
  std::string where;
  for (const Match& m : matching) {
    // An earlier observer of this post may have removed this one; honour that, so a
    // removal made on the posting thread takes effect at once. The call is
    // listed while it runs, so that a removal elsewhere waits for it.
    {
      std::lock_guard lock(mutex_);
      if (findToken(observers_, m.token) == observers_.end()) continue;
      calls_.emplace_back(m.token, self);
    }
    if (*m.callback) {
      if (where.empty()) where = zv_detail::strCat("an observer of ", notification.name);
      zv_detail::runHostCode(where.c_str(), [&] { (*m.callback)(notification); });
    }
    {
      std::lock_guard lock(mutex_);
      // The last entry of this thread for this token: a nested post of the
      // same observer on this thread has ended already.
      for (auto it = calls_.rbegin(); it != calls_.rend(); ++it) {
        if (it->first == m.token && it->second == self) {
          calls_.erase(std::next(it).base());
          break;
        }
      }
    }
    callEnded_.notify_all();
  }
}

ZVObservation& ZVObservation::operator=(ZVObservation&& other) noexcept {
  if (this != &other) {
    remove();
    center_ = other.center_;
    token_ = other.token_;
    other.center_ = nullptr;
    other.token_ = 0;
  }
  return *this;
}

void ZVObservation::remove() {
  if (center_ != nullptr && token_ != 0) center_->removeObserver(token_);
  center_ = nullptr;
  token_ = 0;
}

ZVObserverToken ZVObservation::release() {
  const ZVObserverToken token = token_;
  center_ = nullptr;
  token_ = 0;
  return token;
}

void ZVNotificationCenter::postNotificationName(std::string name, const ZVObject* object,
                                                ZVUserInfo userInfo) {
  postNotification(ZVNotification{std::move(name), object, std::move(userInfo)});
}
