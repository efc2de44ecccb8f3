// Load: many threads on every operation at once, and a keep-alive soak that
// must leave no descriptor or thread behind. (zvrewards_test checks that the
// sandbox never lets concurrent orders spend more points than the user has.)
#include <algorithm>
#include <filesystem>
#include <set>
#include <thread>

#include "ZVRewardsFixture.h"

using namespace zvtest;
using namespace std::chrono_literals;

namespace {

// Open descriptors and threads of this process.
std::pair<size_t, size_t> resourcesNow() {
  const auto entries = [](const char* directory) {
    const std::filesystem::directory_iterator list(directory);
    return static_cast<size_t>(std::distance(begin(list), end(list)));
  };
  return {entries("/proc/self/fd"), entries("/proc/self/task")};
}

TEST(LoadTest, ThreadsCallEveryOperationWhileUserStateIsClearedAndEachHandlerRunsOnce) {
  // Every fifth request is refused by the service.
  std::atomic<size_t> served{0};
  ServiceServer server([&](const LoopbackRequest& request) {
    return ++served % 5 == 0 ? LoopbackResponse{.body = R"({"status":"error","message":"busy"})"}
                             : serviceAnswer(request);
  });
  ZVRewardsManager* manager = ZVRewardsManager::instance();
  manager->setRefreshInterval(0.05);  // a mix of cache hits and requests
  const std::vector<Operation> operations = allOperationsAndRefusals();

  constexpr size_t kThreads = 6;
  const size_t perThread = envOr("ZV_LOAD_CALLS", 60);
  Completions completions(kThreads * perThread);
  std::ranges::generate(completions, std::make_unique<Completion>);
  std::atomic<bool> running{true};
  std::thread clearer([&] {
    while (running) {
      manager->clearUserState(nullptr);
      EXPECT_TRUE(manager->offers() && manager->orders());
      std::this_thread::sleep_for(1ms);  // pacing only: clears keep coming all along
    }
  });
  std::vector<std::thread> callers;
  for (size_t t = 0; t < kThreads; ++t)
    callers.emplace_back([&, t] {
      for (size_t i = 0; i < perThread; ++i)
        operations[(t + i) % operations.size()].start(manager,
                                                      {completions[t * perThread + i]->handler()});
    });
  // The test thread is the host's main loop meanwhile.
  ASSERT_TRUE(waitForAll(completions, 60s));
  for (auto& caller : callers) caller.join();
  running = false;
  clearer.join();
  ASSERT_TRUE(waitForAll(completions, 60s));
  for (size_t i = 0; i < completions.size(); ++i) {
    EXPECT_EQ(completions[i]->calls.load(), 1) << i;
    EXPECT_NE(completions[i]->result != nullptr, completions[i]->error != nullptr) << i;
  }
  manager->setRefreshInterval(ZVBaseManager::kDefaultRefreshInterval);
}

TEST(LoadTest, KeepAliveSoakLeavesNoDescriptorOrThreadBehind) {
  ServiceServer server([](const LoopbackRequest&) {
    return LoopbackResponse{.body = R"({"status":"ok","orders":[{"id":"1","status":"approved"}]})"};
  });
  ZVRewardsManager* manager = ZVRewardsManager::instance();

  // The baseline: one exchange has run (the server's workers exist), then the
  // transport was dropped with its connections, and the server's side of
  // them closed (nothing changed for 20 looks in a row).
  Outcome<const ZVOrderArray> warmUp;
  manager->fetchOrdersWithCompletionHandler(warmUp.handler());
  ASSERT_TRUE(warmUp.wait());
  ZVGenericRequestManager::instance()->setTransport(nullptr);
  auto before = resourcesNow();
  for (int settled = 0; settled < 20; before = resourcesNow()) {
    std::this_thread::sleep_for(10ms);
    settled = resourcesNow() == before ? settled + 1 : 0;
  }

  const size_t total = envOr("ZV_SOAK_REQUESTS", 20000);
  size_t sent = 0, answered = 0, failed = 0;
  // Handlers run on the test thread (it drains the main queue), so plain
  // counters do; each answer sends the next, 16 in flight.
  std::function<void()> sendOne = [&] {
    ++sent;
    manager->fetchOrdersWithCompletionHandler([&](ZVOrderArrayPtr orders, ZVErrorPtr error) {
      ++answered;
      failed += !orders || error;
      if (sent < total) sendOne();
    });
  };
  for (size_t i = 0; i < std::min<size_t>(16, total); ++i) sendOne();
  ASSERT_TRUE(drainUntil([&] { return answered == total; }, std::chrono::minutes(30)));
  EXPECT_EQ(failed, 0u);
  EXPECT_EQ(server.requestCount(), total + 1);  // and the warm-up
  std::set<int> clientPorts;
  for (const LoopbackRequest& request : server.requests()) clientPorts.insert(request.remotePort);
  // Kept alive: hundreds of requests per connection on average (about one
  // connection per request in flight; a slow scheduler adds a few).
  EXPECT_GE(total / clientPorts.size(), 100u) << clientPorts.size() << " connections";

  // Dropping the transport closes its connections and ends its thread; the
  // server's side of each connection closes once it sees that.
  ZVGenericRequestManager::instance()->setTransport(nullptr);
  EXPECT_TRUE(drainUntil([&] { return resourcesNow() == before; }, 10s));
  EXPECT_EQ(resourcesNow(), before) << "descriptors, threads";
}

}  // namespace
