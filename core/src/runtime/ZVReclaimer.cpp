#include "runtime/ZVReclaimer.h"

#include <atomic>
#include <cstddef>
#include <optional>
#include <utility>

#include "runtime/ZVWorker.h"
#include "runtime/ZVYieldPoint.h"

namespace zv_detail {
namespace {

using Held = ZVReclaimBatch::Held;

// Objects of this weight and more (records, for the SDK's lists) take long
// enough to free, a quarter of a millisecond and more, that the reclaimer
// yields in the middle of them: the scheduler may otherwise let it run on
// until its next tick while the I/O thread or the host's thread waits.
constexpr size_t kYieldingTeardownFrom = 256;

void drop(Held& held, bool abandoned);

// The objects heavier than the whole bound, and the others, each freed on a
// thread of its own: the small lists of a burst go on being freed while a
// large one is (33 to 38 ms for 10,000 offers), instead of piling up past
// the bound behind it, to be freed by the host's thread.
struct Part {
  Part(const char* name, size_t bound) : bound(bound), worker(name, drop) {}

  const size_t bound;  // for `reserve`
  // The weight handed over that waits: an object leaves it when its
  // teardown starts.
  std::atomic<size_t> backlog{0};
  // Something waits: the teardown under way does not yield, so that what
  // waits does not pile up past the bound (each yield would then cost the
  // thread that lets a list go the freeing of it).
  std::atomic<bool> waiting{false};
  ZVWorker<Held> worker;
};

bool heavy(size_t weight) {
  return weight > kMaxReclaimBacklog;
}

// Leaked: results may be released from other threads while the process exits.
Part& lightPart() {
  static auto* const part = new Part("zv-reclaim", kMaxReclaimBacklog);
  return *part;
}
Part& heavyPart() {
  static auto* const part = new Part("zv-reclaim-big", 0);
  return *part;
}
Part& partOf(size_t weight) {
  return heavy(weight) ? heavyPart() : lightPart();
}

void drop(Held& held, bool /*abandoned: freed all the same*/) {
  Part& part = partOf(held.weight);
  if (part.backlog.fetch_sub(held.weight, std::memory_order_relaxed) == held.weight)
    part.waiting.store(false, std::memory_order_relaxed);  // nothing waits behind this one
  std::optional<ZVYieldingTeardown> yielding;
  if (held.weight >= kYieldingTeardownFrom && yieldingHere()) yielding.emplace(part.waiting);
  held.object.reset();
}

// Adds `weight` to `backlog` unless it has no room: a backlog that holds
// nothing takes anything; `bound` 0 takes nothing more once it holds something.
bool reserve(std::atomic<size_t>& backlog, size_t weight, size_t bound) {
  size_t pending = backlog.load(std::memory_order_relaxed);
  do {
    if (pending != 0 && (weight > bound || pending > bound - weight)) return false;
  } while (!backlog.compare_exchange_weak(pending, pending + weight, std::memory_order_relaxed));
  return true;
}

// Hands `items`, all of `part`, to its thread; those refused (no room in the
// backlog, or the worker closed or without a thread) are freed here.
void offer(Part& part, std::vector<Held>& items) noexcept {
  if (items.empty()) return;
  size_t weight = 0;
  for (const Held& held : items) weight += held.weight;
  part.waiting.store(true, std::memory_order_relaxed);
  if (reserve(part.backlog, weight, part.bound)) {
    if (part.worker.post(items)) return;
    part.backlog.fetch_sub(weight, std::memory_order_relaxed);
  }
  items.clear();
}

// Hands `items` over, each to its part's thread, leaving `items` empty.
void handOver(std::vector<Held>& items) noexcept {
  std::vector<Held> heavyItems;
  try {
    for (Held& held : items)
      if (heavy(held.weight)) heavyItems.push_back(std::move(held));
  } catch (...) {
    items.clear();  // no memory to sort them: freed here
    return;
  }
  // The heavy ones were moved out, leaving empty references behind.
  if (!heavyItems.empty())
    std::erase_if(items, [](const Held& held) { return held.object == nullptr; });
  offer(heavyPart(), heavyItems);
  offer(lightPart(), items);
}

thread_local ZVReclaimBatch* tBatch = nullptr;

}  // namespace

void reclaim(std::shared_ptr<const void> object, size_t weight) noexcept {
  if (!object) return;
  if (ZVReclaimBatch* batch = tBatch; batch != nullptr && batch->hold(object, weight)) return;
  // Freed here, as `object` goes.
  if (lightPart().worker.onWorkerThread() || heavyPart().worker.onWorkerThread()) return;
  try {
    std::vector<Held> one;
    one.push_back(Held{std::move(object), weight});
    handOver(one);
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
  handOver(items);
}

void helpReclaimer() noexcept {
  Part& light = lightPart();
  const auto overHalf = [&] {
    return light.backlog.load(std::memory_order_relaxed) > kMaxReclaimBacklog / 2;
  };
  if (!overHalf()) return;
  // The oldest first, and no more than brings the backlog down to half: the
  // helping thread's own work waits meanwhile.
  std::vector<Held> items = light.worker.takeQueued();
  size_t freed = 0;
  while (freed < items.size() && overHalf()) drop(items[freed++], false);
  if (freed == items.size()) return;
  items.erase(items.begin(), items.begin() + static_cast<std::ptrdiff_t>(freed));
  // Still counted in the backlog: back to the thread, or freed here.
  if (!light.worker.post(items))
    for (Held& held : items) drop(held, false);
}

void stopReclaimer(bool reopen) {
  heavyPart().worker.stop(reopen);
  lightPart().worker.stop(reopen);
}

}  // namespace zv_detail
