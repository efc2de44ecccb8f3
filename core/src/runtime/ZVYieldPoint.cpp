#include "runtime/ZVYieldPoint.h"

#include <sched.h>

#include <chrono>

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

}  // namespace

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

}  // namespace zv_detail
