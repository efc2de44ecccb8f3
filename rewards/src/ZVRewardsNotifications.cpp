#include <ZorvaneRewardsKit/ZVRewardsNotifications.h>

#include <string_view>

#include <ZorvaneCoreKit/ZVIdentity.h>
#include <ZorvaneRewardsKit/ZVRewardsConstants.h>

namespace {

// The entry under `key` as a T when the notification has the given name;
// the library is built with RTTI, so the cast is checked here for the host.
template <class T>
std::shared_ptr<T> entry(const ZVNotification& notification, std::string_view name,
                         const char* key) {
  if (notification.name != name) return nullptr;
  const auto it = notification.userInfo.find(key);
  if (it == notification.userInfo.end()) return nullptr;
  return std::const_pointer_cast<T>(std::dynamic_pointer_cast<const T>(it->second));
}

std::optional<int64_t> balance(const ZVNotification& notification, const char* key) {
  auto number = entry<ZVNumber>(notification, ZV_USER_MANAGER_DID_UPDATE_USER_INTERNAL, key);
  if (!number) return std::nullopt;
  return number->int64Value();
}

}  // namespace

ZVOfferArrayPtr ZVRewardsNotification::offers(const ZVNotification& notification) {
  return entry<const ZVOfferArray>(notification, ZV_REWARDS_MANAGER_DID_FETCH_OFFERS_NOTIFICATION,
                                   ZV_MANAGER_NOTIFICATION_DATA_KEY);
}

ZVOrderArrayPtr ZVRewardsNotification::orders(const ZVNotification& notification) {
  return entry<const ZVOrderArray>(notification, ZV_REWARDS_MANAGER_DID_FETCH_ORDERS_NOTIFICATION,
                                   ZV_MANAGER_NOTIFICATION_DATA_KEY);
}

std::shared_ptr<ZVOrder> ZVRewardsNotification::order(const ZVNotification& notification) {
  return entry<ZVOrder>(notification, ZV_REWARDS_MANAGER_DID_PLACE_ORDER_NOTIFICATION,
                        ZV_MANAGER_NOTIFICATION_DATA_KEY);
}

std::shared_ptr<ZVSkillQuestion> ZVRewardsNotification::skillQuestion(
    const ZVNotification& notification) {
  return entry<ZVSkillQuestion>(notification,
                                ZV_REWARDS_MANAGER_DID_FETCH_SKILL_QUESTION_NOTIFICATION,
                                ZV_MANAGER_NOTIFICATION_DATA_KEY);
}

std::shared_ptr<ZVSkillChallenge> ZVRewardsNotification::skillChallenge(
    const ZVNotification& notification) {
  return entry<ZVSkillChallenge>(notification,
                                 ZV_REWARDS_MANAGER_DID_ANSWER_SKILL_QUESTION_NOTIFICATION,
                                 ZV_MANAGER_NOTIFICATION_DATA_KEY);
}

ZVErrorPtr ZVRewardsNotification::error(const ZVNotification& notification) {
  const std::string_view name = notification.name;
  const char* failure = name == ZV_REWARDS_MANAGER_REQUEST_DID_FAIL_NOTIFICATION
                            ? ZV_REWARDS_MANAGER_REQUEST_DID_FAIL_NOTIFICATION
                            : ZV_REWARDS_MANAGER_VALIDATION_DID_FAIL_NOTIFICATION;
  return entry<ZVError>(notification, failure, ZV_MANAGER_NOTIFICATION_ERROR_KEY);
}

std::optional<int64_t> ZVRewardsNotification::availablePoints(const ZVNotification& notification) {
  return balance(notification, kUserAvailablePoints);
}

std::optional<int64_t> ZVRewardsNotification::testPoints(const ZVNotification& notification) {
  return balance(notification, kUserTestPoints);
}
