#include "runtime/ZVReclaimer.h"

#include "runtime/ZVWorker.h"

namespace zv_detail {
namespace {

using Held = std::shared_ptr<const void>;

void drop(Held& object, bool /*abandoned: freed all the same*/) {
  object.reset();
}

ZVWorker<Held>& reclaimer() {
  // Leaked: results may be released from other threads while the process exits.
  static auto* const worker = new ZVWorker<Held>("zv-reclaim", kBackgroundNiceness, drop);
  return *worker;
}

thread_local ZVReclaimBatch* tBatch = nullptr;

}  // namespace

void reclaim(Held object) noexcept {
  if (!object) return;
  if (ZVReclaimBatch* batch = tBatch; batch != nullptr && batch->hold(object)) return;
  ZVWorker<Held>& worker = reclaimer();
  if (worker.onWorkerThread()) return;  // freed here, as `object` goes
  try {
    std::vector<Held> one;
    one.push_back(std::move(object));
    if (!worker.post(one)) one.clear();  // closed, or no thread: freed here
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

bool ZVReclaimBatch::hold(Held& object) noexcept {
  try {
    held_.push_back(std::move(object));
    return true;
  } catch (...) {
    return false;
  }
}

void ZVReclaimBatch::flush() noexcept {
  if (held_.empty()) return;
  // Freed here when the reclaimer refuses them (closed, or no thread).
  if (!reclaimer().post(held_)) held_.clear();
}

void stopReclaimer(bool reopen) {
  reclaimer().stop(reopen);
}

}  // namespace zv_detail
