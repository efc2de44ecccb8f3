// The manager's spine: singleton, state resets, routing and failure dispatch.
// (Concurrent use of every operation is the load test's.)
#include <thread>

#include "ZVRewardsFixture.h"

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

}  // namespace
