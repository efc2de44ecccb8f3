#include <ZorvaneCoreKit/ZVJSON.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iterator>
#include <new>
#include <type_traits>
#include <unordered_map>

#include <fmt/format.h>
#include <simdjson.h>

// Private access for the parser, which builds containers in place.
struct ZVJSONAccess {
  static auto& variant(ZVJSONValue& value) { return value.v_; }
  static std::vector<ZVMutableDictionary::Entry>& entries(ZVMutableDictionary& d) {
    return d.entries_;
  }
  static size_t& live(ZVMutableDictionary& d) { return d.live_; }
};

namespace {

// Nesting accepted by the parser whatever the options say, and refused by the
// writer and by equality: recursion over a tree never goes deeper than this.
constexpr size_t kHardMaxDepth = 1024;

// Up to this many keys a pairwise scan beats sorting or hashing.
constexpr size_t kLinearKeyLimit = 8;

using Entry = ZVMutableDictionary::Entry;
constexpr size_t kNotFound = static_cast<size_t>(-1);

size_t indexOfKey(const std::vector<Entry>& entries, std::string_view key) {
  for (size_t i = 0; i < entries.size(); ++i) {
    const Entry& e = entries[i];
    if (e.first.size() == key.size() && !e.second.isNil() && std::string_view(e.first) == key)
      return i;
  }
  return kNotFound;
}

// Orders keys by length first: any strict order finds duplicates, and most
// keys differ in length.
bool keyLess(std::string_view a, std::string_view b) {
  return a.size() != b.size() ? a.size() < b.size() : a < b;
}

// ---------------------------------------------------------------------------
// Parsing

struct ThreadParser {
  // Sets the parser's own depth limit once; the options' tighter one is
  // checked while converting. False until the parser's buffers exist.
  bool prepare() {
    if (!ready)
      ready = parser.allocate(simdjson::dom::MINIMAL_DOCUMENT_CAPACITY, kHardMaxDepth + 1) ==
              simdjson::SUCCESS;
    return ready;
  }
  simdjson::dom::parser parser;
  bool ready = false;
  std::vector<std::string_view> keys;  // scratch for duplicate detection
};

ThreadParser& threadParser() {
  // One per thread so that its buffers are reused across answers without locking.
  thread_local ThreadParser instance;
  return instance;
}

std::string depthError(size_t limit) {
  return fmt::format("JSON nesting is deeper than {} levels", limit);
}

class Converter {
 public:
  Converter(size_t maxDepth, std::vector<std::string_view>& keys)
      : maxDepth_(maxDepth), keys_(keys) {}

  bool tooDeep() const { return tooDeep_; }

  // Builds straight into `out` (nil on entry) so that nothing is moved twice.
  // Recursion is bounded by maxDepth_, itself at most kHardMaxDepth.
  void convert(simdjson::dom::element e, size_t depth, ZVJSONValue& out) {
    using T = simdjson::dom::element_type;
    auto& v = ZVJSONAccess::variant(out);
    switch (e.type()) {
      case T::ARRAY:
        convertArray(e.get_array().value_unsafe(), depth + 1, out);
        return;
      case T::OBJECT:
        convertObject(e.get_object().value_unsafe(), depth + 1, out);
        return;
      case T::INT64:
        v.emplace<int64_t>(e.get_int64().value_unsafe());
        return;
      case T::UINT64:
        // Above the signed range: kept as the nearest double rather than refused.
        v.emplace<double>(static_cast<double>(e.get_uint64().value_unsafe()));
        return;
      case T::DOUBLE:
        v.emplace<double>(e.get_double().value_unsafe());
        return;
      case T::STRING:
        v.emplace<std::string>(e.get_string().value_unsafe());
        return;
      case T::BOOL:
        v.emplace<bool>(e.get_bool().value_unsafe());
        return;
      case T::NULL_VALUE:
        v.emplace<ZVNull>();
        return;
    }
  }

