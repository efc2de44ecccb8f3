// JSON values with the semantics the records depend on.
//
// - Dictionaries and arrays are shared, mutable objects held by
//   `std::shared_ptr`: removing a key from a nested dictionary through one
//   holder is seen by every holder.
// - "Nil" (no value: an absent key, an unset field) is distinct from the JSON
//   null value.
// - Numbers keep whether they were integers, floating point or booleans.
// - Strings are UTF-8.
// - Dictionaries keep their keys in insertion order, so serialised output is stable.
#pragma once

#include <atomic>
#include <bit>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <ZorvaneCoreKit/ZVObject.h>

class ZVMutableDictionary;
class ZVMutableArray;
using ZVDictionaryPtr = std::shared_ptr<ZVMutableDictionary>;
using ZVArrayPtr = std::shared_ptr<ZVMutableArray>;

/// The JSON null value (distinct from nil, the absence of a value).
struct ZVNull {
  bool operator==(const ZVNull&) const = default;
};

namespace zv_detail {

class ZVArena;

// Immutable text shared by reference count: the count, the size, the arena
// it was cut from (or null), then the bytes and a NUL. Long strings live here
// so that a value stays small and a copy of it costs one atomic increment.
struct ZV_CORE_EXPORT ZVText {
  std::atomic<size_t> refs;
  size_t size;
  ZVArena* arena;
  const char* data() const { return reinterpret_cast<const char*>(this + 1); }
  char* data() { return reinterpret_cast<char*>(this + 1); }
  static ZVText* make(std::string_view s);
  void retain() { refs.fetch_add(1, std::memory_order_relaxed); }
  // For the parsing thread, while nothing it built is visible elsewhere.
  void retainUnshared() {
    refs.store(refs.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  }
  void release() {
    if (refs.fetch_sub(1, std::memory_order_acq_rel) == 1) destroy();
  }

 private:
  void destroy();
};

// A dictionary key in 8 bytes: up to 7 bytes held inline, or a shared
// ZVText (the parser shares one text among the equal long keys of a
// document). One byte tags the form: odd for inline keys, with the count in
// its upper bits and the rest zeroed, so two inline keys are equal exactly
// when their 8 bytes are; a text's address is even there. Internal to the
// dictionary; hosts see keys as string views.
class ZV_CORE_EXPORT ZVKey {
 public:
  static constexpr size_t kInline = 7;

  ZVKey() noexcept { clearInline(); }
  explicit ZVKey(std::string_view s) {
    if (s.size() <= kInline) {
      std::memset(bytes_, 0, sizeof bytes_);
      if (!s.empty()) std::memcpy(bytes_ + kCharsAt, s.data(), s.size());
      bytes_[kTagAt] = static_cast<char>((s.size() << 1) | 1);
    } else {
      setText(ZVText::make(s));
    }
  }
  /// Takes over one reference to `text`.
  explicit ZVKey(ZVText* text) noexcept { setText(text); }
  /// An inline key (`s` at most kInline bytes) from text that may be read
  /// eight bytes from its start: one word load and one store instead of a
  /// byte-wise copy.
  static ZVKey fromPadded(std::string_view s) noexcept {
    uint64_t word;
    std::memcpy(&word, s.data(), sizeof word);
    const unsigned bits = 8 * static_cast<unsigned>(s.size());
    const uint64_t tag = (s.size() << 1) | 1;
    if constexpr (kLittle)
      word = bits == 0 ? tag : ((word & (~uint64_t{0} >> (64 - bits))) << 8) | tag;
    else
      word = bits == 0 ? tag : (word & ~(~uint64_t{0} >> bits)) | tag;
    ZVKey key;
    std::memcpy(key.bytes_, &word, sizeof word);
    return key;
  }
  ZVKey(const ZVKey& other) noexcept {
    std::memcpy(bytes_, other.bytes_, sizeof bytes_);
    if (shared()) text()->retain();
  }
  ZVKey(ZVKey&& other) noexcept {
    std::memcpy(bytes_, other.bytes_, sizeof bytes_);
    other.clearInline();
  }
  ZVKey& operator=(ZVKey other) noexcept {
    std::swap(bytes_, other.bytes_);
    return *this;
  }
  ~ZVKey() {
    if (shared()) text()->release();
  }

