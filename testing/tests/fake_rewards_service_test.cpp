#include <ZorvaneRewardsKit/testing/ZVFakeRewardsService.h>

#include <chrono>
#include <future>
#include <optional>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include <ZorvaneRewardsKit/ZorvaneRewardsKit.h>

namespace {

using namespace std::chrono_literals;

const std::string kBase = "https://rewards.fake.invalid/api/v1/apps/fake-app/";

TEST(FakeRewardsServiceTest, RecognisesEachKindFromMethodAndPath) {
  const std::tuple<const char*, std::string, std::string> cases[] = {
      {"GET", kBase + "offers?locale=fr-CA", kKindFetchRewardOffers},
      {"POST", kBase + "offers/12/orders", kKindPlaceOrder},
      {"GET", kBase + "orders", kKindFetchRewardOrders},
      {"GET", kBase + "challenges/skills_test_question", kKindFetchSkillQuestion},
      {"POST", kBase + "offers/12/challenges/skills_test_questions/q%201",
       kKindAnswerSkillQuestion},
      {"POST", kBase + "offers", ""},          // wrong method
      {"POST", kBase + "offers//orders", ""},  // no offer id
  };
  for (const auto& [method, url, kind] : cases)
    EXPECT_EQ(ZVFakeRewardsService::kindForRequest(method, url), kind) << url;
}

// Sends one raw GET and waits for its completion, on `thread`.
ZVHTTPResult get(ZVFakeRewardsService& fake, std::string url, std::thread::id* thread = nullptr) {
  std::promise<std::pair<ZVHTTPResult, std::thread::id>> promise;
  ZVHTTPRequest request;
  request.method = "GET";
  request.url = std::move(url);
  fake.send(std::move(request), [&](ZVHTTPResult result) {
    promise.set_value({std::move(result), std::this_thread::get_id()});
  });
  auto future = promise.get_future();
  EXPECT_EQ(future.wait_for(5s), std::future_status::ready);
  auto [result, id] = future.get();
  if (thread) *thread = id;
  return result;
}

TEST(FakeRewardsServiceTest, AnswersOneShotThenStandingThenNotSet) {
  auto fake = ZVFakeRewardsService::make();
  fake->setBody(kKindFetchRewardOrders, R"({"status": "ok", "orders": []})");
  fake->pushAnswer(kKindFetchRewardOrders, ZVFakeAnswer::httpStatus(503));
  fake->pushAnswer(kKindFetchRewardOrders,
                   ZVFakeAnswer::transportFailure(ZVTransportFailure::Reset, "reset"));

  std::thread::id thread;
  EXPECT_EQ(get(*fake, kBase + "orders", &thread).status, 503);
  EXPECT_NE(thread, std::this_thread::get_id());
  EXPECT_EQ(get(*fake, kBase + "orders").failure, ZVTransportFailure::Reset);
  EXPECT_EQ(get(*fake, kBase + "orders").body, R"({"status": "ok", "orders": []})");
  EXPECT_EQ(get(*fake, kBase + "offers").status, 501);

  EXPECT_EQ(fake->requestCount(kKindFetchRewardOrders), 3u);
}

TEST(FakeRewardsServiceTest, DestructionFailsWaitingRequestsOnce) {
  std::vector<ZVTransportFailure> failures;  // read once the fake's worker is joined
  {
    auto fake = ZVFakeRewardsService::make();
    auto slow = ZVFakeAnswer::json(R"({"status": "ok"})");
    slow.delay = 1h;
    fake->setAnswer(kKindFetchRewardOffers, slow);
    ZVHTTPRequest request;
    request.method = "GET";
    request.url = kBase + "offers";
    fake->send(request, [&](ZVHTTPResult result) { failures.push_back(result.failure); });
  }
  EXPECT_EQ(failures, std::vector{ZVTransportFailure::Shutdown});
}

// Through the real request manager and rewards manager.
TEST(FakeRewardsServiceTest, DrivesTheManagerWithoutANetwork) {
  ZVScopedFakeRewardsService fake;
  fake->setBody(kKindPlaceOrder,
                R"({"status": "ok", "order": {"id": "7", "user": {"available_points": 1200}}})");

  std::optional<std::shared_ptr<ZVOrder>> placed;  // set once called back
  const auto request = ZVOrderRequest::initWithOfferID("a b", 1);
  ZVRewardsManager::instance()->placeOrder(request,
                                           [&](auto order, ZVErrorPtr) { placed = order; });
  ASSERT_TRUE(ZVMainQueue::shared()->runUntil([&] { return placed.has_value(); }, 5s));
  ASSERT_TRUE(*placed);
  EXPECT_EQ((*placed)->orderID(), "7");

  const auto sent = fake->requestsOfKind(kKindPlaceOrder);
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].offerID, "a b");
}

}  // namespace
