// The offer catalogue and its cache, orders, order placement and the
// skill-testing question, end to end through the libcurl transport to a
// loopback server; and the manager's spine: singleton, state resets, routing
// and failure dispatch. (Concurrent use of every operation is the load test's.)
#include <fmt/format.h>

#include <condition_variable>
#include <cstdlib>
#include <future>
#include <limits>
#include <mutex>
#include <thread>

#include "ZVRewardsFixture.h"

using namespace zvtest;

namespace {

constexpr const char* kTwoOffers =
    R"({"status":"ok","offers":[{"id":"42","name":"Mug","points":"150","x":1},)"
    R"({"id":7,"name":"Cap","points":90}]})";

class OffersTest : public RewardsTest {
 protected:
  // Answers the next offers fetch with `body`, and fetches it (forced).
  void fetchFresh(const char* body = kTwoOffers) {
    answer(body);
    ASSERT_TRUE(await<const ZVOfferArray>([](auto h) {
                  manager()->forceFetchOffersWithLocale(ZVLocale("en_US"), h);
                })->result);
  }
};

TEST_F(OffersTest, FirstFetchSendsLocaleAndDeliversRecordsInOrder) {
  answer(kTwoOffers);
  Outcome<const ZVOfferArray> outcome;
  std::vector<std::string> order;
  const ZVObservation observation = ZVNotificationCenter::defaultCenter()->observe(
      ZV_REWARDS_MANAGER_DID_FETCH_OFFERS_NOTIFICATION, manager(),
      [&](const ZVNotification&) { order.push_back("notification"); });
  manager()->fetchOffersWithLocale(ZVLocale("fr_CA.UTF-8"),
                                   [&](ZVOfferArrayPtr offers, ZVErrorPtr error) {
                                     order.push_back("handler");
                                     outcome.handler()(std::move(offers), std::move(error));
                                   });
  EXPECT_EQ(outcome.calls, 0) << "never delivered from inside the call";
  ASSERT_TRUE(outcome.wait());

  auto requests = server.requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].path, "/api/v1/apps/app%201/offers");
  EXPECT_EQ(requests[0].query, "locale=fr-CA");
  EXPECT_EQ(requests[0].header("Authorization"), std::string("Bearer ") + kSecretToken);

  ASSERT_EQ(outcome.error, nullptr);
  ASSERT_EQ(outcome.result->size(), 2u);
  EXPECT_EQ((*outcome.result)[0]->offerID(), "42");
  EXPECT_EQ(order, (std::vector<std::string>{"handler", "notification"}));

  // The state, the handler and the notification share one array object.
  EXPECT_EQ(manager()->offers(), outcome.result);
  auto notes = notifications.all();
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_EQ(notes[0].object, manager());
  EXPECT_EQ(notes[0].userInfo.at(ZV_MANAGER_NOTIFICATION_DATA_KEY).get(),
            static_cast<const ZVObject*>(outcome.result.get()));
}

// A fetch without a locale asks for the host's custom locale, else the device's.
TEST_F(OffersTest, NullLocaleFallsBackToCustomThenDeviceLocale) {
  const char* saved = std::getenv("LC_ALL");
  const std::string savedValue = saved ? saved : "";
  setenv("LC_ALL", "pt_BR.UTF-8", 1);
  for (bool custom : {true, false}) {
    Zorvane::setCustomLocale(custom ? std::optional<ZVLocale>(ZVLocale("fr_CA")) : std::nullopt);
    answer(kTwoOffers);
    await<const ZVOfferArray>(
        [](auto h) { manager()->forceFetchOffersWithLocale(std::nullopt, h); });
    EXPECT_EQ(server.requests().back().query, custom ? "locale=fr-CA" : "locale=pt-BR");
  }
  saved ? setenv("LC_ALL", savedValue.c_str(), 1) : unsetenv("LC_ALL");
}

