// The JSON containers: arrays and insertion-ordered dictionaries.
#include <ZorvaneCoreKit/ZVJSON.h>

#include <unordered_map>

#include "json/ZVJSONAccess.h"
#include "json/ZVJSONWrite.h"

using zv_detail::store;
using zv_detail::ZVKey;
using Slot = zv_detail::ZVDictionarySlot;

namespace {

constexpr size_t kNotFound = static_cast<size_t>(-1);
// Up to this many entries a builder finds repeated keys by scanning.
constexpr size_t kScannedEntries = 16;

}  // namespace

// ---------------------------------------------------------------------------
// ZVMutableArray

ZVArrayPtr ZVMutableArray::make() {
  return std::make_shared<ZVMutableArray>();
}

ZVArrayPtr ZVMutableArray::make(std::vector<ZVJSONValue> items) {
  return std::make_shared<ZVMutableArray>(std::move(items));
}

ZVMutableArray::ZVMutableArray(std::vector<ZVJSONValue> items) {
  auto elements = store(items_);
  elements.reserve(items.size());
  for (ZVJSONValue& item : items) elements.emplace_back(std::move(item));
}

ZVMutableArray::~ZVMutableArray() {
  store(items_).destroy();
}

void ZVMutableArray::add(ZVJSONValue v) {
  store(items_).emplace_back(std::move(v));
}

void ZVMutableArray::reserve(size_t n) {
  store(items_).reserve(n);
}

ZVArrayPtr ZVMutableArray::mutableCopy() const {
  auto copy = std::make_shared<ZVMutableArray>();
  store(copy->items_).copyFrom(items_);
  return copy;
}

std::string ZVMutableArray::description() const {
  return zv_detail::describe(*this);
}

// ---------------------------------------------------------------------------
// ZVMutableDictionary

namespace {

size_t indexOf(const zv_detail::ZVElements<Slot>& slots, std::string_view key) {
  const size_t n = slots.size;
  if (key.size() <= ZVKey::kInline) {
    const ZVKey probe(key);  // inline: no allocation
    for (size_t i = 0; i < n; ++i)
      if (slots.data[i].key.sameBytes(probe) && !slots.data[i].value.isNil()) return i;
    return kNotFound;
  }
  for (size_t i = 0; i < n; ++i)
    if (slots.data[i].key.shared() && slots.data[i].key.view() == key &&
        !slots.data[i].value.isNil())
      return i;
  return kNotFound;
}

// Removed entries are nil tombstones, so that removal does not shift the
// others; they are compacted once they outnumber the live entries.
void compactIfSparse(zv_detail::ZVElements<Slot>& slots, size_t live) {
  if (slots.size - live <= live) return;
  store(slots).eraseIf([](const Slot& s) { return s.value.isNil(); });
}

}  // namespace

ZVDictionaryPtr ZVMutableDictionary::make() {
  return std::make_shared<ZVMutableDictionary>();
}

ZVDictionaryPtr ZVMutableDictionary::make(std::vector<Entry> entries) {
  auto dict = std::make_shared<ZVMutableDictionary>();
  auto slots = store(dict->slots_);
  slots.reserve(entries.size());
  if (entries.size() <= kScannedEntries) {
    for (Entry& entry : entries) dict->setObject(entry.first, std::move(entry.second));
    return dict;
  }
  // Many keys: an index finds repeats; a later nil removes an earlier entry.
  std::unordered_map<std::string_view, size_t> index;
  index.reserve(entries.size());
  for (Entry& entry : entries) {
    auto it = index.find(entry.first);
    if (it != index.end()) {
      if (entry.second.isNil()) --dict->live_;
      slots[it->second].value = std::move(entry.second);
      if (slots[it->second].value.isNil()) index.erase(it);
    } else if (!entry.second.isNil()) {
      index.emplace(entry.first, slots.size());
      slots.emplace_back(ZVKey(entry.first), std::move(entry.second));
      ++dict->live_;
    }
  }
  compactIfSparse(dict->slots_, dict->live_);
  return dict;
}

