// Inside the library: the text forms of containers, shared by their
// `description()` and the value's.
#pragma once

#include <string>

#include <ZorvaneCoreKit/ZVJSON.h>

namespace zv_detail {

// Pretty-printed JSON that never fails: text that is not UTF-8 is repaired,
// numbers JSON cannot hold and containers nested too deep get a placeholder.
std::string describe(const ZVMutableArray& array);
std::string describe(const ZVMutableDictionary& dictionary);

// A value's text form as `description()` gives it, but a container's is cut
// after `maxBytes` bytes (on a character boundary) and ends in "...": its
// indentation makes a nested container's text hundreds of times longer than
// the JSON it was parsed from. For the texts that records and errors make
// from an answer.
ZV_CORE_EXPORT std::string describeCapped(const ZVJSONValue& value, size_t maxBytes);

// A record's field as its description prints it: a container there is
// outside every record's contract and prints at most 128 bytes, so that the
// log line of a catalogue stays near the size of the catalogue.
inline std::string describeField(const ZVJSONValue& value) {
  return describeCapped(value, 128);
}

// Deep equality, depth-limited like the writer.
bool equal(const ZVJSONValue& a, const ZVJSONValue& b);

// Nesting accepted by the parser whatever the options say, and refused by the
// writer and by equality: recursion over a tree never goes deeper than this.
inline constexpr size_t kHardMaxDepth = 1024;

}  // namespace zv_detail
