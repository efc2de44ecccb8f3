// The app's unit tests: the real SDK, with a fake service in place of the network.
#include "rewards_screen.h"

#include <chrono>

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

}  // namespace
