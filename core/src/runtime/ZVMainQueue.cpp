#include <ZorvaneCoreKit/ZVMainQueue.h>

#include <pthread.h>

#include <algorithm>
#include <exception>
#include <vector>

#include "runtime/ZVDeliveryBatch.h"
#include "runtime/ZVHostCode.h"
#include "runtime/ZVLifecycle.h"
#include "runtime/ZVReclaimer.h"

namespace {

// How often a waiting runUntil re-checks `done()` when no task wakes it: the
// condition may turn true on another thread without anything being queued.
constexpr std::chrono::milliseconds kPollInterval{5};

// Set while this thread runs the wake-up handler: a drain from inside it
// could run a handler inside the call that started its operation.
thread_local bool tInWakeUp = false;

thread_local ZVDeliveryBatch* tDeliveries = nullptr;

// The calls under way of one installed hook (wake-up handler or executor).
// The queue copies a hook before it calls it, unlocked, so a call may still
// run on another thread once the hook is replaced; replacing it waits for
// those calls, after which the host may free what the hook captured.
struct HookCalls {
  std::mutex mutex;
  std::condition_variable ended;
  bool retired = false;                  // guarded by mutex
  std::vector<std::thread::id> running;  // guarded by mutex

  bool enter() {
    std::lock_guard lock(mutex);
    if (retired) return false;
    running.push_back(std::this_thread::get_id());
    return true;
  }
  void leave() {
    {
      std::lock_guard lock(mutex);
      running.erase(std::find(running.begin(), running.end(), std::this_thread::get_id()));
    }
    ended.notify_all();
  }
  // Not for the calls on this thread: a hook may replace itself.
  void retire() {
    std::unique_lock lock(mutex);
    retired = true;
    ended.wait(lock, [this] {
      return std::all_of(running.begin(), running.end(),
                         [](std::thread::id id) { return id == std::this_thread::get_id(); });
    });
  }
};

// What the queue keeps in place of the host's function, so that the calls
// can be found from the `std::function` the header declares.
template <class Function>
struct Hook {
  Function function;
  std::shared_ptr<HookCalls> calls = std::make_shared<HookCalls>();
  template <class... Args>
  void operator()(Args&&... args) const {
    function(std::forward<Args>(args)...);
  }
};

template <class Function>
HookCalls* callsOf(const std::shared_ptr<const Function>& installed) {
  if (!installed) return nullptr;
  const auto* hook = installed->template target<Hook<Function>>();
  return hook ? hook->calls.get() : nullptr;
}

template <class Function>
void retire(const std::shared_ptr<const Function>& installed) {
  if (HookCalls* calls = callsOf(installed)) calls->retire();
}

void runGuarded(const ZVMainQueue::Task& task) {
  // A throwing task must not take the queue, and every task behind it, down with it.
  if (task) zv_detail::runHostCode("a main-queue task", task);
}

void runWakeUp(const std::function<void()>& wakeUp) {
  tInWakeUp = true;
  zv_detail::runHostCode("the main queue's wake-up handler", wakeUp);
  tInWakeUp = false;
}

}  // namespace

ZVDeliveryBatch::ZVDeliveryBatch() noexcept : previous_(tDeliveries) {
  tDeliveries = this;
}

ZVDeliveryBatch::~ZVDeliveryBatch() {
  flush();
  tDeliveries = previous_;
}

void ZVDeliveryBatch::flush() noexcept {
  if (tasks_.empty()) return;
  // Handed over closed, from a vector of its own: the wake-up handler and the
  // executor are host code, which may queue tasks itself (an operation it
  // starts and that is refused at once), and those must not be pushed into
  // the vector being handed over.
  std::vector<ZVMainQueue::Task> tasks;
  tasks.swap(tasks_);
  ZVDeliveryBatch* const open = tDeliveries;
  tDeliveries = previous_;
  ZVMainQueue::shared()->asyncAll(tasks);
  tDeliveries = open;
}

bool ZVDeliveryBatch::hold(ZVMainQueue* queue, ZVMainQueue::Task& task) noexcept {
  ZVDeliveryBatch* batch = tDeliveries;
  if (batch == nullptr || queue != ZVMainQueue::shared()) return false;
  try {
    batch->tasks_.push_back(std::move(task));
    return true;
  } catch (...) {
    return false;  // no memory to hold it: queued at once instead
  }
}

ZVMainQueue* ZVMainQueue::shared() {
  // Leaked on purpose: completion handlers may be queued from other threads, or
  // from static destructors, while the process exits; a queue destroyed by the
  // exit sequence would be used after its end.
  static ZVMainQueue* const queue = new ZVMainQueue();
  return queue;
}

