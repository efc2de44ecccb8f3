// Parsing JSON text into values, straight from simdjson's On-Demand walk.
#include <ZorvaneCoreKit/ZVJSON.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <limits>
#include <optional>
#include <span>

#include <simdjson.h>

#include "base/ZVStrings.h"
#include "json/ZVJSONAccess.h"
#include "json/ZVJSONDuplicateKeys.h"
#include "json/ZVJSONWrite.h"
#include "runtime/ZVYieldPoint.h"

using zv_detail::ZVArena;
using zv_detail::ZVMemoryBudget;
using zv_detail::ZVText;

namespace {

template <class T>
std::shared_ptr<T> makeInArena(ZVArena& arena) {
  // The builder retains the arena once per container: see ZVArenaAllocator.
  auto made = std::allocate_shared<T>(zv_detail::ZVArenaAllocator<T>(&arena));
  arena.retainUnshared();  // after success: a failed allocation deallocates nothing
  return made;
}

// Long strings are cut from the arena, which each of them keeps alive. `s`
// may be read past its end: it lies in the parser's padded text.
void setString(ZVJSONValue& value, std::string_view s, ZVArena& arena) {
  if (s.size() <= ZVJSONAccess::kInline) {
    // A fixed-size copy: the bytes past the string's count are never read.
    char* raw = ZVJSONAccess::raw(value);
    std::memcpy(raw, s.data(), ZVJSONAccess::kInline);
    raw[ZVJSONAccess::kInline] = static_cast<char>(s.size());
    ZVJSONAccess::setTag(value, ZVJSONAccess::Tag::ShortString);
    return;
  }
  ZVJSONAccess::setText(value, ZVText::make(arena, s));
}

using zv_detail::kHardMaxDepth;

namespace od = simdjson::ondemand;

// A thread keeps its parser's buffers for the next answer: always up to this
// size of text, and beyond it while answers keep their size, so that a run of
// large answers does not fault fresh buffers in for each one.
constexpr size_t kKeptCapacity = size_t{16} << 20;
// Above kKeptCapacity, buffers sized for more than this many times the text
// just parsed are given back: a one-off large answer holds them only until
// the thread's next parse.
constexpr size_t kKeptOversize = 4;
// Nor are buffers kept for a text larger than this.
constexpr size_t kMaxKeptCapacity = size_t{256} << 20;

// The parser's own depth bound sits a little above ours: the walk refuses a
// container one level past the limit, after the parser has entered it.
constexpr size_t kParserDepth = kHardMaxDepth + 16;

// A stack of values whose top elements leave by their bytes: keys and
// values move by copying their bytes and hold nothing that points into
// themselves, so a container takes its elements with one copy and the stack
// forgets them without running their destructors.
template <class T>
class ScratchStack {
 public:
  ScratchStack() = default;
  ScratchStack(const ScratchStack&) = delete;
  ScratchStack& operator=(const ScratchStack&) = delete;
  ~ScratchStack() { release(); }

  size_t size() const { return size_; }
  size_t capacity() const { return capacity_; }
  // Growth is charged here during a parse (none: no limit).
  ZVMemoryBudget* budget = nullptr;
  // The elements from `base` up.
  std::span<const T> top(size_t base) const { return {data_ + base, size_ - base}; }
  template <class... Args>
  T& emplace_back(Args&&... args) {
    if (size_ == capacity_) grow();
    T* item = new (data_ + size_) T(std::forward<Args>(args)...);
    ++size_;
    return *item;
  }
  // Moves the elements from `base` up to `to` and forgets them.
  void relocateTop(size_t base, void* to) {
    std::memcpy(to, static_cast<const void*>(data_ + base), (size_ - base) * sizeof(T));
    size_ = base;
  }
  void clear() {
    while (size_ > 0) data_[--size_].~T();
  }
  void release() {
    clear();
    ::operator delete(data_);
    data_ = nullptr;
    capacity_ = 0;
  }

