// The table behind every handle of the C interface.
//
// A handle is never an address: it encodes a slot index and the slot's
// generation (plus a low tag bit, so an aligned pointer passed by mistake is
// rejected at once). Every use looks the slot up and compares the
// generation, so NULL, a released handle, a double release or a made-up
// value is an error result instead of a dereference. A freed slot is reused
// only with the next generation, and retired once its generation would no
// longer fit the handle, so a stale handle can never name a newer object.
// The alternative, a magic word inside a heap block, needs the freed block
// to be read (and never reused) to detect a stale handle; the table reads
// only its own memory.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <ZorvaneRewardsKitC/zorvane_rewards.h>

namespace zvr {

enum class Kind : uint8_t {
  Offer = 1,
  OfferList,
  Order,
  OrderList,
  OrderUser,
  Address,
  SkillQuestion,
  SkillChallenge,
  Error,
  Notification,
  OrderRequest,
  CancelScope,
};

/// One live handle: its object, its reference count and the strings handed
/// out from it (which live exactly as long as the slot stays live).
struct Slot {
  uint32_t index = 0;
  uint32_t generation = 0;
  uint32_t refs = 0;
  Kind kind = Kind::Offer;
  bool live = false;
  std::shared_ptr<void> object;
  // Keyed by field; a key may repeat for a mutable object whose text changed,
  // so earlier pointers stay valid until the release.
  std::vector<std::pair<int, std::unique_ptr<std::string>>> texts;

  template <class T>
  T& as() const {
    return *static_cast<T*>(object.get());
  }
  /// The kept copy of `text` under `key`: the earlier one when equal.
  const char* keep(int key, std::string text);
};

class HandleTable {
 public:
  static HandleTable& shared();

  /// Runs `fn(slot)` under the table lock once `handle` is found live and of
  /// `kind`. `fn` may issue handles with `issueLocked`; it must not call back
  /// into the host.
  template <class Fn>
  zvr_result with(const void* handle, Kind kind, Fn&& fn) {
    std::lock_guard lock(mutex_);
    Slot* slot = nullptr;
    if (const zvr_result r = find(handle, kind, slot); r != ZVR_OK) return r;
    return fn(*slot);
  }

  /// A new handle with one reference to `object`; nullptr for an empty
  /// object. Throws std::bad_alloc, or TableFull when no slot is left.
  void* issue(Kind kind, std::shared_ptr<void> object);
  void* issueLocked(Kind kind, std::shared_ptr<void> object);

  zvr_result retain(const void* handle);
  zvr_result release(const void* handle);
  uint32_t liveCount();

  struct TableFull {};

 private:
  HandleTable() = default;
  zvr_result find(const void* handle, Kind kind, Slot*& slot);
  zvr_result findAny(const void* handle, Slot*& slot);

  std::mutex mutex_;
  // A deque, so that issuing a handle (which may add a slot) leaves the
  // slot that `with` is working on where it is.
  std::deque<Slot> slots_;     // guarded by mutex_
  std::deque<uint32_t> free_;  // guarded by mutex_: oldest freed first, to delay reuse
  uint32_t live_ = 0;          // guarded by mutex_
};

/// Issues a handle for `object` (nullptr when empty) as the handle type `H`.
template <class H, class T>
H issueAs(Kind kind, std::shared_ptr<T> object) {
  return static_cast<H>(HandleTable::shared().issue(
      kind, std::const_pointer_cast<std::remove_const_t<T>>(std::move(object))));
}

/// A handle lent to a callback: issued for the call, released after it.
class Borrowed {
 public:
  Borrowed() = default;
  Borrowed(Kind kind, std::shared_ptr<void> object);
  ~Borrowed();
  Borrowed(const Borrowed&) = delete;
  Borrowed& operator=(const Borrowed&) = delete;
  void* get() const { return handle_; }

 private:
  void* handle_ = nullptr;
};

}  // namespace zvr