TEST_F(OffersTest, CacheFreshnessFollowsTheRefreshInterval) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  struct Case {
    const char* name;
    double interval;
    double age;  // seconds after the stamp
    bool force;
    bool sends;
    const char* cachedBody = kTwoOffers;
  } cases[] = {
      {"10 s after the stamp is fresh", 300, 10, false, false},
      {"exactly the interval is stale", 300, 300, false, true},
      {"a clock set back is fresh", 300, -50, false, false},
      {"a NaN interval is stale", nan, 10, false, true},
      {"a forced fetch always sends", 300, 10, true, true},
      {"an empty catalogue is fresh too", 300, 10, false, false, R"({"status":"ok","offers":[]})"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    manager()->resetData();
    ZVClock::setSource([] { return 1'000'000.0; });
    fetchFresh(c.cachedBody);
    ASSERT_EQ(manager()->lastRefreshTime(), 1'000'000.0);
    const ZVOfferArrayPtr cached = manager()->offers();
    const size_t before = server.requestCount();

    manager()->setRefreshInterval(c.interval);
    ZVClock::setSource([t = 1'000'000.0 + c.age] { return t; });
    if (c.sends) answer(kTwoOffers);
    // Another locale than the cached list's: the cache does not look at it.
    const auto outcome = await<const ZVOfferArray>([&](auto h) {
      manager()->fetchOffersWithLocale(ZVLocale(c.force ? "en_US" : "de_DE"), c.force, h);
    });
    EXPECT_EQ(server.requestCount() - before, c.sends ? 1u : 0u);
    EXPECT_TRUE(c.sends || outcome->result == cached) << "a hit shares the cached records";
  }
}

// A large answer decodes on the decode thread, a small one on the I/O thread,
// so an older offers answer may be ready after a newer one. The newer
// catalogue and its stamp stay; the older answer still reaches its handler.
TEST_F(OffersTest, AnOlderAnswerReadyLastLeavesTheNewerCatalogue) {
  const std::string padding(300 << 10, 'x');  // past the decode thread's 256 KB
  for (bool olderIsOK : {true, false}) {
    SCOPED_TRACE(olderIsOK ? "older answer ok" : "older answer refused");
    manager()->resetData();
    struct Sync {
      std::mutex mutex;
      std::condition_variable changed;
      int stamps = 0;
      bool newerHandled = false;
    };
    auto sync = std::make_shared<Sync>();
    // The older answer's stamp, the first, waits until the newer one is handled.
    ZVClock::setSource([sync] {
      std::unique_lock lock(sync->mutex);
      if (++sync->stamps > 1) return 200.0;
      sync->changed.notify_all();
      sync->changed.wait_for(lock, std::chrono::seconds(10), [&] { return sync->newerHandled; });
      return 100.0;
    });
    answer(olderIsOK
               ? fmt::format(R"({{"status":"ok","offers":[{{"id":"old"}}],"pad":"{}"}})", padding)
               : fmt::format(R"({{"status":"error","pad":"{}"}})", padding));
    Outcome<const ZVOfferArray> older;
    manager()->forceFetchOffersWithLocale(ZVLocale("en_US"), older.handler());
    {
      std::unique_lock lock(sync->mutex);
      ASSERT_TRUE(sync->changed.wait_for(lock, std::chrono::seconds(10),
                                         [&] { return sync->stamps == 1; }));
    }
    fetchFresh(R"({"status":"ok","offers":[{"id":"new"}]})");
    {
      std::lock_guard lock(sync->mutex);
      sync->newerHandled = true;
    }
    sync->changed.notify_all();
    ASSERT_TRUE(older.wait());
    EXPECT_EQ(older.result != nullptr, olderIsOK);

    ASSERT_EQ(manager()->offers()->size(), 1u);
    EXPECT_EQ((*manager()->offers())[0]->offerID(), "new");
    EXPECT_EQ(manager()->lastRefreshTime(), 200.0);
  }
}

// A cache hit notifies even without a handler, and logs one line when its
// category and level are on.
TEST_F(OffersTest, CacheHitNotifiesAndLogsThroughTheGate) {
  struct Case {
    int64_t categories, level;
    const char* prefix;  // nullptr: nothing written
  } cases[] = {
      {1, 1, "<ZVRewardsManager: 0x"},
      {1, 2, "-[ZVRewardsManager dispatchOffers:completionHandler:]"},
      {2, 2, nullptr},
      {1, 0, nullptr},
  };
  fetchFresh();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.level);
    LogCapture log(c.level, c.categories);
    const NotificationLog notes;
    manager()->fetchOffersWithLocale(std::nullopt, ZVOffersCompletionHandler());
    ASSERT_TRUE(drainUntil(
        [&] { return notes.count(ZV_REWARDS_MANAGER_DID_FETCH_OFFERS_NOTIFICATION) == 1; }));
    const auto lines = log.lines();
    if (!c.prefix) {
      EXPECT_TRUE(lines.empty());
      continue;
    }
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind(c.prefix, 0), 0u) << lines[0];
  }
}

