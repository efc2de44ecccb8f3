// The default notification centre: synchronous, process-wide broadcasts.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <ZorvaneCoreKit/ZVObject.h>

/// Key of the result in a success notification's user information.
extern ZV_CORE_EXPORT const char* const ZV_MANAGER_NOTIFICATION_DATA_KEY;
/// Key of the error in a failure notification's user information.
extern ZV_CORE_EXPORT const char* const ZV_MANAGER_NOTIFICATION_ERROR_KEY;

/// User information of a notification: keys to shared objects.
using ZVUserInfo = std::map<std::string, std::shared_ptr<const ZVObject>>;

/// One posted notification.
struct ZVNotification {
  std::string name;
  /// The sender (the rewards manager for its notifications), or nullptr.
  const ZVObject* object = nullptr;
  ZVUserInfo userInfo;
};

/// Identifies one observer registration; 0 is never a valid token.
using ZVObserverToken = uint64_t;

class ZVNotificationCenter;

/// One observer registration, removed when this object is destroyed (or
/// `remove()`d): the RAII form of a token. Move-only; a moved-from or
/// default-made observation holds nothing.
///
/// @par Thread safety
/// One observation is used by one thread at a time. Its removal waits, as
/// `ZVNotificationCenter::removeObserver` does, for a call of the observer
/// under way on another thread. REQUIRES: it does not outlive its centre.
class ZV_CORE_EXPORT ZVObservation {
 public:
  ZVObservation() = default;
  ZVObservation(ZVNotificationCenter* center, ZVObserverToken token)
      : center_(center), token_(token) {}
  ZVObservation(ZVObservation&& other) noexcept : center_(other.center_), token_(other.token_) {
    other.center_ = nullptr;
    other.token_ = 0;
  }
  ZVObservation& operator=(ZVObservation&& other) noexcept;
  ZVObservation(const ZVObservation&) = delete;
  ZVObservation& operator=(const ZVObservation&) = delete;
  ~ZVObservation() { remove(); }

  /// Removes the observer now; later calls do nothing.
  void remove();
  /// Gives up ownership: the registration stays, and its token is returned.
  ZVObserverToken release();
  /// The token, or 0 when it holds nothing.
  ZVObserverToken token() const { return token_; }
  explicit operator bool() const { return token_ != 0; }

 private:
  ZVNotificationCenter* center_ = nullptr;
  ZVObserverToken token_ = 0;
};

/// Process-wide notification centre.
///
/// `postNotification` calls the matching observers synchronously, on the
/// posting thread, in the order in which they were added. Each call is
/// guarded on its own: an observer that throws is reported (see
/// `Zorvane::setHostExceptionHandler`) and the next observer is still called.
///
/// @par Thread safety
/// Every operation is safe from any thread. No lock is held while an observer
/// runs, so an observer may post, add or remove observers from its callback.
/// Once a removal (`removeObserver`, `removeObserverForOwner`, or the end of
/// a `ZVObservation`) has returned, the observer is not called again and is
/// not running on another thread: the removal waits for a call under way
/// there. Removing an observer from inside its own callback does not wait
/// for that call. REQUIRES: an observer does not wait for a thread that is
/// removing it.
class ZV_CORE_EXPORT ZVNotificationCenter {
 public:
  using Callback = std::function<void(const ZVNotification&)>;

  static ZVNotificationCenter* defaultCenter();

  /// Registers `callback` for notifications named `name` (every name when
  /// empty) whose object is `object` (any object when nullptr). `owner` tags
  /// the registration for `removeObserver(owner)`. Returns the token.
  ZVObserverToken addObserver(std::string name, const ZVObject* object, Callback callback,
                              const void* owner = nullptr);
  /// As `addObserver`, but the registration is owned by the returned object
  /// and removed when it is destroyed.
  [[nodiscard]] ZVObservation observe(std::string name, const ZVObject* object, Callback callback);
  /// Removes one registration. Unknown tokens are ignored.
  void removeObserver(ZVObserverToken token);
  /// Removes every registration tagged with `owner`, for all names.
  void removeObserverForOwner(const void* owner);

  void postNotification(const ZVNotification& notification);
  void postNotificationName(std::string name, const ZVObject* object, ZVUserInfo userInfo = {});

  ZVNotificationCenter() = default;

 private:
  struct Observer {
    ZVObserverToken token;
    std::string name;
    const ZVObject* object;
    const void* owner;
    std::shared_ptr<const Callback> callback;
  };
  /// Waits until none of `removed` (sorted) runs on a thread but this one.
  void waitForCalls(std::unique_lock<std::mutex>& lock,
                    const std::vector<ZVObserverToken>& removed);
  std::mutex mutex_;
  std::condition_variable callEnded_;
  std::vector<Observer> observers_;  // guarded by mutex_
  ZVObserverToken nextToken_ = 1;    // guarded by mutex_
  // Observer calls under way: (token, thread). Guarded by mutex_.
  std::vector<std::pair<ZVObserverToken, std::thread::id>> calls_;
};
