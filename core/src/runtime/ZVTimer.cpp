#include "runtime/ZVTimer.h"

#include <vector>

namespace zv_detail {

ZVTimer& ZVTimer::shared() {
  // Never destroyed: retries may be scheduled from other threads while the
  // process exits.
  static ZVTimer* const timer = new ZVTimer();
  return *timer;
}

void ZVTimer::at(Clock::time_point when, std::function<void()> task) {
  {
    std::lock_guard lock(mutex_);
    tasks_.emplace(when, std::move(task));
    if (!stopping_ && !thread_.joinable()) thread_ = std::thread([this] { run(); });
  }
  wake_.notify_one();
}

void ZVTimer::run() {
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    if (tasks_.empty()) {
      wake_.wait(lock);
      continue;
    }
    const auto first = tasks_.begin();
    if (first->first > Clock::now()) {
      wake_.wait_until(lock, first->first);
      continue;
    }
    std::function<void()> task = std::move(first->second);
    tasks_.erase(first);
    lock.unlock();
    try {
      task();
    } catch (...) {
      // A task's failure is its own; the others still run.
    }
    task = nullptr;
    lock.lock();
  }
}

void ZVTimer::stop() {
  std::thread thread;
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    thread = std::move(thread_);
  }
  wake_.notify_all();
  if (thread.joinable()) thread.join();
  // What was still waiting runs now, so that every call it stands for ends.
  while (true) {
    std::vector<std::function<void()>> due;
    {
      std::lock_guard lock(mutex_);
      if (tasks_.empty()) {
        stopping_ = false;
        break;
      }
      for (auto& [when, task] : tasks_) due.push_back(std::move(task));
      tasks_.clear();
    }
    for (auto& task : due) {
      try {
        task();
      } catch (...) {
      }
    }
  }
}

}  // namespace zv_detail
