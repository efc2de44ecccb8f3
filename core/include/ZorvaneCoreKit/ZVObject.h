// The common root of every object that can travel in a notification's user
// information: records, arrays of records, errors, numbers and JSON containers.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <ZorvaneCoreKit/ZVExport.h>

/// Root object with a text form.
///
/// `description()` is what a "%@" format prints for the object. The default is
/// "<ClassName: 0x...>" (the class's demangled name and the object's address).
/// Records and errors separate their fields with carriage returns; one inside
/// a field's text (a service's) prints as a backslash and an "r", so that it
/// cannot start a field of its own in a log.
///
/// @par Thread safety
/// `description()` of the root is safe from any thread; subclasses state their own contract.
class ZV_CORE_EXPORT ZVObject {
 public:
  virtual ~ZVObject();
  virtual std::string description() const;

 protected:
  ZVObject() = default;
  ZVObject(const ZVObject&) = default;
  ZVObject& operator=(const ZVObject&) = default;
};

/// Text form of a possibly-null object: its `description()`, or "(null)".
ZV_CORE_EXPORT std::string ZVDescribe(const ZVObject* object);
inline std::string ZVDescribe(const std::shared_ptr<const ZVObject>& object) {
  return ZVDescribe(object.get());
}
/// Text form of an optional string: the string itself (a carriage return in it
/// written as a backslash and an "r"), or "(null)".
ZV_CORE_EXPORT std::string ZVDescribe(const std::string* text);

/// Text form of a list of texts in the platform's array layout:
/// "(\n    first,\n    second\n)"; an empty list prints "(\n)".
ZV_CORE_EXPORT std::string ZVDescribeList(const std::vector<std::string>& items);

/// A signed 64-bit number as an object (used in notification user information).
class ZV_CORE_EXPORT ZVNumber final : public ZVObject {
 public:
  explicit ZVNumber(int64_t value) : value_(value) {}
  int64_t int64Value() const { return value_; }
  std::string description() const override;

 private:
  int64_t value_;
};

/// An immutable, ordered array of shared objects of type T that is itself an
/// object, so that a list of records can be the result of a completion handler
/// and the value of a notification's user information at once.
///
/// @par Thread safety
/// Immutable after construction: safe to read from any thread. The elements
/// are shared, not copied; their own contract applies.
template <class T>
class ZVArray final : public ZVObject {
 public:
  using value_type = std::shared_ptr<T>;
  using const_iterator = typename std::vector<value_type>::const_iterator;

  ZVArray() = default;
  explicit ZVArray(std::vector<value_type> items) noexcept : items_(std::move(items)) {}

  size_t size() const { return items_.size(); }
  bool empty() const { return items_.empty(); }
  const value_type& operator[](size_t i) const { return items_[i]; }
  const value_type& at(size_t i) const { return items_.at(i); }
  const_iterator begin() const { return items_.begin(); }
  const_iterator end() const { return items_.end(); }
  const std::vector<value_type>& items() const { return items_; }

  /// "(\n    <element description>,\n    ...\n)", each element printed with
  /// its own `description()` (a null element prints "(null)").
  std::string description() const override {
    std::vector<std::string> texts;
    texts.reserve(items_.size());
    for (const auto& item : items_) texts.push_back(ZVDescribe(item.get()));
    return ZVDescribeList(texts);
  }

 private:
  std::vector<value_type> items_;
};