 private:
  void grow() {
    const size_t capacity = capacity_ == 0 ? 256 : 2 * capacity_;
    if (budget != nullptr) budget->charge((capacity - capacity_) * sizeof(T));
    T* fresh = static_cast<T*>(::operator new(capacity * sizeof(T)));
    if (size_ != 0)
      std::memcpy(static_cast<void*>(fresh), static_cast<const void*>(data_), size_ * sizeof(T));
    ::operator delete(data_);
    data_ = fresh;
    capacity_ = capacity;
  }

  T* data_ = nullptr;
  size_t size_ = 0;
  size_t capacity_ = 0;
};

struct ThreadParser {
  od::parser parser;
  std::vector<char> padded;            // a copy of text that has no room to read past its end
  std::vector<std::string_view> keys;  // scratch for duplicate detection
  // Members and elements of the containers being built, innermost last: each
  // container then gets storage of its exact size, allocated once.
  ScratchStack<ZVJSONAccess::Slot> slots;
  ScratchStack<ZVJSONValue> items;
  simdjson::dom::parser scalars;  // for scalars the walk leaves to the DOM parser

  // Sets the depth bound, which a fresh parser does not have yet.
  simdjson::error_code prepare(size_t size) {
    if (parser.max_depth() == kParserDepth) return simdjson::SUCCESS;
    return parser.allocate(std::max<size_t>(size, 4096), kParserDepth);
  }