 private:
  void convertArray(simdjson::dom::array array, size_t depth, ZVJSONValue& out) {
    if (depth > maxDepth_) {
      tooDeep_ = true;
      return;
    }
    auto result = std::make_shared<ZVMutableArray>();
    std::vector<ZVJSONValue>& items = result->items();
    items.reserve(array.size());
    for (simdjson::dom::element item : array) {
      convert(item, depth, items.emplace_back());
      if (tooDeep_) return;
    }
    ZVJSONAccess::variant(out).emplace<ZVArrayPtr>(std::move(result));
  }

  void convertObject(simdjson::dom::object object, size_t depth, ZVJSONValue& out) {
    if (depth > maxDepth_) {
      tooDeep_ = true;
      return;
    }
    const size_t count = object.size();
    std::vector<Entry> entries;
    entries.reserve(count);
    for (simdjson::dom::key_value_pair field : object) {
      Entry& entry = entries.emplace_back(std::piecewise_construct,
                                          std::forward_as_tuple(field.key), std::tuple<>());
      convert(field.value, depth, entry.second);
      if (tooDeep_) return;
    }
    if (!hasDuplicateKeys(object, count)) {
      auto result = std::make_shared<ZVMutableDictionary>();
      ZVJSONAccess::live(*result) = entries.size();
      ZVJSONAccess::entries(*result) = std::move(entries);
      ZVJSONAccess::variant(out).emplace<ZVDictionaryPtr>(std::move(result));
      return;
    }
    // Rare: let the builder merge the duplicates.
    ZVJSONAccess::variant(out).emplace<ZVDictionaryPtr>(
        ZVMutableDictionary::make(std::move(entries)));
  }

  // Runs before the values are converted, so the shared scratch is free.
  bool hasDuplicateKeys(simdjson::dom::object object, size_t count) {
    if (count < 2) return false;
    if (count <= kLinearKeyLimit) {
      std::string_view seen[kLinearKeyLimit];
      size_t n = 0;
      for (simdjson::dom::key_value_pair field : object) {
        for (size_t i = 0; i < n; ++i)
          if (seen[i] == field.key) return true;
        seen[n++] = field.key;
      }
      return false;
    }
    keys_.clear();
    for (simdjson::dom::key_value_pair field : object) keys_.push_back(field.key);
    std::sort(keys_.begin(), keys_.end(), keyLess);
    return std::adjacent_find(keys_.begin(), keys_.end()) != keys_.end();
  }

  size_t maxDepth_;
  std::vector<std::string_view>& keys_;
  bool tooDeep_ = false;
};

// ---------------------------------------------------------------------------
// Writing

// Replaces each byte that does not start a valid UTF-8 sequence by U+FFFD.
// Length of the well-formed UTF-8 sequence at the start of `s` (no overlong
// forms, surrogates or code points above U+10FFFF), or 0. Scalar on purpose:
// simdjson's validator dispatches through a static object that the exit
// sequence destroys while other threads may still be writing JSON.
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

class Writer {
 public:
  // A lenient writer never fails: it is for text forms meant for people.
  Writer(std::string& out, bool pretty, bool lenient)
      : out_(out), pretty_(pretty), lenient_(lenient) {}

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
    dictionary.forEach([&](const std::string& key, const ZVJSONValue& value) {
      if (!ok) return;
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
      fmt::format_to(std::back_inserter(out_), "{}", d);
      return true;
    }
    const size_t start = out_.size();
    fmt::format_to(std::back_inserter(out_), "{}", d);
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
          fmt::format_to(std::back_inserter(out_), "\\u{:04x}", c);
          break;
      }
    }
    out_.append(s.data() + start, s.size() - start);
    out_ += '"';
  }

  std::string& out_;
  bool pretty_;
  bool lenient_;
};

