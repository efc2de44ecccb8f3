#include "ZVCliOutput.h"

#include <fmt/core.h>
#include <algorithm>
#include <optional>

namespace zvcli {
namespace {

char lowerASCII(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool tokenCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         std::string_view("-._~+/=").find(c) != std::string_view::npos;
}

// Code points a terminal would act on rather than show: C1 controls and the
// bidirectional embeddings, overrides, isolates and marks.
bool hiddenCodePoint(char32_t cp) {
  return (cp >= 0x80 && cp <= 0x9F) || cp == 0x061C || cp == 0x200E || cp == 0x200F ||
         (cp >= 0x202A && cp <= 0x202E) || (cp >= 0x2066 && cp <= 0x2069);
}

// The length of the valid UTF-8 sequence at `text[at]` and its code point,
// or 0 when the bytes there are not one.
size_t decodeUTF8(std::string_view text, size_t at, char32_t& cp) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[at + i]); };
  const unsigned char lead = byte(0);
  size_t length = 0;
  char32_t min = 0;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2, cp = lead & 0x1F, min = 0x80;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3, cp = lead & 0x0F, min = 0x800;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4, cp = lead & 0x07, min = 0x10000;
  } else {
    return 0;
  }
  if (at + length > text.size()) return 0;
  for (size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (byte(i) & 0x3F);
  }
  if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
  return length;
}

Redactor redactor;  // set once, before threads start (setOutputSecret)

}  // namespace

Redactor::Redactor(std::string secret) : lowered_(std::move(secret)) {
  for (char& c : lowered_) c = lowerASCII(c);
}

std::vector<std::pair<size_t, size_t>> Redactor::matches(std::string_view text) const {
  std::vector<std::pair<size_t, size_t>> found;
  if (lowered_.empty() || text.size() < lowered_.size()) return found;
  std::string lowered(text);
  for (char& c : lowered) c = lowerASCII(c);
  const bool wholeWordOnly = lowered_.size() < kWholeWordBelow;
  for (size_t at = lowered.find(lowered_); at != std::string::npos;
       at = lowered.find(lowered_, at)) {
    const size_t end = at + lowered_.size();
    if (wholeWordOnly && ((at > 0 && tokenCharacter(text[at - 1])) ||
                          (end < text.size() && tokenCharacter(text[end])))) {
      ++at;
      continue;
    }
    found.emplace_back(at, end);
    at = end;
  }
  return found;
}

std::string Redactor::operator()(std::string_view text) const {
  std::string out;
  size_t copied = 0;
  for (const auto& [at, end] : matches(text)) {
    out.append(text.substr(copied, at - copied));
    out += "***";
    copied = end;
  }
  out.append(text.substr(copied));
  return out;
}

std::string Redactor::serialized(std::string_view json) const {
  const auto found = matches(json);
  if (found.empty()) return std::string(json);
  // The spans to mask: each match widened to the escapes or the bare literal
  // (number, keyword) it starts and ends in.
  struct Span {
    size_t begin, end;
    bool bare;
  };
  std::vector<Span> spans;
  std::optional<Span> open;
  bool inString = false;
  const auto bareCharacter = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '+' || c == '.';
  };
  size_t next = 0;  // the first match not yet masked
  for (size_t at = 0; at < json.size() && next < found.size();) {
    size_t end = at + 1;
    bool bare = false;
    if (inString && json[at] == '\\') {
      end = std::min(json.size(), at + (at + 1 < json.size() && json[at + 1] == 'u' ? 6 : 2));
    } else if (json[at] == '"') {
      inString = !inString;
    } else if (!inString && bareCharacter(json[at])) {
      while (end < json.size() && bareCharacter(json[end])) ++end;
      bare = true;
    }
    if (!open && found[next].first < end) open = Span{at, end, bare};
    if (open && found[next].second <= end) {
      spans.push_back({open->begin, end, open->bare});
      open.reset();
      while (next < found.size() && found[next].first < end) ++next;
    }
    at = end;
  }
  std::string out;
  size_t copied = 0;
  for (const auto& span : spans) {
    out.append(json.substr(copied, span.begin - copied));
    out += span.bare ? "\"***\"" : "***";
    copied = span.end;
  }
  out.append(json.substr(copied));
  return out;
}

ZVJSONValue Redactor::json(const ZVJSONValue& value) const {
  if (lowered_.empty()) return value;
  if (value.isString()) return ZVJSONValue((*this)(*value.string()));
  if (const auto array = value.array()) {
    auto copy = ZVMutableArray::make();
    for (const auto& item : *array) copy->add(json(item));
    return copy;
  }
  if (const auto dictionary = value.dictionary()) {
    auto copy = ZVMutableDictionary::make();
    for (const auto& [key, item] : dictionary->entries()) copy->setObject((*this)(key), json(item));
    return copy;
  }
  return value;
}

std::string terminalSafe(std::string_view text, bool keepLineFeeds) {
  std::string out;
  out.reserve(text.size());
  for (size_t at = 0; at < text.size();) {
    const auto c = static_cast<unsigned char>(text[at]);
    if (c < 0x20 || c == 0x7F) {
      if (c == '\n' && keepLineFeeds) {
        out += '\n';
      } else if (c == '\n') {
        out += "\\n";
      } else if (c == '\r') {
        out += "\\r";
      } else if (c == '\t') {
        out += "\\t";
      } else {
        out += fmt::format("\\x{:02x}", c);
      }
      ++at;
      continue;
    }
    if (c < 0x80) {
      out += static_cast<char>(c);
      ++at;
      continue;
    }
    char32_t cp = 0;
    const size_t length = decodeUTF8(text, at, cp);
    if (length == 0) {
      out += fmt::format("\\x{:02x}", c);
      ++at;
    } else if (hiddenCodePoint(cp)) {
      out += fmt::format("\\u{:04x}", static_cast<uint32_t>(cp));
      at += length;
    } else {
      out.append(text.substr(at, length));
      at += length;
    }
  }
  return out;
}

std::string terminalSafeJSON(std::string_view json) {
  std::string out;
  out.reserve(json.size());
  for (size_t at = 0; at < json.size();) {
    const auto c = static_cast<unsigned char>(json[at]);
    char32_t cp = c;
    size_t length = 1;
    if (c >= 0x80) {
      length = decodeUTF8(json, at, cp);
      if (length == 0) {
        // Not produced by the serialiser; dropped rather than shown raw.
        ++at;
        continue;
      }
    }
    if (c == 0x7F || hiddenCodePoint(cp)) {
      out += fmt::format("\\u{:04x}", static_cast<uint32_t>(cp));
    } else {
      out.append(json.substr(at, length));
    }
    at += length;
  }
  return out;
}

void setOutputSecret(const std::string& secret) {
  redactor = Redactor(secret);
}

const Redactor& outputRedactor() {
  return redactor;
}

std::string shown(std::string_view text) {
  return terminalSafe(redactor(text));
}

void writeText(std::FILE* out, std::string_view text) {
  const std::string safe = terminalSafe(redactor(text), /*keepLineFeeds=*/true);
  std::fwrite(safe.data(), 1, safe.size(), out);
}

}  // namespace zvcli
