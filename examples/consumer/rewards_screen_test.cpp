// The app's unit tests: the real SDK, with a fake service in place of the network.
#include "rewards_screen.h"

#include <chrono>
#include <cstring>
#include <new>
#include <thread>

#include <gtest/gtest.h>

#include <ZorvaneRewardsKit/ZorvaneRewardsKit.h>
#include <ZorvaneRewardsKit/testing/ZVFakeRewardsService.h>

namespace {

// Runs the main queue, as the app's event loop would, until `screen` has
// received `count` outcomes.
bool waitForOutcomes(const RewardsScreen& screen, int count) {
  return ZVMainQueue::shared()->runUntil([&] { return screen.outcomes() >= count; },
                                         std::chrono::seconds(10));
}

class RewardsScreenTest : public ::testing::Test {
 protected:
  ZVScopedFakeRewardsService fake;
  RewardsScreen screen;
};

TEST_F(RewardsScreenTest, ShowsOneRowPerOffer) {
  fake->setBody(kKindFetchRewardOffers, R"({"status": "ok", "offers": [
      {"id": "1", "name": "Coffee", "points": 500, "status": "available"},
      {"id": "2", "name": "Cinema", "points": "2500", "status": "insufficient_points"},
      {"id": "3", "points": 10, "status": "available"}]})");
  screen.load();
  ASSERT_TRUE(waitForOutcomes(screen, 1));
  EXPECT_EQ(screen.rows(),
            (std::vector<std::string>{"Coffee - 500 points", "Cinema - 2500 points (unavailable)",
                                      "Reward - 10 points"}));
  EXPECT_EQ(screen.banner(), "");
  EXPECT_EQ(fake->requestCount(kKindFetchRewardOffers), 1u);
}

TEST_F(RewardsScreenTest, SaysSoWhenThereAreNoOffers) {
  fake->setBody(kKindFetchRewardOffers, R"({"status": "ok", "offers": []})");
  screen.load();
  ASSERT_TRUE(waitForOutcomes(screen, 1));
  EXPECT_TRUE(screen.rows().empty());
  EXPECT_EQ(screen.banner(), "No rewards right now. Check back soon.");
}

TEST_F(RewardsScreenTest, TellsTheUserWhyAnOrderFailed) {
  struct Case {
    const char* what;
    ZVFakeAnswer answer;
    std::string banner;
  };
  const Case cases[] = {
      {"service refusal",
       ZVFakeAnswer::json(R"({"status": "error", "message": "Not enough points"})"),
       "Not enough points"},
      {"server error", ZVFakeAnswer::httpStatus(503, R"({"status": "error"})"),
       "The rewards service is unavailable. Try again later."},
      {"expired session", ZVFakeAnswer::httpStatus(401),
       "Please sign in again to see your rewards."},
      {"no connection", ZVFakeAnswer::transportFailure(ZVTransportFailure::Connect, "refused"),
       "Can't reach the rewards service. Check your connection and try again."},
      {"garbled answer", ZVFakeAnswer::json("<html>"), "Rewards are not available right now."},
  };
  int outcomes = 0;
  for (const auto& c : cases) {
    fake->pushAnswer(kKindPlaceOrder, c.answer);
    screen.redeem("1");
    ASSERT_TRUE(waitForOutcomes(screen, ++outcomes)) << c.what;
    EXPECT_EQ(screen.banner(), c.banner) << c.what;
  }
  const auto sent = fake->requestsOfKind(kKindPlaceOrder);
  ASSERT_EQ(sent.size(), std::size(cases));
  EXPECT_EQ(sent[0].offerID, "1");
}

TEST_F(RewardsScreenTest, ShowsTheBalanceAfterAnOrder) {
  fake->setBody(kKindPlaceOrder,
                R"({"status": "ok", "order": {"id": "9", "user": {"available_points": 4500}}})");
  screen.redeem("1");
  ASSERT_TRUE(waitForOutcomes(screen, 1));
  EXPECT_EQ(screen.banner(), "Redeemed! You have 4500 points left.");
}

// The user closes the screen while its catalogue is on its way, or already
// queued for delivery: nothing reaches the closed screen. Its memory is
// overwritten once it is gone, so a handler run on it would show (or crash).
TEST(RewardsScreenLifetime, ClosingTheScreenMidRequestIsSafe) {
  for (const bool queued : {false, true}) {
    SCOPED_TRACE(queued ? "outcome queued" : "request in flight");
    ZVScopedFakeRewardsService fake;
    ZVFakeAnswer answer = ZVFakeAnswer::json(R"({"status": "ok", "offers": [{"id": "1"}]})");
    if (!queued) answer.delay = std::chrono::milliseconds(100);
    fake->setAnswer(kKindFetchRewardOffers, answer);
    int delivered = 0;
    ZVObservation observation = ZVNotificationCenter::defaultCenter()->observe(
        ZV_REWARDS_MANAGER_DID_FETCH_OFFERS_NOTIFICATION, nullptr,
        [&](const ZVNotification&) { ++delivered; });

    ZVMainQueue::shared()->drain();  // nothing of earlier tests left
    alignas(RewardsScreen) unsigned char storage[sizeof(RewardsScreen)];
    auto* screen = new (storage) RewardsScreen();
    screen->load();
    if (queued) {
      // The answer is in: its delivery waits on the main queue.
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
      while (ZVMainQueue::shared()->pendingCount() == 0 &&
             std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      ASSERT_EQ(ZVMainQueue::shared()->pendingCount(), 1u);
    }
    screen->~RewardsScreen();  // the user closed it
    std::memset(storage, 0x5A, sizeof storage);

    ZVMainQueue::shared()->runUntil([] { return false; }, std::chrono::milliseconds(300));
    for (unsigned char byte : storage) ASSERT_EQ(byte, 0x5A);
    EXPECT_EQ(delivered, 0);
    EXPECT_EQ(fake->requestCount(kKindFetchRewardOffers), 1u);
  }
}

}  // namespace
