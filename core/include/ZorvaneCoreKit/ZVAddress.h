// A postal address, nested in orders and order requests.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include <ZorvaneCoreKit/ZVJSON.h>
#include <ZorvaneCoreKit/ZVObject.h>

/// A postal address. Every field is optional.
///
/// JSON keys (read and written): "name", "street1", "street2", "city",
/// "region" (state or province), "postal_code", "country" (ISO 3166 code or
/// name), "phone".
///
/// @par Thread safety
/// A plain value holder without locking.
class ZV_CORE_EXPORT ZVAddress final : public ZVObject {
 public:
  ZVAddress() = default;

  /// `initMutableWithDictionary:`: takes each key above out of `dictionary`
  /// (through `ZVUtil::nilOrStringFromObject`, so a number becomes text) and
  /// keeps the rest, pruned, as `extras`. A null dictionary, or a value that
  /// is not a dictionary, gives an empty address.
  static std::shared_ptr<ZVAddress> initMutableWithDictionary(const ZVDictionaryPtr& dictionary);
  static std::shared_ptr<ZVAddress> initMutableWithDictionary(const ZVJSONValue& value);

  /// The address as a new JSON object holding the fields that are set.
  ZVDictionaryPtr asDictionary() const;

  std::string description() const override;

  std::optional<std::string> name, street1, street2, city, region, postalCode, country, phone;
  ZVDictionaryPtr extras;
};
