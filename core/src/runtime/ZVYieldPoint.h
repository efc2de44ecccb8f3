// Inside the SDK: long work on a background thread (decoding a large answer)
// gives its CPU up now and then, so that the threads a host waits on (the
// I/O thread, the host's own) run soon after they wake even when every
// thread shares one CPU, without lowering the work's priority (niced, it
// starves on a busy machine).
#pragma once

#include <ZorvaneCoreKit/ZVExport.h>

namespace zv_detail {

/// While one is open on this thread, `yieldPoint` lets other runnable
/// threads have the CPU once this thread has worked for about a quarter of
/// a millisecond since it last did. Nests.
class ZV_CORE_EXPORT ZVYielding {
 public:
  ZVYielding() noexcept;
  ~ZVYielding();
  ZVYielding(const ZVYielding&) = delete;
  ZVYielding& operator=(const ZVYielding&) = delete;

 private:
  bool previous_;
};

/// Whether a `ZVYielding` is open on this thread: a loop asks once, and
/// calls `yieldPoint` between its units only when it is.
ZV_CORE_EXPORT bool yieldingHere() noexcept;

/// Called between units of long work (an object parsed, a record built)
/// where a `ZVYielding` is open: a few nanoseconds, and a `sched_yield` at
/// most every quarter millisecond.
ZV_CORE_EXPORT void yieldPoint() noexcept;

}  // namespace zv_detail
