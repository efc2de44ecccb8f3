// Inside the SDK: the end of the SDK's life, by `Zorvane::shutdown()` or by
// the process's exit.
#pragma once

#include <ZorvaneCoreKit/ZVExport.h>

namespace zv_detail {

/// Makes sure, once per process, that the SDK's threads stop at the start of
/// the process's exit, before the exit sequence destroys what they use. Call
/// it before the SDK starts a thread; cheap after the first call.
ZV_CORE_EXPORT void armExitHook();

}  // namespace zv_detail

/// Friend of the singletons whose ends are not public.
class ZVLifecycle {
 public:
  static void shutdown();
  static void onProcessExit();
};
