// Writing JSON: the strict serialiser and the lenient text forms.
#include <ZorvaneCoreKit/ZVJSON.h>

#include <cmath>

#include "base/ZVStrings.h"
#include "json/ZVJSONAccess.h"
#include "json/ZVJSONWrite.h"
#include "json/ZVUTF8.h"

namespace zv_detail {
namespace {

constexpr char kHex[] = "0123456789abcdef";

class Writer {
 public:
  // A lenient writer never fails: it is for text forms meant for people.
  Writer(std::string& out, bool pretty, bool lenient)
      : out_(out), pretty_(pretty), lenient_(lenient) {}

  // A lenient writer stops taking elements and members once `out` has
  // reached `limit` bytes.
  void setLimit(size_t limit) { limit_ = limit; }

  bool write(const ZVJSONValue& v, size_t depth) {
    switch (v.type()) {
      case ZVJSONValue::Type::Nil:
        return false;
      case ZVJSONValue::Type::Null:
        out_ += "null";
        return true;
      case ZVJSONValue::Type::Bool:
        out_ += v.boolValue() ? "true" : "false";
        return true;
      case ZVJSONValue::Type::Integer:
        writeInteger(v.integerValue());
        return true;
      case ZVJSONValue::Type::Double:
        return writeDouble(v.doubleValue());
      case ZVJSONValue::Type::String:
        return writeString(*v.string());
      case ZVJSONValue::Type::Array:
        return writeArray(*v.array(), depth);
      case ZVJSONValue::Type::Dictionary:
        return writeDictionary(*v.dictionary(), depth);
    }
    return false;
  }

  bool writeArray(const ZVMutableArray& array, size_t depth) {
    if (tooDeep(depth, "[...]")) return lenient_;
    out_ += '[';
    bool first = true;
    for (const ZVJSONValue& item : array) {
      if (item.isNil()) continue;
      if (out_.size() >= limit_) return true;
      if (!first) out_ += ',';
      first = false;
      if (pretty_) newline(depth + 1);
      if (!write(item, depth + 1)) return false;
    }
    if (pretty_ && !first) newline(depth);
    out_ += ']';
    return true;
  }

  bool writeDictionary(const ZVMutableDictionary& dictionary, size_t depth) {
    if (tooDeep(depth, "{...}")) return lenient_;
    out_ += '{';
    bool first = true;
    bool ok = true;
    forEachEntry(dictionary, [&](std::string_view key, const ZVJSONValue& value) {
      if (!ok || out_.size() >= limit_) return;
      if (!first) out_ += ',';
      first = false;
      if (pretty_) newline(depth + 1);
      ok = writeString(key);
      if (!ok) return;
      out_ += pretty_ ? " : " : ":";
      ok = write(value, depth + 1);
    });
    if (!ok) return false;
    if (pretty_ && !first) newline(depth);
    out_ += '}';
    return true;
  }

 private:
  void newline(size_t depth) {
    out_ += '\n';
    out_.append(depth * 2, ' ');
  }

  // Containers nested past the hard limit (or a cycle) cannot be written.
  bool tooDeep(size_t depth, const char* placeholder) {
    if (depth < kHardMaxDepth) return false;
    if (lenient_) out_ += placeholder;
    return true;
  }

  void writeInteger(int64_t i) {
    char buf[24];
    auto res = std::to_chars(buf, buf + sizeof buf, i);
    out_.append(buf, res.ptr);
  }

  bool writeDouble(double d) {
    if (!std::isfinite(d)) {
      if (!lenient_) return false;
      out_ += shortestDouble(d);
      return true;
    }
    const size_t start = out_.size();
    out_ += shortestDouble(d);
    // Keep the number a double when read back: "3" would come back an integer.
    if (out_.find_first_of(".e", start) == std::string::npos) out_ += ".0";
    return true;
  }

  bool writeString(std::string_view s) {
    if (!validUTF8(s)) {
      if (!lenient_) return false;
      writeEscaped(sanitizeUTF8(s));
      return true;
    }
    writeEscaped(s);
    return true;
  }

  void writeEscaped(std::string_view s) {
    out_ += '"';
    size_t start = 0;
    for (size_t i = 0; i < s.size(); ++i) {
      const auto c = static_cast<unsigned char>(s[i]);
      if (c >= 0x20 && c != '"' && c != '\\') continue;
      out_.append(s.data() + start, i - start);
      start = i + 1;
      switch (c) {
        case '"':
          out_ += "\\\"";
          break;
        case '\\':
          out_ += "\\\\";
          break;
        case '\b':
          out_ += "\\b";
          break;
        case '\f':
          out_ += "\\f";
          break;
        case '\n':
          out_ += "\\n";
          break;
        case '\r':
          out_ += "\\r";
          break;
        case '\t':
          out_ += "\\t";
          break;
        default:
          out_ += "\\u00";
          out_ += kHex[c >> 4];
          out_ += kHex[c & 15];
          break;
      }
    }
    out_.append(s.data() + start, s.size() - start);
    out_ += '"';
  }

  std::string& out_;
  bool pretty_;
  bool lenient_;
  size_t limit_ = SIZE_MAX;
};

template <class Container>
std::string describeContainer(const Container& container) {
  std::string out;
  Writer writer(out, /*pretty=*/true, /*lenient=*/true);
  if constexpr (std::is_same_v<std::decay_t<decltype(container)>, ZVMutableArray>)
    writer.writeArray(container, 0);
  else
    writer.writeDictionary(container, 0);
  return out;
}

}  // namespace

std::string describe(const ZVMutableArray& array) {
  return describeContainer(array);
}

std::string describe(const ZVMutableDictionary& dictionary) {
  return describeContainer(dictionary);
}

std::string describeCapped(const ZVJSONValue& value, size_t maxBytes) {
  if (const auto text = value.string()) return describedText(*text);
  if (!value.isArray() && !value.isDictionary()) return value.description();
  std::string out;
  Writer writer(out, /*pretty=*/true, /*lenient=*/true);
  writer.setLimit(maxBytes);
  writer.write(value, 0);
  if (out.size() <= maxBytes) return out;
  size_t cut = maxBytes;
  while (cut > 0 && (static_cast<unsigned char>(out[cut]) & 0xC0) == 0x80) --cut;
  out.resize(cut);
  out += "...";
  return out;
}

}  // namespace zv_detail

bool ZVJSONSerialize(const ZVJSONValue& value, bool pretty, std::string& out) {
  out.clear();
  return zv_detail::Writer(out, pretty, /*lenient=*/false).write(value, 0);
}
