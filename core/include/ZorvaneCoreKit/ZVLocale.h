// Locales: the device's current one and the form the service expects.
#pragma once

#include <string>

#include <ZorvaneCoreKit/ZVExport.h>

/// A locale identifier such as "fr_CA" or "en-US". A value type.
class ZV_CORE_EXPORT ZVLocale {
 public:
  /// Stores the identifier as given ("fr_CA", "fr-CA", "fr_CA.UTF-8@euro", "C").
  explicit ZVLocale(std::string identifier) : identifier_(std::move(identifier)) {}

  const std::string& localeIdentifier() const { return identifier_; }

  /// The device's locale, from the first non-empty of the environment
  /// variables LC_ALL, LC_MESSAGES and LANG; "en_US" when none is set or the
  /// value is "C" or "POSIX".
  static ZVLocale currentLocale();

  bool operator==(const ZVLocale& other) const { return identifier_ == other.identifier_; }
  bool operator!=(const ZVLocale& other) const { return !(*this == other); }

 private:
  std::string identifier_;
};
