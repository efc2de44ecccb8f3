// Inside the SDK: long work on a background thread (decoding a large answer,
// freeing a catalogue, reading a large answer) gives its CPU up now and
// then, so that the threads a host waits on (the I/O thread, the host's own)
// run soon after they wake even when every thread shares one CPU, without
// lowering the work's priority (niced, it starves on a busy machine). The
// kernel may pass over a thread that woke because it ran just before: a
// background thread that never yields then keeps the CPU until the next
// scheduler tick, up to 4 ms at 250 Hz.
#pragma once

#include <ZorvaneCoreKit/ZVExport.h>

#include <atomic>

namespace zv_detail {

/// From now on, `yieldPoint` on this thread lets other runnable threads have
/// the CPU once this thread has worked for about a quarter of a millisecond
/// since it last did. For the SDK's background threads (`ZVWorker`, the
/// transport's bulk lane).
ZV_CORE_EXPORT void yieldFromHere() noexcept;

/// Whether this thread yields: a loop asks once, and calls `yieldPoint`
/// between its units only when it does.
ZV_CORE_EXPORT bool yieldingHere() noexcept;

/// Runs this thread under `policy` (SCHED_OTHER or SCHED_BATCH), at its
/// niceness, with a 20 ms time slice where the kernel takes one (Linux 6.12
/// and later; older kernels keep their own). The scheduler lets a thread
/// that wakes preempt the running one only when the woken one's slice is
/// the shorter: a thread with the default slice may then take the CPU from
/// this one instead of waiting for its slice to end (up to 2 ms measured, on
/// a CPU shared with the decode of a large answer). For the threads that
/// do long work nobody waits on by the millisecond: decoding, freeing,
/// reading large answers.
void runAsBackground(int policy) noexcept;

/// Called between units of long work (an object parsed, a record built or
/// freed, a piece of a large answer read) on a thread that yields: a few
/// nanoseconds, and a `sched_yield` at most every quarter millisecond.
ZV_CORE_EXPORT void yieldPoint() noexcept;

/// While one is open on a thread that yields, every object that thread
/// destroys (`ZVObject`'s destructor) is a yield point, unless `paused` is
/// set: for the teardown of a large result, thousands of records in one
/// release, which stops yielding while other objects wait for its thread.
class ZVYieldingTeardown {
 public:
  explicit ZVYieldingTeardown(const std::atomic<bool>& paused) noexcept;
  ~ZVYieldingTeardown();
  ZVYieldingTeardown(const ZVYieldingTeardown&) = delete;
  ZVYieldingTeardown& operator=(const ZVYieldingTeardown&) = delete;

 private:
  const std::atomic<bool>* previous_;
};

/// Teardowns open, on any thread; read by `teardownPoint`.
extern std::atomic<int> gYieldingTeardowns;

/// `teardownPoint`'s slow path: this thread's open teardown, if any.
void teardownYield() noexcept;

/// `ZVObject`'s destructor: with no teardown open, one relaxed load (objects
/// die by the thousand on every thread, most of them on no yielding thread).
inline void teardownPoint() noexcept {
  if (gYieldingTeardowns.load(std::memory_order_relaxed) != 0) teardownYield();
}

}  // namespace zv_detail