  void trim(size_t textSize) {
    const size_t keep = textSize > kMaxKeptCapacity
                            ? kKeptCapacity
                            : std::max(kKeptCapacity, kKeptOversize * textSize);
    if (parser.capacity() > keep) parser = od::parser();
    if (scalars.capacity() > kKeptCapacity) scalars = simdjson::dom::parser();
    if (padded.capacity() > kKeptCapacity) std::vector<char>().swap(padded);
    if (keys.capacity() > 4096) std::vector<std::string_view>().swap(keys);
    if (slots.capacity() > 4096) slots.release();
    if (items.capacity() > 4096) items.release();
  }
};

ThreadParser& threadParser() {
  // One per thread so that its buffers are reused across answers without locking.
  thread_local ThreadParser instance;
  return instance;
}

std::string depthError(size_t limit) {
  return zv_detail::strCat("JSON nesting is deeper than ", limit, " levels");
}

bool isBlank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

// A number of JSON's grammar that simdjson will not read: an integer beyond
// the 64-bit types or an exponent beyond double's range. It becomes the
// nearest double, or infinity (zero) when its magnitude is beyond (below)
// double's range, rather than failing the whole text for one odd field.
// False when `token` (blank space around it allowed) is not a JSON number.
bool readNumberBeyondRange(std::string_view token, ZVJSONValue& out) {
  while (!token.empty() && isBlank(token.front())) token.remove_prefix(1);
  while (!token.empty() && isBlank(token.back())) token.remove_suffix(1);
  // -?(0|[1-9][0-9]*)(\.[0-9]+)?([eE][+-]?[0-9]+)?, noting where the digits
  // stand and the exponent's value (saturated: it only needs its sign).
  size_t i = 0;
  const size_t n = token.size();
  const bool negative = i < n && token[i] == '-';
  if (negative) ++i;
  const size_t integerStart = i;
  if (i < n && token[i] == '0') {
    ++i;
  } else {
    if (i == n || !isDigit(token[i])) return false;
    while (i < n && isDigit(token[i])) ++i;
  }
  const size_t integerDigits = i - integerStart;
  size_t fractionZeros = 0;  // zeros after the point before the first other digit
  if (i < n && token[i] == '.') {
    ++i;
    if (i == n || !isDigit(token[i])) return false;
    for (; i < n && token[i] == '0'; ++i) ++fractionZeros;
    while (i < n && isDigit(token[i])) ++i;
  }
  int64_t exponent = 0;
  if (i < n && (token[i] == 'e' || token[i] == 'E')) {
    ++i;
    const bool negativeExponent = i < n && token[i] == '-';
    if (i < n && (token[i] == '-' || token[i] == '+')) ++i;
    if (i == n || !isDigit(token[i])) return false;
    for (; i < n && isDigit(token[i]); ++i)
      exponent = std::min<int64_t>(exponent * 10 + (token[i] - '0'), int64_t{1} << 40);
    if (negativeExponent) exponent = -exponent;
  }
  if (i != n) return false;

  double value = 0.0;
  const auto [end, error] =
      std::from_chars(token.data() + (negative ? 1 : 0), token.data() + n, value);
  if (error == std::errc::result_out_of_range) {
    // Past double's range one way or the other: the power of ten of the
    // first significant digit says which.
    const bool zeroInteger = token[integerStart] == '0';
    const int64_t magnitude = zeroInteger ? exponent - static_cast<int64_t>(fractionZeros)
                                          : exponent + static_cast<int64_t>(integerDigits);
    value = magnitude > 0 ? std::numeric_limits<double>::infinity() : 0.0;
  } else if (error != std::errc() || end != token.data() + n) {
    return false;
  }
  out = ZVJSONValue(negative ? -value : value);
  return true;
}

// A scalar text parsed on its own by the DOM parser (padded: `capacity` is at
// least `size` + ZVJSONPadding).
simdjson::error_code parseScalar(simdjson::dom::parser& parser, const char* data, size_t size,
                                 size_t capacity, ZVJSONValue& out) {
  simdjson::dom::element root;
  if (const auto error = parser.parse(simdjson::padded_string_view(data, size, capacity)).get(root);
      error != simdjson::SUCCESS) {
    if (error == simdjson::NUMBER_ERROR && readNumberBeyondRange({data, size}, out))
      return simdjson::SUCCESS;
    return error;
  }
  using T = simdjson::dom::element_type;
  switch (root.type()) {
    case T::INT64:
      out = ZVJSONValue(static_cast<long long>(root.get_int64().value_unsafe()));
      break;
    case T::UINT64:
      out = ZVJSONValue(static_cast<double>(root.get_uint64().value_unsafe()));
      break;
    case T::DOUBLE:
      out = ZVJSONValue(root.get_double().value_unsafe());
      break;
    case T::STRING:
      out = ZVJSONValue(root.get_string().value_unsafe());
      break;
    case T::BOOL:
      out = ZVJSONValue(root.get_bool().value_unsafe());
      break;
    case T::NULL_VALUE:
      out = ZVJSONValue::null();
      break;
    default:  // blank space before a container is handled by the walk
      return simdjson::INCORRECT_TYPE;
  }
  return simdjson::SUCCESS;
}

// Finds the backslashes of a text as a walk in text order asks about its
// strings: each stretch of text is searched once, so a string's check is
// mostly one comparison.
class Backslashes {
 public:
  Backslashes(const char* text, size_t size) : from_(text), next_(text), end_(text + size) {}

  // Whether [start, end) of the text holds a backslash.
  bool within(const char* start, const char* end) {
    if (start < from_ || start > next_) {  // outside what is known: search on from here
      from_ = start;
      const void* found = std::memchr(start, '\\', static_cast<size_t>(end_ - start));
      next_ = found != nullptr ? static_cast<const char*>(found) : end_;
    }
    return next_ < end;
  }

 private:
  const char* from_;  // no backslash lies in [from_, next_)
  const char* next_;
  const char* end_;
};

// Builds values straight from the parser's walk over the text: no
// intermediate document tree. Every step checks its error; the first one
// stops the walk.
class Builder {
 public:
  Builder(std::string_view text, size_t maxDepth, ThreadParser& scratch, ZVArena& arena)
      : backslashes_(text.data(), text.size()),
        maxDepth_(maxDepth),
        keys_(scratch.keys),
        slots_(scratch.slots),
        items_(scratch.items),
        arena_(arena),
        scalars_(scratch.scalars),
        yielding_(zv_detail::yieldingHere()) {}

  simdjson::error_code error() const { return error_; }
  bool tooDeep() const { return tooDeep_; }

