#include "runtime/ZVLifecycle.h"

#include <curl/curl.h>
#include <simdjson.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>

#include <ZorvaneCoreKit/ZVClock.h>
#include <ZorvaneCoreKit/ZVLogger.h>
#include <ZorvaneCoreKit/ZVMainQueue.h>
#include <ZorvaneCoreKit/Zorvane.h>

#include "http/ZVGenericRequestManager.h"
#include "runtime/ZVHostCode.h"
#include "runtime/ZVOperation.h"
#include "runtime/ZVReclaimer.h"

extern "C" {
extern void* __dso_handle;  // this library's handle (Itanium C++ ABI)
int __cxa_atexit(void (*function)(void*), void* argument, void* dso);
}

namespace {

// How long the exit waits for a handler under way on the dedicated thread.
constexpr std::chrono::milliseconds kExitPatience{1000};

void onExit(void*) {
  ZVLifecycle::onProcessExit();
}

}  // namespace

void zv_detail::armExitHook() {
  static std::once_flag once;
  std::call_once(once, [] {
    // Exit handlers run in the reverse order of their registration. The
    // libraries the SDK's threads use register theirs on first use: OpenSSL
    // (through libcurl's global init) cleans up at exit, and simdjson's
    // kernel objects are function-local statics. Using both first puts our
    // handler after theirs in the list, so it runs before they are torn down.
    curl_global_init(CURL_GLOBAL_DEFAULT);
    (void)simdjson::get_active_implementation()->name();
    // Tied to this library by its handle, as atexit does when it is not
    // interposed (a sanitizer's runtime takes atexit over and drops the
    // handle): it runs at an unload too, which Zorvane::shutdown() must
    // precede (the loader's lock is held then, so joining a thread could
    // deadlock), and finds nothing left to stop.
    __cxa_atexit(onExit, nullptr, &__dso_handle);
  });
}

void ZVLifecycle::onProcessExit() {
  // The dedicated thread first, so that no handler starts while the exit
  // destroys the host's statics; then the transport's I/O threads, joined, so
  // that it builds no record while the libraries' statics go.
  ZVMainQueue::shared()->stopForExit(kExitPatience);
  ZVGenericRequestManager::instance()->closeTransport(false);
  // Last, as the threads above hand it what they free.
  zv_detail::stopReclaimer(false);
}

void ZVLifecycle::shutdown() {
  // No lock is held throughout: a handler that this call waits for may call
  // shutdown too. Two shutdowns at once both finish; operations stay refused
  // until the last one ends.
  zv_detail::setOperationsClosed(true);
  zv_detail::cancelAllOperations();
  // Exchanges in flight fail with "shut down"; their operations are
  // cancelled, so nothing comes of them.
  ZVGenericRequestManager::instance()->closeTransport(true);
  ZVMainQueue* queue = ZVMainQueue::shared();
  queue->stopDedicatedThread();
  queue->discardForShutdown();
  // What the SDK's threads and the discarded tasks let go of is freed by now,
  // so that the libraries may be unloaded after shutdown.
  zv_detail::stopReclaimer(true);
  // Host code the SDK holds: after shutdown, none of it is called again.
  Zorvane::setHostExceptionHandler(nullptr);
  ZVLogger::instance()->setSink(nullptr);
  ZVClock::setSource(nullptr);
  zv_detail::setOperationsClosed(false);
}

void Zorvane::cancelAllOperations() {
  zv_detail::cancelAllOperations();
}

void Zorvane::shutdown() {
  // It joins threads that may be waiting for the sink's lock, held here.
  if (zv_detail::insideLogSink()) {
    std::fputs("ZorvaneRewardsKit: Zorvane::shutdown() called from inside the log sink: ignored\n",
               stderr);
    return;
  }
  ZVLifecycle::shutdown();
}
