// Shared by the manager's and the reliability tests: the SDK pointed at a
// loopback service, every public operation behind one signature, and
// recorders of what the manager delivers, notifies and logs.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include <ZorvaneRewardsKit/ZorvaneRewardsKit.h>

#include "ZVLoopbackServer.h"
#include "ZVRewardsRouting.h"
#include "ZVTestSupport.h"
#include "http/ZVGenericRequestManager.h"

namespace zvtest {

/// A good answer from every endpoint of the service.
inline LoopbackResponse serviceAnswer(const LoopbackRequest& request) {
  auto ok = [](const char* rest) {
    return LoopbackResponse{.body = std::string(R"({"status":"ok",)") + rest + "}"};
  };
  const std::string& path = request.path;
  if (path.ends_with("/offers")) return ok(R"("offers":[{"id":"1"},{"id":"2"}])");
  if (path.ends_with("/orders") && request.method == "GET") return ok(R"("orders":[{"id":"1"}])");
  if (path.ends_with("/orders")) return ok(R"("order":{"id":"9","user":{"available_points":10}})");
  if (path.ends_with("/skills_test_question"))
    return ok(R"("challenge":{"skills_test_question":{"id":"q","question":"?"}})");
  return ok(R"("challenge":{"id":"c","status":"passed"})");
}

/// Every notification posted while it lives, in order.
class NotificationLog {
 public:
  std::vector<ZVNotification> all() const {
    std::lock_guard lock(mutex_);
    return notes_;
  }
  size_t count(const std::string& name) const {
    return std::ranges::count_if(all(), [&](const auto& note) { return note.name == name; });
  }

 private:
  mutable std::mutex mutex_;
  std::vector<ZVNotification> notes_;
  ZVObservation observation_ = ZVNotificationCenter::defaultCenter()->observe(
      "", nullptr, [this](const ZVNotification& note) {
        std::lock_guard lock(mutex_);
        notes_.push_back(note);
      });
};

/// Every line the logger writes, at the level and categories set here.
class LogCapture {
 public:
  explicit LogCapture(int64_t level, int64_t categories = ~int64_t{0}) {
    ZVLogger::instance()->setLogCategories(categories);
    ZVLogger::instance()->setLogLevel(level);
    ZVLogger::instance()->setSink([this](std::string_view line) {
      std::lock_guard lock(mutex_);
      lines_.emplace_back(line);
    });
  }
  ~LogCapture() {
    ZVLogger::instance()->setSink({});
    ZVLogger::instance()->setLogLevel(0);
    ZVLogger::instance()->setLogCategories(0);
  }
  std::vector<std::string> lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

/// A completion handler of any of the manager's types.
struct AnyHandler {
  std::function<void(std::shared_ptr<const ZVObject>, ZVErrorPtr)> call;
  template <class Result>
  void operator()(Result result, ZVErrorPtr error) const {
    call(std::move(result), std::move(error));
  }
};

/// What one completion handler received, and how often it ran. Handlers run
/// on the main queue, which the test thread drains: read it once `wait` or
/// `waitForAll` returned.
template <class Result = const ZVObject>
struct Outcome {
  std::shared_ptr<Result> result;
  ZVErrorPtr error;
  std::atomic<int> calls{0};