std::string describe(const auto& container) {
  std::string out;
  Writer writer(out, /*pretty=*/true, /*lenient=*/true);
  if constexpr (std::is_same_v<std::decay_t<decltype(container)>, ZVMutableArray>)
    writer.writeArray(container, 0);
  else
    writer.writeDictionary(container, 0);
  return out;
}

// ---------------------------------------------------------------------------
// Equality

bool equal(const ZVJSONValue& a, const ZVJSONValue& b, size_t depth);

bool equalArrays(const ZVMutableArray& a, const ZVMutableArray& b, size_t depth) {
  if (&a == &b) return true;
  if (a.count() != b.count()) return false;
  for (size_t i = 0; i < a.count(); ++i)
    if (!equal(a[i], b[i], depth + 1)) return false;
  return true;
}

bool equalDictionaries(const ZVMutableDictionary& a, const ZVMutableDictionary& b, size_t depth) {
  if (&a == &b) return true;
  if (a.count() != b.count()) return false;
  bool same = true;
  if (b.count() <= 2 * kLinearKeyLimit) {
    a.forEach([&](const std::string& key, const ZVJSONValue& value) {
      if (!same) return;
      const ZVJSONValue* other = b.find(key);
      same = other != nullptr && equal(value, *other, depth + 1);
    });
    return same;
  }
  std::unordered_map<std::string_view, const ZVJSONValue*> index;
  index.reserve(b.count());
  b.forEach([&](const std::string& key, const ZVJSONValue& value) { index.emplace(key, &value); });
  a.forEach([&](const std::string& key, const ZVJSONValue& value) {
    if (!same) return;
    auto it = index.find(key);
    same = it != index.end() && equal(value, *it->second, depth + 1);
  });
  return same;
}

bool equal(const ZVJSONValue& a, const ZVJSONValue& b, size_t depth) {
  if (a.type() != b.type()) return false;
  switch (a.type()) {
    case ZVJSONValue::Type::Nil:
    case ZVJSONValue::Type::Null:
      return true;
    case ZVJSONValue::Type::Bool:
      return a.boolValue() == b.boolValue();
    case ZVJSONValue::Type::Integer:
      return a.integerValue() == b.integerValue();
    case ZVJSONValue::Type::Double:
      return a.doubleValue() == b.doubleValue();
    case ZVJSONValue::Type::String:
      return *a.string() == *b.string();
    case ZVJSONValue::Type::Array:
      return depth < kHardMaxDepth && equalArrays(*a.array(), *b.array(), depth);
    case ZVJSONValue::Type::Dictionary:
      return depth < kHardMaxDepth && equalDictionaries(*a.dictionary(), *b.dictionary(), depth);
  }
  return false;
}

}  // namespace

// ---------------------------------------------------------------------------
// ZVJSONValue

ZVJSONValue::ZVJSONValue(ZVArrayPtr a) noexcept {
  if (a) v_ = std::move(a);
}

ZVJSONValue::ZVJSONValue(ZVDictionaryPtr d) noexcept {
  if (d) v_ = std::move(d);
}

bool ZVJSONValue::boolValue() const {
  const bool* b = std::get_if<bool>(&v_);
  return b != nullptr && *b;
}

int64_t ZVJSONValue::integerValue() const {
  const int64_t* i = std::get_if<int64_t>(&v_);
  return i != nullptr ? *i : 0;
}

double ZVJSONValue::doubleValue() const {
  switch (type()) {
    case Type::Double:
      return std::get<double>(v_);
    case Type::Integer:
      return static_cast<double>(std::get<int64_t>(v_));
    case Type::Bool:
      return std::get<bool>(v_) ? 1.0 : 0.0;
    default:
      return 0.0;
  }
}

ZVArrayPtr ZVJSONValue::array() const {
  const ZVArrayPtr* a = std::get_if<ZVArrayPtr>(&v_);
  return a != nullptr ? *a : ZVArrayPtr();
}

