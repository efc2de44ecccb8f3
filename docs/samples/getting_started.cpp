// Getting started: configure the SDK, list the offers, run the main queue.
#include <chrono>
#include <cstdio>

//! [include]
#include <ZorvaneRewardsKit/ZorvaneRewardsKit.h>
//! [include]

int main() {
  //! [configure]
  ZVConfiguration configuration;
  configuration.serviceHost = "rewards.example.com";
  configuration.appID = "my-app-id";
  configuration.accessToken = "token-from-your-sign-in";
  Zorvane::configure(configuration);
  //! [configure]

  //! [fetch_offers]
  bool done = false;
  ZVRewardsManager::instance()->fetchOffersWithCompletionHandler(
      [&done](ZVOfferArrayPtr offers, ZVErrorPtr error) {
        // Runs on the main queue, later, never inside the call above.
        if (error) {
          std::printf("no offers: %s\n", error->message().value_or("unknown error").c_str());
        } else {
          for (const auto& offer : *offers)
            std::printf("%s: %lld points\n", offer->name().description().c_str(),
                        static_cast<long long>(offer->points()));
        }
        done = true;
      });
  //! [fetch_offers]

  //! [run_main_queue]
  // A command-line program runs the main queue until the answer is in; a game
  // or a GUI drains it from its own loop instead.
  ZVMainQueue::shared()->runUntil([&done] { return done; }, std::chrono::seconds(30));
  //! [run_main_queue]
  return done ? 0 : 1;
}