  std::string_view view() const {
    if (shared()) return {text()->data(), text()->size};
    return {bytes_ + kCharsAt, inlineSize()};
  }
  size_t size() const { return shared() ? text()->size : inlineSize(); }
  bool shared() const { return (bytes_[kTagAt] & 1) == 0; }
  /// The 8 bytes as a number, for hashing inline keys.
  uint64_t bits() const {
    uint64_t word;
    std::memcpy(&word, bytes_, sizeof word);
    return word;
  }
  /// Byte-wise equality: exact when either key is inline.
  bool sameBytes(const ZVKey& other) const {
    return std::memcmp(bytes_, other.bytes_, sizeof bytes_) == 0;
  }

 private:
  static constexpr bool kLittle = std::endian::native == std::endian::little;
  static_assert(kLittle || std::endian::native == std::endian::big, "mixed-endian platform");
  // The byte that holds a pointer's lowest bits, and where inline bytes start.
  static constexpr size_t kTagAt = kLittle ? 0 : 7;
  static constexpr size_t kCharsAt = kLittle ? 1 : 0;

  size_t inlineSize() const { return static_cast<unsigned char>(bytes_[kTagAt]) >> 1; }
  void clearInline() {
    constexpr uint64_t kEmpty = 1;  // the tag of "", in the tag byte on either byte order
    std::memcpy(bytes_, &kEmpty, sizeof bytes_);
  }
  void setText(ZVText* text) {
    static_assert(alignof(ZVText) >= 2, "a text's address must be even");
    std::memcpy(bytes_, &text, sizeof text);
  }
  ZVText* text() const {
    ZVText* t;
    std::memcpy(&t, bytes_, sizeof t);
    return t;
  }
  alignas(8) char bytes_[8];
};

// A container's elements, contiguous: a lean vector (16 bytes) that can
// start on memory it does not own (cut from a parse's arena) and moves to the
// heap only if it grows. T moves by its bytes, as keys and values do.
template <class T>
class ZVStore {
 public:
  ZVStore() noexcept = default;
  ZVStore(const ZVStore& other) : ZVStore() {
    reserve(other.size());
    for (const T& item : other) emplace_back(item);
  }
  ZVStore(ZVStore&& other) noexcept
      : data_(std::exchange(other.data_, nullptr)),
        size_(std::exchange(other.size_, 0)),
        capacity_(std::exchange(other.capacity_, 0)) {}
  ZVStore& operator=(ZVStore other) noexcept {
    std::swap(data_, other.data_);
    std::swap(size_, other.size_);
    std::swap(capacity_, other.capacity_);
    return *this;
  }
  ~ZVStore() {
    clear();
    if (owned()) ::operator delete(data_);
  }

  /// Starts an empty store on `capacity` elements' worth of memory at
  /// `memory`, which the store never frees.
  void borrow(void* memory, size_t capacity) {
    clear();
    if (owned()) ::operator delete(data_);
    data_ = static_cast<T*>(memory);
    capacity_ = checked(capacity) | kBorrowed;
  }

  /// Starts a store of `count` elements on `memory`, which the store never
  /// frees; the caller then places the elements there by their bytes.
  void borrowToFill(void* memory, size_t count) {
    borrow(memory, count);
    size_ = static_cast<uint32_t>(count);
  }

  size_t size() const { return size_; }
  size_t capacity() const { return capacity_ & ~kBorrowed; }
  bool empty() const { return size_ == 0; }
  T* begin() { return data_; }
  T* end() { return data_ + size_; }
  const T* begin() const { return data_; }
  const T* end() const { return data_ + size_; }
  T& operator[](size_t i) { return data_[i]; }
  const T& operator[](size_t i) const { return data_[i]; }
  T& back() { return data_[size_ - 1]; }
  const T& back() const { return data_[size_ - 1]; }

