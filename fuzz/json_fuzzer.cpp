// Holds ZVJSONParse against simdjson's DOM parser on arbitrary bytes: both
// must accept and refuse the same texts (nesting limits aside), and an
// accepted text must give the same values, with a repeated key at its first
// position holding its last value. The DOM refuses numbers beyond its range
// that we read as doubles: it is given the text with each of them written as
// the double strtod reads (an infinity as the stand-in 1e308, which then
// matches only an infinity of that sign or 1e308 itself). The text is parsed both in place (a
// string with spare capacity) and from a view, which must agree. The tree is
// then edited, copied and torn down, so that storage cut from a parse's
// arena meets growth and removal.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <simdjson.h>

#include <ZorvaneCoreKit/ZVJSON.h>

#include "json/ZVKeyList.h"

namespace {

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "json fuzzer: %s\n", what);
  std::abort();
}

bool same(simdjson::dom::element e, const ZVJSONValue& v);

bool sameObject(simdjson::dom::object object, const ZVMutableDictionary& d) {
  // The DOM keeps repeated keys; ours keeps the first position and the last value.
  std::vector<std::pair<std::string_view, simdjson::dom::element>> merged;
  for (auto field : object) {
    bool repeated = false;
    for (auto& [key, value] : merged) {
      if (key == field.key) {
        value = field.value;
        repeated = true;
      }
    }
    if (!repeated) merged.emplace_back(field.key, field.value);
  }
  const std::vector<ZVMutableDictionary::Entry> entries = d.entries();
  if (entries.size() != merged.size()) return false;
  for (size_t i = 0; i < merged.size(); ++i)
    if (entries[i].first != merged[i].first || !same(merged[i].second, entries[i].second))
      return false;
  return true;
}

bool same(simdjson::dom::element e, const ZVJSONValue& v) {
  using T = simdjson::dom::element_type;
  switch (e.type()) {
    case T::ARRAY: {
      const ZVArrayPtr array = v.array();
      const simdjson::dom::array items = e.get_array().value_unsafe();
      if (!array || array->count() != items.size()) return false;
      size_t i = 0;
      for (auto item : items)
        if (!same(item, (*array)[i++])) return false;
      return true;
    }
    case T::OBJECT: {
      const ZVDictionaryPtr dictionary = v.dictionary();
      return dictionary && sameObject(e.get_object().value_unsafe(), *dictionary);
    }
    case T::INT64:
      return v.isInteger() && v.integerValue() == e.get_int64().value_unsafe();
    case T::UINT64:
      return v.isDouble() && v.doubleValue() == static_cast<double>(e.get_uint64().value_unsafe());
    case T::DOUBLE: {
      const double d = e.get_double().value_unsafe();
      return v.isDouble() &&
             (v.doubleValue() == d || (std::isinf(v.doubleValue()) && std::fabs(d) == 1e308 &&
                                       std::signbit(v.doubleValue()) == std::signbit(d)));
    }
    case T::STRING:
      return v.string() && *v.string() == e.get_string().value_unsafe();
    case T::BOOL:
      return v.isBool() && v.boolValue() == e.get_bool().value_unsafe();
    case T::NULL_VALUE:
      return v.isNull();
  }
  return false;
}

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

// JSON's number grammar: -?(0|[1-9][0-9]*)(\.[0-9]+)?([eE][+-]?[0-9]+)?
bool isJSONNumber(std::string_view t) {
  size_t i = 0;
  const auto digits = [&] {
    const size_t from = i;
    while (i < t.size() && isDigit(t[i])) ++i;
    return i > from;
  };
  if (i < t.size() && t[i] == '-') ++i;
  if (i < t.size() && t[i] == '0')
    ++i;
  else if (!digits())
    return false;
  if (i < t.size() && t[i] == '.') {
    ++i;
    if (!digits()) return false;
  }
  if (i < t.size() && (t[i] == 'e' || t[i] == 'E')) {
    ++i;
    if (i < t.size() && (t[i] == '+' || t[i] == '-')) ++i;
    if (!digits()) return false;
  }
  return i == t.size();
}

// `text` with each number the DOM parser will not read on its own written as
// the double it stands for.
std::string withNumbersInRange(std::string_view text) {
  std::string out;
  bool inString = false;
  for (size_t i = 0; i < text.size();) {
    const char c = text[i];
    if (inString) {
      out += c;
      if (c == '\\' && i + 1 < text.size())
        out += text[++i];
      else if (c == '"')
        inString = false;
      ++i;
      continue;
    }
    if (c == '"') inString = true;
    if (c != '-' && !isDigit(c)) {
      out += c;
      ++i;
      continue;
    }
    size_t end = i;
    while (end < text.size() &&
           std::string_view("+-.0123456789eE").find(text[end]) != std::string_view::npos)
      ++end;
    const std::string token(text.substr(i, end - i));
    thread_local simdjson::dom::parser alone;
    simdjson::dom::element ignored;
    if (isJSONNumber(token) && alone.parse(token).get(ignored) == simdjson::NUMBER_ERROR) {
      const double d = std::strtod(token.c_str(), nullptr);
      char buffer[32];
      if (std::isinf(d))
        out += d > 0 ? "1e308" : "-1e308";
      else
        out.append(buffer, static_cast<size_t>(std::snprintf(buffer, sizeof buffer, "%.17g", d)));
    } else {
      out += token;
    }
    i = end;
  }
  return out;
}

// Edits every dictionary and array reachable from `v` (bounded by depth).
void edit(const ZVJSONValue& v, size_t depth) {
  if (depth > 64) return;
  if (const ZVDictionaryPtr d = v.dictionary()) {
    const std::vector<std::string> keys = d->allKeys();
    for (const std::string& key : keys) edit(d->objectForKey(key), depth + 1);
    if (!keys.empty()) (void)d->getAndRemoveObjectForKey(keys.front());
    d->setObject("a key longer than seven bytes", 1);
    d->setObject("k", "a value longer than twenty-two bytes");
    ZVJSONValue taken[2];
    ZV_KEY_LIST(wanted, "k", "a key longer than seven bytes");
    zv_detail::takeObjectsForKeys(*d, wanted, taken);
    if (taken[0].string() == std::nullopt || !taken[1].isInteger()) fail("take lost a value");
    (void)d->prune();
    (void)d->mutableCopy();
  } else if (const ZVArrayPtr a = v.array()) {
    for (size_t i = 0; i < a->count(); ++i) edit((*a)[i], depth + 1);
    a->add("grown");
    (void)a->mutableCopy();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::string padded(text);
  padded.reserve(padded.size() + ZVJSONPadding);

  ZVJSONParseResult ours = ZVJSONParse(padded, {.maxDepth = 1024});
  const ZVJSONParseResult copied = ZVJSONParse(text, {.maxDepth = 1024});
  if (ours.ok() != copied.ok() || ours.error != copied.error || !(ours.value == copied.value))
    fail("in-place and copied parses differ");

  thread_local simdjson::dom::parser dom;
  simdjson::dom::element root;
  const std::string inRange = withNumbersInRange(text);
  const simdjson::error_code error = dom.parse(inRange).get(root);
  const bool depthLimited =
      error == simdjson::DEPTH_ERROR || ours.error.find("nesting is deeper") != std::string::npos;
  if (!depthLimited) {
    if ((error == simdjson::SUCCESS) != ours.ok()) fail("the parsers disagree on validity");
    if (ours.ok() && !same(root, ours.value)) fail("the parsers disagree on a value");
  }
  if (ours.ok()) edit(ours.value, 0);
  return 0;
}
