// Caching: refreshInterval, forced fetches and the user-change reset.
#include <cstdio>
#include <optional>

#include <ZorvaneRewardsKit/ZorvaneRewardsKit.h>

int main() {
  //! [refresh_interval]
  ZVRewardsManager* rewards = ZVRewardsManager::instance();
  rewards->setRefreshInterval(600);  // seconds; the default is 300
  //! [refresh_interval]

  //! [cached_fetch]
  // Within the interval this is answered from memory, without a request.
  rewards->fetchOffersWithCompletionHandler([](ZVOfferArrayPtr offers, ZVErrorPtr error) {
    if (!error) std::printf("%zu offers\n", offers->size());
  });
  //! [cached_fetch]

  //! [force_fetch]
  // Pull-to-refresh: skip the cache (std::nullopt: the configured or device locale).
  rewards->forceFetchOffersWithLocale(std::nullopt, [](ZVOfferArrayPtr offers, ZVErrorPtr error) {
    if (!error) std::printf("%zu fresh offers\n", offers->size());
  });
  //! [force_fetch]

  //! [user_change]
  // The user signed out or another user signed in: forget their offers and orders.
  ZVNotificationCenter::defaultCenter()->postNotificationName(
      ZV_USER_MANAGER_USER_DID_CHANGE_NOTIFICATION, nullptr);
  //! [user_change]
  return 0;
}