  // The document's root, an array or an object (scalar texts go to the DOM
  // parser before the walk).
  bool buildRoot(od::document& document, ZVJSONValue& out) {
    if (od::array array; document.get_array().get(array) == simdjson::SUCCESS)
      return buildArray(array, 1, out);
    od::object object;
    return check(document.get_object().get(object)) && buildObject(object, 1, out);
  }

  // `out` is nil on entry. Inlined into the loops over elements and members,
  // which recurse only into containers.
  [[gnu::always_inline]] bool build(od::value& v, size_t depth, ZVJSONValue& out) {
    od::json_type type;
    if (!check(v.type().get(type))) return false;
    switch (type) {
      case od::json_type::array: {
        auto array = v.get_array();
        return check(array.error()) && buildArray(array.value_unsafe(), depth + 1, out);
      }
      case od::json_type::object: {
        auto object = v.get_object();
        return check(object.error()) && buildObject(object.value_unsafe(), depth + 1, out);
      }
      case od::json_type::number:
        return buildNumber(v, out);
      case od::json_type::string:
        return buildString(v, out);
      case od::json_type::boolean: {
        bool b = false;
        if (!check(v.get_bool().get(b))) return false;
        ZVJSONAccess::setScalar(out, b);
        return true;
      }
      case od::json_type::null: {
        bool isNull = false;
        if (!check(v.is_null().get(isNull))) return false;
        if (!isNull) return check(simdjson::N_ATOM_ERROR);
        ZVJSONAccess::setTag(out, ZVJSONAccess::Tag::Null);
        return true;
      }
    }
    return check(simdjson::INCORRECT_TYPE);
  }

 private:
  bool check(simdjson::error_code error) {
    if (error == simdjson::SUCCESS) return true;
    if (error_ == simdjson::SUCCESS) error_ = error;
    return false;
  }

  // The kind is read first and the number then by the getter of that kind
  // (get_number() reads floats with more than 19 digits as 0 in this
  // simdjson). A number the walk cannot read (a huge exponent, an integer
  // beyond 64 bits) is read again on its own by the DOM parser, which has
  // the last word on what is a number, and by us for the numbers beyond its
  // range; a failed getter leaves it for the walk to step over.
  [[gnu::always_inline]] bool buildNumber(od::value& v, ZVJSONValue& out) {
    od::number_type kind;
    if (v.get_number_type().get(kind) == simdjson::SUCCESS) {
      switch (kind) {
        case od::number_type::signed_integer:
          if (int64_t i = 0; v.get_int64().get(i) == simdjson::SUCCESS) {
            ZVJSONAccess::setScalar(out, i);
            return true;
          }
          break;
        case od::number_type::unsigned_integer:
          // Above the signed range: kept as the nearest double rather than refused.
          if (uint64_t u = 0; v.get_uint64().get(u) == simdjson::SUCCESS) {
            ZVJSONAccess::setScalar(out, static_cast<double>(u));
            return true;
          }
          break;
        case od::number_type::floating_point_number:
          // Past 19 digits the walk's own reading can be wrong: the DOM's is not.
          if (double d = 0;
              rawToken(v).size() <= 19 && v.get_double().get(d) == simdjson::SUCCESS) {
            ZVJSONAccess::setScalar(out, d);
            return true;
          }
          break;
      }
    }
    return readNumberAlone(v, out);
  }

  [[gnu::noinline]] bool readNumberAlone(od::value& v, ZVJSONValue& out) {
    const std::string_view token = rawToken(v);
    numberText_.assign(token);
    numberText_.append(ZVJSONPadding, ' ');
    return check(parseScalar(scalars_, numberText_.data(), token.size(), numberText_.size(), out));
  }

  // A token as it stands in the text, blank space after it included.
  static std::string_view rawToken(od::value& v) { return v.raw_json_token(); }

