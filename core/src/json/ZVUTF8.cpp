// Scalar on purpose: simdjson's validator dispatches through a static object
// that the exit sequence destroys while other threads may still write JSON.
#include "json/ZVUTF8.h"

namespace zv_detail {

size_t utf8SequenceLength(std::string_view s) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(s[i]); };
  const unsigned char c = byte(0);
  if (c < 0x80) return 1;
  size_t length = 0;
  unsigned char low = 0x80;
  unsigned char high = 0xBF;
  if (c >= 0xC2 && c <= 0xDF) {
    length = 2;
  } else if (c >= 0xE0 && c <= 0xEF) {
    length = 3;
    if (c == 0xE0) low = 0xA0;
    if (c == 0xED) high = 0x9F;
  } else if (c >= 0xF0 && c <= 0xF4) {
    length = 4;
    if (c == 0xF0) low = 0x90;
    if (c == 0xF4) high = 0x8F;
  } else {
    return 0;
  }
  if (s.size() < length || byte(1) < low || byte(1) > high) return 0;
  for (size_t i = 2; i < length; ++i)
    if (byte(i) < 0x80 || byte(i) > 0xBF) return 0;
  return length;
}

bool validUTF8(std::string_view s) {
  while (!s.empty()) {
    const size_t length = utf8SequenceLength(s);
    if (length == 0) return false;
    s.remove_prefix(length);
  }
  return true;
}

std::string sanitizeUTF8(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  size_t i = 0;
  while (i < s.size()) {
    if (const size_t len = utf8SequenceLength(s.substr(i)); len != 0) {
      out.append(s.data() + i, len);
      i += len;
    } else {
      out += "\xEF\xBF\xBD";
      ++i;
    }
  }
  return out;
}

}  // namespace zv_detail
