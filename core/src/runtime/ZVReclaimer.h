// Inside the SDK: freeing large results on a background thread, so that the
// host's thread (and the I/O thread) never pays for the teardown of a
// catalogue it let go of.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include <ZorvaneCoreKit/ZVExport.h>

namespace zv_detail {

/// The most work, in units of `reclaim`'s `weight` (records, for the SDK's
/// lists), that waits for the reclaimer thread. Its thread has one CPU share
/// among the process's busy threads, which a host with many may leave short
/// of the teardown it is given. Past half this backlog, the threads that
/// produce results free what waits between their units of work
/// (`helpReclaimer`); past all of it, the thread that lets an object go frees
/// it itself; memory stays bounded.
/// An object heavier than the whole bound is freed on a thread of its own
/// (`zv-reclaim-big`), and waits there only when no other such object does;
/// the object being freed no longer waits.
inline constexpr size_t kMaxReclaimBacklog = 4096;

/// Drops `object`'s reference on the reclaimer thread (`zv-reclaim`, or
/// `zv-reclaim-big` past the bound), or at once when called on either, when
/// the reclaimer is closed (process exit), when no thread could start or
/// when its backlog would pass `kMaxReclaimBacklog`. `weight` is the
/// object's share of that bound. While a `ZVReclaimBatch` is open on this
/// thread, the object waits for the batch to close.
ZV_CORE_EXPORT void reclaim(std::shared_ptr<const void> object, size_t weight = 1) noexcept;

/// `object` behind a reference whose last release hands it to `reclaim`.
/// Costs one control block; for results whose teardown is long.
template <class T>
std::shared_ptr<const T> reclaimedElsewhere(std::shared_ptr<const T> object, size_t weight = 1) {
  const T* raw = object.get();
  return std::shared_ptr<const T>(raw,
                                  [held = std::move(object), weight](const T*) mutable noexcept {
                                    reclaim(std::move(held), weight);
                                  });
}

/// While open, this thread's reclaims are collected and handed over together
/// when it closes (or at `flush`): one hand-off per drain of the main queue
/// or pass of the I/O loop, not one per result. Nests.
class ZV_CORE_EXPORT ZVReclaimBatch {
 public:
  ZVReclaimBatch() noexcept;
  ~ZVReclaimBatch();
  ZVReclaimBatch(const ZVReclaimBatch&) = delete;
  ZVReclaimBatch& operator=(const ZVReclaimBatch&) = delete;

  /// Hands over what was collected so far.
  void flush() noexcept;
  /// Whether nothing waits for the flush.
  bool empty() const noexcept { return held_.empty(); }
  /// The batch open on this thread, if any.
  static ZVReclaimBatch* current() noexcept;
  /// Keeps `object` for the flush; false when there is no memory for it.
  bool hold(std::shared_ptr<const void>& object, size_t weight) noexcept;

  /// An object and its share of the reclaimer's backlog.
  struct Held {
    std::shared_ptr<const void> object;
    size_t weight = 0;
  };

 private:
  std::vector<Held> held_;
  ZVReclaimBatch* previous_;
};

/// For the threads that produce results (the I/O loop, the decode), between
/// units of their work: while more than half of `kMaxReclaimBacklog` waits
/// for the reclaimer thread, frees the oldest of what waits on this thread
/// until no more than half waits. The reclaimer runs as a batch thread and
/// lags behind a CPU kept busy by the decode of a burst of answers; the
/// threads that decode them then pay for the teardown, which paces them,
/// instead of the host's thread once past the bound.
ZV_CORE_EXPORT void helpReclaimer() noexcept;

/// Frees what is queued, on this thread, and joins the reclaimer threads.
/// Without `reopen`, later reclaims free at once (process exit).
void stopReclaimer(bool reopen);

}  // namespace zv_detail
