#include "json/ZVJSONText.h"

#include <cstring>
#include <new>

namespace zv_detail {

void* ZVArena::allocateInNewChunk(size_t bytes, size_t align) {
  const size_t size = std::max(nextChunk_, bytes + align);
  if (budget_ != nullptr) budget_->charge(size);
  chunks_.reserve(chunks_.size() + 1);  // before the chunk: nothing leaks if this throws
  char* begin = static_cast<char*>(::operator new(size));
  chunks_.push_back(begin);
  limit_ = begin + size;
  nextChunk_ = std::min(nextChunk_ * 2, kMaxChunk);
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
