#include "base/ZVUtil.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <string_view>

#include "base/ZVStrings.h"

namespace {

bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}
bool isDigit(char c) {
  return c >= '0' && c <= '9';
}
bool isAlpha(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
char toLower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}
char toUpper(char c) {
  return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

// Leading white space, then an optional sign.
std::string_view skipSpaceAndSign(std::string_view text, bool& negative) {
  size_t i = 0;
  while (i < text.size() && isSpace(text[i])) ++i;
  negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
    negative = text[i] == '-';
    ++i;
  }
  return text.substr(i);
}

int64_t leadingInteger(std::string_view text) {
  bool negative = false;
  std::string_view digits = skipSpaceAndSign(text, negative);
  // The magnitude is gathered up to one past INT64_MAX, the size of INT64_MIN.
  const uint64_t limit = static_cast<uint64_t>(std::numeric_limits<int64_t>::max()) + 1;
  uint64_t magnitude = 0;
  for (char c : digits) {
    if (!isDigit(c)) break;
    const auto digit = static_cast<uint64_t>(c - '0');
    if (magnitude > (limit - digit) / 10) {
      magnitude = limit;
      break;
    }
    magnitude = magnitude * 10 + digit;
  }
  if (negative)
    return magnitude == limit ? std::numeric_limits<int64_t>::min()
                              : -static_cast<int64_t>(magnitude);
  return magnitude >= limit ? std::numeric_limits<int64_t>::max() : static_cast<int64_t>(magnitude);
}

// Truncates toward zero; NaN gives 0 and out-of-range values saturate, so the
// cast below is always defined.
int64_t doubleToInt64(double d) {
  if (std::isnan(d)) return 0;
  // 2^63 is exact as a double; every double below it truncates into range.
  constexpr double kTwo63 = 9223372036854775808.0;
  if (d >= kTwo63) return std::numeric_limits<int64_t>::max();
  if (d < -kTwo63) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(d);
}

// The 64-bit integer of a number, or nullopt when the value is not one.
std::optional<int64_t> numberAsInt64(const ZVJSONValue& value) {
  switch (value.type()) {
    case ZVJSONValue::Type::Integer:
      return value.integerValue();
    case ZVJSONValue::Type::Double:
      return doubleToInt64(value.doubleValue());
    case ZVJSONValue::Type::Bool:
      return value.boolValue() ? 1 : 0;
    default:
      return std::nullopt;
  }
}

}  // namespace

std::string ZVUtil::localeToWeb(const ZVLocale& locale) {
  std::string_view id = locale.localeIdentifier();
  // Drop the encoding ("fr_CA.UTF-8") and the modifier ("de_DE@euro").
  id = id.substr(0, id.find_first_of(".@"));

  std::string_view language = id.substr(0, id.find_first_of("_-"));
  const bool validLanguage = language.size() >= 2 && language.size() <= 8 &&
                             std::all_of(language.begin(), language.end(), isAlpha) &&
                             language != "C" && language != "POSIX";
  if (!validLanguage) return "en-US";

  std::string out;
  for (char c : language) out += toLower(c);

  // The region is the first later subtag of two letters or three digits; a
  // script ("zh_Hans_CN") or variant is skipped.
  std::string_view rest = id.substr(language.size());
  while (!rest.empty()) {
    rest.remove_prefix(1);
    std::string_view subtag = rest.substr(0, rest.find_first_of("_-"));
    rest.remove_prefix(subtag.size());
    const bool letters = subtag.size() == 2 && isAlpha(subtag[0]) && isAlpha(subtag[1]);
    const bool digits = subtag.size() == 3 && std::all_of(subtag.begin(), subtag.end(), isDigit);
    if (letters || digits) {
      out += '-';
      for (char c : subtag) out += toUpper(c);
      break;
    }
  }
  return out;
}

std::optional<std::string> ZVUtil::nilOrStringFromObject(const ZVJSONValue& value) {
  switch (value.type()) {
    case ZVJSONValue::Type::String:
      return std::string(*value.string());
    case ZVJSONValue::Type::Integer:
      return zv_detail::decimal(value.integerValue());
    case ZVJSONValue::Type::Double: {
      const double d = value.doubleValue();
      if (!std::isfinite(d)) return std::nullopt;
      return zv_detail::shortestDouble(d);
    }
    case ZVJSONValue::Type::Bool:
      return std::string(value.boolValue() ? "true" : "false");
    default:
      return std::nullopt;
  }
}

int64_t ZVUtil::longLongValue(const ZVJSONValue& value) {
  if (const auto text = value.string()) return leadingInteger(*text);
  return numberAsInt64(value).value_or(0);
}

int32_t ZVUtil::intValue(const ZVJSONValue& value) {
  if (const auto text = value.string()) {
    const int64_t v = leadingInteger(*text);
    return static_cast<int32_t>(std::clamp<int64_t>(v, std::numeric_limits<int32_t>::min(),
                                                    std::numeric_limits<int32_t>::max()));
  }
  // Numbers wrap: the low 32 bits, read as two's complement.
  return static_cast<int32_t>(static_cast<uint32_t>(numberAsInt64(value).value_or(0)));
}

bool ZVUtil::boolValue(const ZVJSONValue& value) {
  switch (value.type()) {
    case ZVJSONValue::Type::Bool:
      return value.boolValue();
    case ZVJSONValue::Type::Integer:
      return value.integerValue() != 0;
    case ZVJSONValue::Type::Double:
      return value.doubleValue() != 0.0;
    case ZVJSONValue::Type::String: {
      bool negative = false;
      std::string_view rest = skipSpaceAndSign(*value.string(), negative);
      while (!rest.empty() && rest.front() == '0') rest.remove_prefix(1);
      if (rest.empty()) return false;
      const char c = rest.front();
      return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
    }
    default:
      return false;
  }
}
