// The manager's spine: singleton, version symbols, state resets, routing and
// failure dispatch, and concurrent use of every operation.
#include <cstring>
#include <thread>

#include "RewardsFixture.h"

using namespace zvtest;

namespace {

using ManagerCoreTest = RewardsTest;

TEST(ManagerSingleton, RacingFirstCallsGetOneManager) {
  ZVRewardsManager* seen[8] = {};
  std::vector<std::thread> threads;
  for (auto& slot : seen) threads.emplace_back([&slot] { slot = ZVRewardsManager::instance(); });
  for (auto& t : threads) t.join();
  for (auto* m : seen) EXPECT_EQ(m, seen[0]);
}

TEST(ManagerSingleton, VersionSymbols) {
  EXPECT_EQ(ZorvaneRewardsKitVersionNumber, 3.0);
  const char expected[] = "@(#)PROGRAM:ZorvaneRewardsKit  PROJECT:ZorvaneSDK-3.0.0-b2\n";
  EXPECT_EQ(0, std::memcmp(ZorvaneRewardsKitVersionString, expected, sizeof expected));
}

TEST_F(ManagerCoreTest, UserChangeNotificationClearsState) {
  answer(R"({"status":"ok","offers":[{"id":"1"}]})");
  Outcome<const ZVOfferArray> outcome;
  manager()->fetchOffersWithCompletionHandler(outcome.handler());
  ASSERT_TRUE(outcome.wait());
  manager()->setOrders(std::make_shared<const ZVOrderArray>(
      std::vector<std::shared_ptr<ZVOrder>>{std::make_shared<ZVOrder>()}));
  ZVNotificationCenter::defaultCenter()->postNotificationName(
      ZV_USER_MANAGER_USER_DID_CHANGE_NOTIFICATION, nullptr);
  ASSERT_TRUE(manager()->offers());
  EXPECT_TRUE(manager()->offers()->empty());
  ASSERT_TRUE(manager()->orders());
  EXPECT_TRUE(manager()->orders()->empty());
  EXPECT_EQ(manager()->lastRefreshTime(), 0.0);
}

TEST_F(ManagerCoreTest, RoutingOfAnswersByKind) {
  auto body = [](const char* text) {
    return std::make_shared<ZVGenericResponse>(200, "", ZVJSONParse(text).value.dictionary());
  };
  struct Case {
    std::string kind;
    std::shared_ptr<ZVGenericResponse> response;
    ZVErrorPtr error;
    bool called;
    int64_t errorType;  // 0: success expected
  } cases[] = {
      {kKindFetchRewardOffers, body(R"({"status":"ok","offers":[]})"), nullptr, true, 0},
      {kKindPlaceOrder, body(R"({"status":"ok"})"), nullptr, true, 0},
      {kKindFetchRewardOrders, body(R"({"status":"ok"})"), nullptr, true, 0},
      {kKindFetchSkillQuestion, body(R"({"status":"ok"})"), nullptr, true, 0},
      {kKindAnswerSkillQuestion, body(R"({"status":"ok"})"), nullptr, true, 0},
      {kKindFetchRewardOrders, nullptr, nullptr, true, ZVErrorTypeService},
      {kKindPlaceOrder, body(R"({"status":"ok"})"),
       std::make_shared<ZVError>(ZVErrorTypeTransport, "X", "down"), true, ZVErrorTypeTransport},
      {"kind.unknown", body(R"({"status":"ok"})"), nullptr, false, 0},
      {"kind.unknown", nullptr, std::make_shared<ZVError>(1, "X", "down"), false, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.kind);
    int calls = 0;
    std::shared_ptr<const ZVObject> result;
    ZVErrorPtr error;
    manager()->requestKind(c.kind, c.response, c.error,
                           [&](std::shared_ptr<const ZVObject> r, ZVErrorPtr e) {
                             ++calls;
                             result = r;
                             error = e;
                           });
    ZVMainQueue::shared()->runUntil([] { return false; }, std::chrono::milliseconds(20));
    EXPECT_EQ(calls, c.called ? 1 : 0);
    if (!c.called) continue;
    if (c.errorType == 0) {
      EXPECT_TRUE(result);
      EXPECT_FALSE(error);
    } else {
      EXPECT_FALSE(result);
      ASSERT_TRUE(error);
      EXPECT_EQ(error->type(), c.errorType);
      if (c.error) {
        EXPECT_EQ(error, c.error) << "the core error is delivered unchanged";
      }
    }
  }
}

TEST_F(ManagerCoreTest, CoreErrorWithGoodBodyLeavesStamp) {
  manager()->setLastRefreshTime(12.5);
  auto response = std::make_shared<ZVGenericResponse>(
      200, "", ZVJSONParse(R"({"status":"ok","offers":[{"id":"1"}]})").value.dictionary());
  manager()->requestKind(kKindFetchRewardOffers, response,
                         std::make_shared<ZVError>(ZVErrorTypeTransport, "X", "down"), nullptr);
  ZVMainQueue::shared()->runUntil([] { return false; }, std::chrono::milliseconds(20));
  EXPECT_EQ(manager()->lastRefreshTime(), 12.5);
  EXPECT_TRUE(manager()->offers()->empty());
  EXPECT_EQ(notifications.count(ZV_REWARDS_MANAGER_REQUEST_DID_FAIL_NOTIFICATION), 1u);
}

TEST_F(ManagerCoreTest, DispatchFailCallsOnlyKnownKindsAtOnce) {
  auto error = std::make_shared<ZVError>(ZVErrorTypeTransport, "X", "down");
  for (const char* kind : {kKindFetchRewardOffers, kKindPlaceOrder, kKindFetchRewardOrders,
                           kKindFetchSkillQuestion, kKindAnswerSkillQuestion, "kind.other"}) {
    int calls = 0;
    manager()->dispatchFailWithError(error, kind, [&](auto result, ZVErrorPtr e) {
      ++calls;
      EXPECT_FALSE(result);
      EXPECT_EQ(e, error);
    });
    EXPECT_EQ(calls, std::string(kind) == "kind.other" ? 0 : 1) << kind;
  }
  manager()->dispatchFailWithError(error, kKindPlaceOrder, nullptr);  // must not crash
}

TEST_F(ManagerCoreTest, ConcurrentCallsCompleteExactlyOnce) {
  server.setHandler([](const LoopbackRequest& request) {
    LoopbackResponse response;
    if (request.path.find("skills_test_questions") != std::string::npos)
      response.body = R"({"status":"ok","challenge":{"id":"c"}})";
    else if (request.path.find("skills_test_question") != std::string::npos)
      response.body = R"({"status":"ok","challenge":{}})";
    else if (request.method == "POST")
      response.body = R"({"status":"ok","order":{"id":"o"}})";
    else if (request.path.find("orders") != std::string::npos)
      response.body = R"({"status":"ok","orders":[{"id":"1"}]})";
    else
      response.body = R"({"status":"ok","offers":[{"id":"1"},{"id":"2"}]})";
    return response;
  });
  constexpr int kThreads = 6, kRounds = 25, kOpsPerRound = 7;
  std::atomic<int> completions{0}, duplicates{0};
  auto once = [&] {
    auto called = std::make_shared<std::atomic<bool>>(false);
    return [&, called](auto, ZVErrorPtr) {
      if (called->exchange(true)) ++duplicates;
      ++completions;
    };
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRounds; ++i) {
        manager()->fetchOffersWithCompletionHandler(once());
        manager()->forceFetchOffersWithLocale(ZVLocale("fr_CA"), once());
        manager()->fetchOrdersWithCompletionHandler(once());
        manager()->placeOrder(ZVOrderRequest::initWithOfferID("1", 1), once());
        manager()->placeOrder(nullptr, once());
        manager()->fetchSkillQuestionWithCompletionHandler(once());
        manager()->answerSkillQuestionForOfferID("1", "q", t, once());
        if (i % 5 == 0) manager()->clearUserState(nullptr);
      }
    });
  }
  for (auto& t : threads) t.join();
  ASSERT_TRUE(drainUntil([&] { return completions.load() == kThreads * kRounds * kOpsPerRound; },
                         std::chrono::seconds(60)));
  EXPECT_EQ(duplicates.load(), 0);
}

}  // namespace
