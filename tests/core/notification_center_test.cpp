#include <ZorvaneCoreKit/ZVNotificationCenter.h>
#include <ZorvaneCoreKit/Zorvane.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

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
      {"n", nullptr, "n", nullptr, true}, {"n", nullptr, "n", &a, true},
      {"n", nullptr, "m", &a, false},     {"", nullptr, "m", &b, true},
      {"n", &a, "n", &a, true},           {"n", &a, "n", &b, false},
      {"n", &a, "n", nullptr, false},     {"", &a, "any", &a, true},
      {"", &a, "any", &b, false},
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

TEST(NotificationCenterTest, CallsInRegistrationOrderAndRemovesByTokenAndOwner) {
  ZVNotificationCenter center;
  std::vector<int> seen;
  int owner = 0;
  center.addObserver(
      "n", nullptr, [&](const ZVNotification&) { seen.push_back(1); }, &owner);
  auto second = center.addObserver("n", nullptr, [&](const ZVNotification&) { seen.push_back(2); });
  center.addObserver(
      "", nullptr, [&](const ZVNotification&) { seen.push_back(3); }, &owner);
  center.postNotificationName("n", nullptr);
  EXPECT_EQ(seen, (std::vector<int>{1, 2, 3}));

  seen.clear();
  center.removeObserverForOwner(&owner);
  center.removeObserver(9999);  // unknown: ignored
  center.postNotificationName("n", nullptr);
  EXPECT_EQ(seen, (std::vector<int>{2}));

  seen.clear();
  center.removeObserver(second);
  center.postNotificationName("n", nullptr);
  EXPECT_TRUE(seen.empty());
}

TEST(NotificationCenterTest, ObserversMayPostAddAndRemoveFromTheirCallback) {
  ZVNotificationCenter center;
  std::vector<std::string> seen;
  ZVObserverToken self = 0, victim = 0;
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
  center.addObserver("n", nullptr, [&](const ZVNotification&) {
    seen.push_back("adder");
    center.addObserver("n", nullptr, [&](const ZVNotification&) { seen.push_back("added"); });
  });

  center.postNotificationName("n", nullptr);
  EXPECT_EQ(seen, (std::vector<std::string>{"poster", "nested", "remover", "adder"}));
  seen.clear();
  center.postNotificationName("n", nullptr);
  EXPECT_EQ(seen, (std::vector<std::string>{"poster", "nested", "adder", "added"}));
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
    EXPECT_FALSE(observation);
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
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
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