  auto handler() {
    return [this](auto r, ZVErrorPtr e) {
      result = std::move(r);
      error = std::move(e);
      ++calls;
    };
  }
  bool wait() {
    return drainUntil([this] { return calls.load() > 0; });
  }
};

/// The outcome of any operation.
using Completion = Outcome<>;

/// Calls `start` with the handler of a fresh outcome, and waits for it.
template <class Result = const ZVObject, class Start>
std::unique_ptr<Outcome<Result>> await(Start start) {
  auto outcome = std::make_unique<Outcome<Result>>();
  start(outcome->handler());
  EXPECT_TRUE(outcome->wait()) << "no answer in time";
  return outcome;
}

/// A handler of the type the manager routes answers of `kind` to, reporting
/// into `c` (the offers' type for an unknown kind).
inline ZVAnyCompletionHandler handlerFor(const std::string& kind, Completion& c) {
  if (kind == kKindFetchRewardOrders) return ZVOrdersCompletionHandler(c.handler());
  if (kind == kKindPlaceOrder) return ZVOrderCompletionHandler(c.handler());
  if (kind == kKindFetchSkillQuestion) return ZVSkillQuestionCompletionHandler(c.handler());
  if (kind == kKindAnswerSkillQuestion) return ZVSkillChallengeCompletionHandler(c.handler());
  return ZVOffersCompletionHandler(c.handler());
}

/// One public operation of the manager.
struct Operation {
  const char* name;
  const char* success;  ///< its success notification; nullptr: refused, nothing sent
  std::function<void(ZVRewardsManager*, AnyHandler)> start;
};

/// Every public operation of the manager, each sending one request (the
/// offers cache must be stale for the cached variants).
inline const std::vector<Operation>& allOperations() {
  using M = ZVRewardsManager*;
  const char* offers = ZV_REWARDS_MANAGER_DID_FETCH_OFFERS_NOTIFICATION;
  static const std::vector<Operation> operations = {
      {"fetchOffers", offers, [](M m, AnyHandler h) { m->fetchOffersWithCompletionHandler(h); }},
      {"fetchOffersWithLocale", offers,
       [](M m, AnyHandler h) { m->fetchOffersWithLocale(ZVLocale("fr_CA"), h); }},
      {"forceFetchOffers", offers,
       [](M m, AnyHandler h) { m->forceFetchOffersWithLocale(ZVLocale("en_US"), h); }},
      {"fetchOrders", ZV_REWARDS_MANAGER_DID_FETCH_ORDERS_NOTIFICATION,
       [](M m, AnyHandler h) { m->fetchOrdersWithCompletionHandler(h); }},
      {"placeOrder", ZV_REWARDS_MANAGER_DID_PLACE_ORDER_NOTIFICATION,
       [](M m, AnyHandler h) { m->placeOrder(ZVOrderRequest::initWithOfferID("101", 1), h); }},
      {"fetchSkillQuestion", ZV_REWARDS_MANAGER_DID_FETCH_SKILL_QUESTION_NOTIFICATION,
       [](M m, AnyHandler h) { m->fetchSkillQuestionWithCompletionHandler(h); }},
      {"answerSkillQuestion", ZV_REWARDS_MANAGER_DID_ANSWER_SKILL_QUESTION_NOTIFICATION,
       [](M m, AnyHandler h) {
         m->answerSkillQuestionForOfferID("101", "q1", ZVJSONValue("42"), h);
       }},
  };
  return operations;
}

/// The operation of that name in `allOperations`.
inline const Operation& operation(std::string_view name) {
  for (const Operation& operation : allOperations())
    if (operation.name == name) return operation;
  throw std::invalid_argument("no operation " + std::string(name));
}

/// Runs the operation of that name once, and waits for it.
inline std::unique_ptr<Completion> run(std::string_view name) {
  return await([&](auto h) { operation(name).start(ZVRewardsManager::instance(), {h}); });
}

/// Every operation, plus calls that fail validation and send nothing.
inline std::vector<Operation> allOperationsAndRefusals() {
  std::vector<Operation> operations = allOperations();
  operations.push_back({"placeOrder without order", nullptr,
                        [](auto* m, AnyHandler h) { m->placeOrder(nullptr, h); }});
  operations.push_back({"answer without offer id", nullptr, [](auto* m, AnyHandler h) {
                          m->answerSkillQuestionForOfferID(std::nullopt, "q", ZVJSONValue("a"), h);
                        }});
  return operations;
}

using Completions = std::vector<std::unique_ptr<Completion>>;

/// Starts each of `operations` once; the completions follow their order.
inline Completions startAll(const std::vector<Operation>& operations) {
  Completions completions;
  for (const Operation& operation : operations) {
    completions.push_back(std::make_unique<Completion>());
    operation.start(ZVRewardsManager::instance(), {completions.back()->handler()});
  }
  return completions;
}

/// Waits, draining the main queue, until no request is in flight and every
/// completion has run at least once; then runs whatever is still queued.
inline bool waitForAll(Completions& completions,
                       std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
  const bool done = drainUntil(
      [&] {
        return ZVGenericRequestManager::instance()->requestsInFlight() == 0 &&
               std::ranges::all_of(completions, [](const auto& c) { return c->calls > 0; });
      },
      timeout);
  // A second, wrong call would have been queued by now.
  ZVMainQueue::shared()->drain();
  return done;
}

/// Gives the manager one offer and one order, and `refreshed` as the offers' stamp.
inline void seedState(double refreshed) {
  ZVRewardsManager* manager = ZVRewardsManager::instance();
  manager->setOffers(std::make_shared<const ZVOfferArray>(
      std::vector{ZVOffer::initMutableWithDictionary(ZVJSONValue())}));
  manager->setOrders(std::make_shared<const ZVOrderArray>(
      std::vector{ZVOrder::initMutableWithDictionary(ZVJSONValue())}));
  manager->setLastRefreshTime(refreshed);
}

/// Declared after a loopback server, closes the SDK's kept-alive connections
/// first, so that none of them outlives the test that opened it.
struct CloseConnectionsFirst {
  ~CloseConnectionsFirst() { ZVGenericRequestManager::instance()->setTransport(nullptr); }
};

/// A loopback server that answers with `handler`, and the SDK pointed at it;
/// the SDK's kept-alive connections close before the server stops.
struct ServiceServer : ZVLoopbackServer {
  explicit ServiceServer(Handler handler = serviceAnswer) {
    setHandler(std::move(handler));
    configureService(baseURL());
  }
  CloseConnectionsFirst closeFirst;
};

/// Base fixture of the manager's tests: a fresh loopback server, the SDK
/// pointed at it, the manager reset, the system clock and a silent logger.
class RewardsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    configureService(server.baseURL(), std::chrono::seconds(5), "app 1");
    Zorvane::setCustomLocale(std::nullopt);
    ZVClock::setSource({});
    ZVLogger::instance()->setLogCategories(0);
    ZVLogger::instance()->setLogLevel(0);
    manager()->setRefreshInterval(ZVBaseManager::kDefaultRefreshInterval);
    manager()->resetData();
    ZVMainQueue::shared()->drain();
  }
  void TearDown() override {
    // Let every delivery of the test run before the next test starts.
    drainUntil([] { return ZVGenericRequestManager::instance()->requestsInFlight() == 0; });
    ZVMainQueue::shared()->drain();
    // A fresh transport closes the kept-alive connections: none of them
    // outlives the test that opened it.
    ZVGenericRequestManager::instance()->setTransport(ZVMakeCurlTransport());
    ZVClock::setSource({});
    ZVLogger::instance()->setSink({});
    ZVLogger::instance()->setLogLevel(0);
  }

  static ZVRewardsManager* manager() { return ZVRewardsManager::instance(); }

  /// Answers the next request with `body` and `status`.
  void answer(std::string body, int status = 200) {
    server.enqueue({.status = status, .body = std::move(body)});
  }

  ZVLoopbackServer server;
  NotificationLog notifications;
};

}  // namespace zvtest
