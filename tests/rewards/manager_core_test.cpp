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
  manager()->setOffers(std::make_shared<const ZVOfferArray>(
      std::vector{ZVOffer::initMutableWithDictionary(ZVJSONValue())}));
  manager()->setOrders(std::make_shared<const ZVOrderArray>(
      std::vector{ZVOrder::initMutableWithDictionary(ZVJSONValue())}));
  manager()->setLastRefreshTime(5.0);
  ZVNotificationCenter::defaultCenter()->postNotificationName(
      ZV_USER_MANAGER_USER_DID_CHANGE_NOTIFICATION, nullptr);
  EXPECT_TRUE(manager()->offers() && manager()->offers()->empty());
  EXPECT_TRUE(manager()->orders() && manager()->orders()->empty());
  EXPECT_EQ(manager()->lastRefreshTime(), 0.0);
}

// Each known kind gets its answer or its failure once; an unknown kind is
// dropped. requestKind delivers on the main queue, dispatchFailWithError at once.
TEST_F(ManagerCoreTest, AnswersAndFailuresAreRoutedByKind) {
  const auto good = std::make_shared<ZVGenericResponse>(
      200, "", ZVJSONParse(R"({"status":"ok","offers":[{"id":"1"}]})").value.dictionary());
  const auto down = std::make_shared<ZVError>(ZVErrorTypeTransport, "X", "down");
  const struct {
    std::shared_ptr<ZVGenericResponse> response;
    ZVErrorPtr error;
    int64_t errorType;  // 0: success expected
  } cases[] = {
      {good, down, ZVErrorTypeTransport},
      {good, nullptr, 0},
      {nullptr, nullptr, ZVErrorTypeService},
  };
  for (const std::string kind : {kKindFetchRewardOffers, kKindPlaceOrder, kKindFetchRewardOrders,
                                 kKindFetchSkillQuestion, kKindAnswerSkillQuestion, "kind.other"}) {
    const bool known = kind != "kind.other";
    // Without a handler, a core error is still announced, and leaves the state.
    manager()->setLastRefreshTime(12.5);
    const ZVOfferArrayPtr offers = manager()->offers();
    const NotificationLog notes;
    ZVRewardsRouting routing(*manager());
    routing.requestKind(kind, good, down, {});
    ZVMainQueue::shared()->runUntil([] { return false; }, std::chrono::milliseconds(20));
    EXPECT_EQ(manager()->lastRefreshTime(), 12.5);
    EXPECT_EQ(manager()->offers(), offers);
    if (known) {
      EXPECT_EQ(notes.count(ZV_REWARDS_MANAGER_REQUEST_DID_FAIL_NOTIFICATION), 1u);
    }
    for (const auto& c : cases) {
      SCOPED_TRACE(kind + " " + std::to_string(c.errorType));
      Completion got;
      routing.requestKind(kind, c.response, c.error, handlerFor(kind, got));
      ZVMainQueue::shared()->runUntil([] { return false; }, std::chrono::milliseconds(20));
      EXPECT_EQ(got.calls, known ? 1 : 0);
      if (!known) continue;
      EXPECT_EQ(got.result != nullptr, c.errorType == 0);
      EXPECT_EQ(got.error ? got.error->type() : 0, c.errorType);
      if (c.error) {
        EXPECT_EQ(got.error, c.error) << "the core error is delivered unchanged";
      }
    }
    Completion failed;
    routing.dispatchFailWithError(down, kind, handlerFor(kind, failed));
    EXPECT_EQ(failed.calls, known ? 1 : 0);
    EXPECT_FALSE(failed.result);
    EXPECT_EQ(failed.error, known ? down : nullptr);
    routing.dispatchFailWithError(down, kind, {});  // must not crash
  }
}

}  // namespace
