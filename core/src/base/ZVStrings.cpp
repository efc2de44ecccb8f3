#include "base/ZVStrings.h"

#include <cmath>
#include <cstdlib>
#include <system_error>

namespace zv_detail {

std::string shortestDouble(double value) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value < 0 ? "-inf" : "inf";
  // The shortest round-trip digits, in scientific form: "-d.ddde+XX".
  char buffer[40];
  const auto end =
      std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::scientific).ptr;
  const std::string_view text(buffer, static_cast<size_t>(end - buffer));
  const size_t e = text.find('e');
  std::string_view mantissa = text.substr(0, e);
  const bool negative = !mantissa.empty() && mantissa.front() == '-';
  if (negative) mantissa.remove_prefix(1);
  std::string digits;
  for (char c : mantissa)
    if (c != '.') digits += c;
  int exponent = 0;
  std::from_chars(text.data() + e + 1 + (text[e + 1] == '+'), text.data() + text.size(), exponent);

  std::string out = negative ? "-" : "";
  if (exponent < -4 || exponent >= 16) {
    out += digits[0];
    if (digits.size() > 1) {
      out += '.';
      out.append(digits, 1);
    }
    out += exponent < 0 ? "e-" : "e+";
    const int magnitude = std::abs(exponent);
    if (magnitude < 10) out += '0';
    out += decimal(magnitude);
    return out;
  }
  if (exponent < 0) {
    out += "0.";
    out.append(static_cast<size_t>(-exponent - 1), '0');
    out += digits;
    return out;
  }
  const auto whole = static_cast<size_t>(exponent) + 1;
  if (digits.size() <= whole) {
    out += digits;
    out.append(whole - digits.size(), '0');
  } else {
    out.append(digits, 0, whole);
    out += '.';
    out.append(digits, whole);
  }
  return out;
}

std::string addressText(const void* address) {
  char buffer[24] = "0x";
  const auto end =
      std::to_chars(buffer + 2, buffer + sizeof buffer, reinterpret_cast<uintptr_t>(address), 16)
          .ptr;
  return std::string(buffer, end);
}

std::string describedText(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    if (c == '\r')
      out += "\\r";
    else
      out += c;
  }
  return out;
}

}  // namespace zv_detail
