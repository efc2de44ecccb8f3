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

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
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

/// One JSON value, or nil. A small value type: scalars and strings are held
/// inline, containers by shared reference (copying a value that holds a
/// dictionary shares the dictionary).
///
/// @par Thread safety
/// Like `std::string`: concurrent reads are safe; a value must not be written
/// while another thread reads it. Shared containers follow their own contract.
class ZV_CORE_EXPORT ZVJSONValue {
 public:
  enum class Type : uint8_t { Nil, Null, Bool, Integer, Double, String, Array, Dictionary };

  ZVJSONValue() noexcept = default;  ///< nil
  ZVJSONValue(ZVNull) noexcept : v_(ZVNull{}) {}
  ZVJSONValue(bool b) noexcept : v_(b) {}
  ZVJSONValue(int i) noexcept : v_(static_cast<int64_t>(i)) {}
  ZVJSONValue(long i) noexcept : v_(static_cast<int64_t>(i)) {}
  ZVJSONValue(long long i) noexcept : v_(static_cast<int64_t>(i)) {}
  ZVJSONValue(double d) noexcept : v_(d) {}
  ZVJSONValue(std::string s) noexcept : v_(std::move(s)) {}
  ZVJSONValue(std::string_view s) : v_(std::string(s)) {}
  ZVJSONValue(const char* s) : v_(std::string(s)) {}
  /// An empty pointer gives nil.
  ZVJSONValue(ZVArrayPtr a) noexcept;
  /// An empty pointer gives nil.
  ZVJSONValue(ZVDictionaryPtr d) noexcept;

  static ZVJSONValue null() { return ZVJSONValue(ZVNull{}); }

  Type type() const { return static_cast<Type>(v_.index()); }
  bool isNil() const { return type() == Type::Nil; }
  bool isNull() const { return type() == Type::Null; }
  bool isBool() const { return type() == Type::Bool; }
  bool isInteger() const { return type() == Type::Integer; }
  bool isDouble() const { return type() == Type::Double; }
  /// Integer, floating point or boolean.
  bool isNumber() const { return isBool() || isInteger() || isDouble(); }
  bool isString() const { return type() == Type::String; }
  bool isArray() const { return type() == Type::Array; }
  bool isDictionary() const { return type() == Type::Dictionary; }

  /// The string, or nullptr when the value is not a string.
  const std::string* string() const { return std::get_if<std::string>(&v_); }
  /// The boolean, or false when the value is not a boolean.
  bool boolValue() const;
  /// The integer, or 0 when the value is not an integer.
  int64_t integerValue() const;
  /// The number as a double (integers and booleans converted), or 0.0.
  double doubleValue() const;
  /// The array, or an empty pointer when the value is not an array.
  ZVArrayPtr array() const;
  /// The dictionary, or an empty pointer when the value is not a dictionary.
  ZVDictionaryPtr dictionary() const;

  /// Text form, as "%@" prints it: a string as it stands; an integer in
  /// decimal; a double in its shortest round-trip form; a boolean as 1 or 0;
  /// JSON null as "<null>"; nil as "(null)"; a container as pretty-printed JSON.
  std::string description() const;

  /// Deep equality: same type and same content (containers compared by content).
  bool operator==(const ZVJSONValue& other) const;

 private:
  friend struct ZVJSONAccess;  // the parser builds values in place
  std::variant<std::monostate, ZVNull, bool, int64_t, double, std::string, ZVArrayPtr,
               ZVDictionaryPtr>
      v_;
};

/// A mutable JSON array.
///
/// @par Thread safety
/// Not synchronised: one writer, or any number of readers, at a time.
class ZV_CORE_EXPORT ZVMutableArray final : public ZVObject {
 public:
  static ZVArrayPtr make() { return std::make_shared<ZVMutableArray>(); }
  static ZVArrayPtr make(std::vector<ZVJSONValue> items);

  ZVMutableArray() = default;
  explicit ZVMutableArray(std::vector<ZVJSONValue> items) : items_(std::move(items)) {}

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
  std::vector<ZVJSONValue>& items() { return items_; }
  const std::vector<ZVJSONValue>& items() const { return items_; }

  /// A new array holding the same values (nested containers shared).
  ZVArrayPtr mutableCopy() const;
  /// Pretty-printed JSON.
  std::string description() const override;

 private:
  friend struct ZVJSONAccess;  // the parser builds values in place
  std::vector<ZVJSONValue> items_;
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
  /// What remains for a record's `extras`: removes the top-level entries whose
  /// value is the JSON null (they tell a host nothing and are a common source
  /// of type confusion) and returns this very dictionary, not a copy, so that
  /// nested objects stay shared with whatever else holds them.
  ZVDictionaryPtr prune();

  /// Calls `fn(key, value)` for each entry, in insertion order.
  template <class Fn>
  void forEach(Fn&& fn) const {
    for (const auto& e : entries_)
      if (!e.second.isNil()) fn(e.first, e.second);
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
  void appendUnchecked(std::string key, ZVJSONValue value);
  void reserve(size_t n) { entries_.reserve(n); }

 private:
  friend struct ZVJSONAccess;  // the parser builds values in place
  // Removed entries become nil tombstones so that removal does not shift the
  // vector; they are compacted once they outnumber the live entries.
  void compactIfSparse();
  std::vector<Entry> entries_;
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
ZV_CORE_EXPORT ZVJSONParseResult ZVJSONParse(std::string_view text,
                                             const ZVJSONParseOptions& options = {});

/// Serialises a value. Returns false (and leaves `out` unspecified) when the
/// value cannot be written as JSON: nil at the top level, a NaN or infinite
/// number, or a string that is not valid UTF-8. Nil values inside containers
/// are skipped. `pretty` indents with two spaces, one entry per line.
ZV_CORE_EXPORT bool ZVJSONSerialize(const ZVJSONValue& value, bool pretty, std::string& out);
