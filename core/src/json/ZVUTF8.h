// Inside the library: UTF-8 checks for text that must be valid JSON.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <ZorvaneCoreKit/ZVExport.h>

namespace zv_detail {

// Length of the well-formed UTF-8 sequence at the start of `s` (no overlong
// forms, surrogates or code points above U+10FFFF), or 0.
ZV_CORE_EXPORT size_t utf8SequenceLength(std::string_view s);
ZV_CORE_EXPORT bool validUTF8(std::string_view s);
// Replaces each byte that does not start a valid sequence by U+FFFD.
ZV_CORE_EXPORT std::string sanitizeUTF8(std::string_view s);

}  // namespace zv_detail
