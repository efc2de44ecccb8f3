#include "ZVRecordMemory.h"

#include <algorithm>

namespace zv_detail {
namespace {

thread_local ZVArena* innermost = nullptr;

// Chunks grow to 64 KiB from this first one: a list of a few records takes
// no more than it needs.
constexpr size_t kMaxFirstChunk = size_t{64} << 10;

}  // namespace

ZVRecordMemory::ZVRecordMemory(size_t records, size_t recordSize)
    : arena_(new ZVArena(std::min(kMaxFirstChunk, records * recordSize))), outer_(innermost) {
  innermost = arena_;
}

ZVRecordMemory::~ZVRecordMemory() {
  innermost = outer_;
  arena_->release();  // the records cut from it keep it
}

ZVArena* ZVRecordMemory::current() noexcept {
  return innermost;
}

}  // namespace zv_detail
