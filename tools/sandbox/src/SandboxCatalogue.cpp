#include "SandboxCatalogue.h"

#include <algorithm>
#include <cctype>
#include <charconv>

namespace zvsandbox {

extern const unsigned char kCatalogueBytes[];
extern const std::size_t kCatalogueSize;

namespace {

constexpr const char* kBaseLocale = "en-US";
constexpr const char* kFrenchLocale = "fr-CA";

// Merges the texts of `locale` into every offer of the tree and drops the
// translation tables, so each locale's tree reads as the service answers.
void localize(nlohmann::json& offers, const std::string& locale) {
  for (auto& offer : offers) {
    if (auto translations = offer.find("translations"); translations != offer.end()) {
      if (auto texts = translations->find(locale); texts != translations->end()) {
        for (const auto& [key, value] : texts->items()) offer[key] = value;
      }
      offer.erase("translations");
    }
    if (auto options = offer.find("options"); options != offer.end()) localize(*options, locale);
  }
}

void addStatuses(nlohmann::json& offers, int64_t balance) {
  for (auto& offer : offers) {
    offer["status"] = offerStatus(offer, balance);
    if (auto options = offer.find("options"); options != offer.end())
      addStatuses(*options, balance);
  }
}

const nlohmann::json* findIn(const nlohmann::json& offers, std::string_view offerID) {
  for (const auto& offer : offers) {
    if (offer.value("id", "") == offerID) return &offer;
    if (auto options = offer.find("options"); options != offer.end()) {
      if (const auto* found = findIn(*options, offerID)) return found;
    }
  }
  return nullptr;
}

}  // namespace

std::string chooseLocale(std::string_view requested) {
  const bool french = requested.size() >= 2 && std::tolower(requested[0]) == 'f' &&
                      std::tolower(requested[1]) == 'r' &&
                      (requested.size() == 2 || requested[2] == '-' || requested[2] == '_');
  return french ? kFrenchLocale : kBaseLocale;
}

int64_t offerPoints(const nlohmann::json& offer) {
  const auto points = offer.find("points");
  if (points == offer.end()) return 0;
  if (points->is_number_integer()) return points->get<int64_t>();
  if (points->is_string()) {
    const auto& text = points->get_ref<const std::string&>();
    int64_t value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value);
    return value;
  }
  return 0;
}

bool flagValue(const nlohmann::json& offer, const char* key) {
  const auto value = offer.find(key);
  if (value == offer.end()) return false;
  if (value->is_boolean()) return value->get<bool>();
  if (value->is_number()) return value->get<double>() != 0;
  if (value->is_string()) {
    const auto& text = value->get_ref<const std::string&>();
    return text == "true" || text == "1" || text == "yes";
  }
  return false;
}

bool userQualifies(const nlohmann::json& offer) {
  return offer.value("tier", "") != "gold";
}

std::string offerStatus(const nlohmann::json& offer, int64_t balance) {
  if (!userQualifies(offer)) return "not_qualified";
  return balance < offerPoints(offer) ? "insufficient_points" : "available";
}

std::unique_ptr<Catalogue> Catalogue::load(std::string& error) {
  const std::string_view text(reinterpret_cast<const char*>(kCatalogueBytes), kCatalogueSize);
  auto document = nlohmann::json::parse(text, nullptr, false);
  if (document.is_discarded() || !document.is_object() || !document.contains("offers") ||
      !document["offers"].is_array()) {
    error = "the embedded catalogue is not a JSON object with an \"offers\" array";
    return nullptr;
  }
  auto catalogue = std::unique_ptr<Catalogue>(new Catalogue);
  for (const std::string locale : {kBaseLocale, kFrenchLocale}) {
    auto offers = document["offers"];
    localize(offers, locale);
    catalogue->byLocale_.emplace(locale, std::move(offers));
  }
  return catalogue;
}

nlohmann::json Catalogue::offersFor(const std::string& locale, int64_t balance) const {
  auto offers = byLocale_.at(chooseLocale(locale));
  addStatuses(offers, balance);
  return offers;
}

const nlohmann::json* Catalogue::find(std::string_view offerID, const std::string& locale) const {
  return findIn(byLocale_.at(chooseLocale(locale)), offerID);
}

}  // namespace zvsandbox
