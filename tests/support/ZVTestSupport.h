// Helpers shared by the test suites.
#pragma once

#include <chrono>
#include <functional>

#include <ZorvaneCoreKit/ZVMainQueue.h>

namespace zvtest {

/// Drains the shared main queue until `done()` holds or `timeout` passes.
inline bool drainUntil(const std::function<bool()>& done,
                       std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
  return ZVMainQueue::shared()->runUntil(done, timeout);
}

}  // namespace zvtest
