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

// Deep equality, depth-limited like the writer.
bool equal(const ZVJSONValue& a, const ZVJSONValue& b);

// Nesting accepted by the parser whatever the options say, and refused by the
// writer and by equality: recursion over a tree never goes deeper than this.
inline constexpr size_t kHardMaxDepth = 1024;

}  // namespace zv_detail