ZVMainQueue::~ZVMainQueue() {
  std::unique_lock lock(mutex_);
  stop_ = true;
  cv_.notify_all();
  if (!thread_.joinable()) return;
  std::thread worker = std::move(thread_);
  lock.unlock();
  if (worker.get_id() == std::this_thread::get_id()) {
    worker.detach();  // destroyed by one of its own tasks; it cannot wait for itself
  } else {
    worker.join();
  }
}

void ZVMainQueue::async(Task task) {
  if (ZVDeliveryBatch::hold(this, task)) return;
  enqueue(&task, 1);
}

void ZVMainQueue::asyncAll(std::vector<Task>& tasks) noexcept {
  try {
    enqueue(tasks.data(), tasks.size());
  } catch (...) {
    // No memory for the rest: they are destroyed unrun below, which ends
    // their operations as cancelled.
  }
  tasks.clear();
}

void ZVMainQueue::enqueue(Task* tasks, size_t count) {
  std::shared_ptr<const Executor> executor;
  std::shared_ptr<const std::function<void()>> wakeUp;
  bool wake = false;
  size_t queued = 0;
  std::exception_ptr noMemory;
  {
    std::lock_guard lock(mutex_);
    if (executor_ && !exiting_) {
      executor = executor_;
    } else {
      // A runner waits only while the queue is empty: a task behind others
      // needs no wakeup.
      wake = tasks_.empty() && waiting_ > 0;
      try {
        for (; queued < count; ++queued) tasks_.push_back(std::move(tasks[queued]));
      } catch (...) {
        noMemory = std::current_exception();  // those queued are still announced
      }
      if (!exiting_) wakeUp = wakeUp_;
    }
  }
  if (executor) {
    HookCalls* calls = callsOf(executor);
    for (size_t i = 0; i < count; ++i) {
      // An executor replaced meanwhile gets no more tasks: the queue, or the
      // executor that replaced it, takes them.
      if (calls && !calls->enter()) {
        enqueue(&tasks[i], count - i);
        return;
      }
      zv_detail::runHostCode("the main queue's executor",
                             [&] { (*executor)(std::move(tasks[i])); });
      if (calls) calls->leave();
    }
    return;
  }
  if (wake && queued > 0) cv_.notify_all();
  if (HookCalls* calls = callsOf(wakeUp)) {
    for (size_t i = 0; i < queued && calls->enter(); ++i) {
      runWakeUp(*wakeUp);
      calls->leave();
    }
  }
  if (noMemory) std::rethrow_exception(noMemory);
}

void ZVMainQueue::waitForTask(std::unique_lock<std::mutex>& lock,
                              std::chrono::steady_clock::time_point until) {
  // The main queue's thread frees nothing it let go of while it waits: the
  // results dropped since the last wait go to the reclaimer now. The lock was
  // let go meanwhile, so the caller re-checks what it waits for (a stop, a
  // task) before it waits: a notification sent in between is not lost.
  zv_detail::ZVReclaimBatch* batch = zv_detail::ZVReclaimBatch::current();
  if (batch != nullptr && !batch->empty()) {
    lock.unlock();
    batch->flush();
    lock.lock();
    return;
  }
  ++waiting_;
  if (until == std::chrono::steady_clock::time_point::max())
    cv_.wait(lock);
  else
    cv_.wait_until(lock, until);
  --waiting_;
}

void ZVMainQueue::setWakeUpHandler(std::function<void()> handler) {
  using WakeUp = std::function<void()>;
  std::shared_ptr<const WakeUp> next;
  if (handler) next = std::make_shared<const WakeUp>(Hook<WakeUp>{std::move(handler)});
  {
    std::lock_guard lock(mutex_);
    wakeUp_.swap(next);
  }
  retire(next);
  // The previous handler is destroyed here, outside the lock.
}

void ZVMainQueue::setExecutor(Executor executor) {
  std::shared_ptr<const Executor> next;
  if (executor) next = std::make_shared<const Executor>(Hook<Executor>{std::move(executor)});
  std::deque<Task> handOver;
  {
    std::lock_guard lock(mutex_);
    executor_.swap(next);
    if (executor_) handOver.swap(tasks_);
  }
  retire(next);
  for (Task& task : handOver) async(std::move(task));
}

void ZVMainQueue::discardForShutdown() {
  std::deque<Task> discarded;
  std::shared_ptr<const std::function<void()>> wakeUp;
  std::shared_ptr<const Executor> executor;
  {
    std::lock_guard lock(mutex_);
    discarded.swap(tasks_);
    wakeUp.swap(wakeUp_);
    executor.swap(executor_);
  }
  retire(wakeUp);
  retire(executor);
  // Destroyed here, unlocked: their captures may hold the last reference to
  // an operation, whose end runs host code.
}

