#include <ZorvaneCoreKit/ZVJSON.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>
#include <iterator>
#include <new>
#include <optional>
#include <span>
#include <type_traits>
#include <unordered_map>

#include <fmt/format.h>
#include <simdjson.h>

namespace zv_detail {

// Memory for the containers and long strings of one parsed text, cut by
// bumping a pointer in the parse order (which is the order records and
// teardown read it back in) and given back all at once when the last
// container or string cut from it is gone. Only the parsing thread cuts;
// storage that grows after the parse comes from the heap.
class ZVArena {
 public:
  explicit ZVArena(size_t firstChunk) : nextChunk_(std::max<size_t>(firstChunk, 256)) {}
  ~ZVArena() {
    for (void* chunk : chunks_) ::operator delete(chunk);
  }
  ZVArena(const ZVArena&) = delete;
  ZVArena& operator=(const ZVArena&) = delete;

  void retain() { refs_.fetch_add(1, std::memory_order_relaxed); }
  // For the parsing thread, while nothing cut from the arena is visible elsewhere.
  void retainUnshared() {
    refs_.store(refs_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  }
  void release() {
    if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }

  void* allocate(size_t bytes, size_t align) {
    const uintptr_t at = (reinterpret_cast<uintptr_t>(cursor_) + align - 1) & ~(align - 1);
    if (cursor_ == nullptr || at + bytes > reinterpret_cast<uintptr_t>(limit_))
      return allocateInNewChunk(bytes, align);
    cursor_ = reinterpret_cast<char*>(at + bytes);
    return reinterpret_cast<char*>(at);
  }

 private:
  // Small enough for malloc to serve from memory it already has, so that
  // parsing answer after answer does not fault fresh pages in each time.
  static constexpr size_t kMaxChunk = size_t{64} << 10;

  [[gnu::noinline]] void* allocateInNewChunk(size_t bytes, size_t align) {
    const size_t size = std::max(nextChunk_, bytes + align);
    chunks_.reserve(chunks_.size() + 1);  // before the chunk: nothing leaks if this throws
    char* begin = static_cast<char*>(::operator new(size));
    chunks_.push_back(begin);
    limit_ = begin + size;
    nextChunk_ = std::min(nextChunk_ * 2, kMaxChunk);
    const uintptr_t at = (reinterpret_cast<uintptr_t>(begin) + align - 1) & ~(align - 1);
    cursor_ = reinterpret_cast<char*>(at + bytes);
    return reinterpret_cast<char*>(at);
  }

  std::atomic<size_t> refs_{1};
  std::vector<void*> chunks_;
  char* cursor_ = nullptr;
  char* limit_ = nullptr;
  size_t nextChunk_;
};

ZVText* ZVText::make(std::string_view s) {
  void* memory = ::operator new(sizeof(ZVText) + s.size() + 1);
  ZVText* text = new (memory) ZVText{{1}, s.size(), nullptr};
  std::memcpy(text->data(), s.data(), s.size());
  text->data()[s.size()] = '\0';
  return text;
}

void ZVText::destroy() {
  ZVArena* from = arena;
  this->~ZVText();
  if (from != nullptr)
    from->release();
  else
    ::operator delete(this);
}

}  // namespace zv_detail

using zv_detail::ZVArena;
using zv_detail::ZVText;

// Private access for the parser, which builds containers in place.
struct ZVJSONAccess {
  // Long strings are cut from the arena, which each of them keeps alive.
  // `s` may be read past its end: it lies in the parser's padded text.
  static void setString(ZVJSONValue& value, std::string_view s, ZVArena& arena);
  static void setArray(ZVJSONValue& value, ZVArrayPtr array) {
    new (value.raw_) ZVArrayPtr(std::move(array));
    value.tag_ = ZVJSONValue::Tag::Array;
  }
  static void setDictionary(ZVJSONValue& value, ZVDictionaryPtr dictionary) {
    new (value.raw_) ZVDictionaryPtr(std::move(dictionary));
    value.tag_ = ZVJSONValue::Tag::Dictionary;
  }
  using Slot = ZVMutableDictionary::Slot;
  static auto& slots(ZVMutableDictionary& d) { return d.slots_; }
  static auto& items(ZVMutableArray& a) { return a.items_; }
  static size_t& live(ZVMutableDictionary& d) { return d.live_; }
};

namespace {

// A text cut from the arena, which it keeps alive.
ZVText* arenaText(ZVArena& arena, std::string_view s) {
  void* memory = arena.allocate(sizeof(ZVText) + s.size() + 1, alignof(ZVText));
  arena.retainUnshared();
  ZVText* text = new (memory) ZVText{{1}, s.size(), &arena};
  std::memcpy(text->data(), s.data(), s.size());
  text->data()[s.size()] = '\0';
  return text;
}

}  // namespace

void ZVJSONAccess::setString(ZVJSONValue& value, std::string_view s, ZVArena& arena) {
  if (s.size() <= ZVJSONValue::kInline) {
    // A fixed-size copy: the parser's text is padded, and the bytes past
    // the string's count are never read.
    std::memcpy(value.raw_, s.data(), ZVJSONValue::kInline);
    value.raw_[ZVJSONValue::kInline] = static_cast<char>(s.size());
    value.tag_ = ZVJSONValue::Tag::ShortString;
    return;
  }
  new (value.raw_) ZVText*(arenaText(arena, s));
  value.tag_ = ZVJSONValue::Tag::LongString;
}

namespace {

// Hands a container's control block its memory from the arena. Each
// container keeps the arena alive: the builder retains it once per
// container, and the block's one deallocation releases it.
template <class T>
struct ArenaAllocator {
  using value_type = T;
  explicit ArenaAllocator(ZVArena* a) noexcept : arena(a) {}
  template <class U>
  ArenaAllocator(const ArenaAllocator<U>& other) noexcept : arena(other.arena) {}
  T* allocate(size_t n) { return static_cast<T*>(arena->allocate(n * sizeof(T), alignof(T))); }
  void deallocate(T*, size_t) noexcept { arena->release(); }
  template <class U>
  bool operator==(const ArenaAllocator<U>& other) const noexcept {
    return arena == other.arena;
  }
  ZVArena* arena;
};

template <class T>
std::shared_ptr<T> makeInArena(ZVArena& arena) {
  auto made = std::allocate_shared<T>(ArenaAllocator<T>(&arena));
  arena.retainUnshared();  // after success: a failed allocation deallocates nothing
  return made;
}

}  // namespace

namespace {

// Nesting accepted by the parser whatever the options say, and refused by the
// writer and by equality: recursion over a tree never goes deeper than this.
constexpr size_t kHardMaxDepth = 1024;

// Up to this many keys a pairwise scan beats sorting or hashing.
constexpr size_t kLinearKeyLimit = 8;
// Up to this many keys the parser finds repeats with a small table on the stack.
constexpr size_t kHashedKeyLimit = 64;

// Mixes a long key's length and its first and last eight bytes.
uint64_t longKeyHash(std::string_view key) {
  uint64_t head = 0;
  uint64_t tail = 0;
  std::memcpy(&head, key.data(), sizeof head);
  std::memcpy(&tail, key.data() + key.size() - sizeof tail, sizeof tail);
  return (head * 0x9E3779B97F4A7C15u) ^ ((tail + key.size()) * 0xC2B2AE3D27D4EB4Fu);
}

constexpr size_t kNotFound = static_cast<size_t>(-1);

// Orders keys by length first: any strict order finds duplicates, and most
// keys differ in length.
bool keyLess(std::string_view a, std::string_view b) {
  return a.size() != b.size() ? a.size() < b.size() : a < b;
}

// ---------------------------------------------------------------------------
// Parsing

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
  return fmt::format("JSON nesting is deeper than {} levels", limit);
}

// A scalar text parsed on its own by the DOM parser (padded: `capacity` is at
// least `size` + ZVJSONPadding).
simdjson::error_code parseScalar(simdjson::dom::parser& parser, const char* data, size_t size,
                                 size_t capacity, ZVJSONValue& out) {
  simdjson::dom::element root;
  if (const auto error = parser.parse(simdjson::padded_string_view(data, size, capacity)).get(root);
      error != simdjson::SUCCESS)
    return error;
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
        scalars_(scratch.scalars) {}

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
        out = ZVJSONValue(b);
        return true;
      }
      case od::json_type::null: {
        bool isNull = false;
        if (!check(v.is_null().get(isNull))) return false;
        if (!isNull) return check(simdjson::N_ATOM_ERROR);
        out = ZVJSONValue::null();
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
  // the last word; a failed getter leaves it for the walk to step over.
  [[gnu::always_inline]] bool buildNumber(od::value& v, ZVJSONValue& out) {
    od::number_type kind;
    if (v.get_number_type().get(kind) == simdjson::SUCCESS) {
      switch (kind) {
        case od::number_type::signed_integer:
          if (int64_t i = 0; v.get_int64().get(i) == simdjson::SUCCESS) {
            out = ZVJSONValue(static_cast<long long>(i));
            return true;
          }
          break;
        case od::number_type::unsigned_integer:
          // Above the signed range: kept as the nearest double rather than refused.
          if (uint64_t u = 0; v.get_uint64().get(u) == simdjson::SUCCESS) {
            out = ZVJSONValue(static_cast<double>(u));
            return true;
          }
          break;
        case od::number_type::floating_point_number:
          // Past 19 digits the walk's own reading can be wrong: the DOM's is not.
          if (double d = 0;
              rawToken(v).size() <= 19 && v.get_double().get(d) == simdjson::SUCCESS) {
            out = ZVJSONValue(d);
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
      ZVJSONAccess::setString(out, *text, arena_);
      return true;
    }
    std::string_view text;
    if (!check(v.get_string().get(text))) return false;
    ZVJSONAccess::setString(out, text, arena_);
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
    const bool duplicates = hasDuplicateKeys(slots_.top(base));
    auto& slots = ZVJSONAccess::slots(result);
    fill(slots, slots_, base);
    ZVJSONAccess::live(result) = slots.size();
    if (duplicates) mergeDuplicates(result);
  }

  // Moves the scratch stack's elements from `base` up into `store`, on
  // memory of their exact size cut from the arena.
  template <class Store, class T>
  void fill(Store& store, ScratchStack<T>& scratch, size_t base) {
    const size_t n = scratch.size() - base;
    if (n == 0) return;
    void* memory = arena_.allocate(n * sizeof(T), alignof(T));
    store.borrowToFill(memory, n);  // throws before anything moves if `n` is too large
    scratch.relocateTop(base, memory);
  }

  // Long keys repeat across the objects of a document: equal ones share one
  // text, found through a small cache that forgets on collision.
  zv_detail::ZVKey makeKey(std::string_view key) {
    if (key.size() <= zv_detail::ZVKey::kInline) return zv_detail::ZVKey::fromPadded(key);
    ZVText*& cached = keyCache_.texts[longKeyHash(key) >> 56];
    if (cached == nullptr || std::string_view(cached->data(), cached->size) != key) {
      if (cached != nullptr) cached->release();
      cached = arenaText(arena_, key);
    }
    cached->retainUnshared();  // one reference for the key; the cache keeps its own
    return zv_detail::ZVKey(cached);
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

  template <class Slots>
  bool hasDuplicateKeys(const Slots& slots) {
    const size_t count = slots.size();
    if (count < 2) return false;
    const auto same = [&](size_t i, size_t j) {
      return slots[i].key.sameBytes(slots[j].key) ||
             (slots[i].key.shared() && slots[j].key.shared() &&
              slots[i].key.view() == slots[j].key.view());
    };
    if (count <= kLinearKeyLimit) {
      for (size_t i = 1; i < count; ++i)
        for (size_t j = 0; j < i; ++j)
          if (same(i, j)) return true;
      return false;
    }
    if (count <= kHashedKeyLimit) {
      // Open addressing over twice as many places as keys; only keys that
      // land on the same hash are compared.
      constexpr uint8_t kEmpty = 0xFF;
      uint8_t places[2 * kHashedKeyLimit];
      std::memset(places, kEmpty, sizeof places);
      const size_t mask = 2 * kHashedKeyLimit - 1;
      for (size_t i = 0; i < count; ++i) {
        const zv_detail::ZVKey& key = slots[i].key;
        const uint64_t hash =
            key.shared() ? longKeyHash(key.view()) : key.bits() * 0x9E3779B97F4A7C15u;
        for (size_t at = hash >> 57;; at = (at + 1) & mask) {
          if (places[at] == kEmpty) {
            places[at] = static_cast<uint8_t>(i);
            break;
          }
          if (same(i, places[at])) return true;
        }
      }
      return false;
    }
    keys_.clear();
    for (const auto& slot : slots) keys_.push_back(slot.key.view());
    std::sort(keys_.begin(), keys_.end(), keyLess);
    return std::adjacent_find(keys_.begin(), keys_.end()) != keys_.end();
  }

  // Rare: the first position of a key and the value of its last occurrence.
  static void mergeDuplicates(ZVMutableDictionary& dictionary) {
    auto& slots = ZVJSONAccess::slots(dictionary);
    std::unordered_map<std::string_view, size_t> last;
    for (size_t i = 0; i < slots.size(); ++i) last[slots[i].key.view()] = i;
    std::remove_reference_t<decltype(slots)> merged;
    merged.reserve(last.size());
    for (size_t i = 0; i < slots.size(); ++i) {
      auto it = last.find(slots[i].key.view());
      if (it->second == kNotFound) continue;  // written at its first position already
      auto& slot = merged.emplace_back();
      slot.key = slots[i].key;  // copied: the map's views point into the old keys
      slot.value = std::move(slots[it->second].value);
      it->second = kNotFound;
    }
    slots = std::move(merged);
    ZVJSONAccess::live(dictionary) = slots.size();
  }

  Backslashes backslashes_;
  size_t maxDepth_;
  std::vector<std::string_view>& keys_;
  ScratchStack<ZVJSONAccess::Slot>& slots_;
  ScratchStack<ZVJSONValue>& items_;
  ZVArena& arena_;
  std::string numberText_;  // a number read again on its own
  simdjson::dom::parser& scalars_;
  struct KeyCache {
    ZVText* texts[256] = {};
    ~KeyCache() {
      for (ZVText* text : texts)
        if (text != nullptr) text->release();
    }
  } keyCache_;
  simdjson::error_code error_ = simdjson::SUCCESS;
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
    dictionary.forEach([&](std::string_view key, const ZVJSONValue& value) {
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
    a.forEach([&](std::string_view key, const ZVJSONValue& value) {
      if (!same) return;
      const ZVJSONValue* other = b.find(key);
      same = other != nullptr && equal(value, *other, depth + 1);
    });
    return same;
  }
  std::unordered_map<std::string_view, const ZVJSONValue*> index;
  index.reserve(b.count());
  b.forEach([&](std::string_view key, const ZVJSONValue& value) { index.emplace(key, &value); });
  a.forEach([&](std::string_view key, const ZVJSONValue& value) {
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

ZVJSONValue::ZVJSONValue(ZVArrayPtr a) noexcept : tag_(a ? Tag::Array : Tag::Nil) {
  if (a) new (raw_) ZVArrayPtr(std::move(a));
}

ZVJSONValue::ZVJSONValue(ZVDictionaryPtr d) noexcept : tag_(d ? Tag::Dictionary : Tag::Nil) {
  if (d) new (raw_) ZVDictionaryPtr(std::move(d));
}

ZVJSONValue::ZVJSONValue(const ZVJSONValue& other) noexcept : tag_(other.tag_) {
  switch (tag_) {
    case Tag::LongString:
      new (raw_) zv_detail::ZVText*(other.text());
      text()->retain();
      break;
    case Tag::Array:
      new (raw_) ZVArrayPtr(other.as<ZVArrayPtr>());
      break;
    case Tag::Dictionary:
      new (raw_) ZVDictionaryPtr(other.as<ZVDictionaryPtr>());
      break;
    default:
      std::memcpy(raw_, other.raw_, sizeof raw_);
      break;
  }
}

void ZVJSONValue::setString(std::string_view s) {
  if (s.size() <= kInline) {
    if (!s.empty()) std::memcpy(raw_, s.data(), s.size());
    raw_[kInline] = static_cast<char>(s.size());
    tag_ = Tag::ShortString;
  } else {
    new (raw_) zv_detail::ZVText*(zv_detail::ZVText::make(s));
    tag_ = Tag::LongString;
  }
}

void ZVJSONValue::destroy() noexcept {
  switch (tag_) {
    case Tag::LongString:
      text()->release();
      break;
    case Tag::Array:
      as<ZVArrayPtr>().~ZVArrayPtr();
      break;
    case Tag::Dictionary:
      as<ZVDictionaryPtr>().~ZVDictionaryPtr();
      break;
    default:
      break;
  }
  tag_ = Tag::Nil;
}

double ZVJSONValue::doubleValue() const {
  switch (tag_) {
    case Tag::Double:
      return as<double>();
    case Tag::Integer:
      return static_cast<double>(as<int64_t>());
    case Tag::Bool:
      return as<bool>() ? 1.0 : 0.0;
    default:
      return 0.0;
  }
}

std::string ZVJSONValue::description() const {
  switch (type()) {
    case Type::Nil:
      return "(null)";
    case Type::Null:
      return "<null>";
    case Type::Bool:
      return as<bool>() ? "1" : "0";
    case Type::Integer:
      return fmt::format("{}", as<int64_t>());
    case Type::Double:
      return fmt::format("{}", as<double>());
    case Type::String:
      return std::string(*string());
    case Type::Array:
      return describe(*as<ZVArrayPtr>());
    case Type::Dictionary:
      return describe(*as<ZVDictionaryPtr>());
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

ZVMutableArray::ZVMutableArray(std::vector<ZVJSONValue> items) {
  items_.reserve(items.size());
  for (ZVJSONValue& item : items) items_.push_back(std::move(item));
}

ZVArrayPtr ZVMutableArray::mutableCopy() const {
  auto copy = std::make_shared<ZVMutableArray>();
  copy->items_ = items_;
  return copy;
}

std::string ZVMutableArray::description() const {
  return describe(*this);
}

// ---------------------------------------------------------------------------
// ZVMutableDictionary

ZVDictionaryPtr ZVMutableDictionary::make(std::vector<Entry> entries) {
  auto dict = std::make_shared<ZVMutableDictionary>();
  dict->slots_.reserve(entries.size());
  if (entries.size() <= 2 * kLinearKeyLimit) {
    for (Entry& entry : entries) dict->setObject(entry.first, std::move(entry.second));
    return dict;
  }
  // Many keys: an index finds repeats; a later nil removes an earlier entry.
  std::unordered_map<std::string_view, size_t> index;
  index.reserve(entries.size());
  for (Entry& entry : entries) {
    auto it = index.find(entry.first);
    if (it != index.end()) {
      if (entry.second.isNil()) --dict->live_;
      dict->slots_[it->second].value = std::move(entry.second);
      if (dict->slots_[it->second].value.isNil()) index.erase(it);
    } else if (!entry.second.isNil()) {
      index.emplace(entry.first, dict->slots_.size());
      dict->slots_.push_back({zv_detail::ZVKey(entry.first), std::move(entry.second)});
      ++dict->live_;
    }
  }
  dict->compactIfSparse();
  return dict;
}

size_t ZVMutableDictionary::indexOf(std::string_view key) const {
  const size_t n = slots_.size();
  if (key.size() <= zv_detail::ZVKey::kInline) {
    const zv_detail::ZVKey probe(key);  // inline: no allocation
    for (size_t i = 0; i < n; ++i)
      if (slots_[i].key.sameBytes(probe) && !slots_[i].value.isNil()) return i;
    return kNotFound;
  }
  for (size_t i = 0; i < n; ++i)
    if (slots_[i].key.shared() && slots_[i].key.view() == key && !slots_[i].value.isNil()) return i;
  return kNotFound;
}

const ZVJSONValue* ZVMutableDictionary::find(std::string_view key) const {
  const size_t pos = indexOf(key);
  return pos == kNotFound ? nullptr : &slots_[pos].value;
}

ZVJSONValue* ZVMutableDictionary::find(std::string_view key) {
  const size_t pos = indexOf(key);
  return pos == kNotFound ? nullptr : &slots_[pos].value;
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
  slots_.push_back({zv_detail::ZVKey(key), std::move(value)});
  ++live_;
}

void ZVMutableDictionary::removeObjectForKey(std::string_view key) {
  (void)getAndRemoveObjectForKey(key);
}

ZVJSONValue ZVMutableDictionary::getAndRemoveObjectForKey(std::string_view key) {
  const size_t pos = indexOf(key);
  if (pos == kNotFound) return {};
  ZVJSONValue value = std::move(slots_[pos].value);
  --live_;
  if (pos + 1 == slots_.size())
    slots_.pop_back();
  else
    compactIfSparse();
  return value;
}

uint64_t ZVMutableDictionary::KeyList::signature(std::string_view key) {
  if (key.size() <= zv_detail::ZVKey::kInline) return zv_detail::ZVKey(key).bits();
  uint64_t head;
  std::memcpy(&head, key.data(), sizeof head);
  return head ^ (key.size() * 0x9E3779B97F4A7C15u);
}

ZVMutableDictionary::KeyList::KeyList(std::span<const std::string_view> keys)
    : keys_(keys.begin(), keys.end()) {
  views_.assign(keys_.begin(), keys_.end());
  indexed_ = views_.size() <= kIndexed;
  if (!indexed_) return;
  uint64_t signatures[kIndexed];
  for (size_t i = 0; i < views_.size(); ++i) {
    if (views_[i].size() >= kIndexed) {
      unindexed_ |= uint64_t{1} << i;
      continue;
    }
    signatures[i] = signature(views_[i]);
    if (views_[i].size() <= zv_detail::ZVKey::kInline) words_[i] = signatures[i];
  }
  // The multiplier that leaves the fewest keys sharing a place: a slot then
  // has one candidate to compare with, or none.
  size_t fewest = ~size_t{0};
  for (uint64_t attempt = 0; attempt < 256 && fewest != 0; ++attempt) {
    const uint64_t multiplier = (2 * attempt + 1) * 0x9E3779B97F4A7C15u;
    uint64_t used = 0;
    size_t shared = 0;
    for (size_t i = 0; i < views_.size(); ++i) {
      if ((unindexed_ >> i) & 1) continue;
      const uint64_t bit = uint64_t{1} << ((signatures[i] * multiplier) >> 58);
      shared += (used & bit) != 0;
      used |= bit;
    }
    if (shared < fewest) {
      fewest = shared;
      multiplier_ = multiplier;
    }
  }
  for (size_t i = 0; i < views_.size(); ++i)
    if (((unindexed_ >> i) & 1) == 0) byPlace_[place(signatures[i])] |= uint64_t{1} << i;
}

void ZVMutableDictionary::takeObjectsForKeys(std::span<const std::string_view> keys,
                                             std::span<ZVJSONValue> values) {
  takeObjectsForKeys(KeyList(keys), values);
}

void ZVMutableDictionary::takeObjectsForKeys(const KeyList& list, std::span<ZVJSONValue> values) {
  const std::span<const std::string_view> keys = list.views_;
  const size_t wanted = std::min(keys.size(), values.size());
  if (!list.indexed_ || wanted < keys.size()) {
    for (size_t i = 0; i < wanted; ++i)
      if (values[i].isNil()) values[i] = getAndRemoveObjectForKey(keys[i]);
    return;
  }
  // A slot's key is compared only with the wanted keys not taken yet whose
  // signature lands on the same place; short keys are compared in one word.
  uint64_t open = wanted == 64 ? ~uint64_t{0} : (uint64_t{1} << wanted) - 1;
  for (Slot& slot : slots_) {
    if (open == 0) break;
    if (slot.value.isNil()) continue;
    const bool shared = slot.key.shared();
    const std::string_view key = shared ? slot.key.view() : std::string_view();
    if (key.size() >= KeyList::kIndexed) continue;
    const uint64_t signature = shared ? KeyList::signature(key) : slot.key.bits();
    for (uint64_t candidates = list.byPlace_[list.place(signature)] & open; candidates != 0;
         candidates &= candidates - 1) {
      const auto i = static_cast<size_t>(std::countr_zero(candidates));
      if (shared ? key != keys[i] : signature != list.words_[i]) continue;
      values[i] = std::move(slot.value);
      open &= ~(uint64_t{1} << i);
      --live_;
      break;
    }
  }
  // The places left are compacted by the next removal or prune.
  while (!slots_.empty() && slots_.back().value.isNil()) slots_.pop_back();
  for (uint64_t rest = list.unindexed_ & open; rest != 0; rest &= rest - 1) {
    const auto i = static_cast<size_t>(std::countr_zero(rest));  // a key too long for the index
    values[i] = getAndRemoveObjectForKey(keys[i]);
  }
}

void ZVMutableDictionary::compactIfSparse() {
  if (slots_.size() - live_ <= live_) return;
  slots_.eraseIf([](const Slot& s) { return s.value.isNil(); });
}

ZVDictionaryPtr ZVMutableDictionary::prune() {
  slots_.eraseIf([](const Slot& s) { return s.value.isNil() || s.value.isNull(); });
  live_ = slots_.size();
  // What remains is usually kept for good: give back most of the unused room
  // (a parsed dictionary's room belongs to its arena and stays).
  if (slots_.capacity() > 2 * slots_.size() + 4) slots_.shrinkToFit();
  if (ZVDictionaryPtr self = weak_from_this().lock()) return self;
  // Not owned by a shared pointer: the closest we can give is a copy.
  return mutableCopy();
}

std::vector<ZVMutableDictionary::Entry> ZVMutableDictionary::entries() const {
  std::vector<Entry> out;
  out.reserve(live_);
  forEach([&](std::string_view key, const ZVJSONValue& value) { out.emplace_back(key, value); });
  return out;
}

std::vector<std::string> ZVMutableDictionary::allKeys() const {
  std::vector<std::string> out;
  out.reserve(live_);
  forEach([&](std::string_view key, const ZVJSONValue&) { out.emplace_back(key); });
  return out;
}

ZVDictionaryPtr ZVMutableDictionary::mutableCopy() const {
  auto copy = std::make_shared<ZVMutableDictionary>();
  copy->slots_.reserve(live_);
  for (const Slot& slot : slots_)
    if (!slot.value.isNil()) copy->slots_.push_back(slot);
  copy->live_ = copy->slots_.size();
  return copy;
}

std::string ZVMutableDictionary::description() const {
  return describe(*this);
}

void ZVMutableDictionary::appendUnchecked(std::string_view key, ZVJSONValue value) {
  if (value.isNil()) return;
  slots_.push_back({zv_detail::ZVKey(key), std::move(value)});
  ++live_;
}

// ---------------------------------------------------------------------------
// Parse and serialise

namespace {

ZVJSONParseResult parsePadded(const char* data, size_t size, size_t capacity, size_t limit,
                              ThreadParser& tp) {
  ZVJSONParseResult result;
  // A scalar on its own (a number, a string, true...) goes to the DOM parser:
  // the On-Demand walk misreads some, e.g. with long blank space after them.
  const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };
  size_t first = 0;
  while (first < size && blank(data[first])) ++first;
  if (first == size || (data[first] != '{' && data[first] != '[')) {
    if (const auto error = parseScalar(tp.scalars, data, size, capacity, result.value);
        error != simdjson::SUCCESS)
      result.error = fmt::format("invalid JSON: {}", simdjson::error_message(error));
    return result;
  }
  od::document document;
  simdjson::error_code error = tp.prepare(size);
  if (error == simdjson::SUCCESS) error = tp.parser.iterate(data, size, capacity).get(document);
  // The walk holds the arena while it cuts from it; what it built holds it after.
  struct Hold {
    ZVArena* arena;
    ~Hold() { arena->release(); }
  } hold{new ZVArena(std::min(size * 2, size_t{64} << 10))};
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
    result.error = fmt::format("invalid JSON: {}", simdjson::error_message(error));
  } else {
    result.value = std::move(value);
  }
  return result;
}

ZVJSONParseResult parse(std::string_view text, size_t capacity, const ZVJSONParseOptions& options) {
  const size_t limit = std::min(options.maxDepth, kHardMaxDepth);
  ZVJSONParseResult result;
  ThreadParser& tp = threadParser();
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
    result = parsePadded(data, text.size(), capacity, limit, tp);
    tp.trim(text.size());
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

bool ZVJSONSerialize(const ZVJSONValue& value, bool pretty, std::string& out) {
  out.clear();
  return Writer(out, pretty, /*lenient=*/false).write(value, 0);
}
