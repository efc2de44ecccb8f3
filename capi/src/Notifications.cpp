// Notification subscriptions and the notification handle.
//
// The core centre may still call an observer that another thread just
// removed. A C host frees its `user` right after unsubscribing, so each
// subscription counts the calls under way and unsubscribe waits for them
// (except for the call it is made from).
#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <typeinfo>
#include <unordered_map>
#include <vector>

#include <ZorvaneCoreKit/ZVError.h>
#include <ZorvaneCoreKit/ZVIdentity.h>
#include <ZorvaneCoreKit/ZVNotificationCenter.h>
#include <ZorvaneRewardsKit/ZVOffer.h>
#include <ZorvaneRewardsKit/ZVOrder.h>
#include <ZorvaneRewardsKit/ZVSkillChallenge.h>
#include <ZorvaneRewardsKit/ZVSkillQuestion.h>

#include "Boundary.h"
#include "Callbacks.h"

using namespace zvr;

namespace {

struct Subscription {
  zvr_notification_callback callback;
  void* user;
  ZVObserverToken token = 0;
  std::mutex mutex;
  std::condition_variable idle;
  bool active = true;  // guarded by mutex
  int running = 0;     // guarded by mutex: calls under way, on any thread
};

// The subscriptions whose callback runs on this thread, innermost last.
thread_local std::vector<const Subscription*> tRunningHere;

std::mutex gRegistryMutex;
std::unordered_map<uint64_t, std::shared_ptr<Subscription>> gRegistry;  // guarded
uint64_t gNextID = 1;                                                   // guarded

// What a notification handle holds: the name and the user information (the
// sender, the manager, is not exposed).
struct NotificationData {
  std::string name;
  ZVUserInfo userInfo;
};

void deliver(const std::shared_ptr<Subscription>& subscription, const ZVNotification& n) {
  {
    std::lock_guard lock(subscription->mutex);
    if (!subscription->active) return;
    ++subscription->running;
  }
  tRunningHere.push_back(subscription.get());
  try {
    Borrowed handle(Kind::Notification,
                    std::make_shared<NotificationData>(NotificationData{n.name, n.userInfo}));
    subscription->callback(static_cast<zvr_notification>(handle.get()), subscription->user);
  } catch (...) {
    // Memory ran out for the handle: this notification is lost to the host.
  }
  tRunningHere.pop_back();
  std::lock_guard lock(subscription->mutex);
  --subscription->running;
  subscription->idle.notify_all();
}

// Class templates (the record lists) have hidden type information in each
// library, so an exact match compares names; every payload class is final.
template <class T>
std::shared_ptr<const T> payloadAs(const std::shared_ptr<const ZVObject>& object) {
  if (!object) return nullptr;
  const char* actual = typeid(*object).name();
  const char* wanted = typeid(T).name();
  if (*actual == '*') ++actual;
  if (*wanted == '*') ++wanted;
  if (std::strcmp(actual, wanted) != 0) return nullptr;
  return std::static_pointer_cast<const T>(object);
}

template <class T, class H>
zvr_result payload(zvr_notification n, const char* key, Kind kind, H* out) {
  return readRecord<NotificationData>(
      n, Kind::Notification, out, [&](const NotificationData& data, Slot&, H* o) -> zvr_result {
        const auto found = data.userInfo.find(key);
        if (found == data.userInfo.end()) return ZVR_OK;
        auto value = payloadAs<T>(found->second);
        *o = static_cast<H>(
            HandleTable::shared().issueLocked(kind, std::const_pointer_cast<T>(value)));
        return ZVR_OK;
      });
}

}  // namespace

