// The main queue: a serial FIFO of tasks that the SDK delivers results on.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <ZorvaneCoreKit/ZVExport.h>

/// A serial first-in first-out task queue, the "main queue" on which every
/// completion handler and notification of the SDK runs.
///
/// Three ways to run it, chosen by the host:
/// - drive it from the host's own loop: call `drain()` once a frame (a game)
///   or from the GUI toolkit's idle/timer callback; tasks run on that thread.
///   A loop that sleeps sets a wake-up handler (`setWakeUpHandler`) and
///   drains when it is woken;
/// - call `startDedicatedThread()`, and the SDK runs the tasks on a thread
///   of its own until `stopDedicatedThread()`, `Zorvane::shutdown()` or
///   process exit;
/// - or hand every task to an executor of the host's (`setExecutor`).
///
/// A task that throws is reported (see `Zorvane::setHostExceptionHandler`)
/// and the queue goes on with the next one.
///
/// @par Thread safety
/// Every operation is safe from any thread. Tasks never run concurrently with
/// each other (with an executor: as the executor runs them). `drain`,
/// `runUntil` and the dedicated thread must not be used at the same time from
/// two threads (the drain that finds the queue busy returns 0). No lock of
/// the queue is held while a task, the wake-up handler or the executor runs.
class ZV_CORE_EXPORT ZVMainQueue {
 public:
  using Task = std::function<void()>;
  /// Receives each task instead of the queue; see `setExecutor`.
  using Executor = std::function<void(Task task)>;

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

  /// Installs `handler`, called once for every task queued from now on, on
  /// the thread that queued it, after the task is in the queue: a loop that
  /// sleeps posts itself an event there and drains when it gets it. Not
  /// called for tasks given to an executor. An empty function removes it.
  ///
  /// REQUIRES: the handler returns promptly and does not run the queue
  /// itself (a `drain()` or `runUntil()` inside it returns at once, without
  /// running anything: it may be inside the call that started an operation).
  ///
  /// When it returns, the previous handler is not running on another thread
  /// (a call under way there is waited for; one on this thread, the handler
  /// replacing itself, is not) and is never called again: what it captured
  /// may be freed. Do not replace it while holding a lock the handler waits for.
  void setWakeUpHandler(std::function<void()> handler);

  /// Installs `executor`: from now on every task, deliveries of the SDK
  /// included, is handed to it, on the thread that queues the task, instead
  /// of being kept here; tasks already queued are handed over first, in
  /// order. An empty function restores the queue. The executor decides where
  /// tasks run; run them one at a time, in the order given, to keep the
  /// ordering promises of the SDK (a handler before its notification, and no
  /// two handlers at once).
  ///
  /// REQUIRES: the executor returns promptly, never blocks, and never runs
  /// the task inside the call (it may be inside the call that started an
  /// operation). It runs or destroys every task it got before the libraries
  /// are unloaded. A task it destroys without running ends its operation as
  /// cancelled. If the executor throws, that is reported and the task is
  /// treated as the executor left it. When it returns, the previous executor
  /// is not running on another thread and gets no more tasks, as for
  /// `setWakeUpHandler`.
  void setExecutor(Executor executor);

 private:
  friend class ZVLifecycle;      // shutdown and process exit, inside the SDK
  friend class ZVDeliveryBatch;  // the SDK's threads queue a pass's deliveries at once
  bool runOne(std::unique_lock<std::mutex>& lock);
  /// Queues `tasks` (left empty) as `async` would one by one, with one lock
  /// and at most one wakeup of the thread that runs them.
  void asyncAll(std::vector<Task>& tasks) noexcept;
  /// What `async` and `asyncAll` share: queues the `count` tasks (or hands
  /// them to the executor); throws `std::bad_alloc` when some could not be
  /// queued, after announcing those that were.
  void enqueue(Task* tasks, size_t count);
  /// Waits for a task, or until `until`; the lock is held.
  void waitForTask(std::unique_lock<std::mutex>& lock, std::chrono::steady_clock::time_point until);
  void runThread();
  /// Destroys the queued tasks unrun and drops the host's hooks.
  void discardForShutdown();
  /// At process exit: hooks are no longer called, and the dedicated thread
  /// stops after the task under way (waited for up to `patience`).
  void stopForExit(std::chrono::milliseconds patience);

  mutable std::mutex mutex_;
  std::condition_variable cv_;
  std::deque<Task> tasks_;    // guarded by mutex_
  bool running_ = false;      // guarded by mutex_: a drain or the thread holds the queue
  bool stop_ = false;         // guarded by mutex_
  bool threadEnded_ = false;  // guarded by mutex_: the dedicated thread left its loop
  bool exiting_ = false;      // guarded by mutex_: the process is exiting
  size_t waiting_ = 0;        // guarded by mutex_: runners waiting for a task
  std::shared_ptr<const std::function<void()>> wakeUp_;  // guarded by mutex_
  std::shared_ptr<const Executor> executor_;             // guarded by mutex_
  std::thread thread_;
};
