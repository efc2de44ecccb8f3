#include "json/ZVJSONText.h"

#include <cstring>
#include <mutex>
#include <new>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#endif

namespace zv_detail {
namespace {

// Full-size chunks of arenas gone, for the next arenas. Given back to malloc,
// the memory of a freed answer could go back to the system (malloc trims the
// top of a heap), and the next answer faulted its pages in again (up to 24
// faults a 100-offer catalogue).
class ChunkCache {
 public:
  void* take() {
    std::lock_guard lock(mutex_);
    if (count_ == 0) return nullptr;
    void* chunk = chunks_[--count_];
    unpoison(chunk);
    return chunk;
  }
  bool keep(void* chunk) {
    std::lock_guard lock(mutex_);
    if (count_ == kKept) return false;
    poison(chunk);
    chunks_[count_++] = chunk;
    return true;
  }

 private:
  // 2 MiB: the arenas of a few catalogues of a hundred offers.
  static constexpr size_t kKept = 32;
  // Under AddressSanitizer a kept chunk stays as unreadable as freed memory:
  // a use of a freed answer is still caught.
#if defined(__SANITIZE_ADDRESS__)
  static void poison(void* chunk) {
    ASAN_POISON_MEMORY_REGION(chunk, ZVArena::kChunkBytes);
  }
  static void unpoison(void* chunk) {
    ASAN_UNPOISON_MEMORY_REGION(chunk, ZVArena::kChunkBytes);
  }
#else
  static void poison(void*) {}
  static void unpoison(void*) {}
#endif

  std::mutex mutex_;
  void* chunks_[kKept];
  size_t count_ = 0;
};

ChunkCache& chunkCache() {
  // Never destroyed: arenas may be released on the SDK's threads while the
  // process exits.
  static ChunkCache* cache = new ChunkCache;
  return *cache;
}

}  // namespace

ZVArena::~ZVArena() {
  for (const Chunk& chunk : chunks_)
    if (!(chunk.full && chunkCache().keep(chunk.memory))) ::operator delete(chunk.memory);
}

void* ZVArena::allocateInNewChunk(size_t bytes, size_t align) {
  const size_t size = std::max(nextChunk_, bytes + align);
  if (budget_ != nullptr) budget_->charge(size);
  chunks_.reserve(chunks_.size() + 1);  // before the chunk: nothing leaks if this throws
  const bool full = size == kChunkBytes;
  void* kept = full ? chunkCache().take() : nullptr;
  char* begin = static_cast<char*>(kept != nullptr ? kept : ::operator new(size));
  chunks_.push_back({begin, full});
  limit_ = begin + size;
  nextChunk_ = std::min(nextChunk_ * 2, kChunkBytes);
  const uintptr_t at = (reinterpret_cast<uintptr_t>(begin) + align - 1) & ~(align - 1);
  cursor_ = reinterpret_cast<char*>(at + bytes);
  return reinterpret_cast<char*>(at);
}

ZVText* ZVText::make(std::string_view s) {
  void* memory = ::operator new(sizeof(ZVText) + s.size() + 1);
  ZVText* text = new (memory) ZVText{{1}, s.size(), nullptr};
  std::memcpy(text->data(), s.data(), s.size());
  text->data()[s.size()] = '\0';
  return text;
}

ZVText* ZVText::make(ZVArena& arena, std::string_view s) {
  void* memory = arena.allocate(sizeof(ZVText) + s.size() + 1, alignof(ZVText));
  arena.retainUnshared();
  ZVText* text = new (memory) ZVText{{1}, s.size(), &arena};
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
