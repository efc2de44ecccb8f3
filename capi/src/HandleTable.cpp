#include "HandleTable.h"

#include <limits>

namespace zvr {
namespace {

// Bit 0 is always set; then the index; the generation takes the rest. A
// 64-bit handle has room for 2^31 slots of 2^32 generations each, a 32-bit
// one for 2^19 slots of 2^12 generations.
constexpr bool kWide = sizeof(uintptr_t) >= 8;
constexpr unsigned kIndexBits = kWide ? 31 : 19;
constexpr uint32_t kIndexLimit = uint32_t{1} << kIndexBits;
constexpr uint32_t kLastGeneration = kWide ? std::numeric_limits<uint32_t>::max() : 0xFFFu;

uintptr_t encode(uint32_t index, uint32_t generation) {
  return (static_cast<uintptr_t>(generation) << (kIndexBits + 1)) |
         (static_cast<uintptr_t>(index) << 1) | 1u;
}

}  // namespace

const char* Slot::keep(int key, std::string text) {
  for (auto it = texts.rbegin(); it != texts.rend(); ++it) {
    if (it->first != key) continue;
    if (*it->second == text) return it->second->c_str();
    break;
  }
  texts.emplace_back(key, std::make_unique<std::string>(std::move(text)));
  return texts.back().second->c_str();
}

HandleTable& HandleTable::shared() {
  // Leaked on purpose: callbacks queued at exit and host threads may still
  // release handles while static destructors run.
  static HandleTable* const table = new HandleTable();
  return *table;
}

zvr_result HandleTable::findAny(const void* handle, Slot*& slot) {
  if (handle == nullptr) return ZVR_E_NULL_HANDLE;
  const auto value = reinterpret_cast<uintptr_t>(handle);
  if ((value & 1u) == 0) return ZVR_E_INVALID_HANDLE;
  const auto index = static_cast<uint32_t>((value >> 1) & (kIndexLimit - 1));
  const uintptr_t generation = value >> (kIndexBits + 1);
  if (index >= slots_.size()) return ZVR_E_INVALID_HANDLE;
  Slot& candidate = slots_[index];
  if (!candidate.live || candidate.generation != generation) return ZVR_E_INVALID_HANDLE;
  slot = &candidate;
  return ZVR_OK;
}

zvr_result HandleTable::find(const void* handle, Kind kind, Slot*& slot) {
  if (const zvr_result r = findAny(handle, slot); r != ZVR_OK) return r;
  return slot->kind == kind ? ZVR_OK : ZVR_E_WRONG_HANDLE_TYPE;
}

void* HandleTable::issue(Kind kind, std::shared_ptr<void> object) {
  if (!object) return nullptr;
  std::lock_guard lock(mutex_);
  return issueLocked(kind, std::move(object));
}

void* HandleTable::issueLocked(Kind kind, std::shared_ptr<void> object) {
  if (!object) return nullptr;
  uint32_t index;
  if (!free_.empty()) {
    index = free_.front();
    free_.pop_front();
  } else {
    if (slots_.size() >= kIndexLimit) throw TableFull{};
    index = static_cast<uint32_t>(slots_.size());
    slots_.emplace_back().index = index;
  }
  Slot& slot = slots_[index];
  slot.kind = kind;
  slot.refs = 1;
  slot.live = true;
  slot.object = std::move(object);
  ++live_;
  return reinterpret_cast<void*>(encode(index, slot.generation));
}

zvr_result HandleTable::retain(const void* handle) {
  std::lock_guard lock(mutex_);
  Slot* slot = nullptr;
  if (const zvr_result r = findAny(handle, slot); r != ZVR_OK) return r;
  if (slot->refs == std::numeric_limits<uint32_t>::max()) return ZVR_E_TOO_MANY_HANDLES;
  ++slot->refs;
  return ZVR_OK;
}

zvr_result HandleTable::release(const void* handle) {
  // The object and texts are destroyed after the lock is given back: a
  // catalogue's teardown should not hold up other threads' handles.
  std::shared_ptr<void> object;
  std::vector<std::pair<int, std::unique_ptr<std::string>>> texts;
  {
    std::lock_guard lock(mutex_);
    Slot* slot = nullptr;
    if (const zvr_result r = findAny(handle, slot); r != ZVR_OK) return r;
    if (--slot->refs > 0) return ZVR_OK;
    object = std::move(slot->object);
    texts = std::move(slot->texts);
    slot->texts.clear();
    slot->live = false;
    --live_;
    if (slot->generation < kLastGeneration) {
      ++slot->generation;
      free_.push_back(slot->index);
    }  // else retired: its next generation would not fit a handle
  }
  return ZVR_OK;
}

uint32_t HandleTable::liveCount() {
  std::lock_guard lock(mutex_);
  return live_;
}

Borrowed::Borrowed(Kind kind, std::shared_ptr<void> object)
    : handle_(HandleTable::shared().issue(kind, std::move(object))) {}

Borrowed::~Borrowed() {
  // The host may have released a borrowed handle itself; that is its
  // mistake and the table reports it, so the result is ignored here.
  if (handle_) HandleTable::shared().release(handle_);
}

}  // namespace zvr
