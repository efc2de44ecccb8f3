#include <ZorvaneCoreKit/ZVClock.h>

#include <chrono>
#include <memory>
#include <mutex>

#include "runtime/ZVHostCode.h"

namespace {

struct ClockState {
  std::mutex mutex;
  std::shared_ptr<const std::function<double()>> source;  // guarded by mutex; empty = system
};

ClockState& clockState() {
  // Leaked so that code running in static destructors can still ask for the time.
  static ClockState* const state = new ClockState();
  return *state;
}

double systemNow() {
  using namespace std::chrono;
  return duration<double>(system_clock::now().time_since_epoch()).count();
}

}  // namespace

double ZVClock::now() {
  std::shared_ptr<const std::function<double()>> source;
  {
    ClockState& state = clockState();
    std::lock_guard lock(state.mutex);
    source = state.source;
  }
  // Called outside the lock so that a source may itself read or replace the clock.
  // A source that throws reads as the system clock: the routing stamps answers
  // with it, and must go on to the delivery.
  if (!source) return systemNow();
  double now = 0.0;
  if (!zv_detail::runHostCode("the clock source", [&] { now = (*source)(); })) return systemNow();
  return now;
}

void ZVClock::setSource(std::function<double()> source) {
  std::shared_ptr<const std::function<double()>> next;
  if (source) next = std::make_shared<const std::function<double()>>(std::move(source));
  {
    ClockState& state = clockState();
    std::lock_guard lock(state.mutex);
    state.source.swap(next);
  }
  // The previous source is destroyed here, outside the lock, in case its captures use the clock.
}