  void reserve(size_t n) {
    if (n > capacity()) moveTo(n);
  }
  template <class... Args>
  T& emplace_back(Args&&... args) {
    if (size_ == capacity()) moveTo(size_ < 4 ? 4 : 2 * static_cast<size_t>(size_));
    T* item = new (data_ + size_) T(std::forward<Args>(args)...);
    ++size_;
    return *item;
  }
  void push_back(T item) { emplace_back(std::move(item)); }
  void pop_back() { data_[--size_].~T(); }
  void clear() {
    while (size_ > 0) pop_back();
  }
  /// Removes the elements for which `pred` holds, keeping the others' order.
  /// The kept ones move down by their bytes.
  template <class Pred>
  void eraseIf(Pred pred) {
    uint32_t kept = 0;
    for (uint32_t i = 0; i < size_; ++i) {
      if (pred(data_[i])) {
        data_[i].~T();
        continue;
      }
      if (kept != i)
        std::memcpy(static_cast<void*>(data_ + kept), static_cast<const void*>(data_ + i),
                    sizeof(T));
      ++kept;
    }
    size_ = kept;
  }
  /// Gives back unused room, unless the memory is borrowed.
  void shrinkToFit() {
    if (owned() && capacity() > size_) moveTo(size_);
  }

 private:
  static constexpr uint32_t kBorrowed = uint32_t{1} << 31;
  static uint32_t checked(size_t n) {
    if (n >= kBorrowed) throw std::length_error("too many elements in a JSON container");
    return static_cast<uint32_t>(n);
  }
  bool owned() const { return (capacity_ & kBorrowed) == 0 && data_ != nullptr; }
  void moveTo(size_t n) {
    const uint32_t capacity = checked(n);
    T* fresh = n == 0 ? nullptr : static_cast<T*>(::operator new(n * sizeof(T)));
    if (size_ != 0)
      std::memcpy(static_cast<void*>(fresh), static_cast<const void*>(data_), size_ * sizeof(T));
    if (owned()) ::operator delete(data_);
    data_ = fresh;
    capacity_ = capacity;
  }

  T* data_ = nullptr;
  uint32_t size_ = 0;
  uint32_t capacity_ = 0;  // the top bit marks borrowed memory
};

}  // namespace zv_detail

/// One JSON value, or nil. A small value type (24 bytes): scalars and strings
/// of up to 22 bytes are held inline, longer strings as immutable shared
/// text, containers by shared reference (copying a value that holds a
/// dictionary shares the dictionary).
///
/// @par Thread safety
/// Like `std::string`: concurrent reads are safe; a value must not be written
/// while another thread reads it. Shared containers follow their own contract.
class ZV_CORE_EXPORT ZVJSONValue {
 public:
  enum class Type : uint8_t { Nil, Null, Bool, Integer, Double, String, Array, Dictionary };

  ZVJSONValue() noexcept : tag_(Tag::Nil) {}  ///< nil
  ZVJSONValue(ZVNull) noexcept : tag_(Tag::Null) {}
  ZVJSONValue(bool b) noexcept : tag_(Tag::Bool) { new (raw_) bool(b); }
  ZVJSONValue(int i) noexcept : tag_(Tag::Integer) { new (raw_) int64_t(i); }
  ZVJSONValue(long i) noexcept : tag_(Tag::Integer) { new (raw_) int64_t(i); }
  ZVJSONValue(long long i) noexcept : tag_(Tag::Integer) { new (raw_) int64_t(i); }
  ZVJSONValue(double d) noexcept : tag_(Tag::Double) { new (raw_) double(d); }
  ZVJSONValue(std::string_view s) { setString(s); }
  ZVJSONValue(const std::string& s) : ZVJSONValue(std::string_view(s)) {}
  ZVJSONValue(const char* s) : ZVJSONValue(std::string_view(s)) {}
  /// An empty pointer gives nil.
  ZVJSONValue(ZVArrayPtr a) noexcept;
  /// An empty pointer gives nil.
  ZVJSONValue(ZVDictionaryPtr d) noexcept;

  ZVJSONValue(const ZVJSONValue& other) noexcept;
  // Moves copy the whole 24 bytes at once: whatever the payload, it moves by
  // its bytes, and the source is left nil.
  ZVJSONValue(ZVJSONValue&& other) noexcept {
    std::memcpy(static_cast<void*>(this), static_cast<const void*>(&other), sizeof(ZVJSONValue));
    other.tag_ = Tag::Nil;
  }
  ZVJSONValue& operator=(const ZVJSONValue& other) noexcept {
    if (this != &other) *this = ZVJSONValue(other);
    return *this;
  }
  ZVJSONValue& operator=(ZVJSONValue&& other) noexcept {
    if (this != &other) {
      reset();
      std::memcpy(static_cast<void*>(this), static_cast<const void*>(&other), sizeof(ZVJSONValue));
      other.tag_ = Tag::Nil;
    }
    return *this;
  }
  ~ZVJSONValue() { reset(); }

