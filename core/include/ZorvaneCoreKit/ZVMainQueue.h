// The main queue: a serial FIFO of tasks that the SDK delivers results on.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

#include <ZorvaneCoreKit/ZVExport.h>

/// A serial first-in first-out task queue, the "main queue" on which every
/// completion handler and notification of the SDK runs.
///
/// Two ways to run it, chosen by the host:
/// - drive it from the host's own loop: call `drain()` once a frame (a game)
///   or from the GUI toolkit's idle/timer callback; tasks run on that thread;
/// - or call `startDedicatedThread()`, and the SDK runs the tasks on a thread
///   of its own until `stopDedicatedThread()` or process exit.
///
/// @par Thread safety
/// `async` is safe from any thread. Tasks never run concurrently with each
/// other. `drain`, `runUntil` and the dedicated thread must not be used at the
/// same time from two threads (the drain that finds the queue busy returns 0).
class ZV_CORE_EXPORT ZVMainQueue {
 public:
  using Task = std::function<void()>;

  /// The shared main queue.
  static ZVMainQueue* shared();

  ZVMainQueue() = default;
  ~ZVMainQueue();
  ZVMainQueue(const ZVMainQueue&) = delete;
  ZVMainQueue& operator=(const ZVMainQueue&) = delete;

  /// Queues `task`; it runs after every task queued before it. Never runs it inline.
  void async(Task task);

  /// Runs the tasks queued before the call (not those they queue in turn).
  /// Returns how many ran.
  size_t drain();

  /// Runs tasks, waiting for new ones, until `done()` returns true (checked
  /// before waiting and after each task) or `timeout` has passed. Returns
  /// whether `done()` held. For tests and command-line hosts.
  bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);

  /// Starts a thread that runs the tasks as they come. Idempotent.
  void startDedicatedThread();
  /// Stops the dedicated thread after the task under way; tasks not yet run stay queued.
  void stopDedicatedThread();

  /// Tasks queued and not yet started.
  size_t pendingCount() const;

 private:
  bool runOne(std::unique_lock<std::mutex>& lock);
  mutable std::mutex mutex_;
  std::condition_variable cv_;
  std::deque<Task> tasks_;  // guarded by mutex_
  bool running_ = false;    // guarded by mutex_: a drain or the thread holds the queue
  bool stop_ = false;       // guarded by mutex_
  std::thread thread_;
};