  // The text of a string token without its quotes, when it holds no escape
  // (then its bytes are the string's, UTF-8 already checked), or nothing.
  // A token runs from its opening quote to the next token, blanks included.
  std::optional<std::string_view> plainString(std::string_view token) {
    const size_t close = token.find_last_of('"');
    if (close == 0 || close == std::string_view::npos) return std::nullopt;
    const char* start = token.data() + 1;
    if (backslashes_.within(start, token.data() + close)) return std::nullopt;
    return std::string_view(start, close - 1);
  }

  [[gnu::always_inline]] bool buildString(od::value& v, ZVJSONValue& out) {
    if (const std::optional<std::string_view> text = plainString(rawToken(v))) {
      // Most strings hold no escape: copied once, straight from the text.
      od::raw_json_string raw;
      if (!check(v.get_raw_json_string().get(raw))) return false;
      setString(out, *text, arena_);
      return true;
    }
    std::string_view text;
    if (!check(v.get_string().get(text))) return false;
    setString(out, text, arena_);
    return true;
  }

  // Containers are built in place: each is made and set in `out` before its
  // elements, which are built straight into the scratch stacks and then move
  // into the container with one copy; no value is built aside and copied.
  [[gnu::noinline]] bool buildArray(od::array& array, size_t depth, ZVJSONValue& out) {
    if (depth > maxDepth_) {
      tooDeep_ = true;
      return false;
    }
    ZVMutableArray& result = newArray(out);
    const size_t base = items_.size();
    for (auto element : array) {
      // The iterator's result is used in place: copying it out makes the
      // processor wait to read back what it has just stored.
      if (!check(element.error())) return false;
      od::value& item = element.value_unsafe();
      if (!build(item, depth, items_.emplace_back())) return false;
    }
    fill(ZVJSONAccess::items(result), items_, base);
    return true;
  }

  [[gnu::noinline]] bool buildObject(od::object& object, size_t depth, ZVJSONValue& out) {
    if (depth > maxDepth_) {
      tooDeep_ = true;
      return false;
    }
    if (yielding_) zv_detail::yieldPoint();
    ZVMutableDictionary& result = newDictionary(out);
    const size_t base = slots_.size();
    for (auto member : object) {
      if (!check(member.error())) return false;
      od::field& field = member.value_unsafe();  // in place, as for array elements
      std::string_view key;
      if (!readKey(field, rawToken(field.value()).data(), key) ||
          !build(field.value(), depth, slots_.emplace_back(makeKey(key)).value))
        return false;
    }
    finishObject(result, base);
    return true;
  }

  ZVMutableArray& newArray(ZVJSONValue& out) {
    auto made = makeInArena<ZVMutableArray>(arena_);
    ZVMutableArray& result = *made;
    ZVJSONAccess::setArray(out, std::move(made));
    return result;
  }

  ZVMutableDictionary& newDictionary(ZVJSONValue& out) {
    auto made = makeInArena<ZVMutableDictionary>(arena_);
    ZVMutableDictionary& result = *made;
    ZVJSONAccess::setDictionary(out, std::move(made));
    return result;
  }

  void finishObject(ZVMutableDictionary& result, size_t base) {
    // Looked for on the scratch stack, written a while ago: the copy just
    // made would be read back from stores still under way.
    const bool duplicates =
        zv_detail::hasDuplicateKeys(slots_.top(base), keys_, keyCache_.canonical);
    auto slots = ZVJSONAccess::slots(result);
    fill(slots, slots_, base);
    ZVJSONAccess::live(result) = slots.size();
    if (duplicates) zv_detail::mergeDuplicates(result);
  }

  // Moves the scratch stack's elements from `base` up into `store`, on
  // memory of their exact size cut from the arena.
  template <class Store, class T>
  void fill(Store store, ScratchStack<T>& scratch, size_t base) {
    const size_t n = scratch.size() - base;
    if (n == 0) return;
    void* memory = arena_.allocate(n * sizeof(T), alignof(T));
    store.borrowToFill(memory, n);  // throws before anything moves if `n` is too large
    scratch.relocateTop(base, memory);
  }

