// Inside the SDK: tasks run after a delay, for the waits between retries.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

#include <ZorvaneCoreKit/ZVExport.h>

namespace zv_detail {

/// Runs each task once, on a thread of its own started on first use, when its
/// time has come; tasks due at the same time run in the order they came.
///
/// @par Thread safety
/// Every operation is safe from any thread; tasks may schedule others.
class ZV_CORE_EXPORT ZVTimer {
 public:
  using Clock = std::chrono::steady_clock;

  static ZVTimer& shared();

  void at(Clock::time_point when, std::function<void()> task);

  /// Joins the timer's thread, then runs every task still waiting (and those
  /// they schedule) at once, on the calling thread; the next `at` starts the
  /// thread again. For shutdown; not from a timer task.
  void stop();

 private:
  void run();

  std::mutex mutex_;
  std::condition_variable wake_;
  std::multimap<Clock::time_point, std::function<void()>> tasks_;  // guarded by mutex_
  bool stopping_ = false;                                          // guarded by mutex_
  std::thread thread_;                                             // guarded by mutex_
};

}  // namespace zv_detail
