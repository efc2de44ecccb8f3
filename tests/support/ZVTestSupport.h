// Helpers shared by the test suites.
#pragma once

#include <gtest/gtest.h>

#include <cctype>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>

#include <ZorvaneCoreKit/ZVMainQueue.h>

namespace zvtest {

/// The number in the environment variable `name`, or `fallback` when it is
/// unset, empty or 0.
inline size_t envOr(const char* name, size_t fallback) {
  const char* value = std::getenv(name);
  const size_t number = value ? std::strtoull(value, nullptr, 10) : 0;
  return number != 0 ? number : fallback;
}

/// Drains the shared main queue until `done()` holds or `timeout` passes.
inline bool drainUntil(const std::function<bool()>& done,
                       std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
  return ZVMainQueue::shared()->runUntil(done, timeout);
}

/// Names a case of a parameterised test by the letters and digits of its `name`.
template <class Case>
std::string caseName(const ::testing::TestParamInfo<Case>& info) {
  std::string name;
  for (char c : info.param.name)
    if (std::isalnum(static_cast<unsigned char>(c))) name += c;
  return name;
}

}  // namespace zvtest
