#include <ZorvaneCoreKit/ZVJSON.h>
#include <ZorvaneCoreKit/ZVLocale.h>
#include "base/ZVUtil.h"

#include <cmath>
#include <cstdlib>
#include <limits>
#include <optional>
#include <string>

#include <gtest/gtest.h>

namespace {

constexpr int64_t kMax64 = std::numeric_limits<int64_t>::max();
constexpr int64_t kMin64 = std::numeric_limits<int64_t>::min();
constexpr int32_t kMax32 = std::numeric_limits<int32_t>::max();
constexpr int32_t kMin32 = std::numeric_limits<int32_t>::min();

struct Case {
  ZVJSONValue value;
  int64_t asLongLong;
  int32_t asInt;
  bool asBool;
};

TEST(ValueConversionsTest, IntegersAndBooleans) {
  const Case cases[] = {
      // Absent, null and containers.
      {ZVJSONValue(), 0, 0, false},
      {ZVJSONValue::null(), 0, 0, false},
      {ZVMutableArray::make({1}), 0, 0, false},
      // Numbers: 64-bit integer part; 32 bits wrap.
      {true, 1, 1, true},
      {42, 42, 42, true},
      {4294967298LL, 4294967298LL, 2, true},
      {-2.9, -2, -2, true},
      {0.4, 0, 0, true},
      {-0.0, 0, 0, false},
      {-1e300, kMin64, 0, true},
      {9223372036854775807.0, kMax64, -1, true},
      {std::nan(""), 0, 0, true},
      // Text: leading integer, saturated at each width.
      {"123abc", 123, 123, true},
      {"  \t\n-45", -45, -45, true},
      {"+8", 8, 8, true},
      {"", 0, 0, false},
      {"- 5", 0, 0, false},
      {"4294967298", 4294967298LL, kMax32, true},
      {"99999999999999999999", kMax64, kMax32, true},
      {"-9223372036854775808", kMin64, kMin32, true},
      {"-9223372036854775809", kMin64, kMin32, true},
      // Booleans from text: after space, sign and leading zeros.
      {"0001", 1, 1, true},
      {"000", 0, 0, false},
      {"-5", -5, -5, true},
      {"-0", 0, 0, false},
      {" yes", 0, 0, true},
      {"T", 0, 0, true},
      {"0x1", 0, 0, false},
      {"00t", 0, 0, true},
      {"+-1", 0, 0, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.value.description());
    EXPECT_EQ(ZVUtil::longLongValue(c.value), c.asLongLong);
    EXPECT_EQ(ZVUtil::intValue(c.value), c.asInt);
    EXPECT_EQ(ZVUtil::boolValue(c.value), c.asBool);
  }
}

TEST(ValueConversionsTest, NilOrStringFromObject) {
  const std::pair<ZVJSONValue, std::optional<std::string>> cases[] = {
      {"abc", "abc"},
      {ZVJSONValue(), std::nullopt},
      {ZVJSONValue::null(), std::nullopt},
      {42, "42"},
      {-9223372036854775807LL - 1, "-9223372036854775808"},
      {3.0, "3"},
      {-INFINITY, std::nullopt},
      {true, "true"},
      {ZVMutableArray::make(), std::nullopt},
  };
  for (const auto& [value, expected] : cases)
    EXPECT_EQ(ZVUtil::nilOrStringFromObject(value), expected) << value.description();
}

TEST(ValueConversionsTest, LocaleToWeb) {
  const std::pair<const char*, const char*> cases[] = {
      {"fr_CA", "fr-CA"}, {"fr-CA", "fr-CA"}, {"fr_CA.UTF-8", "fr-CA"}, {"de_DE@euro", "de-DE"},
      {"en", "en"},       {"EN_us", "en-US"}, {"zh_Hans_CN", "zh-CN"},  {"es_419", "es-419"},
      {"", "en-US"},      {"C", "en-US"},     {"POSIX", "en-US"},       {"C.UTF-8", "en-US"},
      {"_CA", "en-US"},   {"1234", "en-US"},  {"en_US_POSIX", "en-US"},
  };
  for (const auto& [id, web] : cases) EXPECT_EQ(ZVUtil::localeToWeb(ZVLocale(id)), web) << id;
}

TEST(ValueConversionsTest, CurrentLocaleFromEnvironment) {
  struct Env {
    const char *all, *messages, *lang, *expected;
  } cases[] = {
      {nullptr, nullptr, nullptr, "en_US"}, {"", "", "fr_CA.UTF-8", "fr_CA.UTF-8"},
      {"de_DE", "fr_FR", "it_IT", "de_DE"}, {nullptr, "fr_FR", "it_IT", "fr_FR"},
      {"C", "fr_FR", nullptr, "en_US"},     {nullptr, nullptr, "C.UTF-8", "en_US"},
  };
  const char* names[] = {"LC_ALL", "LC_MESSAGES", "LANG"};
  std::optional<std::string> saved[3];
  for (int i = 0; i < 3; ++i)
    if (const char* v = std::getenv(names[i])) saved[i] = v;
  for (const auto& c : cases) {
    const char* values[] = {c.all, c.messages, c.lang};
    for (int i = 0; i < 3; ++i) values[i] ? setenv(names[i], values[i], 1) : unsetenv(names[i]);
    EXPECT_EQ(ZVLocale::currentLocale().localeIdentifier(), c.expected);
  }
  for (int i = 0; i < 3; ++i)
    saved[i] ? setenv(names[i], saved[i]->c_str(), 1) : unsetenv(names[i]);
}

}  // namespace
