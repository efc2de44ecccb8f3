// How a container's elements grow and where their memory comes from: a lean
// vector over the three words a container holds (`ZVElements`), that can
// start on memory it does not own (cut from a parse's arena) and moves to the
// heap only if it grows. Elements move by their bytes, as keys and values do.
#pragma once

#include <cstdint>
#include <cstring>
#include <new>
#include <stdexcept>
#include <utility>

#include <ZorvaneCoreKit/ZVJSON.h>

namespace zv_detail {

template <class T>
class ZVStore {
 public:
  explicit ZVStore(ZVElements<T>& e) noexcept : e_(e) {}

  size_t size() const { return e_.size; }
  size_t capacity() const { return e_.capacity & ~kBorrowed; }
  bool empty() const { return e_.size == 0; }
  T* begin() const { return e_.data; }
  T* end() const { return e_.data + e_.size; }
  T& operator[](size_t i) const { return e_.data[i]; }
  T& back() const { return e_.data[e_.size - 1]; }

  /// Frees the elements and the memory the store owns.
  void destroy() {
    clear();
    if (owned()) ::operator delete(e_.data);
    e_ = {};
  }
  /// Starts an empty store on `capacity` elements' worth of memory at
  /// `memory`, which the store never frees.
  void borrow(void* memory, size_t capacity) {
    destroy();
    e_.data = static_cast<T*>(memory);
    e_.capacity = checked(capacity) | kBorrowed;
  }
  /// Starts a store of `count` elements on `memory`, which the store never
  /// frees; the caller then places the elements there by their bytes.
  void borrowToFill(void* memory, size_t count) {
    borrow(memory, count);
    e_.size = static_cast<uint32_t>(count);
  }
  /// Takes over another store's elements and memory; `from` is left empty.
  void takeFrom(ZVElements<T>& from) {
    destroy();
    e_ = std::exchange(from, ZVElements<T>{});
  }
  void copyFrom(const ZVElements<T>& from) {
    reserve(from.size);
    for (uint32_t i = 0; i < from.size; ++i) emplace_back(from.data[i]);
  }

  void reserve(size_t n) {
    if (n > capacity()) moveTo(n);
  }
  template <class... Args>
  T& emplace_back(Args&&... args) {
    if (e_.size == capacity()) moveTo(e_.size < 4 ? 4 : 2 * static_cast<size_t>(e_.size));
    T* item = new (e_.data + e_.size) T(std::forward<Args>(args)...);
    ++e_.size;
    return *item;
  }
  void pop_back() { e_.data[--e_.size].~T(); }
  void clear() {
    while (e_.size > 0) pop_back();
  }
  /// Removes the elements for which `pred` holds, keeping the others' order.
  /// The kept ones move down by their bytes.
  template <class Pred>
  void eraseIf(Pred pred) {
    uint32_t kept = 0;
    for (uint32_t i = 0; i < e_.size; ++i) {
      if (pred(e_.data[i])) {
        e_.data[i].~T();
        continue;
      }
      if (kept != i)
        std::memcpy(static_cast<void*>(e_.data + kept), static_cast<const void*>(e_.data + i),
                    sizeof(T));
      ++kept;
    }
    e_.size = kept;
  }
  /// Gives back unused room, unless the memory is borrowed.
  void shrinkToFit() {
    if (owned() && capacity() > e_.size) moveTo(e_.size);
  }

 private:
  static constexpr uint32_t kBorrowed = uint32_t{1} << 31;
  static uint32_t checked(size_t n) {
    if (n >= kBorrowed) throw std::length_error("too many elements in a JSON container");
    return static_cast<uint32_t>(n);
  }
  bool owned() const { return (e_.capacity & kBorrowed) == 0 && e_.data != nullptr; }
  void moveTo(size_t n) {
    const uint32_t capacity = checked(n);
    T* fresh = n == 0 ? nullptr : static_cast<T*>(::operator new(n * sizeof(T)));
    if (e_.size != 0)
      std::memcpy(static_cast<void*>(fresh), static_cast<const void*>(e_.data),
                  e_.size * sizeof(T));
    if (owned()) ::operator delete(e_.data);
    e_.data = fresh;
    e_.capacity = capacity;
  }

  ZVElements<T>& e_;
};

template <class T>
ZVStore<T> store(ZVElements<T>& e) {
  return ZVStore<T>(e);
}

}  // namespace zv_detail