void ZVMainQueue::stopForExit(std::chrono::milliseconds patience) {
  std::unique_lock lock(mutex_);
  exiting_ = true;
  if (!thread_.joinable()) return;
  stop_ = true;
  cv_.notify_all();
  // Called from a task of the thread (exit() in a handler): it never returns there.
  if (thread_.get_id() == std::this_thread::get_id()) return;
  // A handler that waits for the exiting thread would never end: wait a
  // little, then leave the thread to the exit.
  if (cv_.wait_for(lock, patience, [this] { return threadEnded_; })) {
    std::thread worker = std::move(thread_);
    lock.unlock();
    worker.join();
  }
}

bool ZVMainQueue::runOne(std::unique_lock<std::mutex>& lock) {
  if (tasks_.empty()) return false;
  Task task = std::move(tasks_.front());
  tasks_.pop_front();
  lock.unlock();
  runGuarded(task);
  task = nullptr;  // release its captures before taking the lock again
  lock.lock();
  return true;
}

size_t ZVMainQueue::drain() {
  if (tInWakeUp) return 0;
  std::unique_lock lock(mutex_);
  // A started dedicated thread owns the queue even before it first takes it.
  // Once the process exits, no task runs: the host's statics may be gone.
  if (exiting_ || running_ || (thread_.joinable() && !stop_)) return 0;
  running_ = true;
  // FIFO: the first `before` tasks are exactly those queued before this call.
  const size_t before = tasks_.size();
  size_t ran = 0;
  {
    // What the tasks let go of is freed elsewhere, handed over once.
    zv_detail::ZVReclaimBatch reclaims;
    while (ran < before && runOne(lock)) ++ran;
    lock.unlock();
  }
  lock.lock();
  running_ = false;
  lock.unlock();
  cv_.notify_all();
  return ran;
}

bool ZVMainQueue::runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  if (tInWakeUp) return false;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  zv_detail::ZVReclaimBatch reclaims;  // handed over before each wait and at the end
  std::unique_lock lock(mutex_);
  bool owner = false;  // whether this call holds the queue and runs its tasks
  while (true) {
    lock.unlock();
    const bool held = done();
    lock.lock();
    const auto now = std::chrono::steady_clock::now();
    if (held || now >= deadline) {
      if (owner) {
        running_ = false;
        lock.unlock();
        cv_.notify_all();
      }
      return held;
    }
    // While another runner (the dedicated thread) holds the queue, it runs the
    // tasks and this call only waits; it takes the queue over once it is free.
    if (!owner && !exiting_ && !running_ && !(thread_.joinable() && !stop_)) {
      running_ = true;
      owner = true;
    }
    if (owner && !tasks_.empty()) {
      runOne(lock);
    } else {
      waitForTask(lock, std::min(deadline, now + kPollInterval));
    }
  }
}

void ZVMainQueue::startDedicatedThread() {
  zv_detail::armExitHook();
  std::unique_lock lock(mutex_);
  if (exiting_) return;
  if (thread_.joinable()) {
    if (!stop_) return;
    if (thread_.get_id() == std::this_thread::get_id()) {
      stop_ = false;  // a task stopped its own thread and restarts it: keep running
      return;
    }
    // A task stopped the thread, which cannot join itself; finish that here.
    std::thread old = std::move(thread_);
    lock.unlock();
    old.join();
    lock.lock();
    if (thread_.joinable()) return;  // started meanwhile by another caller
  }
  stop_ = false;
  threadEnded_ = false;
  thread_ = std::thread([this] { runThread(); });
  // Named before it runs: a host's debugger, and our tests, tell it by name.
  pthread_setname_np(thread_.native_handle(), "zv-main-queue");
}

void ZVMainQueue::runThread() {
  std::unique_lock lock(mutex_);
  // Wait for a drain or runUntil under way to give the queue up.
  cv_.wait(lock, [this] { return stop_ || !running_; });
  if (!stop_) {
    running_ = true;
    zv_detail::ZVReclaimBatch reclaims;
    while (true) {
      while (!stop_ && tasks_.empty())
        waitForTask(lock, std::chrono::steady_clock::time_point::max());
      if (stop_) break;
      runOne(lock);
    }
    running_ = false;
    lock.unlock();
    reclaims.flush();
    lock.lock();
  }
  threadEnded_ = true;
  lock.unlock();
  cv_.notify_all();
}

void ZVMainQueue::stopDedicatedThread() {
  std::unique_lock lock(mutex_);
  if (!thread_.joinable()) return;
  stop_ = true;
  cv_.notify_all();
  // From one of its own tasks: the thread ends after that task; a later start or
  // the destructor joins it.
  if (thread_.get_id() == std::this_thread::get_id()) return;
  std::thread worker = std::move(thread_);
  lock.unlock();
  worker.join();
}

size_t ZVMainQueue::pendingCount() const {
  std::lock_guard lock(mutex_);
  return tasks_.size();
}
