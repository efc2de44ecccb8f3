// The memory of parsed JSON: the arena a parse cuts its containers and long
// strings from, and the immutable shared text of long strings and keys.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include <ZorvaneCoreKit/ZVExport.h>

namespace zv_detail {

// The memory one parse may take for its values: the arena's chunks and the
// growth of the walk's scratch space are charged as they are allocated, and
// the first charge past the limit throws `Exceeded`, which ends the parse.
class ZVMemoryBudget {
 public:
  struct Exceeded {};
  explicit ZVMemoryBudget(size_t limit) : left_(limit) {}
  void charge(size_t bytes) {
    if (bytes > left_) throw Exceeded{};
    left_ -= bytes;
  }

 private:
  size_t left_;
};

// Memory for the containers and long strings of one parsed text, cut by
// bumping a pointer in the parse order (which is the order records and
// teardown read it back in) and given back all at once when the last
// container or string cut from it is gone. Only the parsing thread cuts;
// storage that grows after the parse comes from the heap. The records of an
// answer are cut from an arena of their own the same way.
class ZV_CORE_EXPORT ZVArena {
 public:
  explicit ZVArena(size_t firstChunk) : nextChunk_(std::max<size_t>(firstChunk, 256)) {}
  // Each new chunk is charged to `budget` (none: no limit) until the parse
  // that cuts from the arena is over.
  void setBudget(ZVMemoryBudget* budget) { budget_ = budget; }
  ~ZVArena();
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

  // The size chunks grow to; only a larger single piece takes more. Small
  // enough for malloc to serve from memory it already has.
  static constexpr size_t kChunkBytes = size_t{64} << 10;

  void* allocate(size_t bytes, size_t align) {
    const uintptr_t at = (reinterpret_cast<uintptr_t>(cursor_) + align - 1) & ~(align - 1);
    if (cursor_ == nullptr || at + bytes > reinterpret_cast<uintptr_t>(limit_))
      return allocateInNewChunk(bytes, align);
    cursor_ = reinterpret_cast<char*>(at + bytes);
    return reinterpret_cast<char*>(at);
  }

 private:
  [[gnu::noinline]] void* allocateInNewChunk(size_t bytes, size_t align);

  std::atomic<size_t> refs_{1};
  ZVMemoryBudget* budget_ = nullptr;
  struct Chunk {
    void* memory;
    bool full;  // kChunkBytes long: may serve another arena
  };
  std::vector<Chunk> chunks_;
  char* cursor_ = nullptr;
  char* limit_ = nullptr;
  size_t nextChunk_;
};

// Hands an object's control block (`std::allocate_shared`) its memory from an
// arena. Each object keeps the arena alive: its maker retains the arena once
// per object, and the block's one deallocation releases it.
template <class T>
struct ZVArenaAllocator {
  using value_type = T;
  explicit ZVArenaAllocator(ZVArena* a) noexcept : arena(a) {}
  template <class U>
  ZVArenaAllocator(const ZVArenaAllocator<U>& other) noexcept : arena(other.arena) {}
  T* allocate(size_t n) { return static_cast<T*>(arena->allocate(n * sizeof(T), alignof(T))); }
  void deallocate(T*, size_t) noexcept { arena->release(); }
  template <class U>
  bool operator==(const ZVArenaAllocator<U>& other) const noexcept {
    return arena == other.arena;
  }
  ZVArena* arena;
};

// Immutable text shared by reference count: the count, the size, the arena
// it was cut from (or null), then the bytes and a NUL. Long strings live here
// so that a value stays small and a copy of it costs one atomic increment.
struct ZV_CORE_EXPORT ZVText {
  std::atomic<size_t> refs;
  size_t size;
  ZVArena* arena;
  const char* data() const { return reinterpret_cast<const char*>(this + 1); }
  char* data() { return reinterpret_cast<char*>(this + 1); }
  std::string_view view() const { return {data(), size}; }
  // On the heap.
  static ZVText* make(std::string_view s);
  // Cut from `arena`, which it keeps alive; for the parsing thread.
  static ZVText* make(ZVArena& arena, std::string_view s);
  void retain() { refs.fetch_add(1, std::memory_order_relaxed); }
  // For the parsing thread, while nothing it built is visible elsewhere.
  void retainUnshared() {
    refs.store(refs.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  }
  void release() {
    if (refs.fetch_sub(1, std::memory_order_acq_rel) == 1) destroy();
  }

 private:
  void destroy();
};

}  // namespace zv_detail