  // Long keys repeat across the objects of a document: equal ones share one
  // text, found in a small table. While every long key has its place there,
  // equal keys of the document are one text, and comparing keys is
  // comparing their eight bytes.
  zv_detail::ZVKey makeKey(std::string_view key) {
    if (key.size() <= zv_detail::ZVKey::kInline) return zv_detail::ZVKey::fromPadded(key);
    const uint64_t hash = zv_detail::longKeyHash(key);
    for (size_t probe = 0, at = hash >> 56; probe < KeyCache::kProbes;
         ++probe, at = (at + 1) & 255) {
      ZVText*& cached = keyCache_.texts[at];
      if (cached == nullptr) {
        cached = ZVText::make(arena_, key);
        keyCache_.hashes[at] = hash;
        keyCache_.used = true;
        cached->retainUnshared();  // one reference for the key; the table keeps its own
        return zv_detail::ZVKey(cached);
      }
      if (keyCache_.hashes[at] == hash && sameLongKey(cached->view(), key)) {
        cached->retainUnshared();
        return zv_detail::ZVKey(cached);
      }
    }
    // No place left near its hash: a text of its own, which another key of
    // the same bytes will not share.
    keyCache_.canonical = false;
    return zv_detail::ZVKey(ZVText::make(arena_, key));
  }

  // Both keys longer than an inline one: up to 16 bytes, two overlapping
  // words hold them whole, which spares most keys a call to memcmp.
  static bool sameLongKey(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    if (a.size() > 16) return a == b;
    uint64_t x[2];
    uint64_t y[2];
    std::memcpy(&x[0], a.data(), 8);
    std::memcpy(&x[1], a.data() + a.size() - 8, 8);
    std::memcpy(&y[0], b.data(), 8);
    std::memcpy(&y[1], b.data() + b.size() - 8, 8);
    return ((x[0] ^ y[0]) | (x[1] ^ y[1])) == 0;
  }

