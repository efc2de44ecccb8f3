// What every exported function does at the C boundary: check the output
// pointer, clear the output, and turn any C++ exception into a result code.
#pragma once

#include <new>
#include <optional>
#include <string>

#include <ZorvaneCoreKit/ZVJSON.h>
#include <ZorvaneRewardsKitC/zorvane_rewards.h>

#include "HandleTable.h"

namespace zvr {

template <class Fn>
zvr_result guarded(Fn&& fn) noexcept {
  try {
    return fn();
  } catch (const std::bad_alloc&) {
    return ZVR_E_OUT_OF_MEMORY;
  } catch (const HandleTable::TableFull&) {
    return ZVR_E_TOO_MANY_HANDLES;
  } catch (...) {
    return ZVR_E_INTERNAL;
  }
}

/// A getter: `fn(const T& object, Slot& slot, Out* out)` under the table lock.
template <class T, class Out, class Fn>
zvr_result readRecord(const void* handle, Kind kind, Out* out, Fn&& fn) noexcept {
  if (out == nullptr) return ZVR_E_INVALID_ARGUMENT;
  *out = Out{};
  return guarded([&]() -> zvr_result {
    return HandleTable::shared().with(
        handle, kind, [&](Slot& slot) -> zvr_result { return fn(slot.as<const T>(), slot, out); });
  });
}

// Keys of the texts kept in a slot; a field's own number is added to the
// base of its kind of text.
enum TextKey : int {
  kKeyJSON = 1,
  kKeyDescription = 2,
  kKeyStatusText = 3,
  kKeyField = 100,      // + the getter's field number: the text of a field
  kKeyFieldJSON = 200,  // + the zvr_*_field value: a field's raw JSON
};

/// An identifier or other optional text: NULL when absent.
inline zvr_result optionalText(Slot& slot, int key, const std::optional<std::string>& value,
                               const char** out) {
  if (value) *out = slot.keep(key, *value);
  return ZVR_OK;
}

/// A field that holds a JSON value: its text when a string, NULL when nil or
/// the JSON null, ZVR_E_NOT_TEXT otherwise.
inline zvr_result jsonValueText(Slot& slot, int key, const ZVJSONValue& value, const char** out) {
  if (value.isNil() || value.isNull()) return ZVR_OK;
  const auto text = value.string();
  if (!text) return ZVR_E_NOT_TEXT;
  *out = slot.keep(key, std::string(*text));
  return ZVR_OK;
}

/// A value as JSON text: NULL when nil.
inline zvr_result rawJSON(Slot& slot, int key, const ZVJSONValue& value, const char** out) {
  if (value.isNil()) return ZVR_OK;
  std::string text;
  if (!ZVJSONSerialize(value, false, text)) return ZVR_E_INTERNAL;
  *out = slot.keep(key, std::move(text));
  return ZVR_OK;
}

}  // namespace zvr
