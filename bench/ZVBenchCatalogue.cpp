#include "ZVBenchCatalogue.h"

#include <array>
#include <iterator>
#include <random>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>

namespace zvbench {
namespace {

// Raw engine output only: distributions differ between standard libraries,
// and the catalogue must be the same bytes everywhere.
class Dice {
 public:
  explicit Dice(uint64_t seed) : engine_(seed) {}
  uint64_t below(uint64_t n) { return engine_() % n; }
  bool chance(unsigned percent) { return below(100) < percent; }
  template <class T, size_t N>
  const T& pick(const std::array<T, N>& items) {
    return items[below(N)];
  }
  template <class T>
  void shuffle(std::vector<T>& items) {
    for (size_t i = items.size(); i > 1; --i) std::swap(items[i - 1], items[below(i)]);
  }

 private:
  std::mt19937_64 engine_;
};

constexpr std::array<std::string_view, 24> kWords = {
    "mug",      "ceramic",  "blue",      "gift",     "card",     "premium", "édition", "limitée",
    "café",     "Straße",   "naïve",     "jalapeño", "ポイント", "特典",    "coffee",  "voucher",
    "shipping", "included", "exclusive", "members",  "weekend",  "🎁",       "résumé",  "tote"};
constexpr std::array<std::string_view, 4> kTypes = {"physical", "digital", "sweepstakes",
                                                    "donation"};
constexpr std::array<std::string_view, 7> kStatuses = {
    "available",     "verification_required", "not_qualified", "insufficient_points",
    "user_required", "registration_required", "coming_soon"};
constexpr std::array<std::string_view, 3> kTiers = {"bronze", "silver", "gold"};
constexpr std::array<std::string_view, 6> kBooleanTexts = {"true", "false", "1", "0", "yes", "no"};
constexpr std::array<std::string_view, 5> kCurrencies = {"CAD", "USD", "EUR", "JPY", "GBP"};
constexpr std::array<std::string_view, 6> kRegions = {"CA", "US", "FR", "DE", "JP", "GB"};
constexpr std::array<std::string_view, 5> kColours = {"red", "blue", "vert forêt", "黒", "sand"};

// One JSON member, written whole so that members can be shuffled.
using Member = std::string;

std::string quoted(std::string_view text) {
  return fmt::format("\"{}\"", text);
}

std::string sentence(Dice& dice, size_t words) {
  std::string out;
  for (size_t i = 0; i < words; ++i) {
    if (i != 0) out += ' ';
    out += dice.pick(kWords);
  }
  return out;
}

std::string object(Dice& dice, std::vector<Member> members) {
  dice.shuffle(members);
  std::string out = "{";
  for (size_t i = 0; i < members.size(); ++i) {
    if (i != 0) out += ',';
    out += members[i];
  }
  out += '}';
  return out;
}

Member member(std::string_view key, std::string_view json) {
  return fmt::format("\"{}\":{}", key, json);
}

// Booleans arrive as text about half the time, as the service's older
// endpoints send them.
std::string booleanJSON(Dice& dice) {
  if (dice.chance(50)) return quoted(dice.pick(kBooleanTexts));
  return dice.chance(50) ? "true" : "false";
}

std::string numberJSON(Dice& dice, uint64_t value) {
  return dice.chance(60) ? fmt::format("\"{}\"", value) : fmt::format("{}", value);
}

std::string timestamp(Dice& dice) {
  return fmt::format("\"2025-{:02}-{:02}T{:02}:00:00Z\"", 1 + dice.below(12), 1 + dice.below(28),
                     dice.below(24));
}

std::string dataJSON(Dice& dice, uint64_t id) {
  std::vector<Member> price = {
      member("amount", fmt::format("\"{}.{:02}\"", 5 + dice.below(200), dice.below(100))),
      member("currency", quoted(dice.pick(kCurrencies))),
      member("tax_included", booleanJSON(dice))};
  std::vector<Member> size = {member("w", fmt::format("{}.{}", dice.below(40), dice.below(10))),
                              member("h", fmt::format("{}", dice.below(30))),
                              member("d", fmt::format("{}.25", dice.below(10)))};
  std::string tags = "[";
  for (uint64_t i = 0, n = 2 + dice.below(4); i < n; ++i)
    tags += fmt::format("{}\"{}\"", i ? "," : "", dice.pick(kWords));
  tags += ']';
  std::string regions = "[";
  for (uint64_t i = 0, n = 1 + dice.below(4); i < n; ++i)
    regions += fmt::format("{}\"{}\"", i ? "," : "", dice.pick(kRegions));
  regions += ']';
  std::vector<Member> shipping = {member("regions", regions),
                                  member("days", fmt::format("{}", 1 + dice.below(14))),
                                  member("tracked", booleanJSON(dice))};
  return object(dice, {member("sku", fmt::format("\"SKU-{:08X}\"", id * 2654435761u)),
                       member("price", object(dice, std::move(price))),
                       member("dimensions_cm", object(dice, std::move(size))), member("tags", tags),
                       member("shipping", object(dice, std::move(shipping))),
                       member("stock", fmt::format("{}", dice.below(500)))});
}

std::string offerJSON(Dice& dice, uint64_t id, size_t depth);

std::string optionsJSON(Dice& dice, uint64_t parent, size_t depth) {
  // Most offers have none or a few; an option of an option now and then.
  const uint64_t count = depth == 0 ? dice.below(4) : (dice.chance(20) ? 1 : 0);
  std::string out = "[";
  for (uint64_t i = 0; i < count; ++i) {
    if (i != 0) out += ',';
    out += offerJSON(dice, parent * 10 + i + 1, depth + 1);
  }
  out += ']';
  return out;
}

std::string offerJSON(Dice& dice, uint64_t id, size_t depth) {
  std::vector<Member> m;
  m.push_back(member("id", fmt::format("\"{}\"", id)));
  m.push_back(member("name", quoted(sentence(dice, 2 + dice.below(3)))));
  m.push_back(member("points", numberJSON(dice, 50 * (1 + dice.below(400)))));
  m.push_back(member("status", quoted(dice.pick(kStatuses))));
  m.push_back(member("weight", fmt::format("{}", dice.below(100))));
  if (depth == 0) {
    m.push_back(member("type", quoted(dice.pick(kTypes))));
    m.push_back(
        member("description", fmt::format("\"{} \\\"{}\\\".\\n{} \\u00e9t\\u00e9 {}.\"",
                                          sentence(dice, 10 + dice.below(8)), sentence(dice, 2),
                                          sentence(dice, 8 + dice.below(8)), sentence(dice, 4))));
    m.push_back(member("start_time", timestamp(dice)));
    m.push_back(member("end_time", dice.chance(20) ? std::string("null") : timestamp(dice)));
    m.push_back(member("featured", booleanJSON(dice)));
    m.push_back(member("requires_skills_test", booleanJSON(dice)));
    m.push_back(member("tier", quoted(dice.pick(kTiers))));
    m.push_back(
        member("logo", fmt::format("\"https://cdn.rewards.example.com/logos/{}/{:016x}.png\"", id,
                                   id * 0x9E3779B97F4A7C15ull)));
    m.push_back(member("data", dataJSON(dice, id)));
    // Keys the records do not know: they end up in `extras`.
    m.push_back(member("merchant", object(dice, {member("id", fmt::format("\"m-{}\"", id % 97)),
                                                 member("name", quoted(sentence(dice, 2))),
                                                 member("verified", booleanJSON(dice))})));
    m.push_back(member("category_ids", fmt::format("[{},{},{}]", dice.below(50),
                                                   50 + dice.below(50), 100 + dice.below(50))));
    m.push_back(member("localized",
                       object(dice, {member("fr", quoted(sentence(dice, 3 + dice.below(3)))),
                                     member("ja", quoted(sentence(dice, 3 + dice.below(3)))),
                                     member("en", quoted(sentence(dice, 3 + dice.below(3))))})));
    m.push_back(member("legacy_flag", "null"));
    m.push_back(member("rank_score", fmt::format("0.{:04}", dice.below(10000))));
    m.push_back(member("terms_url",
                       fmt::format("\"https://rewards.example.com/terms/{}?lang=fr-CA\"", id)));
  } else {
    m.push_back(member("data", object(dice, {member("colour", quoted(dice.pick(kColours))),
                                             member("size", quoted("M"))})));
    m.push_back(member("variant_code", fmt::format("\"V-{}-{}\"", id, dice.below(1000))));
  }
  if (depth < 2 && (depth == 0 || dice.chance(30)))
    m.push_back(member("options", optionsJSON(dice, id, depth)));
  return object(dice, std::move(m));
}

}  // namespace

std::string makeCatalogue(size_t offers, uint64_t seed) {
  Dice dice(seed);
  std::string out = R"({"status":"ok","offers":[)";
  out.reserve(offers * 1600 + 64);
  for (size_t i = 0; i < offers; ++i) {
    if (i != 0) out += ',';
    out += offerJSON(dice, 1000 + i, 0);
  }
  out += R"(],"page":{"next":null,"count":)";
  out += fmt::format("{}}}}}", offers);
  return out;
}

}  // namespace zvbench
