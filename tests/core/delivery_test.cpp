// How the SDK reaches the host's code: the main queue that runs deliveries,
// and the notification center that announces them.
#include <ZorvaneCoreKit/ZVMainQueue.h>
#include <ZorvaneCoreKit/ZVNotificationCenter.h>
#include <ZorvaneCoreKit/Zorvane.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <pthread.h>

#include "runtime/ZVReclaimer.h"

namespace {

using namespace std::chrono_literals;

TEST(MainQueueTest, DrainRunsQueuedTasksInOrderNeverInlineAndSurvivesThrowingTasks) {
  ZVMainQueue queue;
  std::vector<int> order;
  queue.async([&] { order.push_back(1); });
  queue.async([] { throw std::runtime_error("task failure"); });
  queue.async([&] { order.push_back(2); });
  EXPECT_TRUE(order.empty());
  EXPECT_EQ(queue.drain(), 3u);
  EXPECT_EQ(order, (std::vector<int>{1, 2}));

  // A drain runs only what was queued before it started.
  int inner = 0;
  queue.async([&] { queue.async([&] { ++inner; }); });
  EXPECT_EQ(queue.drain(), 1u);
  EXPECT_EQ(inner, 0);
  EXPECT_EQ(queue.pendingCount(), 1u);
}

TEST(MainQueueTest, RunUntilStopsWhenDoneOrAtTimeout) {
  ZVMainQueue queue;
  EXPECT_FALSE(queue.runUntil([] { return false; }, 30ms));
  EXPECT_TRUE(queue.runUntil([] { return true; }, 0ms));

  // A task queued once the loop has looked and found nothing to do wakes it.
  std::atomic<bool> looked{false}, done{false};
  std::thread producer([&] {
    while (!looked) std::this_thread::yield();
    queue.async([&] { done = true; });
  });
  EXPECT_TRUE(queue.runUntil(
      [&] {
        looked = true;
        return done.load();
      },
      10s));
  producer.join();
}

TEST(MainQueueTest, TasksFromManyThreadsRunExactlyOnceAndNeverOverlap) {
  ZVMainQueue queue;
  constexpr int kThreads = 4, kPerThread = 500;
  std::vector<std::atomic<int>> runs(kThreads * kPerThread);
  std::atomic<int> inFlight{0}, overlaps{0}, total{0};
  std::vector<std::thread> producers;
  for (int t = 0; t < kThreads; ++t) {
    producers.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) {
        queue.async([&, id = t * kPerThread + i] {
          if (inFlight.fetch_add(1) != 0) overlaps.fetch_add(1);
          runs[id].fetch_add(1);
          inFlight.fetch_sub(1);
          total.fetch_add(1);
        });
      }
    });
  }
  EXPECT_TRUE(queue.runUntil([&] { return total.load() == kThreads * kPerThread; }, 30s));
  for (auto& p : producers) p.join();
  EXPECT_EQ(overlaps.load(), 0);
  for (auto& r : runs) ASSERT_EQ(r.load(), 1);
}

TEST(MainQueueTest, DedicatedThreadStartsStopsAndKeepsUnrunTasks) {
  ZVMainQueue queue;
  queue.startDedicatedThread();
  queue.startDedicatedThread();  // idempotent
  std::atomic<bool> ran{false};
  std::thread::id runner;
  queue.async([&] {
    runner = std::this_thread::get_id();
    ran = true;
  });
  EXPECT_TRUE(queue.runUntil([&] { return ran.load(); }, 10s));
  EXPECT_NE(runner, std::this_thread::get_id());
  EXPECT_EQ(queue.drain(), 0u);  // the thread holds the queue

  // Stopped, the queue is this thread's again.
  queue.stopDedicatedThread();
  int later = 0;
  queue.async([&] { ++later; });
  EXPECT_EQ(queue.drain(), 1u);
  EXPECT_EQ(later, 1);

  // A task may stop its own thread; a later start picks the queue up again.
  queue.async([&] { queue.stopDedicatedThread(); });
  queue.startDedicatedThread();
  EXPECT_TRUE(queue.runUntil([&] { return queue.pendingCount() == 0; }, 10s));
  queue.startDedicatedThread();
  std::atomic<bool> after{false};
  queue.async([&] { after = true; });
  EXPECT_TRUE(queue.runUntil([&] { return after.load(); }, 10s));
}

