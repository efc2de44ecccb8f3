#include "ZVCliFormat.h"

#include <fmt/core.h>
#include <algorithm>

#include <ZorvaneCoreKit/ZVAddress.h>

#include "ZVCliOutput.h"

namespace zvcli {
namespace {

constexpr size_t kNameWidth = 40;

bool isContinuationByte(char c) {
  return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

// A cell is one line of text from the service: shown escaped, so that it
// neither breaks the layout nor drives the terminal, and masked before any
// truncation could cut a secret in two.
std::string cellText(std::string_view text) {
  return shown(text);
}

std::string yesNo(bool value) {
  return value ? "yes" : "no";
}

ZVJSONValue orNull(const ZVJSONValue& value) {
  return value.isNil() ? ZVJSONValue::null() : value;
}
ZVJSONValue orNull(const std::optional<std::string>& value) {
  return value ? ZVJSONValue(*value) : ZVJSONValue::null();
}

// The record's leftovers without the keys the output already shows as fields.
void setExtras(ZVMutableDictionary& out, const ZVDictionaryPtr& extras,
               std::initializer_list<std::string_view> shown) {
  if (!extras) return;
  auto copy = extras->mutableCopy();
  for (auto key : shown) copy->removeObjectForKey(key);
  if (!copy->empty()) out.setObject("extras", copy);
}

void addOfferRows(Table& table, const ZVOffer& offer, const std::string& prefix,
                  std::string_view connector) {
  table.addRow({prefix + std::string(connector) + cellText(offer.offerID().value_or("")),
                truncateToWidth(cellText(fieldText(offer.name())), kNameWidth),
                std::to_string(offer.points()), ZVOffer::stringForStatus(offer.status()),
                yesNo(offer.isFeatured()), yesNo(offer.isSkillChallengeRequired()),
                cellText(fieldText(offer.tier()))});
  if (!offer.options()) return;
  // Children line up under their parent's connector, the way `tree` draws.
  std::string childPrefix = prefix;
  if (connector == "├─ ") childPrefix += "│  ";
  if (connector == "└─ ") childPrefix += "   ";
  const auto& options = offer.options()->items();
  for (size_t i = 0; i < options.size(); ++i) {
    if (!options[i]) continue;
    addOfferRows(table, *options[i], childPrefix, i + 1 == options.size() ? "└─ " : "├─ ");
  }
}

}  // namespace

size_t displayWidth(std::string_view text) {
  return static_cast<size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return !isContinuationByte(c); }));
}

std::string truncateToWidth(std::string_view text, size_t width) {
  if (displayWidth(text) <= width || width == 0) return std::string(text);
  size_t seen = 0, end = 0;
  for (; end < text.size(); ++end) {
    if (!isContinuationByte(text[end]) && seen++ == width - 1) break;
  }
  return std::string(text.substr(0, end)) + "…";
}

void Table::addRow(std::vector<std::string> cells) {
  cells.resize(columns_.size());
  rows_.push_back(std::move(cells));
}

std::string Table::render() const {
  std::vector<size_t> widths;
  for (const auto& column : columns_) widths.push_back(displayWidth(column.title));
  for (const auto& row : rows_)
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], displayWidth(row[i]));

  std::string out;
  auto appendLine = [&](const std::vector<std::string>& cells) {
    std::string line;
    for (size_t i = 0; i < cells.size(); ++i) {
      const std::string pad(widths[i] - displayWidth(cells[i]), ' ');
      if (i > 0) line += "  ";
      line += columns_[i].align == Align::Right ? pad + cells[i] : cells[i] + pad;
    }
    line.erase(line.find_last_not_of(' ') + 1);
    out += line + '\n';
  };
  std::vector<std::string> titles, rules;
  for (size_t i = 0; i < columns_.size(); ++i) {
    titles.push_back(columns_[i].title);
    std::string rule;
    for (size_t k = 0; k < widths[i]; ++k) rule += "─";
    rules.push_back(std::move(rule));
  }
  appendLine(titles);
  appendLine(rules);
  for (const auto& row : rows_) appendLine(row);
  return out;
}

std::string fieldText(const ZVJSONValue& value) {
  switch (value.type()) {
    case ZVJSONValue::Type::Nil:
    case ZVJSONValue::Type::Null:
      return "";
    case ZVJSONValue::Type::Bool:
      return value.boolValue() ? "true" : "false";
    case ZVJSONValue::Type::String:
      return std::string(*value.string());
    case ZVJSONValue::Type::Integer:
    case ZVJSONValue::Type::Double:
      return value.description();
    case ZVJSONValue::Type::Array:
    case ZVJSONValue::Type::Dictionary: {
      std::string out;
      return ZVJSONSerialize(value, false, out) ? out : "";
    }
  }
  return "";
}

std::string offersTable(const ZVOfferArray& offers) {
  Table table({{"ID"},
               {"NAME"},
               {"POINTS", Table::Align::Right},
               {"STATUS"},
               {"FEATURED"},
               {"SKILL TEST"},
               {"TIER"}});
  for (const auto& offer : offers)
    if (offer) addOfferRows(table, *offer, "", "");
  return table.render();
}

