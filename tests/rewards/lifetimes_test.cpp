// What a host hands the manager, and when the SDK lets go of it: scopes and
// cancellation, host code that throws, the offers cache across an answer and
// a sign-out, and shutdown.
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "ZVRewardsFixture.h"

using namespace zvtest;
using namespace std::chrono_literals;

namespace {

// Keeps every exchange until the test answers it, on the answering thread.
class HeldTransport : public ZVTransport {
 public:
  void send(ZVHTTPRequest, Completion done) override {
    std::lock_guard lock(mutex_);
    held_.push_back(std::move(done));
  }
  size_t held() const {
    std::lock_guard lock(mutex_);
    return held_.size();
  }
  void answer(int status, const std::string& body) {
    std::vector<Completion> taken;
    {
      std::lock_guard lock(mutex_);
      taken.swap(held_);
    }
    ZVHTTPResult result;
    result.status = status;
    result.body = body;
    for (Completion& done : taken) done(result);
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Completion> held_;
};

// One answer good for every operation: each handler reads its own key.
constexpr const char* kGoodAnswer =
    R"({"status":"ok","offers":[{"id":"1"}],"orders":[{"id":"1"}],)"
    R"("order":{"id":"9","user":{"available_points":10}},"challenge":{"id":"c"}})";

// A handler of any of the manager's types that counts its calls; it holds
// `token`, so the test can tell when its captures are released.
AnyHandler probe(std::shared_ptr<int> token, std::atomic<int>& calls, bool throws = false) {
  return {[token = std::move(token), &calls, throws](auto, auto) {
    ++calls;
    if (throws) throw std::runtime_error("handler failure");
  }};
}

// The manager's fixture, with a transport that holds every exchange.
class LifetimesTest : public RewardsTest {
 protected:
  void SetUp() override {
    RewardsTest::SetUp();
    Zorvane::setTransport(transport);
  }
  void TearDown() override {
    Zorvane::cancelAllOperations();
    transport->answer(503, "{}");
    Zorvane::setHostExceptionHandler({});
    RewardsTest::TearDown();  // and a transport of its own again
    manager()->resetData();
  }