extern "C" {

zvr_result zvr_notifications_subscribe(const char* name, zvr_notification_callback callback,
                                       void* user, uint64_t* outSubscription) {
  if (outSubscription == nullptr || callback == nullptr) return ZVR_E_INVALID_ARGUMENT;
  *outSubscription = 0;
  return guarded([&]() -> zvr_result {
    auto subscription = std::make_shared<Subscription>();
    subscription->callback = callback;
    subscription->user = user;
    std::lock_guard lock(gRegistryMutex);
    subscription->token = ZVNotificationCenter::defaultCenter()->addObserver(
        name ? name : "", nullptr,
        [subscription](const ZVNotification& n) { deliver(subscription, n); });
    const uint64_t id = gNextID++;
    gRegistry.emplace(id, subscription);
    *outSubscription = id;
    return ZVR_OK;
  });
}

zvr_result zvr_notifications_unsubscribe(uint64_t id) {
  // It waits for the callback running on another thread, which may be
  // waiting to log.
  if (insideLogSink()) return ZVR_E_BUSY;
  return guarded([&]() -> zvr_result {
    std::shared_ptr<Subscription> subscription;
    {
      std::lock_guard lock(gRegistryMutex);
      const auto found = gRegistry.find(id);
      if (found == gRegistry.end()) return ZVR_E_INVALID_ARGUMENT;
      subscription = std::move(found->second);
      gRegistry.erase(found);
    }
    ZVNotificationCenter::defaultCenter()->removeObserver(subscription->token);
    const auto mine = std::count(tRunningHere.begin(), tRunningHere.end(), subscription.get());
    std::unique_lock lock(subscription->mutex);
    subscription->active = false;
    subscription->idle.wait(lock, [&] { return subscription->running <= mine; });
    return ZVR_OK;
  });
}

zvr_result zvr_notification_get_name(zvr_notification n, const char** out) {
  return readRecord<NotificationData>(
      n, Kind::Notification, out,
      [](const NotificationData& data, Slot& slot, const char** o) -> zvr_result {
        *o = slot.keep(kKeyField, data.name);
        return ZVR_OK;
      });
}

zvr_result zvr_notification_get_offers(zvr_notification n, zvr_offer_list* out) {
  return payload<ZVOfferArray>(n, ZV_MANAGER_NOTIFICATION_DATA_KEY, Kind::OfferList, out);
}
zvr_result zvr_notification_get_orders(zvr_notification n, zvr_order_list* out) {
  return payload<ZVOrderArray>(n, ZV_MANAGER_NOTIFICATION_DATA_KEY, Kind::OrderList, out);
}
zvr_result zvr_notification_get_order(zvr_notification n, zvr_order* out) {
  return payload<ZVOrder>(n, ZV_MANAGER_NOTIFICATION_DATA_KEY, Kind::Order, out);
}
zvr_result zvr_notification_get_skill_question(zvr_notification n, zvr_skill_question* out) {
  return payload<ZVSkillQuestion>(n, ZV_MANAGER_NOTIFICATION_DATA_KEY, Kind::SkillQuestion, out);
}
zvr_result zvr_notification_get_skill_challenge(zvr_notification n, zvr_skill_challenge* out) {
  return payload<ZVSkillChallenge>(n, ZV_MANAGER_NOTIFICATION_DATA_KEY, Kind::SkillChallenge, out);
}

zvr_result zvr_notification_get_error(zvr_notification n, zvr_error* out) {
  return readRecord<NotificationData>(
      n, Kind::Notification, out,
      [](const NotificationData& data, Slot&, zvr_error* o) -> zvr_result {
        const auto found = data.userInfo.find(ZV_MANAGER_NOTIFICATION_ERROR_KEY);
        if (found == data.userInfo.end()) return ZVR_OK;
        // ZVError has subclasses (ZVRewardsError); its type information is
        // exported, so a dynamic cast works across the libraries.
        auto error = std::dynamic_pointer_cast<const ZVError>(found->second);
        *o = static_cast<zvr_error>(HandleTable::shared().issueLocked(
            Kind::Error, std::const_pointer_cast<ZVError>(error)));
        return ZVR_OK;
      });
}

zvr_result zvr_notification_get_balances(zvr_notification n, int64_t* outAvailable,
                                         int64_t* outTest) {
  if (outAvailable == nullptr || outTest == nullptr) return ZVR_E_INVALID_ARGUMENT;
  *outAvailable = *outTest = 0;
  return guarded([&]() -> zvr_result {
    return HandleTable::shared().with(n, Kind::Notification, [&](Slot& slot) -> zvr_result {
      const auto& info = slot.as<const NotificationData>().userInfo;
      const auto available = info.find(kUserAvailablePoints);
      const auto test = info.find(kUserTestPoints);
      if (available == info.end() || test == info.end()) return ZVR_E_NO_VALUE;
      const auto availableNumber = payloadAs<ZVNumber>(available->second);
      const auto testNumber = payloadAs<ZVNumber>(test->second);
      if (!availableNumber || !testNumber) return ZVR_E_NO_VALUE;
      *outAvailable = availableNumber->int64Value();
      *outTest = testNumber->int64Value();
      return ZVR_OK;
    });
  });
}

}  // extern "C"
