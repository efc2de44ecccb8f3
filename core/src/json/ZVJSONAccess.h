// Inside the library: the containers' storage, for the parser, the writer,
// the key lists and the builders that work on it directly.
#pragma once

#include <cstdint>
#include <string_view>
#include <type_traits>

#include <ZorvaneCoreKit/ZVJSON.h>

#include "json/ZVJSONKey.h"
#include "json/ZVJSONStore.h"

namespace zv_detail {

// One entry of a dictionary; a removed entry keeps its place as nil until
// the next compaction.
struct ZVDictionarySlot {
  ZVDictionarySlot() = default;
  ZVDictionarySlot(ZVKey&& k, ZVJSONValue&& v) noexcept : key(std::move(k)), value(std::move(v)) {}
  explicit ZVDictionarySlot(ZVKey&& k) noexcept : key(std::move(k)) {}
  ZVKey key;
  ZVJSONValue value;
};

}  // namespace zv_detail

struct ZVJSONAccess {
  using Slot = zv_detail::ZVDictionarySlot;
  using Tag = ZVJSONValue::Tag;
  static constexpr size_t kInline = ZVJSONValue::kInline;

  static zv_detail::ZVStore<Slot> slots(ZVMutableDictionary& d) {
    return zv_detail::store(d.slots_);
  }
  static const zv_detail::ZVElements<Slot>& slots(const ZVMutableDictionary& d) { return d.slots_; }
  static zv_detail::ZVStore<ZVJSONValue> items(ZVMutableArray& a) {
    return zv_detail::store(a.items_);
  }
  static size_t& live(ZVMutableDictionary& d) { return d.live_; }

  // Values built in place by the parser; `text` is a text it already owns.
  static char* raw(ZVJSONValue& value) { return value.raw_; }
  static void setTag(ZVJSONValue& value, Tag tag) { value.tag_ = tag; }
  // A scalar written straight into a nil value: assigning a temporary would
  // copy its 24 bytes back while its tag's store is still under way.
  template <class T>
  static void setScalar(ZVJSONValue& value, T scalar) {
    static_assert(std::is_same_v<T, bool> || std::is_same_v<T, double> ||
                  std::is_same_v<T, int64_t>);
    new (value.raw_) T(scalar);
    if constexpr (std::is_same_v<T, bool>)
      value.tag_ = Tag::Bool;
    else if constexpr (std::is_same_v<T, double>)
      value.tag_ = Tag::Double;
    else
      value.tag_ = Tag::Integer;
  }
  static void setText(ZVJSONValue& value, zv_detail::ZVText* text) {
    new (value.raw_) zv_detail::ZVText*(text);
    value.tag_ = Tag::LongString;
  }
  static void setArray(ZVJSONValue& value, ZVArrayPtr array) {
    new (value.raw_) ZVArrayPtr(std::move(array));
    value.tag_ = Tag::Array;
  }
  static void setDictionary(ZVJSONValue& value, ZVDictionaryPtr dictionary) {
    new (value.raw_) ZVDictionaryPtr(std::move(dictionary));
    value.tag_ = Tag::Dictionary;
  }
  static zv_detail::ZVText* text(const ZVJSONValue& value) {
    return value.as<zv_detail::ZVText*>();
  }
  // The pointer a container value holds, or null for any other value: for
  // passes over a held tree, which need no count of their own (copying the
  // pointer costs two atomic operations).
  static const ZVDictionaryPtr* dictionaryIn(const ZVJSONValue& value) {
    return value.tag_ == Tag::Dictionary ? &value.as<ZVDictionaryPtr>() : nullptr;
  }
  static const ZVArrayPtr* arrayIn(const ZVJSONValue& value) {
    return value.tag_ == Tag::Array ? &value.as<ZVArrayPtr>() : nullptr;
  }
};

namespace zv_detail {

// Calls `fn(key, value)` for each live entry, without the visitor's indirection.
template <class Fn>
void forEachEntry(const ZVMutableDictionary& d, Fn&& fn) {
  const auto& slots = ZVJSONAccess::slots(d);
  for (uint32_t i = 0; i < slots.size; ++i)
    if (!slots.data[i].value.isNil()) fn(slots.data[i].key.view(), slots.data[i].value);
}

// Appends an entry without looking for an existing key, for builders that
// know their keys are unique.
ZV_CORE_EXPORT void appendUnchecked(ZVMutableDictionary& d, std::string_view key,
                                    ZVJSONValue value);

}  // namespace zv_detail
