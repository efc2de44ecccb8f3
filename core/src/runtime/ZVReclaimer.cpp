#include "runtime/ZVReclaimer.h"

#include <atomic>
#include <utility>

#include "runtime/ZVWorker.h"
#include "runtime/ZVYieldPoint.h"

namespace zv_detail {
namespace {

using Held = ZVReclaimBatch::Held;

// The weight handed to the reclaimer that waits for it: an object leaves the
// backlog when its teardown starts, so that the small lists of a burst may
// queue while a large one is freed, slowly when the reclaimer yields often.
std::atomic<size_t> backlog{0};

// Objects of this weight and more (records, for the SDK's lists) take long
// enough to free, a quarter of a millisecond and more, that the reclaimer
// yields in the middle of them: the scheduler may otherwise let it run on
// until its next tick while the I/O thread or the host's thread waits.
constexpr size_t kYieldingTeardownFrom = 256;

void drop(Held& held, bool /*abandoned: freed all the same*/) {
  // Caught up: its teardowns may yield again.
  if (backlog.fetch_sub(held.weight, std::memory_order_relaxed) == held.weight)
    ZVYieldingTeardown::pause(false);
  if (held.weight >= kYieldingTeardownFrom && yieldingHere()) {
    const ZVYieldingTeardown yielding;
    held.object.reset();
  } else {
    held.object.reset();
  }
}

ZVWorker<Held>& reclaimer() {
  // Leaked: results may be released from other threads while the process exits.
  static auto* const worker = new ZVWorker<Held>("zv-reclaim", drop);
  return *worker;
}

// Hands `items` (of `weight` in all) to the reclaimer; false, with `items`
// untouched, when the backlog has no room for them or the reclaimer refuses
// them (closed, or no thread): the caller then frees them.
bool handOver(std::vector<Held>& items, size_t weight) noexcept {
  size_t pending = backlog.load(std::memory_order_relaxed);
  do {
    if (pending != 0 && (weight > kMaxReclaimBacklog || pending > kMaxReclaimBacklog - weight)) {
      // Fallen behind: each yield of its teardown would now cost the
      // thread that lets a list go the freeing of it.
      ZVYieldingTeardown::pause(true);
      return false;
    }
  } while (!backlog.compare_exchange_weak(pending, pending + weight, std::memory_order_relaxed));
  if (reclaimer().post(items)) return true;
  backlog.fetch_sub(weight, std::memory_order_relaxed);
  return false;
}

thread_local ZVReclaimBatch* tBatch = nullptr;

}  // namespace

void reclaim(std::shared_ptr<const void> object, size_t weight) noexcept {
  if (!object) return;
  if (ZVReclaimBatch* batch = tBatch; batch != nullptr && batch->hold(object, weight)) return;
  if (reclaimer().onWorkerThread()) return;  // freed here, as `object` goes
  try {
    std::vector<Held> one;
    one.push_back(Held{std::move(object), weight});
    handOver(one, weight);  // refused: freed here, as `one` goes
  } catch (...) {
    // No memory to hand it over: `object` is freed here.
  }
}

ZVReclaimBatch::ZVReclaimBatch() noexcept : previous_(tBatch) {
  tBatch = this;
}

ZVReclaimBatch::~ZVReclaimBatch() {
  flush();
  tBatch = previous_;
}

ZVReclaimBatch* ZVReclaimBatch::current() noexcept {
  return tBatch;
}

bool ZVReclaimBatch::hold(std::shared_ptr<const void>& object, size_t weight) noexcept {
  try {
    held_.push_back(Held{std::move(object), weight});
    weight_ += weight;
    return true;
  } catch (...) {
    return false;
  }
}

void ZVReclaimBatch::flush() noexcept {
  if (held_.empty()) return;
  // Taken out first: what frees here may reclaim into this batch again.
  std::vector<Held> items;
  items.swap(held_);
  const size_t weight = std::exchange(weight_, 0);
  if (!handOver(items, weight)) items.clear();  // refused: freed here
}

void stopReclaimer(bool reopen) {
  reclaimer().stop(reopen);
}

}  // namespace zv_detail