// The records of a large answer share memory: one kept alone (and an option
// of it) stays whole after its list, the cache and the answer are gone and
// later answers have taken the freed memory.
TEST_F(OffersTest, ARecordKeptAloneOutlivesItsAnswer) {
  auto catalogue = [](const char* tag) {
    std::string body = R"({"status":"ok","offers":[)";
    for (int i = 0; i < 20; ++i)
      body += fmt::format(
          R"({}{{"id":"{}-{}","name":"offer {} of the {} catalogue","points":{},)"
          R"("options":[{{"id":"{}-{}-a","data":{{"colour":"the {} option's colour"}}}}]}})",
          i == 0 ? "" : ",", tag, i, i, tag, i, tag, i, tag);
    return body + "]}";
  };
  const std::string first = catalogue("first");
  fetchFresh(first.c_str());
  std::shared_ptr<ZVOffer> kept = (*manager()->offers())[3];
  std::shared_ptr<ZVOffer> option = (*kept->options())[0];
  manager()->resetData();
  for (const char* tag : {"second", "third", "fourth"}) {
    const std::string next = catalogue(tag);
    fetchFresh(next.c_str());
  }
  manager()->resetData();
  EXPECT_EQ(kept->offerID(), "first-3");
  EXPECT_EQ(*kept->name().string(), "offer 3 of the first catalogue");
  EXPECT_EQ(kept->points(), 3);
  EXPECT_EQ(option->offerID(), "first-3-a");
  EXPECT_EQ(*option->data().dictionary()->objectForKey("colour").string(),
            "the first option's colour");
}

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

