// Orders, order placement and the skill-testing question, end to end through
// the libcurl transport to a loopback server; and the manager's spine:
// singleton, state resets, routing and failure dispatch. (Concurrent use of
// every operation is the load test's.)
#include <fmt/format.h>

#include <thread>

#include "ZVRewardsFixture.h"

using namespace zvtest;

namespace {

using ServiceTest = RewardsTest;

std::unique_ptr<Outcome<ZVOrder>> placeOrder() {
  return await<ZVOrder>([](auto h) {
    ZVRewardsManager::instance()->placeOrder(ZVOrderRequest::initWithOfferID("12", 1), h);
  });
}

// (An answer that is not "ok" empties the history: the fault table.)
TEST_F(ServiceTest, OrdersReplaceTheHistoryWhole) {
  for (const std::string ids : {"12", ""}) {
    std::string body = R"({"status":"ok")";
    if (!ids.empty()) body += R"(,"orders":[{"id":"1","status":"approved"},{"id":"2"}])";
    answer(body + "}");
    const auto outcome =
        await<const ZVOrderArray>([](auto h) { manager()->fetchOrdersWithCompletionHandler(h); });
    EXPECT_EQ(server.requests().back().path, "/api/v1/apps/app%201/orders");
    ASSERT_TRUE(outcome->result);
    std::string got;
    for (const auto& order : *outcome->result) got += order->orderID().value_or("?");
    EXPECT_EQ(got, ids);
    EXPECT_EQ(manager()->orders(), outcome->result);
  }
  EXPECT_EQ(notifications.count(ZV_REWARDS_MANAGER_DID_FETCH_ORDERS_NOTIFICATION), 2u);
}

// One answer may produce one record per 128 bytes of maxResponseBytes,
// options at every depth included; elements that are not objects are
// skipped and count for nothing.
TEST_F(ServiceTest, RecordsOfOneAnswerAreLimited) {
  reconfigure([&](ZVConfiguration& config) { config.maxResponseBytes = 128 * 100; });
  const auto list = [](const char* key, const std::string& record, int count) {
    std::string body = fmt::format(R"({{"status":"ok","{}":[)", key);
    for (int i = 0; i < 50; ++i) body += R"(0,[],"x",null,)";
    for (int i = 0; i < count; ++i) body += (i == 0 ? "" : ",") + record;
    return body + "]}";
  };
  struct Case {
    bool offers;
    std::string body;
    size_t delivered;  // 0: refused
  } cases[] = {
      {true, list("offers", R"({"options":[{"options":[7]}]})", 50), 50},
      {true, list("offers", R"({"options":[{"options":[{}]}]})", 34), 0},  // 102 records
      {false, list("orders", "{}", 100), 100},
      {false, list("orders", "{}", 101), 0},
  };
  const auto offersBefore = std::make_shared<const ZVOfferArray>();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.body.substr(c.body.size() - 60));
    answer(c.body);
    manager()->setOffers(offersBefore);
    manager()->setLastRefreshTime(1000.0);
    const auto outcome = await([&](auto h) {
      c.offers ? manager()->forceFetchOffersWithLocale(ZVLocale("en_US"), h)
               : manager()->fetchOrdersWithCompletionHandler(h);
    });
    if (c.delivered != 0) {
      ASSERT_TRUE(outcome->result) << outcome->error->description();
      const auto* offers = dynamic_cast<const ZVOfferArray*>(outcome->result.get());
      const auto* orders = dynamic_cast<const ZVOrderArray*>(outcome->result.get());
      EXPECT_EQ(offers ? offers->size() : orders->size(), c.delivered);
      if (offers) {
        EXPECT_EQ((*offers)[0]->options()->at(0)->options()->size(), 0u);
      }
      continue;
    }
    ASSERT_TRUE(outcome->error);
    EXPECT_EQ(outcome->error->code(), ZVErrorAnswerTooLarge);
    EXPECT_NE(outcome->error->message()->find(
                  "holds more than 100 records (one per 128 bytes of maxResponseBytes)"),
              std::string::npos)
        << *outcome->error->message();
    // As for any unusable answer: the cached offers and their stamp stay.
    EXPECT_EQ(manager()->offers(), offersBefore);
    EXPECT_EQ(manager()->lastRefreshTime(), 1000.0);
  }
}

TEST_F(ServiceTest, PlaceOrderSendsTheBodyAndAnnouncesBalances) {
  answer(R"({"status":"ok","order":{"id":"7","user":{"available_points":1200,"test_points":0}}})");
  const auto ordersBefore = manager()->orders();
  const auto outcome = placeOrder();
  auto request = server.requests().at(0);
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.path, "/api/v1/apps/app%201/offers/12/orders");
  EXPECT_EQ(json(request.body),
            json(R"({"order": {"offer_id": "12", "quantity": 1, "ip": "127.0.0.1"}})"));
  ASSERT_TRUE(outcome->result);
  EXPECT_EQ(outcome->result->orderID(), "7");
  EXPECT_EQ(manager()->orders(), ordersBefore);

  auto notes = notifications.all();
  ASSERT_EQ(notes.size(), 2u);
  EXPECT_EQ(notes[0].name, ZV_REWARDS_MANAGER_DID_PLACE_ORDER_NOTIFICATION);
  EXPECT_EQ(notes[1].name, ZV_USER_MANAGER_DID_UPDATE_USER_INTERNAL);
  auto points = [&](const char* key) {
    return std::dynamic_pointer_cast<const ZVNumber>(notes[1].userInfo.at(key))->int64Value();
  };
  EXPECT_EQ(points(kUserAvailablePoints), 1200);
  EXPECT_EQ(points(kUserTestPoints), 0);

  // Without an order object, the balances are still announced (as zero).
  answer(R"({"status":"ok"})");
  const auto bare = placeOrder();
  ASSERT_TRUE(bare->result);
  EXPECT_FALSE(bare->result->orderID());
  ASSERT_TRUE(drainUntil(
      [&] { return notifications.count(ZV_USER_MANAGER_DID_UPDATE_USER_INTERNAL) == 2; }));
}

