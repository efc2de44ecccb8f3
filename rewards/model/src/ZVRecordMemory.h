// Where the records of one answer get their memory. A catalogue makes a few
// hundred records: cut from one arena, they cost a few chunks instead of an
// allocation and a free each, and the thread that frees a list (the
// reclaimer) stops contending for the allocator's lock with the thread that
// builds the next one.
#pragma once

#include <cstddef>
#include <memory>
#include <type_traits>
#include <utility>

#include "json/ZVJSONText.h"

namespace zv_detail {

// While one is open on a thread, the records made there are cut from its
// arena (which each of them keeps alive); otherwise they come from the heap.
// Opened around the records of one answer; nests.
class ZVRecordMemory {
 public:
  // `records` sizes the first chunk.
  explicit ZVRecordMemory(size_t records, size_t recordSize);
  ~ZVRecordMemory();
  ZVRecordMemory(const ZVRecordMemory&) = delete;
  ZVRecordMemory& operator=(const ZVRecordMemory&) = delete;

  // The arena of the innermost one open on this thread, if any.
  static ZVArena* current() noexcept;

 private:
  ZVArena* arena_;
  ZVArena* outer_;
};

template <class T, class... Args>
std::shared_ptr<T> makeRecord(Args&&... args) {
  // The arena is retained after the object is made: a constructor that
  // cannot throw leaves no failure in which the block would release it.
  static_assert(std::is_nothrow_constructible_v<T, Args...>);
  ZVArena* arena = ZVRecordMemory::current();
  if (arena == nullptr) return std::make_shared<T>(std::forward<Args>(args)...);
  auto made = std::allocate_shared<T>(ZVArenaAllocator<T>(arena), std::forward<Args>(args)...);
  arena->retain();
  return made;
}

}  // namespace zv_detail
