#include "runtime/ZVReclaimer.h"

#include <atomic>
#include <optional>
#include <utility>

#include "runtime/ZVWorker.h"
#include "runtime/ZVYieldPoint.h"

namespace zv_detail {
namespace {

using Held = ZVReclaimBatch::Held;

// The weight handed to the reclaimer that waits for it, in two parts: the
// objects heavier than the whole bound, and the others, each part bounded
// on its own, so that the small lists of a burst may queue while a large one
// waits. An object leaves the backlog when its teardown starts.
std::atomic<size_t> heavyBacklog{0};
std::atomic<size_t> backlog{0};

bool heavy(size_t weight) {
  return weight > kMaxReclaimBacklog;
}

// Adds `weight` to `part` unless it has no room: a part that holds nothing
// takes anything; `bound` 0 takes nothing more once it holds something.
bool reserve(std::atomic<size_t>& part, size_t weight, size_t bound) {
  if (weight == 0) return true;
  size_t pending = part.load(std::memory_order_relaxed);
  do {
    if (pending != 0 && (weight > bound || pending > bound - weight)) return false;
  } while (!part.compare_exchange_weak(pending, pending + weight, std::memory_order_relaxed));
  return true;
}

// Objects of this weight and more (records, for the SDK's lists) take long
// enough to free, a quarter of a millisecond and more, that the reclaimer
// yields in the middle of them: the scheduler may otherwise let it run on
// until its next tick while the I/O thread or the host's thread waits.
constexpr size_t kYieldingTeardownFrom = 256;

void drop(Held& held, bool /*abandoned: freed all the same*/) {
  const bool isHeavy = heavy(held.weight);
  std::atomic<size_t>& part = isHeavy ? heavyBacklog : backlog;
  const std::atomic<size_t>& other = isHeavy ? backlog : heavyBacklog;
  // Nothing waits behind this one: its teardown may yield.
  if (part.fetch_sub(held.weight, std::memory_order_relaxed) == held.weight &&
      other.load(std::memory_order_relaxed) == 0)
    ZVYieldingTeardown::pause(false);
  std::optional<ZVYieldingTeardown> yielding;
  if (held.weight >= kYieldingTeardownFrom && yieldingHere()) yielding.emplace();
  held.object.reset();
}

ZVWorker<Held>& reclaimer() {
  // Leaked: results may be released from other threads while the process exits.
  static auto* const worker = new ZVWorker<Held>("zv-reclaim", drop);
  return *worker;
}

// Hands `items` to the reclaimer; false, with `items` untouched, when the
// backlog has no room for them or the reclaimer refuses them (closed, or no
// thread): the caller then frees them.
bool handOver(std::vector<Held>& items) noexcept {
  size_t heavyWeight = 0;
  size_t weight = 0;
  for (const Held& held : items) (heavy(held.weight) ? heavyWeight : weight) += held.weight;
  // Something waits from now on: the teardown under way stops yielding, so
  // that what waits does not pile up past the bound (each yield would then
  // cost the thread that lets a list go the freeing of it).
  ZVYieldingTeardown::pause(true);
  const bool room = reserve(heavyBacklog, heavyWeight, 0);
  if (!room || !reserve(backlog, weight, kMaxReclaimBacklog)) {
    if (room) heavyBacklog.fetch_sub(heavyWeight, std::memory_order_relaxed);
    return false;
  }
  if (reclaimer().post(items)) return true;
  heavyBacklog.fetch_sub(heavyWeight, std::memory_order_relaxed);
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
    handOver(one);  // refused: freed here, as `one` goes
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
  if (!handOver(items)) items.clear();  // refused: freed here
}

void stopReclaimer(bool reopen) {
  reclaimer().stop(reopen);
}

}  // namespace zv_detail