// A loop that sleeps is woken once per task, and cannot run the queue from
// inside the wake-up (it may be inside the call that started an operation).
// (Removing the handler: zvr_shutdown's check in capi/tests/misuse_test.c.)
TEST(MainQueueTest, WakeUpHandlerIsToldOfEachTaskAndCannotDrainInline) {
  ZVMainQueue queue;
  int wakeUps = 0;
  size_t ranInside = 0;
  queue.setWakeUpHandler([&] {
    ++wakeUps;
    ranInside += queue.drain();
    ranInside += queue.runUntil([] { return true; }, 0ms) ? 1 : 0;
    throw std::runtime_error("the loop is gone");  // reported; the task stays queued
  });
  int ran = 0;
  for (int i = 0; i < 3; ++i) queue.async([&] { ++ran; });
  EXPECT_EQ(wakeUps, 3);
  EXPECT_EQ(ranInside, 0u);
  EXPECT_EQ(ran, 0);
  EXPECT_EQ(queue.drain(), 3u);
}

TEST(MainQueueTest, ExecutorGetsEveryTaskInOrderThenTheQueueTakesOver) {
  ZVMainQueue queue;
  std::vector<int> order;
  queue.async([&] { order.push_back(1); });  // queued before the executor: handed over first
  std::vector<ZVMainQueue::Task> loop;
  queue.setExecutor([&](ZVMainQueue::Task task) { loop.push_back(std::move(task)); });
  EXPECT_EQ(queue.pendingCount(), 0u);
  queue.async([&] { order.push_back(2); });
  EXPECT_TRUE(order.empty());  // never inline
  for (auto& task : loop) task();
  EXPECT_EQ(order, (std::vector<int>{1, 2}));

  // An executor that throws is reported; the SDK goes on.
  std::vector<std::string> reported;
  Zorvane::setHostExceptionHandler(
      [&](std::string_view where, std::string_view) { reported.emplace_back(where); });
  queue.setExecutor([](ZVMainQueue::Task) { throw std::runtime_error("full"); });
  queue.async([&] { order.push_back(3); });
  Zorvane::setHostExceptionHandler({});
  EXPECT_EQ(reported, (std::vector<std::string>{"the main queue's executor"}));

  queue.setExecutor({});
  queue.async([&] { order.push_back(4); });
  EXPECT_EQ(queue.drain(), 1u);
  EXPECT_EQ(order, (std::vector<int>{1, 2, 4}));
}

