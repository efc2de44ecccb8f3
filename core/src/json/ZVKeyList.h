// Taking the keys a record knows out of a JSON object, in one pass.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <ZorvaneCoreKit/ZVJSON.h>

namespace zv_detail {

class ZVKeyList;

/// `getAndRemoveObjectForKey` for each of `keys` in one pass: `values[i]`
/// receives the value of `keys[i]` (nil when absent). `values` starts nil and
/// holds at least as many elements as `keys` (extra keys are ignored); keys
/// repeated in `keys` are taken once. The removed entries' places are
/// compacted by the next removal or `prune`.
ZV_CORE_EXPORT void takeObjectsForKeys(ZVMutableDictionary& dictionary, const ZVKeyList& keys,
                                       std::span<ZVJSONValue> values);

/// Keys prepared once for `takeObjectsForKeys`: the list a record takes from
/// every object it is built from. Immutable, so it may be shared between
/// threads; never destroyed once made (see `ZV_KEY_LIST`), so that records
/// built while the process exits still find it.
class ZV_CORE_EXPORT ZVKeyList {
 public:
  explicit ZVKeyList(std::span<const std::string_view> keys);
  ZVKeyList(std::initializer_list<std::string_view> keys)
      : ZVKeyList(std::span<const std::string_view>(keys.begin(), keys.size())) {}
  ZVKeyList(const ZVKeyList&) = delete;
  ZVKeyList& operator=(const ZVKeyList&) = delete;
  size_t size() const { return views_.size(); }

 private:
  friend void takeObjectsForKeys(ZVMutableDictionary&, const ZVKeyList&, std::span<ZVJSONValue>);
  static constexpr size_t kIndexed = 64;  // keys, and key lengths, the index covers
  // A key's signature: a short key's word as a dictionary stores it; for a
  // longer one, its length and first eight bytes mixed.
  static uint64_t signature(std::string_view key);
  size_t place(uint64_t signature) const { return (signature * multiplier_) >> 58; }
  std::vector<std::string> keys_;
  std::vector<std::string_view> views_;  // into keys_
  bool indexed_ = false;
  uint64_t multiplier_ = 0;          // spreads the keys' signatures over the places
  uint64_t byPlace_[kIndexed] = {};  // bit i set: key i's signature lands here
  uint64_t words_[kIndexed] = {};    // short keys as a dictionary stores them
  uint64_t unindexed_ = 0;           // bit i set: key i is too long for the index
};

}  // namespace zv_detail

// A key list made on first use and never destroyed: records may still be
// built on the SDK's threads while the process runs its exit sequence.
#define ZV_KEY_LIST(name, ...)                                              \
  static const ::zv_detail::ZVKeyList& name = *new ::zv_detail::ZVKeyList { \
    __VA_ARGS__                                                             \
  }
