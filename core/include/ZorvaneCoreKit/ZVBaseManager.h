// Base class of the SDK's service managers.
#pragma once

#include <atomic>

#include <ZorvaneCoreKit/ZVObject.h>

/// Holds `refreshInterval` and reacts to user changes.
///
/// When `ZV_USER_MANAGER_USER_DID_CHANGE_NOTIFICATION` is posted (the
/// signed-in user changed or signed out), a manager that called
/// `observeUserChanges()` gets `clearUserState(notification.object)` on the
/// posting thread.
///
/// @par Thread safety
/// `refreshInterval` may be read and set from any thread.
class ZV_CORE_EXPORT ZVBaseManager : public ZVObject {
 public:
  /// Default of `refreshInterval`: 300 seconds.
  static constexpr double kDefaultRefreshInterval = 300.0;

  ~ZVBaseManager() override;

  /// How long, in seconds, a fetched catalogue stays fresh. Default: 300.
  double refreshInterval() const { return refreshInterval_.load(std::memory_order_relaxed); }
  void setRefreshInterval(double seconds) {
    refreshInterval_.store(seconds, std::memory_order_relaxed);
  }

  /// Discards the signed-in user's data. The base does nothing.
  virtual void clearUserState(const ZVObject* argument);

 protected:
  ZVBaseManager() = default;
  /// Starts listening for user changes; call once the object is fully built.
  void observeUserChanges();

 private:
  std::atomic<double> refreshInterval_{kDefaultRefreshInterval};
};