  std::shared_ptr<HeldTransport> transport = std::make_shared<HeldTransport>();
};

// Whatever ends an operation early, and wherever it is (request in flight, or
// delivery queued on the main queue), its handler never runs, its captures
// are released at once, its cancellation callback runs once, and nothing of
// its answer is seen: no notification, no state.
TEST_F(LifetimesTest, CancelledOperationsEndOnceAndLeaveNoTrace) {
  const struct {
    const char* name;
    std::function<void(std::unique_ptr<ZVScope>&)> end;  // none: delivered
  } ends[] = {{"delivered", {}},
              {"scope destroyed", [](auto& scope) { scope.reset(); }},
              {"scope cancelled", [](auto& scope) { scope->cancel(); }},
              {"cancel all", [](auto&) { Zorvane::cancelAllOperations(); }},
              {"shutdown", [this](auto&) {
                 Zorvane::shutdown();
                 Zorvane::setTransport(transport);
               }}};
  for (const auto& end : ends) {
    for (const bool queued : {false, true}) {
      for (const int status : {200, 500}) {
        for (const Operation& op : allOperationsAndRefusals()) {
          if (!op.success && (!queued || status != 200)) continue;
          SCOPED_TRACE(std::string(end.name) + (queued ? ", queued, " : ", in flight, ") +
                       std::to_string(status) + ", " + op.name);
          manager()->resetData();
          auto scope = std::make_unique<ZVScope>();
          std::atomic<int> calls{0};
          int cancellations = 0;
          auto token = std::make_shared<int>(0);
          const std::weak_ptr<int> captures = token;
          {
            ZVScope::Activation active(scope.get(), [&] { ++cancellations; });
            op.start(manager(), probe(std::move(token), calls));
          }
          EXPECT_EQ(scope->pendingCount(), 1u);
          if (queued) transport->answer(status, kGoodAnswer);
          const NotificationLog notes;
          if (end.end) end.end(scope);
          const bool cancelled = static_cast<bool>(end.end);
          EXPECT_EQ(captures.expired(), cancelled);
          EXPECT_EQ(cancellations, cancelled ? 1 : 0);
          if (!queued) transport->answer(status, kGoodAnswer);
          ZVMainQueue::shared()->drain();
          EXPECT_EQ(calls.load(), cancelled ? 0 : 1);
          EXPECT_TRUE(captures.expired());
          EXPECT_EQ(cancellations, cancelled ? 1 : 0);
          EXPECT_EQ(notes.all().empty(), cancelled);
          if (cancelled && !queued) {
            EXPECT_TRUE(manager()->offers()->empty() && manager()->orders()->empty());
            EXPECT_EQ(manager()->lastRefreshTime(), 0.0);
          }
          EXPECT_EQ(scope ? scope->pendingCount() : 0u, 0u);
        }
      }
    }
  }
}

// A scope destroyed while one of its handlers runs on another thread waits
// for it; destroyed from inside that handler, it does not wait for itself.
TEST_F(LifetimesTest, ScopeEndWaitsForAHandlerRunningElsewhere) {
  ZVMainQueue::shared()->startDedicatedThread();
  auto scope = std::make_unique<ZVScope>();
  std::atomic<bool> entered{false}, finished{false};
  {
    ZVScope::Activation active(*scope);
    manager()->fetchOrdersWithCompletionHandler([&](ZVOrderArrayPtr, ZVErrorPtr) {
      entered = true;
      std::this_thread::sleep_for(100ms);
      finished = true;
    });
  }
  transport->answer(200, kGoodAnswer);
  ASSERT_TRUE(drainUntil([&] { return entered.load(); }));
  scope.reset();
  EXPECT_TRUE(finished);

  scope = std::make_unique<ZVScope>();
  std::atomic<bool> returned{false};
  {
    ZVScope::Activation active(*scope);
    manager()->fetchOrdersWithCompletionHandler([&](ZVOrderArrayPtr, ZVErrorPtr) {
      scope.reset();
      returned = true;
    });
  }
  transport->answer(200, kGoodAnswer);
  EXPECT_TRUE(drainUntil([&] { return returned.load(); }));
  ZVMainQueue::shared()->stopDedicatedThread();
}

// Host code that throws is reported and stops nothing else: every handler is
// called exactly once, and every notification is still posted.
TEST_F(LifetimesTest, ThrowingHostCodeBreaksNoPromise) {
  std::vector<std::string> reported;
  Zorvane::setHostExceptionHandler(
      [&](std::string_view where, std::string_view) { reported.emplace_back(where); });
  const char* failed = ZV_REWARDS_MANAGER_REQUEST_DID_FAIL_NOTIFICATION;
  const struct {
    const char* what;
    int status;
    std::function<ZVObservation()> arrange;  // none: the handler throws
    std::string reportedWhere;               // empty: not reported through the handler
    bool offersOnly;                         // only the offers operations run the code
  } cases[] = {
      {"throwing handler", 200, {}, "a completion handler", false},
      {"throwing failure observer", 500,
       [&] {
         return ZVNotificationCenter::defaultCenter()->observe(
             failed, nullptr, [](auto&) { throw std::runtime_error("observer failure"); });
       },
       std::string("an observer of ") + failed, false},
      {"throwing log sink", 200,
       [] {
         ZVLogger::instance()->setLogCategories(ZVLogCategoryRewards);
         ZVLogger::instance()->setLogLevel(1);
         ZVLogger::instance()->setSink([](std::string_view) { throw std::bad_alloc(); });
         return ZVObservation();
       },
       "", true},
      // A sink that logs, replaces itself and shuts the SDK down: each would
      // wait for the sink's own lock.
      {"reentrant log sink", 200,
       [] {
         ZVLogger::instance()->setLogCategories(ZVLogCategoryRewards);
         ZVLogger::instance()->setLogLevel(1);
         ZVLogger::instance()->setSink([](std::string_view line) {
           ZVLogger::instance()->log(line);
           ZVLogger::instance()->setSink({});
           Zorvane::shutdown();
         });
         return ZVObservation();
       },
       "", true},
      {"throwing clock", 200,
       [] {
         ZVClock::setSource([]() -> double { throw std::bad_alloc(); });
         return ZVObservation();
       },
       "the clock source", true},
  };
  for (const auto& c : cases) {
    for (const Operation& op : allOperations()) {
      const bool offers =
          op.success == std::string_view(ZV_REWARDS_MANAGER_DID_FETCH_OFFERS_NOTIFICATION);
      if (c.offersOnly && !offers) continue;
      SCOPED_TRACE(std::string(c.what) + ", " + op.name);
      manager()->resetData();
      reported.clear();
      const ZVObservation observation = c.arrange ? c.arrange() : ZVObservation();
      const NotificationLog notes;
      std::atomic<int> calls{0};
      op.start(manager(), probe(nullptr, calls, !c.arrange));
      transport->answer(c.status, kGoodAnswer);
      ZVMainQueue::shared()->drain();
      EXPECT_EQ(calls.load(), 1);
      EXPECT_EQ(notes.count(c.status == 200 ? op.success : failed), 1u);
      if (!c.reportedWhere.empty()) {
        // A non-forced fetch reads the clock twice: for the cache, and at the answer.
        EXPECT_FALSE(reported.empty());
        for (const std::string& where : reported) EXPECT_EQ(where, c.reportedWhere);
      }
      EXPECT_TRUE(!offers || c.status != 200 || manager()->offers()->size() == 1u);
      ZVLogger::instance()->setSink({});
      ZVLogger::instance()->setLogLevel(0);
      ZVClock::setSource({});
    }
  }
}

// The stamp of an offers answer is taken when it arrives, but no reader sees
// it before the catalogue it belongs to, however long the records take.
TEST_F(LifetimesTest, NoReaderSeesTheStampWithoutItsCatalogue) {
  constexpr size_t kOffers = 20000;
  std::string body = R"({"status":"ok","offers":[)";
  for (size_t i = 0; i < kOffers; ++i)
    body += (i ? "," : "") + std::string(R"({"id":")") + std::to_string(i) + R"(","points":5})";
  body += "]}";
  constexpr double kStamp = 2.0e9;
  std::atomic<bool> arrived{false}, done{false};
  // A forced fetch reads the clock once: when its answer arrives (on the
  // decode thread, for an answer this large).
  ZVClock::setSource([&] {
    arrived = true;
    return kStamp;
  });
  manager()->forceFetchOffersWithLocale(ZVLocale("en_US"), {});
  std::thread answerer([&] {
    transport->answer(200, body);
    // The delivery is queued once the state is written.
    const auto deadline = std::chrono::steady_clock::now() + 30s;
    while (ZVMainQueue::shared()->pendingCount() == 0 &&
           std::chrono::steady_clock::now() < deadline)
      std::this_thread::yield();
    done = true;
  });
  while (!arrived && !done) std::this_thread::yield();
  size_t reads = 0, mismatches = 0;
  while (!done) {
    const double stamp = manager()->lastRefreshTime();
    const size_t offers = manager()->offers()->size();
    ++reads;
    if (stamp == kStamp && offers != kOffers) ++mismatches;
  }
  answerer.join();
  EXPECT_EQ(mismatches, 0u) << "out of " << reads << " reads";
  EXPECT_EQ(manager()->lastRefreshTime(), kStamp);
  EXPECT_EQ(manager()->offers()->size(), kOffers);
}

// A change of user empties the state at once; an offers answer still in
// flight would fill the cache again, as the contract allows, unless the host
// cancels first.
TEST_F(LifetimesTest, CancelAllBeforeClearUserStateKeepsTheNextUserClean) {
  seedState(5.0);  // long stale: the fetch goes out
  manager()->fetchOffersWithCompletionHandler({});
  ASSERT_EQ(transport->held(), 1u);
  Zorvane::cancelAllOperations();
  ZVNotificationCenter::defaultCenter()->postNotificationName(
      ZV_USER_MANAGER_USER_DID_CHANGE_NOTIFICATION, nullptr);
  transport->answer(200, kGoodAnswer);
  ZVMainQueue::shared()->drain();
  EXPECT_TRUE(manager()->offers()->empty() && manager()->orders()->empty());
  EXPECT_EQ(manager()->lastRefreshTime(), 0.0);
  // The next user's first fetch goes to the service.
  manager()->fetchOffersWithCompletionHandler({});
  EXPECT_EQ(transport->held(), 1u);
}

// The SDK's threads in this process, by the names it gives them.
size_t sdkThreads() {
  size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream comm(entry.path() / "comm");
    std::string name;
    std::getline(comm, name);
    count += name.starts_with("zv-");
  }
  return count;
}

// Whether the SDK runs `expected` threads within a second (a joined thread
// leaves /proc a moment after the join returns).
bool threadsBecome(size_t expected) {
  return drainUntil([&] { return sdkThreads() == expected; }, 1s);
}

// Shutdown joins the SDK's threads, also with a request in flight, and leaves
// the SDK ready to work again; called from inside a handler, it returns.
TEST(ShutdownTest, JoinsTheThreadsAndTheSDKWorksAgain) {
  ServiceServer server;
  Zorvane::shutdown();  // no thread of the SDK's from earlier tests
  EXPECT_TRUE(threadsBecome(0)) << sdkThreads();

  ZVMainQueue::shared()->startDedicatedThread();
  server.enqueue({.body = R"({"status":"ok","orders":[]})", .delay = 30s});
  Completion slow;
  ZVRewardsManager::instance()->fetchOrdersWithCompletionHandler(slow.handler());
  ASSERT_TRUE(server.waitForRequests(1));
  EXPECT_TRUE(threadsBecome(2)) << sdkThreads();  // the I/O thread and the dedicated one
  Zorvane::shutdown();
  EXPECT_TRUE(threadsBecome(0)) << sdkThreads();
  EXPECT_EQ(ZVGenericRequestManager::instance()->requestsInFlight(), 0u);

  EXPECT_FALSE(run("fetchOrders")->error);

  ZVMainQueue::shared()->startDedicatedThread();
  std::atomic<bool> returned{false};
  ZVRewardsManager::instance()->fetchOrdersWithCompletionHandler([&](ZVOrderArrayPtr, ZVErrorPtr) {
    Zorvane::shutdown();
    returned = true;
  });
  EXPECT_TRUE(drainUntil([&] { return returned.load(); }));
  Zorvane::shutdown();
  EXPECT_TRUE(threadsBecome(0)) << sdkThreads();
  EXPECT_EQ(slow.calls.load(), 0);
}

}  // namespace
