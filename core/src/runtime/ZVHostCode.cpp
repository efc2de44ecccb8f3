#include "runtime/ZVHostCode.h"

#include <memory>
#include <mutex>
#include <string>

#include <ZorvaneCoreKit/ZVLogger.h>
#include <ZorvaneCoreKit/Zorvane.h>

#include "base/ZVStrings.h"

namespace {

struct HookState {
  std::mutex mutex;
  std::shared_ptr<const ZVHostExceptionHandler> handler;  // guarded by mutex
};

HookState& hookState() {
  // Leaked: host code may throw from handlers that run while the process exits.
  static HookState* const state = new HookState();
  return *state;
}

}  // namespace

void zv_detail::reportHostException(const char* where, const char* what) noexcept {
  try {
    ZVLogger::instance()->log(
        strCat("ZorvaneRewardsKit: ", where, " threw an exception (", what, "); the SDK went on"));
    std::shared_ptr<const ZVHostExceptionHandler> handler;
    {
      HookState& state = hookState();
      std::lock_guard lock(state.mutex);
      handler = state.handler;
    }
    if (handler && *handler) (*handler)(where, what);
  } catch (...) {
    // The handler of exceptions threw, or there was no memory for the line:
    // nothing is left to tell.
  }
}

void Zorvane::setHostExceptionHandler(ZVHostExceptionHandler handler) {
  std::shared_ptr<const ZVHostExceptionHandler> next;
  if (handler) next = std::make_shared<const ZVHostExceptionHandler>(std::move(handler));
  HookState& state = hookState();
  {
    std::lock_guard lock(state.mutex);
    state.handler.swap(next);
  }
  // The previous handler is destroyed here, outside the lock.
}
