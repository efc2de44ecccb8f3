#include "json/ZVJSONDuplicateKeys.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <unordered_map>

namespace zv_detail {
namespace {

// Up to this many keys a pairwise scan beats sorting or hashing.
constexpr size_t kLinearKeyLimit = 8;
// Up to this many keys repeats are found with a small table on the stack.
constexpr size_t kHashedKeyLimit = 64;

constexpr size_t kNotFound = static_cast<size_t>(-1);

// Orders keys by length first: any strict order finds duplicates, and most
// keys differ in length.
bool keyLess(std::string_view a, std::string_view b) {
  return a.size() != b.size() ? a.size() < b.size() : a < b;
}

}  // namespace

uint64_t longKeyHash(std::string_view key) {
  uint64_t head = 0;
  uint64_t tail = 0;
  std::memcpy(&head, key.data(), sizeof head);
  std::memcpy(&tail, key.data() + key.size() - sizeof tail, sizeof tail);
  return (head * 0x9E3779B97F4A7C15u) ^ ((tail + key.size()) * 0xC2B2AE3D27D4EB4Fu);
}

bool hasDuplicateKeys(std::span<const ZVDictionarySlot> slots,
                      std::vector<std::string_view>& scratch) {
  const size_t count = slots.size();
  if (count < 2) return false;
  const auto same = [&](size_t i, size_t j) {
    return slots[i].key.sameBytes(slots[j].key) ||
           (slots[i].key.shared() && slots[j].key.shared() &&
            slots[i].key.view() == slots[j].key.view());
  };
  if (count <= kLinearKeyLimit) {
    for (size_t i = 1; i < count; ++i)
      for (size_t j = 0; j < i; ++j)
        if (same(i, j)) return true;
    return false;
  }
  if (count <= kHashedKeyLimit) {
    // Open addressing over twice as many places as keys; only keys that
    // land on the same hash are compared.
    constexpr uint8_t kEmpty = 0xFF;
    uint8_t places[2 * kHashedKeyLimit];
    std::memset(places, kEmpty, sizeof places);
    const size_t mask = 2 * kHashedKeyLimit - 1;
    for (size_t i = 0; i < count; ++i) {
      const ZVKey& key = slots[i].key;
      const uint64_t hash =
          key.shared() ? longKeyHash(key.view()) : key.bits() * 0x9E3779B97F4A7C15u;
      for (size_t at = hash >> 57;; at = (at + 1) & mask) {
        if (places[at] == kEmpty) {
          places[at] = static_cast<uint8_t>(i);
          break;
        }
        if (same(i, places[at])) return true;
      }
    }
    return false;
  }
  scratch.clear();
  for (const auto& slot : slots) scratch.push_back(slot.key.view());
  std::sort(scratch.begin(), scratch.end(), keyLess);
  return std::adjacent_find(scratch.begin(), scratch.end()) != scratch.end();
}

void mergeDuplicates(ZVMutableDictionary& dictionary) {
  auto slots = ZVJSONAccess::slots(dictionary);
  std::unordered_map<std::string_view, size_t> last;
  for (size_t i = 0; i < slots.size(); ++i) last[slots[i].key.view()] = i;
  ZVElements<ZVDictionarySlot> merged;
  auto out = store(merged);
  out.reserve(last.size());
  for (size_t i = 0; i < slots.size(); ++i) {
    auto it = last.find(slots[i].key.view());
    if (it->second == kNotFound) continue;  // written at its first position already
    auto& slot = out.emplace_back();
    slot.key = slots[i].key;  // copied: the map's views point into the old keys
    slot.value = std::move(slots[it->second].value);
    it->second = kNotFound;
  }
  slots.takeFrom(merged);
  ZVJSONAccess::live(dictionary) = slots.size();
}

}  // namespace zv_detail
