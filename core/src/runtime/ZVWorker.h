// Inside the SDK: a background thread that takes work off the threads that
// must stay responsive (the transport's I/O thread, the host's thread).
#pragma once

#include <pthread.h>
#include <sched.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "runtime/ZVYieldPoint.h"

namespace zv_detail {

// Workers run at the process's own niceness. Niced, each lagged: the decode
// got a tenth of a busy process's share of a CPU (a 500 KB answer took over
// 30 s to decode, sanitized build, on a machine busy with other builds), and
// the reclaimer fell behind a client that kept its CPU busy, its backlog
// growing by 200 MB a second.
// A worker's thread ends after this long without work, and the next item
// starts another: a host that rarely needs one keeps no thread for it.
inline constexpr std::chrono::seconds kWorkerIdleEnd{2};

/// Runs items in the order posted, on one thread that starts with the first
/// item (and ends when idle), is named `name` by its creator and runs as a
/// batch thread with a long time slice (`runAsBackground`), yielding at the
/// yield points of long work (`yieldPoint`).
/// `run(item, abandoned)` does an item's work; items left when the worker
/// stops run with `abandoned` set, on the stopping thread, so that each item
/// runs exactly once.
///
/// @par Thread safety
/// Every operation is safe from any thread.
template <class Item>
class ZVWorker {
 public:
  using Run = void (*)(Item& item, bool abandoned);

  ZVWorker(const char* name, Run run) : name_(name), run_(run) {}
  ZVWorker(const ZVWorker&) = delete;
  ZVWorker& operator=(const ZVWorker&) = delete;

  /// Queues the items, moved from `items` (left empty). False, with `items`
  /// untouched, when the worker is closed for good or no thread could start:
  /// the caller then does the work itself.
  bool post(std::vector<Item>& items) {
    bool wake = false;
    {
      std::lock_guard lock(mutex_);
      if (closed_) return false;
      try {
        if (idleEnded_) {
          thread_.join();  // it has left its loop and takes the lock no more
          idleEnded_ = false;
        }
        if (!thread_.joinable()) start();
        if (queue_.empty()) {
          queue_.swap(items);
        } else {
          queue_.reserve(queue_.size() + items.size());
          for (Item& item : items) queue_.push_back(std::move(item));
          items.clear();
        }
      } catch (...) {
        return false;  // no thread or memory: `items` still holds every item
      }
      wake = waiting_;
    }
    if (wake) cv_.notify_one();
    return true;
  }

  /// The items queued, not yet taken by the thread: for a thread that helps
  /// a worker which lags behind (it runs them, not `abandoned`).
  std::vector<Item> takeQueued() noexcept {
    std::vector<Item> items;
    std::lock_guard lock(mutex_);
    items.swap(queue_);
    return items;
  }

  /// Whether this is the worker's thread.
  bool onWorkerThread() const { return tCurrent == this; }

  /// Stops the thread after the item under way and joins it (from the
  /// worker's own thread: it ends by itself); the items left run abandoned
  /// here. Without `reopen`, later posts are refused.
  void stop(bool reopen) {
    std::thread worker;
    {
      std::lock_guard lock(mutex_);
      ++generation_;
      closed_ = closed_ || !reopen;
      idleEnded_ = false;
      worker = std::move(thread_);
    }
    cv_.notify_all();
    if (worker.joinable()) {
      if (worker.get_id() == std::this_thread::get_id())
        worker.detach();
      else
        worker.join();
    }
    std::vector<Item> left;
    {
      std::lock_guard lock(mutex_);
      left.swap(queue_);
    }
    for (Item& item : left) run_(item, true);
  }

 private:
  void start() {
    const unsigned generation = generation_;
    thread_ = std::thread([this, generation] { loop(generation); });
    // Named before it runs: a host's debugger, and our tests, tell it by name.
    pthread_setname_np(thread_.native_handle(), name_);
  }

  void loop(unsigned generation) {
    tCurrent = this;
    // A worker's thread never takes the CPU from the thread that woke it (the
    // host's, inside drain(), or the I/O thread): a batch thread that wakes
    // does not preempt the running one, yet keeps its full share of the CPU.
    // Running, it gives the CPU up at the yield points of long work.
    runAsBackground(SCHED_BATCH);
    yieldFromHere();
    std::vector<Item> batch;
    std::unique_lock lock(mutex_);
    while (generation_ == generation) {
      if (queue_.empty()) {
        waiting_ = true;
        const bool woken = cv_.wait_for(
            lock, kWorkerIdleEnd, [&] { return !queue_.empty() || generation_ != generation; });
        waiting_ = false;
        if (!woken) {
          idleEnded_ = true;  // the next post joins this thread and starts another
          break;
        }
        continue;
      }
      batch.swap(queue_);
      lock.unlock();
      size_t done = 0;
      for (; done < batch.size() && !stopped(generation); ++done) run_(batch[done], false);
      // Stopped midway: the rest ends as the stop's other items do.
      for (; done < batch.size(); ++done) run_(batch[done], true);
      batch.clear();
      lock.lock();
    }
    tCurrent = nullptr;
  }

  bool stopped(unsigned generation) {
    std::lock_guard lock(mutex_);
    return generation_ != generation;
  }

  static thread_local const ZVWorker* tCurrent;

  const char* const name_;
  const Run run_;
  std::mutex mutex_;
  std::condition_variable cv_;
  std::vector<Item> queue_;  // guarded by mutex_
  unsigned generation_ = 0;  // guarded by mutex_: a stop ends the thread of the one before
  bool waiting_ = false;     // guarded by mutex_: the thread waits for items
  bool idleEnded_ = false;   // guarded by mutex_: the thread left its loop, idle
  bool closed_ = false;      // guarded by mutex_: refused for good (process exit)
  std::thread thread_;       // guarded by mutex_
};

template <class Item>
thread_local const ZVWorker<Item>* ZVWorker<Item>::tCurrent = nullptr;

}  // namespace zv_detail
