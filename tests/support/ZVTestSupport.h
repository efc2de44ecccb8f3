// Helpers shared by the test suites.
#pragma once

#include <gtest/gtest.h>

#include <cctype>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <ZorvaneCoreKit/ZVJSON.h>
#include <ZorvaneCoreKit/ZVMainQueue.h>
#include <ZorvaneCoreKit/Zorvane.h>

namespace zvtest {

/// A token that must never show up in a log line, message or output.
inline constexpr const char* kSecretToken = "tok-7f3a9c-never-print-me";

/// Points the SDK at `serviceHost` with the secret token and a short timeout.
inline void configureService(const std::string& serviceHost,
                             std::chrono::milliseconds timeout = std::chrono::seconds(5),
                             const std::string& appID = "app") {
  ZVConfiguration configuration;
  configuration.serviceHost = serviceHost;
  configuration.appID = appID;
  configuration.accessToken = kSecretToken;
  configuration.allowInsecureHTTP = true;
  configuration.connectTimeout = timeout;
  configuration.requestTimeout = timeout;
  Zorvane::configure(configuration);
}

/// Changes the SDK's configuration as `change` says.
inline void reconfigure(const std::function<void(ZVConfiguration&)>& change) {
  ZVConfiguration configuration = Zorvane::configuration();
  change(configuration);
  Zorvane::configure(configuration);
}

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

/// The value of the JSON `text`, which must parse.
inline ZVJSONValue json(std::string_view text) {
  ZVJSONParseResult result = ZVJSONParse(text);
  EXPECT_TRUE(result.ok()) << result.error << " in " << text;
  return result.value;
}

inline ZVDictionaryPtr dict(std::string_view text) {
  return json(text).dictionary();
}

/// One value of every JSON type, as text, for the bad-input tables.
inline const std::vector<std::string>& everyJSONType() {
  static const std::vector<std::string> values = {
      "null", "true", "false", "0", "-7", "2.5", "1e300", R"("")", R"("text")",
      // Containers, empty and holding others.
      "[]", "{}", R"([1, "a", null, {}])", R"({"k": {"n": [null]}})"};
  return values;
}

/// `{"<key>": <value>}` as text.
inline std::string withKey(std::string_view key, std::string_view value) {
  return "{\"" + std::string(key) + "\": " + std::string(value) + "}";
}

}  // namespace zvtest
