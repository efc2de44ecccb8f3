#include <ZorvaneCoreKit/ZVBaseManager.h>

#include <ZorvaneCoreKit/ZVIdentity.h>
#include <ZorvaneCoreKit/ZVNotificationCenter.h>

// A subclass whose clearUserState touches its own members must remove its
// observers in its own destructor: by the time this one runs, a post on another
// thread would reach the base version only.
ZVBaseManager::~ZVBaseManager() {
  ZVNotificationCenter::defaultCenter()->removeObserverForOwner(this);
}

void ZVBaseManager::clearUserState(const ZVObject* /*argument*/) {}

void ZVBaseManager::observeUserChanges() {
  ZVNotificationCenter::defaultCenter()->addObserver(
      ZV_USER_MANAGER_USER_DID_CHANGE_NOTIFICATION, nullptr,
      [this](const ZVNotification& notification) { clearUserState(notification.object); }, this);
}
