// Inside the SDK: calling host code (handlers, observers, hooks) so that an
// exception from it never stops what the SDK does next.
#pragma once

#include <exception>
#include <utility>

#include <ZorvaneCoreKit/ZVExport.h>

namespace zv_detail {

/// Reports that host code threw: a line through the logger's sink and the
/// host's exception handler (`Zorvane::setHostExceptionHandler`). `where`
/// names the code ("a completion handler"); `what` is the exception's text.
/// Never throws.
ZV_CORE_EXPORT void reportHostException(const char* where, const char* what) noexcept;

/// Whether this thread is running the logger's sink, which holds the
/// logger's lock: nothing that waits for a thread that may wait to log may
/// run there.
bool insideLogSink();

/// Runs `code`; an exception is reported as thrown by `where` and goes no
/// further. Returns whether `code` returned normally.
template <class Code>
bool runHostCode(const char* where, Code&& code) noexcept {
  try {
    std::forward<Code>(code)();
    return true;
  } catch (const std::exception& e) {
    reportHostException(where, e.what());
  } catch (...) {
    reportHostException(where, "an exception that is not a std::exception");
  }
  return false;
}

}  // namespace zv_detail