ZVDictionaryPtr ZVJSONValue::dictionary() const {
  const ZVDictionaryPtr* d = std::get_if<ZVDictionaryPtr>(&v_);
  return d != nullptr ? *d : ZVDictionaryPtr();
}

std::string ZVJSONValue::description() const {
  switch (type()) {
    case Type::Nil:
      return "(null)";
    case Type::Null:
      return "<null>";
    case Type::Bool:
      return std::get<bool>(v_) ? "1" : "0";
    case Type::Integer:
      return fmt::format("{}", std::get<int64_t>(v_));
    case Type::Double:
      return fmt::format("{}", std::get<double>(v_));
    case Type::String:
      return std::get<std::string>(v_);
    case Type::Array:
      return describe(*std::get<ZVArrayPtr>(v_));
    case Type::Dictionary:
      return describe(*std::get<ZVDictionaryPtr>(v_));
  }
  return {};
}

bool ZVJSONValue::operator==(const ZVJSONValue& other) const {
  return equal(*this, other, 0);
}

// ---------------------------------------------------------------------------
// ZVMutableArray

ZVArrayPtr ZVMutableArray::make(std::vector<ZVJSONValue> items) {
  return std::make_shared<ZVMutableArray>(std::move(items));
}

ZVArrayPtr ZVMutableArray::mutableCopy() const {
  return std::make_shared<ZVMutableArray>(items_);
}

std::string ZVMutableArray::description() const {
  return describe(*this);
}

// ---------------------------------------------------------------------------
// ZVMutableDictionary

ZVDictionaryPtr ZVMutableDictionary::make(std::vector<Entry> entries) {
  auto dict = std::make_shared<ZVMutableDictionary>();
  std::vector<Entry>& own = dict->entries_;
  // Reserved once so that the views held by the index stay valid.
  own.reserve(entries.size());
  const bool hashed = entries.size() > 2 * kLinearKeyLimit;
  std::unordered_map<std::string_view, size_t> index;
  if (hashed) index.reserve(entries.size());

  for (Entry& entry : entries) {
    size_t pos = kNotFound;
    if (hashed) {
      auto it = index.find(entry.first);
      if (it != index.end()) pos = it->second;
    } else {
      pos = indexOfKey(own, entry.first);
    }
    if (entry.second.isNil()) {
      if (pos == kNotFound) continue;
      if (hashed) index.erase(own[pos].first);
      own[pos].second = ZVJSONValue();
      --dict->live_;
    } else if (pos != kNotFound) {
      own[pos].second = std::move(entry.second);
    } else {
      own.emplace_back(std::move(entry));
      ++dict->live_;
      if (hashed) index.emplace(own.back().first, own.size() - 1);
    }
  }
  dict->compactIfSparse();
  return dict;
}

const ZVJSONValue* ZVMutableDictionary::find(std::string_view key) const {
  const size_t pos = indexOfKey(entries_, key);
  return pos == kNotFound ? nullptr : &entries_[pos].second;
}

ZVJSONValue* ZVMutableDictionary::find(std::string_view key) {
  const size_t pos = indexOfKey(entries_, key);
  return pos == kNotFound ? nullptr : &entries_[pos].second;
}

ZVJSONValue ZVMutableDictionary::objectForKey(std::string_view key) const {
  const ZVJSONValue* value = find(key);
  return value != nullptr ? *value : ZVJSONValue();
}

void ZVMutableDictionary::setObject(std::string_view key, ZVJSONValue value) {
  if (value.isNil()) {
    removeObjectForKey(key);
    return;
  }
  if (ZVJSONValue* existing = find(key)) {
    *existing = std::move(value);
    return;
  }
  entries_.emplace_back(std::string(key), std::move(value));
  ++live_;
}

void ZVMutableDictionary::removeObjectForKey(std::string_view key) {
  (void)getAndRemoveObjectForKey(key);
}

