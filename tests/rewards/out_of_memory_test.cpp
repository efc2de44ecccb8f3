// Memory running out while an answer becomes records still ends in exactly
// one completion-handler call and one notification. This binary replaces the
// global operator new so that a test can make one allocation throw
// std::bad_alloc: the Nth of the calling thread from now, or the first of a
// given size on any thread.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "ZVRewardsFixture.h"

using namespace zvtest;

namespace {

thread_local long countdown = -1;    // allocations of this thread before one fails; -1: none
std::atomic<size_t> failingSize{0};  // the first allocation of this size fails; 0: none

bool shouldFail(size_t size) {
  if (countdown >= 0 && countdown-- == 0) return true;
  size_t armed = failingSize.load(std::memory_order_relaxed);
  return armed != 0 && size == armed && failingSize.compare_exchange_strong(armed, 0);
}

void* allocate(size_t size) {
  return shouldFail(size) ? nullptr : std::malloc(size == 0 ? 1 : size);
}

void* allocateOrThrow(size_t size) {
  if (void* p = allocate(size)) return p;
  throw std::bad_alloc();
}

}  // namespace

// Every form that malloc serves, single and array, so that each allocation
// meets its pair of deallocation (the sanitizers check that they do); the
// aligned forms keep their own pairs.
#define ZV_REPLACE(result, name, params, call, ...)                                  \
  __attribute__((visibility("default"))) result operator name params __VA_ARGS__ {   \
    return call;                                                                     \
  }                                                                                  \
  __attribute__((visibility("default"))) result operator name[] params __VA_ARGS__ { \
    return call;                                                                     \
  }
ZV_REPLACE(void*, new, (size_t n), allocateOrThrow(n))
ZV_REPLACE(void*, new, (size_t n, const std::nothrow_t&), allocate(n), noexcept)
ZV_REPLACE(void, delete, (void* p), std::free(p), noexcept)
ZV_REPLACE(void, delete, (void* p, size_t), std::free(p), noexcept)
ZV_REPLACE(void, delete, (void* p, const std::nothrow_t&), std::free(p), noexcept)

namespace {

struct Answer {
  const char* kind;
  const char* body;
  bool ok = true;
};

// An answer of each kind that builds every record it can: options of
// options, orders with their user and address, and a refusal.
const Answer kAnswers[] = {
    {kKindFetchRewardOffers,
     R"({"status":"ok","offers":[{"id":"1","name":"Mug","options":[{"id":"2","options":[{}]}]},
         {"id":"a long identifier past the inline size"}]})"},
    {kKindFetchRewardOffers, R"({"status":"error","message":"nope"})", false},
    {kKindFetchRewardOrders,
     R"({"status":"ok","orders":[{"id":"7","user":{"id":"u"},"shipping_address":{"city":"X"}}]})"},
    {kKindPlaceOrder, R"({"status":"ok","order":{"id":"9","user":{"available_points":5}}})"},
    {kKindPlaceOrder, R"({"status":"error","order":{"base":["A",[1,{"b":2}]],"user_id":"42"}})",
     false},
    {kKindFetchSkillQuestion,
     R"({"status":"ok","challenge":{"skills_test_question":{"id":"q","question":"?"}}})"},
    {kKindAnswerSkillQuestion, R"({"status":"ok","challenge":{"id":"c","status":"passed"}})"},
};

// Fails, in turn, each allocation that routing an answer makes, from the
// copy of its body to the queueing of its delivery.
TEST(OutOfMemoryTest, EachFailedAllocationEndsInOneCallAndOneNotification) {
  ZVRewardsManager* manager = ZVRewardsManager::instance();
  for (const Answer& answer : kAnswers) {
    SCOPED_TRACE(answer.body);
    bool reachedEveryAllocation = false;
    for (long n = 0; !reachedEveryAllocation; ++n) {
      SCOPED_TRACE(n);
      manager->resetData();
      manager->setLastRefreshTime(1000.0);
      auto response =
          std::make_shared<ZVGenericResponse>(200, "https://127.0.0.1/x", dict(answer.body));
      NotificationLog notifications;
      Completion c;
      const ZVRewardsCall call = handlerFor(answer.kind, c);
      ZVRewardsRouting routing(*manager);
      const std::string kind = answer.kind;

      countdown = n;
      routing.requestKind(kind, response, nullptr, call);
      reachedEveryAllocation = countdown >= 0;
      countdown = -1;
      ZVMainQueue::shared()->drain();

      ASSERT_EQ(c.calls.load(), 1);
      ASSERT_NE(c.result == nullptr, c.error == nullptr);
      ASSERT_EQ(notifications.all().size(), answer.kind == kKindPlaceOrder && c.result ? 2u : 1u);
      if (reachedEveryAllocation) {  // nothing failed: the answer's own outcome
        EXPECT_EQ(c.result != nullptr, answer.ok);
        continue;
      }
      ASSERT_TRUE(c.error);
      EXPECT_EQ(c.error->code(), ZVErrorAnswerNotDecoded);
      EXPECT_EQ(c.error->type(), ZVErrorTypeInvalidAnswer);
      EXPECT_EQ(*c.error->message(),
                "answer from https://127.0.0.1/x could not be turned into records: out of memory");
      EXPECT_EQ(notifications.all()[0].name, ZV_REWARDS_MANAGER_REQUEST_DID_FAIL_NOTIFICATION);
      // A failure below the service leaves the stamp of the offers as it was.
      if (answer.ok) {
        EXPECT_EQ(manager->lastRefreshTime(), 1000.0);
      }
    }
  }
}

// The same through the real transport: the list of a large catalogue fails
// to allocate on the transport's thread, which used to swallow the
// exception and never call the handler.
class OutOfMemoryOverLoopbackTest : public RewardsTest {};

TEST_F(OutOfMemoryOverLoopbackTest, RecordsFailingOnTheTransportThreadFailTheFetchOnce) {
  constexpr size_t kOffers = 100'003;
  // Room for that many records.
  reconfigure([](ZVConfiguration& config) { config.maxResponseBytes = 16u << 20; });
  std::string body = R"({"status":"ok","offers":[{})";
  for (size_t i = 1; i < kOffers; ++i) body += ",{}";
  answer(body + "]}");

  Completion c;
  failingSize = kOffers * sizeof(std::shared_ptr<ZVOffer>);  // the list of records
  manager()->forceFetchOffersWithLocale(ZVLocale("en_US"), c.handler());
  ASSERT_TRUE(c.wait());
  EXPECT_EQ(failingSize.load(), 0u) << "the list was never allocated";
  failingSize = 0;
  ZVMainQueue::shared()->drain();

  EXPECT_EQ(c.calls.load(), 1);
  ASSERT_TRUE(c.error);
  EXPECT_EQ(c.error->code(), ZVErrorAnswerNotDecoded);
  EXPECT_EQ(notifications.count(ZV_REWARDS_MANAGER_REQUEST_DID_FAIL_NOTIFICATION), 1u);
  EXPECT_EQ(manager()->lastRefreshTime(), 0.0);
}

}  // namespace
