// Load: many threads on every operation at once, a keep-alive soak that must
// leave no descriptor or thread behind, and concurrent orders that must never
// spend more points than the user has.
#include <ZVSandbox.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <thread>

#include "ZVRewardsFixture.h"

using namespace zvtest;
using namespace std::chrono_literals;

namespace {

size_t entriesIn(const char* directory) {
  size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(directory)) ++count;
  return count;
}

size_t envOr(const char* name, size_t fallback) {
  const char* value = std::getenv(name);
  return value && *value ? std::strtoull(value, nullptr, 10) : fallback;
}

struct Resources {
  size_t descriptors;
  size_t threads;
  bool operator==(const Resources&) const = default;
};

Resources resourcesNow() {
  return {entriesIn("/proc/self/fd"), entriesIn("/proc/self/task")};
}

TEST(LoadTest, ThreadsCallEveryOperationWhileUserStateIsClearedAndEachHandlerRunsOnce) {
  ZVLoopbackServer server;
  CloseConnectionsFirst closeFirst;
  // Every fifth request is refused by the service.
  std::atomic<size_t> served{0};
  server.setHandler([&](const LoopbackRequest& request) {
    return ++served % 5 == 0 ? LoopbackResponse{.body = R"({"status":"error","message":"busy"})"}
                             : serviceAnswer(request);
  });
  configureService(server.baseURL());
  ZVRewardsManager* manager = ZVRewardsManager::instance();
  manager->setRefreshInterval(0.05);  // a mix of cache hits and requests
  const std::vector<Operation> operations = allOperationsAndRefusals();

  constexpr size_t kThreads = 6;
  const size_t perThread = envOr("ZV_LOAD_CALLS", 60);
  Completions completions;
  for (size_t i = 0; i < kThreads * perThread; ++i)
    completions.push_back(std::make_unique<Completion>());

  std::atomic<bool> running{true};
  std::thread clearer([&] {
    while (running) {
      manager->clearUserState(nullptr);
      EXPECT_TRUE(manager->offers() && manager->orders());
      std::this_thread::sleep_for(1ms);
    }
  });
  std::vector<std::thread> callers;
  for (size_t t = 0; t < kThreads; ++t)
    callers.emplace_back([&, t] {
      for (size_t i = 0; i < perThread; ++i)
        operations[(t + i) % operations.size()].start(manager, *completions[t * perThread + i]);
    });
  // The test thread is the host's main loop meanwhile.
  ASSERT_TRUE(waitForAll(completions, 60s));
  for (auto& caller : callers) caller.join();
  running = false;
  clearer.join();
  ASSERT_TRUE(waitForAll(completions, 60s));

  for (size_t i = 0; i < completions.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(completions[i]->calls.load(), 1);
    EXPECT_NE(completions[i]->result != nullptr, completions[i]->error != nullptr);
  }
  manager->setRefreshInterval(ZVBaseManager::kDefaultRefreshInterval);
}

TEST(LoadTest, KeepAliveSoakLeavesNoDescriptorOrThreadBehind) {
  ZVLoopbackServer server;
  server.setHandler([](const LoopbackRequest&) {
    return LoopbackResponse{.body = R"({"status":"ok","orders":[{"id":"1","status":"approved"}]})"};
  });
  configureService(server.baseURL());

  // The baseline: one exchange has run (the server's workers exist), then the
  // transport was dropped with its connections, so the next request starts afresh.
  ZVGenericRequestManager* requests = ZVGenericRequestManager::instance();
  Outcome<const ZVOrderArray> warmUp;
  ZVRewardsManager::instance()->fetchOrdersWithCompletionHandler(warmUp.handler());
  ASSERT_TRUE(warmUp.wait());
  requests->setTransport(nullptr);
  Resources before = resourcesNow();
  for (int settled = 0; settled < 20; before = resourcesNow()) {
    std::this_thread::sleep_for(10ms);
    settled = resourcesNow() == before ? settled + 1 : 0;
  }

  const size_t total = envOr("ZV_SOAK_REQUESTS", 20000);
  constexpr size_t kWindow = 16;  // requests kept in flight
  size_t sent = 0;
  size_t answered = 0;
  size_t failed = 0;
  ZVRewardsManager* manager = ZVRewardsManager::instance();
  // Handlers run on the test thread (it drains the main queue), so plain counters do.
  std::function<void()> sendOne = [&] {
    ++sent;
    manager->fetchOrdersWithCompletionHandler([&](ZVOrderArrayPtr orders, ZVErrorPtr error) {
      ++answered;
      if (!orders || error) ++failed;
      if (sent < total) sendOne();
    });
  };
  const auto start = std::chrono::steady_clock::now();
  for (size_t i = 0; i < std::min(kWindow, total); ++i) sendOne();
  ASSERT_TRUE(drainUntil([&] { return answered == total; }, std::chrono::minutes(30)));
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_EQ(failed, 0u);
  EXPECT_EQ(server.requestCount(), total + 1);  // and the warm-up
  std::set<int> clientPorts;
  for (const LoopbackRequest& request : server.requests()) clientPorts.insert(request.remotePort);
  // Kept alive: hundreds of requests per connection on average (about one
  // connection per request in flight; a slow scheduler adds a few).
  EXPECT_GE(total / clientPorts.size(), 100u) << clientPorts.size() << " connections";
  std::printf("soak: %zu requests in %.1f s over %zu connections\n", total, seconds,
              clientPorts.size());

  // Dropping the transport closes its connections and ends its thread; the
  // server's side of each connection closes once it sees that.
  requests->setTransport(nullptr);
  EXPECT_TRUE(drainUntil([&] { return resourcesNow() == before; }, 10s));
  const Resources after = resourcesNow();
  EXPECT_EQ(after.descriptors, before.descriptors);
  EXPECT_EQ(after.threads, before.threads);
}

