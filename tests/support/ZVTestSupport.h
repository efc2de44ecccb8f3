// Helpers shared by the test suites.
#pragma once

#include <gtest/gtest.h>

#include <cctype>
#include <chrono>
#include <functional>
#include <string>

#include <ZorvaneCoreKit/ZVMainQueue.h>

namespace zvtest {

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