  static ZVJSONValue null() { return ZVJSONValue(ZVNull{}); }

  Type type() const { return kTypes[static_cast<size_t>(tag_)]; }
  bool isNil() const { return tag_ == Tag::Nil; }
  bool isNull() const { return tag_ == Tag::Null; }
  bool isBool() const { return tag_ == Tag::Bool; }
  bool isInteger() const { return tag_ == Tag::Integer; }
  bool isDouble() const { return tag_ == Tag::Double; }
  /// Integer, floating point or boolean.
  bool isNumber() const { return isBool() || isInteger() || isDouble(); }
  bool isString() const { return tag_ == Tag::ShortString || tag_ == Tag::LongString; }
  bool isArray() const { return tag_ == Tag::Array; }
  bool isDictionary() const { return tag_ == Tag::Dictionary; }

  /// The string, or no value when the value is not a string. The view stays
  /// valid as long as this value is neither changed nor destroyed.
  std::optional<std::string_view> string() const {
    if (tag_ == Tag::ShortString) return std::string_view(raw_, static_cast<size_t>(raw_[kInline]));
    if (tag_ == Tag::LongString) return std::string_view(text()->data(), text()->size);
    return std::nullopt;
  }
  /// The boolean, or false when the value is not a boolean.
  bool boolValue() const { return tag_ == Tag::Bool && as<bool>(); }
  /// The integer, or 0 when the value is not an integer.
  int64_t integerValue() const { return tag_ == Tag::Integer ? as<int64_t>() : 0; }
  /// The number as a double (integers and booleans converted), or 0.0.
  double doubleValue() const;
  /// The array, or an empty pointer when the value is not an array.
  ZVArrayPtr array() const { return tag_ == Tag::Array ? as<ZVArrayPtr>() : ZVArrayPtr(); }
  /// The dictionary, or an empty pointer when the value is not a dictionary.
  ZVDictionaryPtr dictionary() const {
    return tag_ == Tag::Dictionary ? as<ZVDictionaryPtr>() : ZVDictionaryPtr();
  }

  /// Text form, as "%@" prints it: a string as it stands; an integer in
  /// decimal; a double in its shortest round-trip form; a boolean as 1 or 0;
  /// JSON null as "<null>"; nil as "(null)"; a container as pretty-printed JSON.
  std::string description() const;

  /// Deep equality: same type and same content (containers compared by content).
  bool operator==(const ZVJSONValue& other) const;

 private:
  friend struct ZVJSONAccess;  // the parser builds values in place
  enum class Tag : uint8_t {
    Nil,
    Null,
    Bool,
    Integer,
    Double,
    ShortString,
    LongString,
    Array,
    Dictionary
  };
  static constexpr Type kTypes[] = {Type::Nil,     Type::Null,   Type::Bool,
                                    Type::Integer, Type::Double, Type::String,
                                    Type::String,  Type::Array,  Type::Dictionary};
  static constexpr size_t kInline = 22;  // bytes of a string held inline

  void setString(std::string_view s);
  void reset() noexcept {
    if (tag_ >= Tag::LongString) destroy();
  }
  void destroy() noexcept;

  template <class T>
  T& as() {
    return *std::launder(reinterpret_cast<T*>(raw_));
  }
  template <class T>
  const T& as() const {
    return *std::launder(reinterpret_cast<const T*>(raw_));
  }
  zv_detail::ZVText* text() const { return as<zv_detail::ZVText*>(); }

  // The payload: a scalar, a text's address or a shared pointer at the start,
  // or a short string's bytes followed by their count. With the tag after
  // it, a value takes 24 bytes.
  alignas(8) char raw_[kInline + 1];
  Tag tag_;
};

static_assert(sizeof(ZVJSONValue) == 24, "a JSON value is meant to take 24 bytes");

/// A mutable JSON array.
///
/// @par Thread safety
/// Not synchronised: one writer, or any number of readers, at a time.
class ZV_CORE_EXPORT ZVMutableArray final : public ZVObject {
 public:
  static ZVArrayPtr make() { return std::make_shared<ZVMutableArray>(); }
  static ZVArrayPtr make(std::vector<ZVJSONValue> items);

  ZVMutableArray() = default;
  explicit ZVMutableArray(std::vector<ZVJSONValue> items);

