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

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include <ZorvaneCoreKit/ZVObject.h>

// X11's headers define `Bool` as a macro, and a host may include them
// before ours: it is set aside here and restored at the end of this header.
#pragma push_macro("Bool")
#undef Bool

class ZVMutableDictionary;
class ZVMutableArray;
using ZVDictionaryPtr = std::shared_ptr<ZVMutableDictionary>;
using ZVArrayPtr = std::shared_ptr<ZVMutableArray>;

/// The JSON null value (distinct from nil, the absence of a value).
struct ZVNull {
  bool operator==(const ZVNull&) const { return true; }
  bool operator!=(const ZVNull&) const { return false; }
};

namespace zv_detail {
struct ZVText;
struct ZVDictionarySlot;
// A container's elements: where they are, how many, and the room. How they
// grow and where their memory comes from is the library's business.
template <class T>
struct ZVElements {
  T* data = nullptr;
  uint32_t size = 0;
  uint32_t capacity = 0;
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
    if (tag_ == Tag::LongString) return longString();
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
  bool operator!=(const ZVJSONValue& other) const { return !(*this == other); }

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
  std::string_view longString() const;
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
  static ZVArrayPtr make();
  static ZVArrayPtr make(std::vector<ZVJSONValue> items);

  ZVMutableArray() = default;
  explicit ZVMutableArray(std::vector<ZVJSONValue> items);
  ~ZVMutableArray() override;
  ZVMutableArray(const ZVMutableArray&) = delete;
  ZVMutableArray& operator=(const ZVMutableArray&) = delete;

  size_t count() const { return items_.size; }
  bool empty() const { return items_.size == 0; }
  const ZVJSONValue& operator[](size_t i) const { return items_.data[i]; }
  ZVJSONValue& operator[](size_t i) { return items_.data[i]; }
  void add(ZVJSONValue v);
  void reserve(size_t n);
  const ZVJSONValue* begin() const { return items_.data; }
  const ZVJSONValue* end() const { return items_.data + items_.size; }
  ZVJSONValue* begin() { return items_.data; }
  ZVJSONValue* end() { return items_.data + items_.size; }

  /// A new array holding the same values (nested containers shared).
  ZVArrayPtr mutableCopy() const;
  /// Pretty-printed JSON.
  std::string description() const override;

 private:
  friend struct ZVJSONAccess;  // the parser builds values in place
  zv_detail::ZVElements<ZVJSONValue> items_;
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

  static ZVDictionaryPtr make();
  static ZVDictionaryPtr make(std::vector<Entry> entries);

  ZVMutableDictionary() = default;
  ~ZVMutableDictionary() override;
  ZVMutableDictionary(const ZVMutableDictionary&) = delete;
  ZVMutableDictionary& operator=(const ZVMutableDictionary&) = delete;

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
  /// What remains for a record's `extras`: removes the top-level entries whose
  /// value is the JSON null (they tell a host nothing and are a common source
  /// of type confusion) and returns this very dictionary, not a copy, so that
  /// nested objects stay shared with whatever else holds them.
  ZVDictionaryPtr prune();

  /// Calls `fn(key, value)` for each entry, in insertion order; `key` is a
  /// `std::string_view` valid for the call.
  template <class Fn>
  void forEach(Fn&& fn) const {
    using Callable = std::remove_reference_t<Fn>;
    visit([](void* f, std::string_view key,
             const ZVJSONValue& value) { (*static_cast<Callable*>(f))(key, value); },
          const_cast<void*>(static_cast<const void*>(&fn)));
  }
  /// The entries in insertion order.
  std::vector<Entry> entries() const;
  std::vector<std::string> allKeys() const;

  /// A new dictionary with the same entries (nested containers shared), like
  /// a platform `mutableCopy`.
  ZVDictionaryPtr mutableCopy() const;
  /// Pretty-printed JSON.
  std::string description() const override;

  void reserve(size_t n);

 private:
  friend struct ZVJSONAccess;  // the parser and the records work on the slots
  void visit(void (*fn)(void*, std::string_view, const ZVJSONValue&), void* context) const;
  // Removed entries stay as nil tombstones until they outnumber the live ones.
  zv_detail::ZVElements<zv_detail::ZVDictionarySlot> slots_;
  size_t live_ = 0;
};

/// Limits applied while parsing an answer body.
struct ZVJSONParseOptions {
  /// Deepest nesting of arrays and objects accepted. Default: 512. Deeper
  /// input fails with a clear error instead of exhausting the stack later.
  size_t maxDepth = 512;
  /// Most memory, in bytes, that the parsed values may take: their
  /// containers, elements, members, long strings and keys, and the parser's
  /// scratch space for them. A text whose values need more fails with
  /// "JSON values need more than N bytes of memory" and `tooLarge` set, having
  /// used at most this much for them. Default: no limit. The SDK parses every
  /// answer with `ZVJSONMemoryForAnswer(maxResponseBytes)`.
  size_t maxValueBytes = SIZE_MAX;
};

/// The memory budget of the values of an answer of at most `maxAnswerBytes`
/// bytes: four times that size (no limit for 0 or a size whose budget does
/// not fit in `size_t`). A catalogue of offers takes about 2.6 times its
/// text; tiny containers and short scalars take 33 to 46 times theirs, so the
/// budget is what bounds them.
constexpr size_t ZVJSONMemoryForAnswer(size_t maxAnswerBytes) {
  return maxAnswerBytes == 0 || maxAnswerBytes > SIZE_MAX / 4 ? SIZE_MAX : 4 * maxAnswerBytes;
}

/// The outcome of a parse: a value, or an error message (then `value` is nil).
struct ZVJSONParseResult {
  ZVJSONValue value;
  std::string error;  ///< Empty on success.
  /// The values would have taken more than `ZVJSONParseOptions::maxValueBytes`.
  bool tooLarge = false;
  bool ok() const { return error.empty(); }
};

/// Parses UTF-8 JSON text. Every array and object in the result is a new
/// mutable container. Invalid UTF-8, trailing garbage, nesting deeper than
/// `options.maxDepth` and values that need more than `options.maxValueBytes`
/// are errors; duplicate keys keep the position of the first occurrence and
/// the value of the last.
///
/// Numbers: an integer within the signed 64-bit range is an integer; any
/// other number is a double: an integer beyond that range becomes the nearest
/// double, and a number whose magnitude is beyond double's range becomes
/// infinity with its sign (one below its range, zero).
///
/// The overload for a mutable `std::string` parses in place when the string
/// has `ZVJSONPadding` bytes of spare capacity (it appends blank padding and
/// takes it off again: the string is as it was when the call returns, and no
/// other thread may use it meanwhile); the others parse a padded copy.
///
/// Memory: the containers, long strings and long keys of one result share
/// one allocation arena, freed when the last of them is gone (up to 2 MiB of
/// freed arenas is kept for the next parses). A piece kept after the rest is
/// dropped (a nested dictionary, a long string) keeps the whole result's
/// memory, about three times the text.
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

#pragma pop_macro("Bool")
