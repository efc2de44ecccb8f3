// Inside the SDK: the deliveries one pass of an SDK thread makes, queued on
// the main queue together.
#pragma once

#include <vector>

#include <ZorvaneCoreKit/ZVMainQueue.h>

/// While open on a thread, `ZVMainQueue::shared()->async` from that thread
/// collects its tasks, and the batch queues them in order when it closes (or
/// at `flush`): the host's thread is woken once per pass of the I/O loop
/// instead of once per answer. Open it only where nothing waits for those
/// tasks to run before the batch closes. Nests.
class ZVDeliveryBatch {
 public:
  ZVDeliveryBatch() noexcept;
  ~ZVDeliveryBatch();
  ZVDeliveryBatch(const ZVDeliveryBatch&) = delete;
  ZVDeliveryBatch& operator=(const ZVDeliveryBatch&) = delete;

  void flush() noexcept;
  /// Takes `task` when a batch for `queue` is open on this thread.
  static bool hold(ZVMainQueue* queue, ZVMainQueue::Task& task) noexcept;

 private:
  std::vector<ZVMainQueue::Task> tasks_;
  ZVDeliveryBatch* previous_;
};
