// Value conversions shared by the records.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <ZorvaneCoreKit/ZVExport.h>
#include <ZorvaneCoreKit/ZVJSON.h>
#include <ZorvaneCoreKit/ZVLocale.h>

/// Conversions of JSON values and locales. Stateless; safe from any thread.
class ZV_CORE_EXPORT ZVUtil {
 public:
  /// The "locale" query text of a locale: the language and region of the
  /// identifier joined by a hyphen, with the encoding and modifier dropped
  /// ("fr_CA.UTF-8" gives "fr-CA", "en" gives "en"). Never empty: an identifier
  /// without a language ("", "C", "POSIX") gives "en-US".
  static std::string localeToWeb(const ZVLocale& locale);

  /// An identifier as text: a string comes back unchanged; nil and the JSON
  /// null give nullopt; an integer gives its decimal form ("42"); a double its
  /// shortest round-trip form ("1.5", "3" for 3.0, nullopt for NaN or infinity);
  /// a boolean "true" or "false"; an array or dictionary nullopt (not an identifier).
  static std::optional<std::string> nilOrStringFromObject(const ZVJSONValue& value);

  /// 64-bit integer value: a number gives its integer part (a double is
  /// truncated toward zero and saturated at the 64-bit limits, NaN gives 0; a
  /// boolean gives 1 or 0); text gives its leading decimal integer after
  /// leading white space and an optional sign, 0 when there is none, saturated
  /// at the 64-bit limits; anything else (nil, null, containers) gives 0.
  static int64_t longLongValue(const ZVJSONValue& value);

  /// 32-bit integer value: a number keeps the low 32 bits of its 64-bit integer
  /// value (it wraps); text saturates at the 32-bit limits; anything else gives 0.
  static int32_t intValue(const ZVJSONValue& value);

  /// Boolean value: a number is true when non-zero; text is true when, after
  /// leading white space, an optional sign and leading zeros, its first
  /// character is one of Y, y, T, t or a digit 1 to 9; anything else is false.
  static bool boolValue(const ZVJSONValue& value);
};
