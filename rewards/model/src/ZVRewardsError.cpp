#include <ZorvaneRewardsKit/ZVRewardsError.h>

#include <string_view>

#include "json/ZVJSONWrite.h"

namespace {

// The most of "base" that the message quotes: its elements may be containers,
// whose indented text can be hundreds of times longer than the answer.
constexpr size_t kMaxRewardText = 4096;

// A non-empty string under `key`, or nothing.
std::optional<std::string_view> nonEmptyText(const ZVMutableDictionary& d, std::string_view key) {
  const ZVJSONValue* value = d.find(key);
  const auto text = value ? value->string() : std::nullopt;
  return text && !text->empty() ? text : std::nullopt;
}

// What a failed answer says about itself: its "message", or else a summary of
// the "order" it refers to. nullopt when the body says neither.
std::optional<std::string> composeMessage(const ZVMutableDictionary& body) {
  if (const auto message = nonEmptyText(body, "message")) return std::string(*message);

  const ZVJSONValue* orderValue = body.find("order");
  const ZVDictionaryPtr order = orderValue ? orderValue->dictionary() : nullptr;
  if (!order || order->empty()) return std::nullopt;

  std::string reward;
  const ZVJSONValue* baseValue = order->find("base");
  if (const ZVArrayPtr base = baseValue ? baseValue->array() : nullptr; base && !base->empty()) {
    // The separator depends on the text so far, not on the position, so an
    // empty first element adds no leading ", ".
    for (const ZVJSONValue& element : *base) {
      if (reward.size() >= kMaxRewardText) {
        reward += ", ...";
        break;
      }
      const size_t room = kMaxRewardText - reward.size();
      if (!reward.empty()) reward += ", ";
      reward += zv_detail::describeCapped(element, room);
    }
    reward.insert(0, "Reward: ");
  }

  std::string user;
  if (const auto userID = nonEmptyText(*order, "user_id")) user = "User: " + std::string(*userID);

  const char* separator = !reward.empty() && !user.empty() ? "\n" : "";
  return reward + separator + user;
}

}  // namespace

ZVRewardsError::ZVRewardsError(int64_t type, ZVDictionaryPtr result)
    : ZVError(type, std::move(result)) {
  if (raw()) setMessage(composeMessage(*raw()));
}