TEST(LoadTest, ConcurrentOrdersNeverSpendMorePointsThanTheUserHas) {
  ZVSandbox sandbox({.statePath = ":memory:",
                     .reset = true,
                     .certDir = "",
                     .appID = "app",
                     .accessToken = kSecretToken,
                     .faults = {}});
  CloseConnectionsFirst closeFirst;
  std::string problem;
  ASSERT_TRUE(sandbox.start(problem)) << problem;
  configureService(sandbox.serviceHost());

  // Offer 102 costs 400 points: at most 12 of 40 orders fit in 5000.
  constexpr int kOrders = 40;
  constexpr int64_t kCost = 400;
  Completions completions;
  std::mutex mutex;
  std::vector<int64_t> balances;  // guarded by mutex
  for (int i = 0; i < kOrders; ++i) completions.push_back(std::make_unique<Completion>());
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t)
    threads.emplace_back([&, t] {
      for (int i = t; i < kOrders; i += 8)
        ZVRewardsManager::instance()->placeOrder(
            ZVOrderRequest::initWithOfferID("102", 1),
            [&, i](std::shared_ptr<ZVOrder> order, ZVErrorPtr error) {
              if (order && order->user()) {
                std::lock_guard lock(mutex);
                balances.push_back(order->user()->availablePoints());
              }
              completions[i]->handler()(order, std::move(error));
            });
    });
  for (auto& thread : threads) thread.join();
  ASSERT_TRUE(waitForAll(completions, 60s));

  int64_t placed = 0;
  for (const auto& c : completions) {
    EXPECT_EQ(c->calls.load(), 1);
    placed += c->result ? 1 : 0;
    if (!c->result) {
      EXPECT_EQ(c->error->type(), ZVErrorTypeService);
    }
  }
  EXPECT_EQ(placed, 5000 / kCost);
  std::lock_guard lock(mutex);
  ASSERT_EQ(static_cast<int64_t>(balances.size()), placed);
  EXPECT_EQ(*std::ranges::min_element(balances), 5000 - placed * kCost);
  EXPECT_GE(*std::ranges::min_element(balances), 0);
}

// With retries on, the sandbox (which honours idempotency keys) under 20%
// injected faults stores each of 200 orders exactly once: the balance drops
// by exactly 200 orders' worth, and at least 99% of the calls succeed.
TEST(LoadTest, RetriedOrdersAgainstTheSandboxAreChargedOnceEach) {
  ZVSandboxOptions options{.statePath = ":memory:",
                           .reset = true,
                           .certDir = "",
                           .appID = "app",
                           .accessToken = kSecretToken,
                           .initialPoints = 100'000,
                           .faults = {}};
  options.faults.dropAfterCommitShare = 0.10;  // the order stored, its answer lost
  options.faults.dropShare = 0.05;             // the connection closed, nothing done
  options.faults.http503Share = 0.05;
  options.faults.retryAfterSeconds = 0;
  options.faults.seed = 11;
  ZVSandbox sandbox(options);
  CloseConnectionsFirst closeFirst;
  std::string problem;
  ASSERT_TRUE(sandbox.start(problem)) << problem;
  configureService(sandbox.serviceHost(), 60s);
  ZVConfiguration config = Zorvane::configuration();
  config.maxRequestsInFlight = 256;
  config.retry = {.maxAttempts = 10, .baseDelay = 5ms, .maxDelay = 50ms};
  Zorvane::configure(config);

  constexpr int kOrders = 200;
  constexpr int64_t kCost = 75;  // offer 104
  Completions completions;
  for (int i = 0; i < kOrders; ++i) {
    completions.push_back(std::make_unique<Completion>());
    ZVRewardsManager::instance()->placeOrder(ZVOrderRequest::initWithOfferID("104", 1),
                                             completions.back()->handler());
  }
  ASSERT_TRUE(waitForAll(completions, 120s));
  int placed = 0;
  for (const auto& c : completions) {
    EXPECT_EQ(c->calls.load(), 1);
    placed += c->error == nullptr;
  }
  EXPECT_GE(placed, kOrders * 99 / 100);

  // What the sandbox kept: one order per call, however many attempts each
  // took, and each charged once. (The fetch is retried through the faults too.)
  Outcome<const ZVOrderArray> orders;
  ZVRewardsManager::instance()->fetchOrdersWithCompletionHandler(orders.handler());
  ASSERT_TRUE(orders.wait());
  ASSERT_TRUE(orders.result) << orders.error->description();
  ASSERT_EQ(orders.result->size(), static_cast<size_t>(kOrders));
  const auto& newest = (*orders.result)[0];
  ASSERT_TRUE(newest->user());
  EXPECT_EQ(newest->user()->availablePoints(), 100'000 - kOrders * kCost);
}

}  // namespace
