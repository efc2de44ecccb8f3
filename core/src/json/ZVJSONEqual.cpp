// Deep equality of JSON values.
#include <ZorvaneCoreKit/ZVJSON.h>

#include <unordered_map>

#include "json/ZVJSONAccess.h"
#include "json/ZVJSONWrite.h"

namespace zv_detail {
namespace {

// Up to this many keys, looking each one up beats building an index.
constexpr size_t kLookedUpKeys = 16;

bool equal(const ZVJSONValue& a, const ZVJSONValue& b, size_t depth);

bool equalArrays(const ZVMutableArray& a, const ZVMutableArray& b, size_t depth) {
  if (&a == &b) return true;
  if (a.count() != b.count()) return false;
  for (size_t i = 0; i < a.count(); ++i)
    if (!equal(a[i], b[i], depth + 1)) return false;
  return true;
}

bool equalDictionaries(const ZVMutableDictionary& a, const ZVMutableDictionary& b, size_t depth) {
  if (&a == &b) return true;
  if (a.count() != b.count()) return false;
  bool same = true;
  if (b.count() <= kLookedUpKeys) {
    forEachEntry(a, [&](std::string_view key, const ZVJSONValue& value) {
      if (!same) return;
      const ZVJSONValue* other = b.find(key);
      same = other != nullptr && equal(value, *other, depth + 1);
    });
    return same;
  }
  std::unordered_map<std::string_view, const ZVJSONValue*> index;
  index.reserve(b.count());
  forEachEntry(b,
               [&](std::string_view key, const ZVJSONValue& value) { index.emplace(key, &value); });
  forEachEntry(a, [&](std::string_view key, const ZVJSONValue& value) {
    if (!same) return;
    auto it = index.find(key);
    same = it != index.end() && equal(value, *it->second, depth + 1);
  });
  return same;
}

bool equal(const ZVJSONValue& a, const ZVJSONValue& b, size_t depth) {
  if (a.type() != b.type()) return false;
  switch (a.type()) {
    case ZVJSONValue::Type::Nil:
    case ZVJSONValue::Type::Null:
      return true;
    case ZVJSONValue::Type::Bool:
      return a.boolValue() == b.boolValue();
    case ZVJSONValue::Type::Integer:
      return a.integerValue() == b.integerValue();
    case ZVJSONValue::Type::Double:
      return a.doubleValue() == b.doubleValue();
    case ZVJSONValue::Type::String:
      return *a.string() == *b.string();
    case ZVJSONValue::Type::Array:
      return depth < kHardMaxDepth && equalArrays(*a.array(), *b.array(), depth);
    case ZVJSONValue::Type::Dictionary:
      return depth < kHardMaxDepth && equalDictionaries(*a.dictionary(), *b.dictionary(), depth);
  }
  return false;
}

}  // namespace

bool equal(const ZVJSONValue& a, const ZVJSONValue& b) {
  return equal(a, b, 0);
}

}  // namespace zv_detail