ZVMutableDictionary::~ZVMutableDictionary() {
  store(slots_).destroy();
}

const ZVJSONValue* ZVMutableDictionary::find(std::string_view key) const {
  const size_t pos = indexOf(slots_, key);
  return pos == kNotFound ? nullptr : &slots_.data[pos].value;
}

ZVJSONValue* ZVMutableDictionary::find(std::string_view key) {
  const size_t pos = indexOf(slots_, key);
  return pos == kNotFound ? nullptr : &slots_.data[pos].value;
}

ZVJSONValue ZVMutableDictionary::objectForKey(std::string_view key) const {
  const ZVJSONValue* value = find(key);
  return value != nullptr ? *value : ZVJSONValue();
}

void ZVMutableDictionary::setObject(std::string_view key, ZVJSONValue value) {
  if (value.isNil()) {
    removeObjectForKey(key);
    return;
  }
  if (ZVJSONValue* existing = find(key)) {
    *existing = std::move(value);
    return;
  }
  store(slots_).emplace_back(ZVKey(key), std::move(value));
  ++live_;
}

void ZVMutableDictionary::removeObjectForKey(std::string_view key) {
  (void)getAndRemoveObjectForKey(key);
}

ZVJSONValue ZVMutableDictionary::getAndRemoveObjectForKey(std::string_view key) {
  const size_t pos = indexOf(slots_, key);
  if (pos == kNotFound) return {};
  ZVJSONValue value = std::move(slots_.data[pos].value);
  --live_;
  if (pos + 1 == slots_.size)
    store(slots_).pop_back();
  else
    compactIfSparse(slots_, live_);
  return value;
}

ZVDictionaryPtr ZVMutableDictionary::prune() {
  auto slots = store(slots_);
  slots.eraseIf([](const Slot& s) { return s.value.isNil() || s.value.isNull(); });
  live_ = slots.size();
  // What remains is usually kept for good: give back most of the unused room
  // (a parsed dictionary's room belongs to its arena and stays).
  if (slots.capacity() > 2 * slots.size() + 4) slots.shrinkToFit();
  if (ZVDictionaryPtr self = weak_from_this().lock()) return self;
  // Not owned by a shared pointer: the closest we can give is a copy.
  return mutableCopy();
}

void ZVMutableDictionary::visit(void (*fn)(void*, std::string_view, const ZVJSONValue&),
                                void* context) const {
  zv_detail::forEachEntry(
      *this, [&](std::string_view key, const ZVJSONValue& value) { fn(context, key, value); });
}

std::vector<ZVMutableDictionary::Entry> ZVMutableDictionary::entries() const {
  std::vector<Entry> out;
  out.reserve(live_);
  zv_detail::forEachEntry(
      *this, [&](std::string_view key, const ZVJSONValue& value) { out.emplace_back(key, value); });
  return out;
}

std::vector<std::string> ZVMutableDictionary::allKeys() const {
  std::vector<std::string> out;
  out.reserve(live_);
  zv_detail::forEachEntry(*this,
                          [&](std::string_view key, const ZVJSONValue&) { out.emplace_back(key); });
  return out;
}

ZVDictionaryPtr ZVMutableDictionary::mutableCopy() const {
  auto copy = std::make_shared<ZVMutableDictionary>();
  auto slots = store(copy->slots_);
  slots.reserve(live_);
  for (uint32_t i = 0; i < slots_.size; ++i)
    if (!slots_.data[i].value.isNil()) slots.emplace_back(slots_.data[i]);
  copy->live_ = slots.size();
  return copy;
}

std::string ZVMutableDictionary::description() const {
  return zv_detail::describe(*this);
}

void ZVMutableDictionary::reserve(size_t n) {
  store(slots_).reserve(n);
}

void zv_detail::appendUnchecked(ZVMutableDictionary& d, std::string_view key, ZVJSONValue value) {
  if (value.isNil()) return;
  ZVJSONAccess::slots(d).emplace_back(ZVKey(key), std::move(value));
  ++ZVJSONAccess::live(d);
}