// A host frees what its wake-up handler or executor captured once the call
// that replaced it returns (the sleeping loop's destructor): a call under
// way on another thread is waited for, and one on the replacing thread
// (a hook that replaces itself) is not.
TEST(MainQueueTest, ReplacingAHookWaitsForItsCallsOnOtherThreads) {
  struct Case {
    const char* name;
    void (*install)(ZVMainQueue&, std::function<void()> body);
    void (*remove)(ZVMainQueue&);
  };
  const Case cases[] = {
      {"wake-up handler",
       [](ZVMainQueue& q, std::function<void()> body) { q.setWakeUpHandler(body); },
       [](ZVMainQueue& q) { q.setWakeUpHandler({}); }},
      {"executor",
       [](ZVMainQueue& q, std::function<void()> body) {
         q.setExecutor([body](ZVMainQueue::Task) { body(); });
       },
       [](ZVMainQueue& q) { q.setExecutor({}); }},
      {"shutdown", [](ZVMainQueue& q, std::function<void()> body) { q.setWakeUpHandler(body); },
       [](ZVMainQueue&) { Zorvane::shutdown(); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ZVMainQueue& queue = *ZVMainQueue::shared();
    std::atomic<bool> entered{false}, finished{false};
    c.install(queue, [&] {
      entered = true;
      std::this_thread::sleep_for(200ms);
      finished = true;
    });
    std::thread producer([&] { queue.async([] {}); });
    while (!entered) std::this_thread::yield();
    c.remove(queue);
    EXPECT_TRUE(finished);
    producer.join();
    queue.drain();

    int calls = 0;
    c.install(queue, [&] {
      ++calls;
      c.remove(queue);
    });
    queue.async([] {});
    queue.async([] {});
    EXPECT_EQ(calls, 1);
    queue.drain();
  }
}

// A process whose busy threads leave the reclaimer short of CPU must not
// grow without end: past its backlog, the thread that lets a result go
// frees it itself. Small lists must not wait behind a large one.
TEST(ReclaimerTest, PastItsBacklogTheReleasingThreadFreesItself) {
  using zv_detail::kMaxReclaimBacklog;
  std::promise<void> unblock;
  std::shared_future<void> unblocked = unblock.get_future().share();
  // Not null (a null pointer is freed at once); never deleted.
  static const int kObject = 0;
  // Blocks the thread that frees an object of `weight` until `unblock`.
  const auto block = [&](size_t weight) {
    std::atomic<bool> blocking{false};
    // The future by value: the test may end before the teardown returns.
    zv_detail::reclaim(std::shared_ptr<const void>(&kObject,
                                                   [&blocking, unblocked](const void*) {
                                                     blocking = true;
                                                     unblocked.wait();
                                                   }),
                       weight);
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (!blocking && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
    return blocking.load();
  };
  ASSERT_TRUE(block(kMaxReclaimBacklog * 2)) << "a large list's teardown";
  ASSERT_TRUE(block(1)) << "a small list, freed while the large one is";

  // The stuck items are being freed: they no longer count, whatever they weigh.
  // Where each is freed: at once on this thread (""), by `helpReclaimer` on
  // this thread ("help"), or on the named reclaimer thread.
  const struct {
    const char* name;
    size_t weight;
    const char* freedOn;
  } cases[] = {
      {"nothing waits", 1, "help"},
      {"heavier than the bound", kMaxReclaimBacklog + 1, "zv-reclaim-big"},
      {"a second such one", kMaxReclaimBacklog + 1, ""},
      {"heavier than the room left", kMaxReclaimBacklog, ""},
      {"fits", kMaxReclaimBacklog / 2 + 100, "help"},
      {"fills the backlog exactly", kMaxReclaimBacklog / 2 - 101, "zv-reclaim"},
      {"one past it", 1, ""},
  };
  char freedOn[std::size(cases)][16] = {};
  std::atomic<size_t> freed{0};
  for (size_t i = 0; i < std::size(cases); ++i) {
    const auto recordThread = [&, i](const void*) {
      pthread_getname_np(pthread_self(), freedOn[i], sizeof freedOn[i]);
      ++freed;
    };
    const size_t before = freed;
    zv_detail::reclaim(std::shared_ptr<const void>(&kObject, recordThread), cases[i].weight);
    EXPECT_EQ(freed - before, cases[i].freedOn[0] == '\0' ? 1u : 0u) << cases[i].name;
  }
  // More than half the bound waits: a thread that helps frees the oldest
  // until half or less does, and leaves the rest to the reclaimer.
  zv_detail::helpReclaimer();
  char here[16] = {};
  pthread_getname_np(pthread_self(), here, sizeof here);
  for (size_t i = 0; i < std::size(cases); ++i) {
    if (std::string_view(cases[i].freedOn) == "help") {
      EXPECT_STREQ(freedOn[i], here) << cases[i].name;
    }
  }
  unblock.set_value();
  const auto deadline = std::chrono::steady_clock::now() + 10s;
  while (freed < std::size(cases) && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(1ms);
  ASSERT_EQ(freed, std::size(cases));
  for (size_t i = 0; i < std::size(cases); ++i) {
    if (std::string_view(cases[i].freedOn).starts_with("zv-")) {
      EXPECT_STREQ(freedOn[i], cases[i].freedOn) << cases[i].name;
    }
  }
}

struct Sender : ZVObject {};

TEST(NotificationCenterTest, FiltersByNameAndObject) {
  Sender a, b;
  struct Case {
    const char* observedName;
    const ZVObject* observedObject;
    const char* postedName;
    const ZVObject* postedObject;
    bool delivered;
  };
  const Case cases[] = {
      {"n", nullptr, "n", &a, true}, {"n", nullptr, "m", &a, false}, {"", nullptr, "m", &b, true},
      {"n", &a, "n", &a, true},      {"n", &a, "n", nullptr, false}, {"", &a, "any", &b, false},
  };
  for (const Case& c : cases) {
    ZVNotificationCenter center;
    int calls = 0;
    center.addObserver(c.observedName, c.observedObject, [&](const ZVNotification&) { ++calls; });
    center.postNotificationName(c.postedName, c.postedObject);
    EXPECT_EQ(calls, c.delivered ? 1 : 0)
        << "observed '" << c.observedName << "' posted '" << c.postedName << "'";
  }
}

// Observers are called in registration order, and may change the list from
// their callback; removal goes by token or by owner.
TEST(NotificationCenterTest, ObserversMayPostAddAndRemoveFromTheirCallback) {
  ZVNotificationCenter center;
  std::vector<std::string> seen;
  ZVObserverToken self = 0, victim = 0;
  int owner = 0;
  center.addObserver("n", nullptr, [&](const ZVNotification&) {
    seen.push_back("poster");
    center.postNotificationName("nested", nullptr);
  });
  center.addObserver("nested", nullptr, [&](const ZVNotification&) { seen.push_back("nested"); });
  self = center.addObserver("n", nullptr, [&](const ZVNotification&) {
    seen.push_back("remover");
    center.removeObserver(self);
    center.removeObserver(victim);
  });
  victim =
      center.addObserver("n", nullptr, [&](const ZVNotification&) { seen.push_back("victim"); });
  center.addObserver(
      "", nullptr,
      [&](const ZVNotification& n) {
        if (n.name != "n") return;
        seen.push_back("adder");
        center.addObserver(
            "n", nullptr, [&](const ZVNotification&) { seen.push_back("added"); }, &owner);
      },
      &owner);

  center.postNotificationName("n", nullptr);
  EXPECT_EQ(seen, (std::vector<std::string>{"poster", "nested", "remover", "adder"}));
  seen.clear();
  center.postNotificationName("n", nullptr);
  EXPECT_EQ(seen, (std::vector<std::string>{"poster", "nested", "adder", "added"}));
  seen.clear();
  center.removeObserverForOwner(&owner);
  center.removeObserver(9999);  // unknown: ignored
  center.postNotificationName("n", nullptr);
  EXPECT_EQ(seen, (std::vector<std::string>{"poster", "nested"}));
}

TEST(NotificationCenterTest, ConcurrentPostAddRemove) {
  ZVNotificationCenter center;
  std::atomic<int> stable{0};
  center.addObserver("n", nullptr, [&](const ZVNotification&) { stable.fetch_add(1); });
  constexpr int kThreads = 4, kRounds = 300;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kRounds; ++i) {
        auto token = center.addObserver("n", nullptr, [](const ZVNotification&) {});
        center.postNotificationName("n", nullptr);
        center.removeObserver(token);
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(stable.load(), kThreads * kRounds);
}

// Each observer is guarded on its own: one that throws is reported, and the
// ones after it are still called.
TEST(NotificationCenterTest, AThrowingObserverDoesNotStopTheOthers) {
  ZVNotificationCenter center;
  std::vector<std::string> calls, reported;
  Zorvane::setHostExceptionHandler([&](std::string_view where, std::string_view what) {
    reported.push_back(std::string(where) + ": " + std::string(what));
  });
  center.addObserver("n", nullptr, [&](const ZVNotification&) {
    calls.push_back("first");
    throw std::runtime_error("boom");
  });
  center.addObserver("n", nullptr, [&](const ZVNotification&) {
    calls.push_back("second");
    throw 42;
  });
  center.addObserver("n", nullptr, [&](const ZVNotification&) { calls.push_back("third"); });
  center.postNotificationName("n", nullptr);
  Zorvane::setHostExceptionHandler({});
  EXPECT_EQ(calls, (std::vector<std::string>{"first", "second", "third"}));
  EXPECT_EQ(reported, (std::vector<std::string>{
                          "an observer of n: boom",
                          "an observer of n: an exception that is not a std::exception"}));
}

TEST(NotificationCenterTest, ObservationRemovesItselfAndWaitsForACallUnderWay) {
  ZVNotificationCenter center;
  std::atomic<int> calls{0};
  {
    ZVObservation observation =
        center.observe("n", nullptr, [&](const ZVNotification&) { ++calls; });
    ZVObservation moved = std::move(observation);
    center.postNotificationName("n", nullptr);
  }
  center.postNotificationName("n", nullptr);
  EXPECT_EQ(calls.load(), 1);

  // Destroyed on this thread while its callback runs on another: the
  // destruction returns only once the callback has.
  std::atomic<bool> entered{false}, finished{false};
  auto observation =
      std::make_unique<ZVObservation>(center.observe("slow", nullptr, [&](const ZVNotification&) {
        entered = true;
        std::this_thread::sleep_for(100ms);
        finished = true;
      }));
  std::thread poster([&] { center.postNotificationName("slow", nullptr); });
  while (!entered) std::this_thread::yield();
  observation.reset();
  EXPECT_TRUE(finished);
  poster.join();

  // From inside its own callback it does not wait for itself.
  std::unique_ptr<ZVObservation> self;
  self = std::make_unique<ZVObservation>(
      center.observe("self", nullptr, [&](const ZVNotification&) { self.reset(); }));
  center.postNotificationName("self", nullptr);
  EXPECT_EQ(self, nullptr);
}

}  // namespace
