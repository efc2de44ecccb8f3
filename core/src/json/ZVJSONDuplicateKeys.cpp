#include "json/ZVJSONDuplicateKeys.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace zv_detail {
namespace {

// Up to this many keys a pairwise scan beats sorting or hashing.
constexpr size_t kLinearKeyLimit = 8;
// Up to this many keys repeats are found with a small table on the stack.
constexpr size_t kHashedKeyLimit = 64;

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
                      std::vector<std::string_view>& scratch, bool canonical) {
  const size_t count = slots.size();
  if (count < 2) return false;
  const auto same = [&](size_t i, size_t j) {
    return slots[i].key.sameBytes(slots[j].key) ||
           (!canonical && slots[i].key.shared() && slots[j].key.shared() &&
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
          key.shared() && !canonical ? longKeyHash(key.view()) : key.bits() * 0x9E3779B97F4A7C15u;
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
  // In place, with one index per entry: a map of the keys would take several
  // times the memory of the entries themselves.
  auto slots = ZVJSONAccess::slots(dictionary);
  std::vector<uint32_t> order(slots.size());
  for (uint32_t i = 0; i < order.size(); ++i) order[i] = i;
  std::sort(order.begin(), order.end(), [&](uint32_t a, uint32_t b) {
    const std::string_view x = slots[a].key.view();
    const std::string_view y = slots[b].key.view();
    return x != y ? keyLess(x, y) : a < b;
  });
  for (size_t first = 0, next = 1; first < order.size(); first = next++) {
    while (next < order.size() && slots[order[next]].key.view() == slots[order[first]].key.view())
      ++next;
    if (next - first == 1) continue;
    // The first occurrence takes the last value; the others become nil and go.
    slots[order[first]].value = std::move(slots[order[next - 1]].value);
    for (size_t k = first + 1; k < next; ++k) slots[order[k]].value = ZVJSONValue();
  }
  slots.eraseIf([](const ZVDictionarySlot& slot) { return slot.value.isNil(); });
  ZVJSONAccess::live(dictionary) = slots.size();
}

}  // namespace zv_detail
