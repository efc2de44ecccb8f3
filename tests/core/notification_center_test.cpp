#include <ZorvaneCoreKit/ZVNotificationCenter.h>

#include <atomic>
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

}  // namespace
