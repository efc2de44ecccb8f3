#include "runtime/ZVYieldPoint.h"

#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>

namespace zv_detail {
namespace {

using Clock = std::chrono::steady_clock;

// Long enough that the yields cost nothing to speak of (one system call, a
// microsecond or less when no other thread waits), short enough that a
// thread that woke waits less than a small request's round trip.
constexpr auto kWorkBetweenYields = std::chrono::microseconds(250);
// The clock is read once every this many points: a point is an object or a
// record, a microsecond of work or less.
constexpr unsigned kPointsBetweenChecks = 32;

thread_local bool tYielding = false;
thread_local unsigned tPoints = 0;
thread_local Clock::time_point tLastYield;

// The kernel's struct sched_attr (its first version): <linux/sched/types.h>
// clashes with <sched.h>.
struct SchedAttr {
  uint32_t size;
  uint32_t sched_policy;
  uint64_t sched_flags;
  int32_t sched_nice;
  uint32_t sched_priority;
  uint64_t sched_runtime;
  uint64_t sched_deadline;
  uint64_t sched_period;
};

}  // namespace

void runAsBackground(int policy) noexcept {
  SchedAttr attr{};
  attr.size = sizeof attr;
  attr.sched_policy = static_cast<uint32_t>(policy);
  // The attributes replace the niceness too: keep the thread's own.
  attr.sched_nice = getpriority(PRIO_PROCESS, static_cast<id_t>(gettid()));
  attr.sched_runtime = 20000000;  // ns
  // No wrapper in glibc 2.36. Refused (a sandbox's filter, say): the policy alone.
  if (syscall(SYS_sched_setattr, 0, &attr, 0) != 0) {
    const sched_param none{};
    sched_setscheduler(0, policy, &none);
  }
}

void yieldFromHere() noexcept {
  tYielding = true;
  tLastYield = Clock::now();
}

bool yieldingHere() noexcept {
  return tYielding;
}

void yieldPoint() noexcept {
  if (!tYielding || ++tPoints % kPointsBetweenChecks != 0) return;
  const Clock::time_point now = Clock::now();
  if (now - tLastYield < kWorkBetweenYields) return;
  sched_yield();
  tLastYield = Clock::now();
}

std::atomic<int> gYieldingTeardowns{0};

namespace {
// The pause of the teardown open on this thread.
thread_local const std::atomic<bool>* tTeardownPaused = nullptr;
}  // namespace

void teardownYield() noexcept {
  const std::atomic<bool>* paused = tTeardownPaused;
  if (paused != nullptr && !paused->load(std::memory_order_relaxed)) yieldPoint();
}

ZVYieldingTeardown::ZVYieldingTeardown(const std::atomic<bool>& paused) noexcept
    : previous_(tTeardownPaused) {
  tTeardownPaused = &paused;
  gYieldingTeardowns.fetch_add(1, std::memory_order_relaxed);
}

ZVYieldingTeardown::~ZVYieldingTeardown() {
  gYieldingTeardowns.fetch_sub(1, std::memory_order_relaxed);
  tTeardownPaused = previous_;
}

}  // namespace zv_detail
