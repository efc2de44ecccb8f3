// The JSON value: construction, copies, teardown and text forms.
#include <ZorvaneCoreKit/ZVJSON.h>

#include "base/ZVStrings.h"
#include "json/ZVJSONAccess.h"
#include "json/ZVJSONWrite.h"

using zv_detail::ZVText;

ZVJSONValue::ZVJSONValue(ZVArrayPtr a) noexcept : tag_(a ? Tag::Array : Tag::Nil) {
  if (a) new (raw_) ZVArrayPtr(std::move(a));
}

ZVJSONValue::ZVJSONValue(ZVDictionaryPtr d) noexcept : tag_(d ? Tag::Dictionary : Tag::Nil) {
  if (d) new (raw_) ZVDictionaryPtr(std::move(d));
}

ZVJSONValue::ZVJSONValue(const ZVJSONValue& other) noexcept : tag_(other.tag_) {
  switch (tag_) {
    case Tag::LongString:
      new (raw_) ZVText*(other.as<ZVText*>());
      as<ZVText*>()->retain();
      break;
    case Tag::Array:
      new (raw_) ZVArrayPtr(other.as<ZVArrayPtr>());
      break;
    case Tag::Dictionary:
      new (raw_) ZVDictionaryPtr(other.as<ZVDictionaryPtr>());
      break;
    default:
      std::memcpy(raw_, other.raw_, sizeof raw_);
      break;
  }
}

void ZVJSONValue::setString(std::string_view s) {
  if (s.size() <= kInline) {
    if (!s.empty()) std::memcpy(raw_, s.data(), s.size());
    raw_[kInline] = static_cast<char>(s.size());
    tag_ = Tag::ShortString;
  } else {
    new (raw_) ZVText*(ZVText::make(s));
    tag_ = Tag::LongString;
  }
}

std::string_view ZVJSONValue::longString() const {
  return as<ZVText*>()->view();
}

void ZVJSONValue::destroy() noexcept {
  switch (tag_) {
    case Tag::LongString:
      as<ZVText*>()->release();
      break;
    case Tag::Array:
      as<ZVArrayPtr>().~ZVArrayPtr();
      break;
    case Tag::Dictionary:
      as<ZVDictionaryPtr>().~ZVDictionaryPtr();
      break;
    default:
      break;
  }
  tag_ = Tag::Nil;
}

double ZVJSONValue::doubleValue() const {
  switch (tag_) {
    case Tag::Double:
      return as<double>();
    case Tag::Integer:
      return static_cast<double>(as<int64_t>());
    case Tag::Bool:
      return as<bool>() ? 1.0 : 0.0;
    default:
      return 0.0;
  }
}

std::string ZVJSONValue::description() const {
  switch (type()) {
    case Type::Nil:
      return "(null)";
    case Type::Null:
      return "<null>";
    case Type::Bool:
      return as<bool>() ? "1" : "0";
    case Type::Integer:
      return zv_detail::decimal(as<int64_t>());
    case Type::Double:
      return zv_detail::shortestDouble(as<double>());
    case Type::String:
      return std::string(*string());
    case Type::Array:
      return zv_detail::describe(*as<ZVArrayPtr>());
    case Type::Dictionary:
      return zv_detail::describe(*as<ZVDictionaryPtr>());
  }
  return {};
}

bool ZVJSONValue::operator==(const ZVJSONValue& other) const {
  return zv_detail::equal(*this, other);
}
