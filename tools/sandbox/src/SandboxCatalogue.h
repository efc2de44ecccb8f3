// The sandbox's offer catalogue: the embedded catalogue.json, per locale.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace zvsandbox {

/// The catalogue locale that serves `requested`: "fr-CA" for any French
/// locale ("fr", "fr-FR", "fr_CA"...), "en-US" for anything else.
std::string chooseLocale(std::string_view requested);

/// Points of one offer, read from a JSON number or numeric text; 0 otherwise.
int64_t offerPoints(const nlohmann::json& offer);

/// A flag of the catalogue, given as a boolean, a number or text ("true",
/// "1"...).
bool flagValue(const nlohmann::json& offer, const char* key);

/// Whether the sandbox user (tier "silver") may redeem the offer: gold-tier
/// offers are out of reach.
bool userQualifies(const nlohmann::json& offer);

/// The status word the service shows the user for an offer: "not_qualified"
/// for a gold-tier offer, "insufficient_points" when `balance` is below its
/// points, else "available".
std::string offerStatus(const nlohmann::json& offer, int64_t balance);

/// Immutable after `load`, so it may be read from any thread.
class Catalogue {
 public:
  /// Parses the embedded catalogue. Returns null with a message in `error`
  /// when it is unusable (a build fault).
  static std::unique_ptr<Catalogue> load(std::string& error);

  /// The offers in `locale` (a catalogue locale), each with its "status"
  /// for a user holding `balance` points, options included.
  nlohmann::json offersFor(const std::string& locale, int64_t balance) const;

  /// The offer or option with id `offerID` in `locale`, or null.
  const nlohmann::json* find(std::string_view offerID, const std::string& locale) const;

 private:
  std::map<std::string, nlohmann::json> byLocale_;  // locale -> offers array
};

}  // namespace zvsandbox
