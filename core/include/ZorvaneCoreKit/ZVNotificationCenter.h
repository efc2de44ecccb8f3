// The default notification centre: synchronous, process-wide broadcasts.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
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

/// Process-wide notification centre.
///
/// `postNotification` calls the matching observers synchronously, on the
/// posting thread, in the order in which they were added.
///
/// @par Thread safety
/// Every operation is safe from any thread. No lock is held while an observer
/// runs, so an observer may post, add or remove observers from its callback.
/// An observer removed while a post is under way on another thread may still
/// receive that one notification; once `removeObserver` has returned on the
/// posting thread itself, it receives nothing more from later posts.
class ZV_CORE_EXPORT ZVNotificationCenter {
 public:
  using Callback = std::function<void(const ZVNotification&)>;

  static ZVNotificationCenter* defaultCenter();

  /// Registers `callback` for notifications named `name` (every name when
  /// empty) whose object is `object` (any object when nullptr). `owner` tags
  /// the registration for `removeObserver(owner)`. Returns the token.
  ZVObserverToken addObserver(std::string name, const ZVObject* object, Callback callback,
                              const void* owner = nullptr);
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
  std::mutex mutex_;
  std::vector<Observer> observers_;  // guarded by mutex_
  ZVObserverToken nextToken_ = 1;    // guarded by mutex_
};
