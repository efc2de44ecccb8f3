// Versions, result names, handle references, the main queue and the logger.
#include <chrono>
#include <string>

#include <ZorvaneCoreKit/ZVLogger.h>
#include <ZorvaneCoreKit/ZVMainQueue.h>
#include <ZorvaneRewardsKit/ZVRewardsConstants.h>

#include "Boundary.h"
#include "Callbacks.h"
#include "Lifetimes.h"

using namespace zvr;

namespace {
thread_local bool tInsideLogSink = false;
}  // namespace

bool zvr::insideLogSink() {
  return tInsideLogSink;
}

extern "C" {

uint32_t zvr_api_version(void) {
  return ZVR_API_VERSION;
}

double zvr_sdk_version_number(void) {
  return ZorvaneRewardsKitVersionNumber;
}

const char* zvr_sdk_version_string(void) {
  return reinterpret_cast<const char*>(ZorvaneRewardsKitVersionString);
}

const char* zvr_result_name(zvr_result result) {
  switch (result) {
    case ZVR_OK:
      return "ZVR_OK";
    case ZVR_E_NULL_HANDLE:
      return "ZVR_E_NULL_HANDLE";
    case ZVR_E_INVALID_HANDLE:
      return "ZVR_E_INVALID_HANDLE";
    case ZVR_E_WRONG_HANDLE_TYPE:
      return "ZVR_E_WRONG_HANDLE_TYPE";
    case ZVR_E_INVALID_ARGUMENT:
      return "ZVR_E_INVALID_ARGUMENT";
    case ZVR_E_UNSUPPORTED_STRUCT:
      return "ZVR_E_UNSUPPORTED_STRUCT";
    case ZVR_E_NOT_TEXT:
      return "ZVR_E_NOT_TEXT";
    case ZVR_E_OUT_OF_RANGE:
      return "ZVR_E_OUT_OF_RANGE";
    case ZVR_E_NO_VALUE:
      return "ZVR_E_NO_VALUE";
    case ZVR_E_BUSY:
      return "ZVR_E_BUSY";
    case ZVR_E_OUT_OF_MEMORY:
      return "ZVR_E_OUT_OF_MEMORY";
    case ZVR_E_TOO_MANY_HANDLES:
      return "ZVR_E_TOO_MANY_HANDLES";
    case ZVR_E_INTERNAL:
      return "ZVR_E_INTERNAL";
    default:
      return "ZVR_E_UNKNOWN";
  }
}

zvr_result zvr_retain(const void* handle) {
  return guarded([&]() -> zvr_result { return HandleTable::shared().retain(handle); });
}

zvr_result zvr_release(const void* handle) {
  return guarded([&]() -> zvr_result { return HandleTable::shared().release(handle); });
}

zvr_result zvr_handle_count(uint32_t* out) {
  if (out == nullptr) return ZVR_E_INVALID_ARGUMENT;
  *out = 0;
  return guarded([&]() -> zvr_result {
    *out = HandleTable::shared().liveCount();
    return ZVR_OK;
  });
}

// ---- Main queue ----------------------------------------------------------------

zvr_result zvr_main_queue_drain(uint32_t* outRan) {
  if (outRan) *outRan = 0;
  // Tasks log (the offers delivery); inside a sink that would deadlock. The
  // wake-up hook may be inside the call that started an operation.
  if (tInsideLogSink || insideWakeUp()) return ZVR_E_BUSY;
  return guarded([&]() -> zvr_result {
    const size_t ran = ZVMainQueue::shared()->drain();
    if (outRan) *outRan = static_cast<uint32_t>(ran);
    return ZVR_OK;
  });
}

zvr_result zvr_main_queue_run_until(zvr_predicate done, void* user, int64_t timeoutMs,
                                    int32_t* outDone) {
  if (outDone) *outDone = 0;
  if (tInsideLogSink || insideWakeUp()) return ZVR_E_BUSY;
  return guarded([&]() -> zvr_result {
    const bool held =
        ZVMainQueue::shared()->runUntil([done, user] { return done != nullptr && done(user) != 0; },
                                        std::chrono::milliseconds(timeoutMs > 0 ? timeoutMs : 0));
    if (outDone) *outDone = held ? 1 : 0;
    return ZVR_OK;
  });
}

zvr_result zvr_main_queue_start_dedicated_thread(void) {
  return guarded([]() -> zvr_result {
    ZVMainQueue::shared()->startDedicatedThread();
    return ZVR_OK;
  });
}

zvr_result zvr_main_queue_stop_dedicated_thread(void) {
  // It joins the thread, which may be waiting for the logger's lock.
  if (tInsideLogSink) return ZVR_E_BUSY;
  return guarded([]() -> zvr_result {
    ZVMainQueue::shared()->stopDedicatedThread();
    return ZVR_OK;
  });
}

zvr_result zvr_main_queue_get_pending_count(uint32_t* out) {
  if (out == nullptr) return ZVR_E_INVALID_ARGUMENT;
  *out = 0;
  return guarded([&]() -> zvr_result {
    *out = static_cast<uint32_t>(ZVMainQueue::shared()->pendingCount());
    return ZVR_OK;
  });
}

// ---- Logger --------------------------------------------------------------------

zvr_result zvr_logger_set_sink(zvr_log_sink sink, void* user) {
  // The logger calls its sink under its lock, and setSink takes that lock: a
  // replacement from inside the sink would wait for itself.
  if (tInsideLogSink) return ZVR_E_BUSY;
  return guarded([&]() -> zvr_result {
    if (sink == nullptr) {
      ZVLogger::instance()->setSink({});
      return ZVR_OK;
    }
    ZVLogger::instance()->setSink([sink, user](std::string_view line) {
      const std::string text(line);  // NUL-terminated for C
      struct Inside {
        Inside() { tInsideLogSink = true; }
        ~Inside() { tInsideLogSink = false; }
      } inside;
      sink(text.c_str(), static_cast<uint32_t>(text.size()), user);
    });
    return ZVR_OK;
  });
}

zvr_result zvr_logger_set_level(int64_t level) {
  return guarded([&]() -> zvr_result {
    ZVLogger::instance()->setLogLevel(level);
    return ZVR_OK;
  });
}

zvr_result zvr_logger_get_level(int64_t* out) {
  if (out == nullptr) return ZVR_E_INVALID_ARGUMENT;
  *out = 0;
  return guarded([&]() -> zvr_result {
    *out = ZVLogger::instance()->logLevel();
    return ZVR_OK;
  });
}

zvr_result zvr_logger_set_categories(int64_t categories) {
  return guarded([&]() -> zvr_result {
    ZVLogger::instance()->setLogCategories(categories);
    return ZVR_OK;
  });
}

zvr_result zvr_logger_get_categories(int64_t* out) {
  if (out == nullptr) return ZVR_E_INVALID_ARGUMENT;
  *out = 0;
  return guarded([&]() -> zvr_result {
    *out = ZVLogger::instance()->logCategories();
    return ZVR_OK;
  });
}

}  // extern "C"
