// Inside the parser: finding and merging repeated keys of one object.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "json/ZVJSONAccess.h"

namespace zv_detail {

// Mixes a long key's length and its first and last eight bytes.
uint64_t longKeyHash(std::string_view key);

// Whether two of `slots` share a key; `scratch` is reused between calls.
// `canonical`: equal long keys are known to share one text, so that keys are
// equal exactly when their eight bytes are.
bool hasDuplicateKeys(std::span<const ZVDictionarySlot> slots,
                      std::vector<std::string_view>& scratch, bool canonical);

// Rare: keeps each key at the position of its first occurrence with the
// value of its last.
void mergeDuplicates(ZVMutableDictionary& dictionary);

}  // namespace zv_detail