std::string ordersTable(const ZVOrderArray& orders) {
  Table table({{"ID"},
               {"OFFER"},
               {"NAME"},
               {"QTY", Table::Align::Right},
               {"POINTS", Table::Align::Right},
               {"STATUS"},
               {"CREATED"}});
  for (const auto& order : orders) {
    if (!order) continue;
    table.addRow({cellText(order->orderID().value_or("")), cellText(order->offerID().value_or("")),
                  truncateToWidth(cellText(fieldText(order->name())), kNameWidth),
                  std::to_string(order->quantity()), std::to_string(order->points()),
                  order->stringForCurrentStatus(), cellText(fieldText(order->createdTime()))});
  }
  return table.render();
}

ZVDictionaryPtr offerJSON(const ZVOffer& offer) {
  auto out = ZVMutableDictionary::make();
  out->setObject("id", orNull(offer.offerID()));
  out->setObject("name", orNull(offer.name()));
  out->setObject("type", orNull(offer.type()));
  out->setObject("description", orNull(offer.details()));
  out->setObject("points", ZVJSONValue(static_cast<long long>(offer.points())));
  out->setObject("start_time", orNull(offer.startTime()));
  out->setObject("end_time", orNull(offer.endTime()));
  out->setObject("weight", ZVJSONValue(static_cast<long long>(offer.weight())));
  out->setObject("featured", offer.isFeatured());
  out->setObject("requires_skills_test", offer.isSkillChallengeRequired());
  out->setObject("tier", orNull(offer.tier()));
  out->setObject("logo", orNull(offer.logoURL()));
  out->setObject("status", ZVOffer::stringForStatus(offer.status()));
  out->setObject("data", orNull(offer.data()));
  out->setObject("options",
                 offer.options() ? offersJSON(*offer.options()) : ZVMutableArray::make());
  setExtras(*out, offer.extras(), {"options"});
  return out;
}

ZVDictionaryPtr orderJSON(const ZVOrder& order) {
  auto out = ZVMutableDictionary::make();
  out->setObject("id", orNull(order.orderID()));
  out->setObject("offer_id", orNull(order.offerID()));
  out->setObject("offer_type", orNull(order.offerType()));
  out->setObject("user_id", orNull(order.userID()));
  out->setObject("external_id", orNull(order.externalID()));
  out->setObject("quantity", ZVJSONValue(static_cast<long long>(order.quantity())));
  out->setObject("points", ZVJSONValue(static_cast<long long>(order.points())));
  out->setObject("created_at", orNull(order.createdTime()));
  out->setObject("name", orNull(order.name()));
  out->setObject("logo", orNull(order.logoURL()));
  out->setObject("description", orNull(order.details()));
  out->setObject("status", order.stringForCurrentStatus());
  if (const auto& user = order.user()) {
    out->setObject(
        "user",
        ZVMutableDictionary::make(
            {{"id", orNull(user->userID())},
             {"available_points", ZVJSONValue(static_cast<long long>(user->availablePoints()))},
             {"test_points", ZVJSONValue(static_cast<long long>(user->testPoints()))}}));
  } else {
    out->setObject("user", ZVJSONValue::null());
  }
  out->setObject("shipping_address", order.shippingAddress()
                                         ? ZVJSONValue(order.shippingAddress()->asDictionary())
                                         : ZVJSONValue::null());
  out->setObject("data", orNull(order.data()));
  setExtras(*out, order.extras(), {"user", "shipping_address"});
  return out;
}

ZVDictionaryPtr questionJSON(const ZVSkillQuestion& question) {
  auto out = ZVMutableDictionary::make();
  out->setObject("id", orNull(question.questionID()));
  out->setObject("question", orNull(question.question()));
  setExtras(*out, question.extras(), {});
  return out;
}

ZVDictionaryPtr challengeJSON(const ZVSkillChallenge& challenge) {
  auto out = ZVMutableDictionary::make();
  out->setObject("id", orNull(challenge.challengeID()));
  out->setObject("status", orNull(challenge.status()));
  setExtras(*out, challenge.extras(), {});
  return out;
}

ZVArrayPtr offersJSON(const ZVOfferArray& offers) {
  auto out = ZVMutableArray::make();
  for (const auto& offer : offers)
    out->add(offer ? ZVJSONValue(offerJSON(*offer)) : ZVJSONValue::null());
  return out;
}

ZVArrayPtr ordersJSON(const ZVOrderArray& orders) {
  auto out = ZVMutableArray::make();
  for (const auto& order : orders)
    out->add(order ? ZVJSONValue(orderJSON(*order)) : ZVJSONValue::null());
  return out;
}

bool printJSON(const ZVJSONValue& value, std::FILE* out) {
  std::string text;
  if (!ZVJSONSerialize(outputRedactor().json(value), true, text)) return false;
  // Masked again once escaped: an escape may complete the secret.
  text = outputRedactor().serialized(terminalSafeJSON(text)) + "\n";
  std::fwrite(text.data(), 1, text.size(), out);
  return true;
}

}  // namespace zvcli
