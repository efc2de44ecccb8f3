// A host program built against the installed SDK. It configures the SDK,
// lists the offers and prints what the rewards screen shows. A fake service
// answers, so it runs anywhere, without a network.
#include <chrono>
#include <cstdio>

#include <ZorvaneRewardsKit/ZorvaneRewardsKit.h>
#include <ZorvaneRewardsKit/testing/ZVFakeRewardsService.h>

#include "rewards_screen.h"

int main() {
  ZVConfiguration configuration;
  configuration.serviceHost = "rewards.example.com";
  configuration.appID = "consumer-example";
  configuration.accessToken = "consumer-token";
  Zorvane::configure(configuration);

  ZVScopedFakeRewardsService fake;
  fake->setBody(kKindFetchRewardOffers, R"({"status": "ok", "offers": [
      {"id": "1", "name": "Coffee", "points": 500, "status": "available"},
      {"id": "2", "name": "Cinema ticket", "points": 2500, "status": "insufficient_points"}]})");

  RewardsScreen screen;
  screen.load();
  const bool answered = ZVMainQueue::shared()->runUntil([&] { return screen.outcomes() > 0; },
                                                        std::chrono::seconds(10));
  std::printf("ZorvaneRewardsKit %.1f\n", ZorvaneRewardsKitVersionNumber);
  if (!answered) {
    std::printf("no answer\n");
    return 1;
  }
  if (!screen.banner().empty()) std::printf("%s\n", screen.banner().c_str());
  for (const auto& row : screen.rows()) std::printf("  %s\n", row.c_str());
  std::printf("requests sent: %zu (%s)\n", fake->requests().size(),
              fake->requests().empty() ? "-" : fake->requests()[0].url.c_str());
  return screen.rows().size() == 2 ? 0 : 1;
}
