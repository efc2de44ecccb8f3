// Inside the SDK: the few text formats its messages need. The libraries do
// not use fmt: its instantiations were half of their code bytes, and these
// formats are all they need (see scripts/check-install for the sizes).
#pragma once

#include <charconv>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

#include <ZorvaneCoreKit/ZVExport.h>

namespace zv_detail {

/// The decimal form of an integer.
template <class Int, std::enable_if_t<std::is_integral_v<Int> && !std::is_same_v<Int, bool> &&
                                          !std::is_same_v<Int, char>,
                                      int> = 0>
std::string decimal(Int value) {
  char buffer[24];
  const auto end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
  return std::string(buffer, end);
}

/// The shortest text that reads back as the same double: fixed notation when
/// the decimal exponent lies in [-4, 16), else "1e+16" style; "3" for 3.0,
/// "nan", "inf", "-inf".
ZV_CORE_EXPORT std::string shortestDouble(double value);

/// "0x" and the lower-case hexadecimal digits of an address.
ZV_CORE_EXPORT std::string addressText(const void* address);

/// Text for a description, whose fields are separated by carriage returns:
/// one inside the text is written as a backslash and an "r", so that the
/// text cannot start a field of its own in a log.
ZV_CORE_EXPORT std::string describedText(std::string_view text);

inline void appendPart(std::string& out, std::string_view text) {
  out.append(text);
}
inline void appendPart(std::string& out, char c) {
  out.push_back(c);
}
template <class Int, std::enable_if_t<std::is_integral_v<Int> && !std::is_same_v<Int, bool> &&
                                          !std::is_same_v<Int, char>,
                                      int> = 0>
void appendPart(std::string& out, Int value) {
  char buffer[24];
  const auto end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
  out.append(buffer, end);
}

/// The parts one after the other: text as it stands, integers in decimal.
template <class... Parts>
std::string strCat(const Parts&... parts) {
  std::string out;
  (appendPart(out, parts), ...);
  return out;
}

}  // namespace zv_detail