  size_t count() const { return items_.size(); }
  bool empty() const { return items_.empty(); }
  const ZVJSONValue& operator[](size_t i) const { return items_[i]; }
  ZVJSONValue& operator[](size_t i) { return items_[i]; }
  void add(ZVJSONValue v) { items_.push_back(std::move(v)); }
  void reserve(size_t n) { items_.reserve(n); }
  auto begin() const { return items_.begin(); }
  auto end() const { return items_.end(); }
  auto begin() { return items_.begin(); }
  auto end() { return items_.end(); }
  std::span<ZVJSONValue> items() { return {items_.begin(), items_.size()}; }
  std::span<const ZVJSONValue> items() const { return {items_.begin(), items_.size()}; }

  /// A new array holding the same values (nested containers shared).
  ZVArrayPtr mutableCopy() const;
  /// Pretty-printed JSON.
  std::string description() const override;

 private:
  friend struct ZVJSONAccess;  // the parser builds values in place
  zv_detail::ZVStore<ZVJSONValue> items_;
};

/// A mutable JSON object whose keys keep their insertion order.
///
/// Lookups are by exact key. Setting an existing key replaces its value in
/// place; setting nil removes the key.
///
/// @par Thread safety
/// Not synchronised: one writer, or any number of readers, at a time.
class ZV_CORE_EXPORT ZVMutableDictionary final
    : public ZVObject,
      public std::enable_shared_from_this<ZVMutableDictionary> {
 public:
  /// A key and its value, as builders give them and `entries()` returns them.
  using Entry = std::pair<std::string, ZVJSONValue>;

  static ZVDictionaryPtr make() { return std::make_shared<ZVMutableDictionary>(); }
  static ZVDictionaryPtr make(std::vector<Entry> entries);

  ZVMutableDictionary() = default;

  size_t count() const { return live_; }
  bool empty() const { return live_ == 0; }

  /// The value under `key`, or nullptr when the key is absent.
  const ZVJSONValue* find(std::string_view key) const;
  ZVJSONValue* find(std::string_view key);
  /// The value under `key`, or nil when the key is absent.
  ZVJSONValue objectForKey(std::string_view key) const;
  /// Sets `key` to `value`; a nil value removes the key.
  void setObject(std::string_view key, ZVJSONValue value);
  void removeObjectForKey(std::string_view key);
  /// Returns the value stored under `key` (nil when absent) and removes the entry.
  ZVJSONValue getAndRemoveObjectForKey(std::string_view key);
  /// Keys prepared once for `takeObjectsForKeys`: the list a record takes
  /// from every object it is built from. Immutable, so it may be shared
  /// between threads (a function-local static, typically).
  class ZV_CORE_EXPORT KeyList {
   public:
    explicit KeyList(std::span<const std::string_view> keys);
    KeyList(std::initializer_list<std::string_view> keys)
        : KeyList(std::span<const std::string_view>(keys.begin(), keys.size())) {}
    KeyList(const KeyList&) = delete;
    KeyList& operator=(const KeyList&) = delete;
    size_t size() const { return views_.size(); }

   private:
    friend class ZVMutableDictionary;
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

  /// `getAndRemoveObjectForKey` for each of `keys` in one pass: `values[i]`
  /// receives the value of `keys[i]` (nil when absent). `values` starts nil
  /// and holds at least as many elements as `keys` (extra keys are ignored);
  /// keys repeated in `keys` are taken once. The removed entries' places are
  /// compacted by the next removal or `prune`.
  void takeObjectsForKeys(const KeyList& keys, std::span<ZVJSONValue> values);
  void takeObjectsForKeys(std::span<const std::string_view> keys, std::span<ZVJSONValue> values);
  /// What remains for a record's `extras`: removes the top-level entries whose
  /// value is the JSON null (they tell a host nothing and are a common source
  /// of type confusion) and returns this very dictionary, not a copy, so that
  /// nested objects stay shared with whatever else holds them.
  ZVDictionaryPtr prune();

  /// Calls `fn(key, value)` for each entry, in insertion order; `key` is a
  /// `std::string_view` valid for the call.
  template <class Fn>
  void forEach(Fn&& fn) const {
    for (const Slot& slot : slots_)
      if (!slot.value.isNil()) fn(slot.key.view(), slot.value);
  }
  /// The entries in insertion order.
  std::vector<Entry> entries() const;
  std::vector<std::string> allKeys() const;

  /// A new dictionary with the same entries (nested containers shared), like
  /// a platform `mutableCopy`.
  ZVDictionaryPtr mutableCopy() const;
  /// Pretty-printed JSON.
  std::string description() const override;

  /// Appends an entry without looking for an existing key. For builders that
  /// know their keys are unique (the parser checks duplicates itself).
  void appendUnchecked(std::string_view key, ZVJSONValue value);
  void reserve(size_t n) { slots_.reserve(n); }

 private:
  friend struct ZVJSONAccess;  // the parser builds values in place
  struct Slot {
    Slot() = default;
    Slot(zv_detail::ZVKey&& k, ZVJSONValue&& v) noexcept : key(std::move(k)), value(std::move(v)) {}
    explicit Slot(zv_detail::ZVKey&& k) noexcept : key(std::move(k)) {}
    zv_detail::ZVKey key;
    ZVJSONValue value;
  };
  size_t indexOf(std::string_view key) const;
  // Removed entries become nil tombstones so that removal does not shift the
  // vector; they are compacted once they outnumber the live entries.
  void compactIfSparse();
  zv_detail::ZVStore<Slot> slots_;
  size_t live_ = 0;
};

/// Limits applied while parsing an answer body.
struct ZVJSONParseOptions {
  /// Deepest nesting of arrays and objects accepted. Default: 512. Deeper
  /// input fails with a clear error instead of exhausting the stack later.
  size_t maxDepth = 512;
};

/// The outcome of a parse: a value, or an error message (then `value` is nil).
struct ZVJSONParseResult {
  ZVJSONValue value;
  std::string error;  ///< Empty on success.
  bool ok() const { return error.empty(); }
};

/// Parses UTF-8 JSON text. Every array and object in the result is a new
/// mutable container. Invalid UTF-8, trailing garbage, numbers beyond 64 bits
/// and nesting deeper than `options.maxDepth` are errors; duplicate keys keep
/// the position of the first occurrence and the value of the last.
///
/// The parser reads up to `ZVJSONPadding` bytes past the end of the text, so
/// the text is copied into a padded buffer first, except by the overload for
/// a mutable `std::string`: it appends the padding to the string itself (in
/// place when the capacity leaves that room, as the SDK's transport does for
/// answer bodies), parses, and takes the padding off again; the string is as
/// it was when the call returns, and no other thread may use it meanwhile.
///
/// A thread keeps its parser's buffers for its next text, which spares that
/// parse faulting fresh buffers in; they hold about 0.8 times the size of the
/// largest text they served (resident). Buffers for texts up to 16 MB are
/// always kept. Larger ones are kept while the texts keep their size: the
/// next parse gives them back if its text is less than a quarter of theirs,
/// and buffers for a text over 256 MB are given back at once.
///
/// Memory: the containers, long strings and long keys of one result are cut
/// from one arena, in parse order, and the arena is freed when the last of
/// them is gone. A piece kept after the rest is dropped (a nested dictionary,
/// a record's `extras`, a long string) therefore keeps the whole result's
/// memory, about three times the text. That is the trade for a parse and a
/// teardown without a heap allocation or free per piece; the SDK keeps a
/// catalogue's records together, so they share one arena. Containers that
/// grow after the parse take their new room from the heap.
ZV_CORE_EXPORT ZVJSONParseResult ZVJSONParse(std::string_view text,
                                             const ZVJSONParseOptions& options = {});
ZV_CORE_EXPORT ZVJSONParseResult ZVJSONParse(std::string& text,
                                             const ZVJSONParseOptions& options = {});
inline ZVJSONParseResult ZVJSONParse(const char* text, const ZVJSONParseOptions& options = {}) {
  return ZVJSONParse(std::string_view(text), options);
}

/// Spare capacity past a string's end that lets `ZVJSONParse` read it in place.
inline constexpr size_t ZVJSONPadding = 64;

/// Serialises a value. Returns false (and leaves `out` unspecified) when the
/// value cannot be written as JSON: nil at the top level, a NaN or infinite
/// number, or a string that is not valid UTF-8. Nil values inside containers
/// are skipped. `pretty` indents with two spaces, one entry per line.
ZV_CORE_EXPORT bool ZVJSONSerialize(const ZVJSONValue& value, bool pretty, std::string& out);