TEST_F(ServiceTest, RefusedOrderIsWordedFromTheBody) {
  struct Case {
    int status;
    const char* body;
    int64_t type;
    const char* message;
  } cases[] = {
      {200, R"({"status":"error","order":{"base":["A","","B"],"user_id":"42"}})",
       ZVErrorTypeService, "Reward: A, , B\nUser: 42"},
      {422, R"({"status":"error","message":"Bad"})", ZVErrorTypeHTTP,
       "{\n  \"status\" : \"error\",\n  \"message\" : \"Bad\"\n}"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.body);
    answer(c.body, c.status);
    const auto outcome = placeOrder();
    ASSERT_TRUE(outcome->error);
    EXPECT_EQ(outcome->error->type(), c.type);
    EXPECT_EQ(outcome->error->message(), c.message);
  }
  // Indented, a nested body would be hundreds of times its size: the
  // message quotes 16 KiB of it.
  answer(R"({"x":)" + std::string(400, '[') + std::string(400, ']') + "}", 500);
  const auto outcome = placeOrder();
  ASSERT_TRUE(outcome->error && outcome->error->message());
  EXPECT_EQ(outcome->error->message()->size(), (16u << 10) + 3);
  EXPECT_TRUE(outcome->error->message()->ends_with("..."));
}

TEST_F(ServiceTest, ValidationFailuresSendNothing) {
  const std::string skill = " parameter for answering skill question";
  const struct {
    bool order;  // placeOrder(nullptr), else an answer with these
    std::optional<std::string> offer, question;
    ZVJSONValue answer;
    const char* code;
    std::string message;
  } cases[] = {
      {true, {}, {}, {}, ZVErrorServerNoRequest, "Missing 'order' parameter"},
      {false, {}, {}, "3", ZVErrorValidationNoOfferID, "Missing 'offerID'" + skill},
      {false, "1", {}, "3", ZVErrorValidationNoQuestionID, "Missing 'questionID'" + skill},
      {false, "1", "q", {}, ZVErrorValidationNoAnswer, "Missing 'answer'" + skill},
  };
  LogCapture log(1, 1);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.message);
    Completions completion =
        startAll({{"", nullptr, [&](auto* m, AnyHandler h) {
                     c.order ? m->placeOrder(nullptr, h)
                             : m->answerSkillQuestionForOfferID(c.offer, c.question, c.answer, h);
                   }}});
    ASSERT_TRUE(waitForAll(completion));
    EXPECT_FALSE(completion[0]->result);
    const ZVErrorPtr error = completion[0]->error;
    ASSERT_TRUE(error);
    EXPECT_NE(dynamic_cast<ZVRewardsError*>(error.get()), nullptr);
    EXPECT_EQ(error->type(), ZVErrorTypeValidation);
    EXPECT_EQ(error->code(), c.code);
    EXPECT_EQ(error->message(), c.message);
    ASSERT_FALSE(log.lines().empty());
    EXPECT_EQ(log.lines().back(), manager()->description() + " " + c.message);
  }
  EXPECT_EQ(log.lines().size(), std::size(cases));
  EXPECT_EQ(server.requestCount(), 0u);
  EXPECT_EQ(notifications.count(ZV_REWARDS_MANAGER_VALIDATION_DID_FAIL_NOTIFICATION),
            std::size(cases));
}

TEST_F(ServiceTest, SkillQuestionFlow) {
  answer(
      R"({"status":"ok","challenge":{"skills_test_question":{"id":"q1","question":"2 + 2","x":1}}})");
  const auto question =
      await<ZVSkillQuestion>([](auto h) { manager()->fetchSkillQuestionWithCompletionHandler(h); });
  EXPECT_EQ(server.requests().at(0).path, "/api/v1/apps/app%201/challenges/skills_test_question");
  ASSERT_TRUE(question->result);
  EXPECT_EQ(question->result->questionID(), "q1");
  EXPECT_EQ(question->result->question(), ZVJSONValue("2 + 2"));

  answer(R"({"status":"ok","challenge":{"id":99,"status":"passed"}})");
  const auto challenge = await<ZVSkillChallenge>(
      [](auto h) { manager()->answerSkillQuestionForOfferID("5", "q1", "", h); });
  auto request = server.requests().at(1);
  EXPECT_EQ(request.path, "/api/v1/apps/app%201/offers/5/challenges/skills_test_questions/q1");
  EXPECT_EQ(json(request.body), json(R"({"challenge":{"skills_test_question":{"response":""}}})"));
  ASSERT_TRUE(challenge->result);
  EXPECT_EQ(challenge->result->challengeID(), "99");

  answer(R"({"status":"ok"})");
  manager()->fetchSkillQuestionWithCompletionHandler(nullptr);
  ASSERT_TRUE(drainUntil([&] {
    return notifications.count(ZV_REWARDS_MANAGER_DID_FETCH_SKILL_QUESTION_NOTIFICATION) == 2;
  }));
}

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
      200, "", dict(R"({"status":"ok","offers":[{"id":"1"}]})"));
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