// An answer is held to the limits its request was sent under: a host that
// lowers them meanwhile does not fail a read already on its way.
TEST_F(ServiceTest, AnAnswerKeepsTheLimitsItsRequestWasSentUnder) {
  std::string body = R"({"status":"ok","orders":[{})";
  for (int i = 1; i < 100; ++i) body += ",{}";
  body += "]}";
  std::promise<void> sent, resume;
  server.setHandler([&, resumed = resume.get_future().share()](const LoopbackRequest&) {
    sent.set_value();
    resumed.wait_for(std::chrono::seconds(10));
    return LoopbackResponse{.body = body};
  });
  Outcome<const ZVOrderArray> orders;
  manager()->fetchOrdersWithCompletionHandler(orders.handler());
  ASSERT_EQ(sent.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
  // Past both the values' budget and the record limit of 100 orders.
  reconfigure([](ZVConfiguration& config) { config.maxResponseBytes = 1024; });
  resume.set_value();
  ASSERT_TRUE(orders.wait());
  ASSERT_TRUE(orders.result) << orders.error->description();
  EXPECT_EQ(orders.result->size(), 100u);
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
}

// A refusal is worded from the order's "base"; an HTTP error quotes the
// body indented, cut at 16 KiB: indented, a nested body would be hundreds
// of times its size.
TEST_F(ServiceTest, RefusedOrderIsWordedFromTheBody) {
  answer(R"({"status":"error","order":{"base":["A","","B"],"user_id":"42"}})");
  auto outcome = placeOrder();
  ASSERT_TRUE(outcome->error);
  EXPECT_EQ(outcome->error->type(), ZVErrorTypeService);
  EXPECT_EQ(outcome->error->message(), "Reward: A, , B\nUser: 42");
  answer(R"({"x":)" + std::string(400, '[') + std::string(400, ']') + "}", 500);
  outcome = placeOrder();
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
  for (const auto& c : cases) {
    SCOPED_TRACE(c.message);
    const auto outcome = await([&](auto h) {
      c.order ? manager()->placeOrder(nullptr, h)
              : manager()->answerSkillQuestionForOfferID(c.offer, c.question, c.answer, h);
    });
    EXPECT_FALSE(outcome->result);
    const ZVErrorPtr error = outcome->error;
    ASSERT_TRUE(error);
    EXPECT_NE(dynamic_cast<ZVRewardsError*>(error.get()), nullptr);
    EXPECT_EQ(error->type(), ZVErrorTypeValidation);
    EXPECT_EQ(error->code(), c.code);
    EXPECT_EQ(error->message(), c.message);
  }
  // What the request layer cannot write as JSON is refused there.
  const auto unwritable = await([&](auto h) {
    manager()->answerSkillQuestionForOfferID("1", "q", ZVJSONValue(std::string("\xff")), h);
  });
  ASSERT_TRUE(unwritable->error);
  EXPECT_EQ(unwritable->error->type(), ZVErrorTypeValidation);
  EXPECT_EQ(unwritable->error->code(), ZVErrorInvalidBody);
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
}

using ManagerCoreTest = RewardsTest;

TEST(ManagerSingleton, RacingFirstCallsGetOneManager) {
  ZVRewardsManager* seen[8] = {};
  std::vector<std::thread> threads;
  for (auto& slot : seen) threads.emplace_back([&slot] { slot = ZVRewardsManager::instance(); });
  for (auto& t : threads) t.join();
  for (auto* m : seen) EXPECT_EQ(m, seen[0]);
}

// Each known kind gets its failure once, the core error unchanged, and a
// missing answer as the service's refusal; an unknown kind is dropped. A core
// error is announced even without a handler, and leaves the state alone.
// Whatever order answers are decoded in, the lists keep the one the
// transport finished reading last; the other still reaches its handler.
TEST_F(ManagerCoreTest, ListsKeepTheLaterArrivalWhateverOrderAnswersAreRoutedIn) {
  for (const std::string kind : {kKindFetchRewardOffers, kKindFetchRewardOrders}) {
    SCOPED_TRACE(kind);
    const bool offers = kind == kKindFetchRewardOffers;
    Completion older;
    for (const auto& [id, arrival] : {std::pair{"newer", 1002}, std::pair{"older", 1001}}) {
      const auto response = std::make_shared<ZVGenericResponse>(
          200, "",
          dict(fmt::format(R"({{"status":"ok","{}":[{{"id":"{}"}}]}})",
                           offers ? "offers" : "orders", id)));
      response->setArrival(arrival);
      ZVRewardsRouting(*manager())
          .requestKind(
              kind, response, nullptr,
              std::string(id) == "older" ? handlerFor(kind, older) : ZVAnyCompletionHandler());
    }
    ZVMainQueue::shared()->drain();
    EXPECT_EQ(older.calls, 1);
    const std::optional<std::string> kept =
        offers ? (*manager()->offers())[0]->offerID() : (*manager()->orders())[0]->orderID();
    EXPECT_EQ(kept, "newer");
  }
}

TEST_F(ManagerCoreTest, FailuresAreRoutedByKind) {
  const auto good = std::make_shared<ZVGenericResponse>(200, "", dict(R"({"status":"ok"})"));
  const auto down = std::make_shared<ZVError>(ZVErrorTypeTransport, "X", "down");
  for (const std::string kind : {kKindFetchRewardOffers, kKindPlaceOrder, kKindFetchRewardOrders,
                                 kKindFetchSkillQuestion, kKindAnswerSkillQuestion, "kind.other"}) {
    SCOPED_TRACE(kind);
    const bool known = kind != "kind.other";
    manager()->setLastRefreshTime(12.5);
    const ZVOfferArrayPtr offers = manager()->offers();
    const NotificationLog notes;
    ZVRewardsRouting routing(*manager());
    Completion failed, refused, dispatched;
    routing.requestKind(kind, good, down, {});
    routing.requestKind(kind, good, down, handlerFor(kind, failed));
    routing.dispatchFailWithError(down, kind, {});  // must not crash
    routing.dispatchFailWithError(down, kind, handlerFor(kind, dispatched));
    EXPECT_EQ(dispatched.calls, known ? 1 : 0) << "delivered at once";
    EXPECT_EQ(dispatched.error, known ? down : nullptr);
    ZVMainQueue::shared()->drain();
    EXPECT_EQ(manager()->lastRefreshTime(), 12.5);
    EXPECT_EQ(manager()->offers(), offers);
    EXPECT_EQ(notes.count(ZV_REWARDS_MANAGER_REQUEST_DID_FAIL_NOTIFICATION), 2u);
    EXPECT_EQ(failed.calls, known ? 1 : 0);
    EXPECT_EQ(failed.error, known ? down : nullptr);
    routing.requestKind(kind, nullptr, nullptr, handlerFor(kind, refused));
    ZVMainQueue::shared()->drain();
    EXPECT_EQ(refused.calls, known ? 1 : 0);
    EXPECT_TRUE(!known || (!refused.result && refused.error->type() == ZVErrorTypeService));
  }
}

}  // namespace