  // `value` is where the token after the key starts. A key is a string
  // token the parser has checked is closed and followed by ':'; most hold
  // no escape and are read in place, up to the last quote before the ':'.
  bool readKey(od::field& field, const char* value, std::string_view& key) {
    const char* start = field.key().raw();
    const char* end = value;
    do --end;
    while (*end != ':');
    do --end;
    while (*end != '"');
    const auto size = static_cast<size_t>(end - start);
    if (!backslashes_.within(start, end)) {
      key = std::string_view(start, size);
      return true;
    }
    return check(field.unescaped_key().get(key));
  }
  Backslashes backslashes_;
  size_t maxDepth_;
  std::vector<std::string_view>& keys_;
  ScratchStack<ZVJSONAccess::Slot>& slots_;
  ScratchStack<ZVJSONValue>& items_;
  ZVArena& arena_;
  std::string numberText_;  // a number read again on its own
  simdjson::dom::parser& scalars_;
  const bool yielding_;  // asked once: most walks run where nothing yields
  struct KeyCache {
    static constexpr size_t kProbes = 8;
    ZVText* texts[256] = {};
    uint64_t hashes[256];   // of the text in the same place
    bool used = false;      // most small answers' keys are all inline: nothing to walk
    bool canonical = true;  // equal long keys so far share one text
    ~KeyCache() {
      if (!used) return;
      for (ZVText* text : texts)
        if (text != nullptr) text->release();
    }
  } keyCache_;
  simdjson::error_code error_ = simdjson::SUCCESS;
  bool tooDeep_ = false;
};

ZVJSONParseResult parsePadded(const char* data, size_t size, size_t capacity, size_t limit,
                              ThreadParser& tp, ZVMemoryBudget& budget) {
  ZVJSONParseResult result;
  // A scalar on its own (a number, a string, true...) goes to the DOM parser:
  // the On-Demand walk misreads some, e.g. with long blank space after them.
  size_t first = 0;
  while (first < size && isBlank(data[first])) ++first;
  if (first == size || (data[first] != '{' && data[first] != '[')) {
    if (const auto error = parseScalar(tp.scalars, data, size, capacity, result.value);
        error != simdjson::SUCCESS)
      result.error = zv_detail::strCat("invalid JSON: ", simdjson::error_message(error));
    return result;
  }
  od::document document;
  simdjson::error_code error = tp.prepare(size);
  if (error == simdjson::SUCCESS) error = tp.parser.iterate(data, size, capacity).get(document);
  // The walk holds the arena while it cuts from it; what it built holds it after.
  struct Hold {
    ZVArena* arena;
    ~Hold() {
      arena->setBudget(nullptr);
      arena->release();
    }
  } hold{new ZVArena(std::min(size * 2, size_t{64} << 10))};
  hold.arena->setBudget(&budget);
  Builder builder(std::string_view(data, size), limit, tp, *hold.arena);
  ZVJSONValue value;
  if (error == simdjson::SUCCESS && builder.buildRoot(document, value)) {
    // Past the end of the text is where a whole document leaves the walk.
    const char* rest = nullptr;
    if (document.current_location().get(rest) != simdjson::OUT_OF_BOUNDS)
      error = simdjson::TRAILING_CONTENT;
  }
  if (error == simdjson::SUCCESS) error = builder.error();
  if (builder.tooDeep() || error == simdjson::DEPTH_ERROR) {
    result.error = depthError(limit);
  } else if (error != simdjson::SUCCESS) {
    result.error = zv_detail::strCat("invalid JSON: ", simdjson::error_message(error));
  } else {
    result.value = std::move(value);
  }
  return result;
}

ZVJSONParseResult parse(std::string_view text, size_t capacity, const ZVJSONParseOptions& options) {
  const size_t limit = std::min(options.maxDepth, kHardMaxDepth);
  ZVJSONParseResult result;
  ThreadParser& tp = threadParser();
  ZVMemoryBudget budget(options.maxValueBytes);
  tp.slots.budget = &budget;
  tp.items.budget = &budget;
  try {
    const char* data = text.data() != nullptr ? text.data() : "";
    if (capacity < text.size() + ZVJSONPadding) {
      // No room to read past the end: work on a padded copy. The padding is
      // blank, as what lies past a text's end can change how its last token
      // reads.
      tp.padded.resize(text.size() + ZVJSONPadding);
      std::memcpy(tp.padded.data(), data, text.size());
      std::memset(tp.padded.data() + text.size(), ' ', ZVJSONPadding);
      data = tp.padded.data();
      capacity = tp.padded.size();
    }
    result = parsePadded(data, text.size(), capacity, limit, tp, budget);
  } catch (const ZVMemoryBudget::Exceeded&) {
    result.value = ZVJSONValue();
    result.error =
        zv_detail::strCat("JSON values need more than ", options.maxValueBytes, " bytes of memory");
    result.tooLarge = true;
  } catch (const std::bad_alloc&) {
    result.value = ZVJSONValue();
    result.error = "out of memory while parsing JSON";
  } catch (const std::length_error&) {
    result.value = ZVJSONValue();
    result.error = "a JSON array or object holds too many elements";
  }
  // A walk cut short by an exception leaves values on the scratch stacks,
  // and with them its arena.
  tp.slots.clear();
  tp.items.clear();
  tp.slots.budget = nullptr;
  tp.items.budget = nullptr;
  // Also after a failure: a walk cut short may have grown the buffers most.
  tp.trim(text.size());
  return result;
}

}  // namespace

ZVJSONParseResult ZVJSONParse(std::string_view text, const ZVJSONParseOptions& options) {
  return parse(text, 0, options);
}

ZVJSONParseResult ZVJSONParse(std::string& text, const ZVJSONParseOptions& options) {
  const size_t size = text.size();
  try {
    text.append(ZVJSONPadding, ' ');  // blank bytes the parser may read past the end
  } catch (const std::bad_alloc&) {
    return {{}, "out of memory while parsing JSON"};
  }
  ZVJSONParseResult result = parse(std::string_view(text.data(), size), text.size(), options);
  text.resize(size);
  return result;
}
