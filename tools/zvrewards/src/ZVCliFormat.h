// Presentation of the SDK's records: aligned tables for people, JSON for programs.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <ZorvaneCoreKit/ZVJSON.h>
#include <ZorvaneRewardsKit/ZVOffer.h>
#include <ZorvaneRewardsKit/ZVOrder.h>
#include <ZorvaneRewardsKit/ZVSkillChallenge.h>
#include <ZorvaneRewardsKit/ZVSkillQuestion.h>

namespace zvcli {

/// Columns on screen of UTF-8 text: one per code point (continuation bytes
/// do not count), which is right for the Latin, Greek and Cyrillic text the
/// catalogue carries.
size_t displayWidth(std::string_view text);
/// `text` cut to at most `width` code points, ending in "…" when cut.
std::string truncateToWidth(std::string_view text, size_t width);

/// A table whose columns are as wide as their widest cell.
class Table {
 public:
  enum class Align { Left, Right };
  struct Column {
    std::string title;
    Align align = Align::Left;
  };

  explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}
  void addRow(std::vector<std::string> cells);
  /// Header, a rule, then the rows; trailing blanks trimmed.
  std::string render() const;

 private:
  std::vector<Column> columns_;
  std::vector<std::vector<std::string>> rows_;
};

/// Text of a record field held as a JSON value: a string as it stands, a
/// number in decimal, "" for nil and null, compact JSON for a container.
std::string fieldText(const ZVJSONValue& value);

std::string offersTable(const ZVOfferArray& offers);
std::string ordersTable(const ZVOrderArray& orders);

/// JSON objects of the records: their fields under the service's key names,
/// plus "extras" when the record kept any.
ZVDictionaryPtr offerJSON(const ZVOffer& offer);
ZVDictionaryPtr orderJSON(const ZVOrder& order);
ZVDictionaryPtr questionJSON(const ZVSkillQuestion& question);
ZVDictionaryPtr challengeJSON(const ZVSkillChallenge& challenge);
ZVArrayPtr offersJSON(const ZVOfferArray& offers);
ZVArrayPtr ordersJSON(const ZVOrderArray& orders);

/// Writes `value` pretty-printed, with a final line feed, the output secret
/// masked and control characters escaped; false when it cannot be written
/// as JSON (then nothing is written).
bool printJSON(const ZVJSONValue& value, std::FILE* out = stdout);

}  // namespace zvcli
