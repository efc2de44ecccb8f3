#include "json/ZVKeyList.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "json/ZVJSONAccess.h"

namespace zv_detail {

uint64_t ZVKeyList::signature(std::string_view key) {
  if (key.size() <= ZVKey::kInline) return ZVKey(key).bits();
  uint64_t head;
  std::memcpy(&head, key.data(), sizeof head);
  return head ^ (key.size() * 0x9E3779B97F4A7C15u);
}

ZVKeyList::ZVKeyList(std::span<const std::string_view> keys) : keys_(keys.begin(), keys.end()) {
  views_.assign(keys_.begin(), keys_.end());
  indexed_ = views_.size() <= kIndexed;
  if (!indexed_) return;
  uint64_t signatures[kIndexed];
  for (size_t i = 0; i < views_.size(); ++i) {
    if (views_[i].size() >= kIndexed) {
      unindexed_ |= uint64_t{1} << i;
      continue;
    }
    signatures[i] = signature(views_[i]);
    if (views_[i].size() <= ZVKey::kInline) words_[i] = signatures[i];
  }
  // The multiplier that leaves the fewest keys sharing a place: a slot then
  // has one candidate to compare with, or none.
  size_t fewest = ~size_t{0};
  for (uint64_t attempt = 0; attempt < 256 && fewest != 0; ++attempt) {
    const uint64_t multiplier = (2 * attempt + 1) * 0x9E3779B97F4A7C15u;
    uint64_t used = 0;
    size_t shared = 0;
    for (size_t i = 0; i < views_.size(); ++i) {
      if ((unindexed_ >> i) & 1) continue;
      const uint64_t bit = uint64_t{1} << ((signatures[i] * multiplier) >> 58);
      shared += (used & bit) != 0;
      used |= bit;
    }
    if (shared < fewest) {
      fewest = shared;
      multiplier_ = multiplier;
    }
  }
  for (size_t i = 0; i < views_.size(); ++i)
    if (((unindexed_ >> i) & 1) == 0) byPlace_[place(signatures[i])] |= uint64_t{1} << i;
}

void takeObjectsForKeys(ZVMutableDictionary& dictionary, const ZVKeyList& list,
                        std::span<ZVJSONValue> values) {
  const std::span<const std::string_view> keys = list.views_;
  const size_t wanted = std::min(keys.size(), values.size());
  if (!list.indexed_ || wanted < keys.size()) {
    for (size_t i = 0; i < wanted; ++i)
      if (values[i].isNil()) values[i] = dictionary.getAndRemoveObjectForKey(keys[i]);
    return;
  }
  auto slots = ZVJSONAccess::slots(dictionary);
  size_t& live = ZVJSONAccess::live(dictionary);
  // A slot's key is compared only with the wanted keys not taken yet whose
  // signature lands on the same place; short keys are compared in one word.
  uint64_t open = wanted == 64 ? ~uint64_t{0} : (uint64_t{1} << wanted) - 1;
  for (auto& slot : slots) {
    if (open == 0) break;
    if (slot.value.isNil()) continue;
    const bool shared = slot.key.shared();
    const std::string_view key = shared ? slot.key.view() : std::string_view();
    if (key.size() >= ZVKeyList::kIndexed) continue;
    const uint64_t signature = shared ? ZVKeyList::signature(key) : slot.key.bits();
    for (uint64_t candidates = list.byPlace_[list.place(signature)] & open; candidates != 0;
         candidates &= candidates - 1) {
      const auto i = static_cast<size_t>(std::countr_zero(candidates));
      if (shared ? key != keys[i] : signature != list.words_[i]) continue;
      values[i] = std::move(slot.value);
      open &= ~(uint64_t{1} << i);
      --live;
      break;
    }
  }
  // The places left are compacted by the next removal or prune.
  while (!slots.empty() && slots.back().value.isNil()) slots.pop_back();
  for (uint64_t rest = list.unindexed_ & open; rest != 0; rest &= rest - 1) {
    const auto i = static_cast<size_t>(std::countr_zero(rest));  // a key too long for the index
    values[i] = dictionary.getAndRemoveObjectForKey(keys[i]);
  }
}

}  // namespace zv_detail
