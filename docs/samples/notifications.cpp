// Notifications: observing outcomes, whoever started the operation.
#include <cstdio>
#include <memory>
#include <optional>

#include <ZorvaneRewardsKit/ZorvaneRewardsKit.h>

int main() {
  ZVNotificationCenter* center = ZVNotificationCenter::defaultCenter();

  //! [observe_offers]
  ZVObserverToken offersToken =
      center->addObserver(ZV_REWARDS_MANAGER_DID_FETCH_OFFERS_NOTIFICATION,
                          ZVRewardsManager::instance(), [](const ZVNotification& note) {
                            if (ZVOfferArrayPtr offers = ZVRewardsNotification::offers(note))
                              std::printf("catalogue updated: %zu offers\n", offers->size());
                          });
  //! [observe_offers]

  //! [observe_failures]
  center->addObserver(
      ZV_REWARDS_MANAGER_REQUEST_DID_FAIL_NOTIFICATION, nullptr, [](const ZVNotification& note) {
        if (ZVErrorPtr error = ZVRewardsNotification::error(note))
          std::fprintf(stderr, "rewards request failed: %s\n", error->description().c_str());
      });
  //! [observe_failures]

  //! [observe_balance]
  center->addObserver(
      ZV_USER_MANAGER_DID_UPDATE_USER_INTERNAL, nullptr, [](const ZVNotification& note) {
        if (std::optional<int64_t> points = ZVRewardsNotification::availablePoints(note))
          std::printf("balance: %lld points\n", static_cast<long long>(*points));
      });
  //! [observe_balance]

  //! [remove_observer]
  center->removeObserver(offersToken);
  //! [remove_observer]

  //! [remove_owner]
  // Tag the registrations of one screen with an owner, and drop them together.
  static int screen;  // any address that identifies the owner
  center->addObserver(
      ZV_REWARDS_MANAGER_DID_PLACE_ORDER_NOTIFICATION, nullptr,
      [](const ZVNotification&) { std::printf("order placed\n"); }, &screen);
  center->removeObserverForOwner(&screen);
  //! [remove_owner]
  return 0;
}