ZVJSONValue ZVMutableDictionary::getAndRemoveObjectForKey(std::string_view key) {
  const size_t pos = indexOfKey(entries_, key);
  if (pos == kNotFound) return {};
  ZVJSONValue value = std::move(entries_[pos].second);
  entries_[pos].second = ZVJSONValue();
  --live_;
  if (pos + 1 == entries_.size())
    entries_.pop_back();
  else
    compactIfSparse();
  return value;
}

void ZVMutableDictionary::compactIfSparse() {
  if (entries_.size() - live_ <= live_) return;
  std::erase_if(entries_, [](const Entry& e) { return e.second.isNil(); });
}

ZVDictionaryPtr ZVMutableDictionary::prune() {
  std::erase_if(entries_, [](const Entry& e) { return e.second.isNil() || e.second.isNull(); });
  live_ = entries_.size();
  // What remains is usually kept for good: give back most of the unused room.
  if (entries_.capacity() > 2 * entries_.size() + 4) entries_.shrink_to_fit();
  if (ZVDictionaryPtr self = weak_from_this().lock()) return self;
  // Not owned by a shared pointer: the closest we can give is a copy.
  return mutableCopy();
}

std::vector<ZVMutableDictionary::Entry> ZVMutableDictionary::entries() const {
  std::vector<Entry> out;
  out.reserve(live_);
  forEach([&](const std::string& key, const ZVJSONValue& value) { out.emplace_back(key, value); });
  return out;
}

std::vector<std::string> ZVMutableDictionary::allKeys() const {
  std::vector<std::string> out;
  out.reserve(live_);
  forEach([&](const std::string& key, const ZVJSONValue&) { out.push_back(key); });
  return out;
}

ZVDictionaryPtr ZVMutableDictionary::mutableCopy() const {
  auto copy = std::make_shared<ZVMutableDictionary>();
  copy->entries_.reserve(live_);
  forEach([&](const std::string& key, const ZVJSONValue& value) {
    copy->entries_.emplace_back(key, value);
  });
  copy->live_ = copy->entries_.size();
  return copy;
}

std::string ZVMutableDictionary::description() const {
  return describe(*this);
}

void ZVMutableDictionary::appendUnchecked(std::string key, ZVJSONValue value) {
  if (value.isNil()) return;
  entries_.emplace_back(std::move(key), std::move(value));
  ++live_;
}

// ---------------------------------------------------------------------------
// Parse and serialise

ZVJSONParseResult ZVJSONParse(std::string_view text, const ZVJSONParseOptions& options) {
  ZVJSONParseResult result;
  const size_t limit = std::min(options.maxDepth, kHardMaxDepth);
  try {
    ThreadParser& tp = threadParser();
    if (!tp.prepare()) throw std::bad_alloc();
    // The parser copies the text into its own padded buffer.
    const char* data = text.data() != nullptr ? text.data() : "";
    simdjson::dom::element root;
    const simdjson::error_code error = tp.parser.parse(data, text.size(), true).get(root);
    if (error == simdjson::DEPTH_ERROR) {
      result.error = depthError(limit);
      return result;
    }
    if (error != simdjson::SUCCESS) {
      result.error = fmt::format("invalid JSON: {}", simdjson::error_message(error));
      return result;
    }
    Converter converter(limit, tp.keys);
    ZVJSONValue value;
    converter.convert(root, 0, value);
    if (tp.keys.capacity() > 4096) std::vector<std::string_view>().swap(tp.keys);
    if (converter.tooDeep()) {
      result.error = depthError(limit);
      return result;
    }
    result.value = std::move(value);
  } catch (const std::bad_alloc&) {
    result.value = ZVJSONValue();
    result.error = "out of memory while parsing JSON";
  }
  return result;
}

bool ZVJSONSerialize(const ZVJSONValue& value, bool pretty, std::string& out) {
  out.clear();
  return Writer(out, pretty, /*lenient=*/false).write(value, 0);
}
