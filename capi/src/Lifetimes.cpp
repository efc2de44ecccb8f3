// Scopes, cancel-all, shutdown and the main queue's wake-up hook.
//
// C++ drops a cancelled operation's handler without calling it; a C host
// must still get its `user` back, to free it. Each operation therefore
// carries a cancellation callback that queues a delivery of the cancellation
// error to the main queue. Shutdown drops the queue's tasks, so the
// deliveries it would lose are made by zvr_shutdown itself, before it
// returns, from the list of those owed.
#include "Lifetimes.h"

#include <condition_variable>
#include <mutex>

#include <ZorvaneCoreKit/ZVMainQueue.h>
#include <ZorvaneCoreKit/Zorvane.h>

#include "Boundary.h"
#include "Callbacks.h"

using namespace zvr;

namespace {

// One operation's cancellation delivery. It becomes due only once the
// starting call has returned: a cancellation inside that call (shutdown
// under way) must neither reach the host inside it nor follow an error
// result, after which the host already took its `user` back.
struct Owed {
  enum class State { Starting, Armed, CancelledEarly, Queued, Done };
  explicit Owed(std::function<void()> deliver) : deliver(std::move(deliver)) {}
  std::function<void()> deliver;
  State state = State::Starting;  // guarded by Deliveries::mutex
  std::shared_ptr<Owed> next;     // guarded by Deliveries::mutex: the queue's link
};

// The deliveries due and not yet made, oldest first. A linked list, so that
// queuing one allocates nothing: a cancellation must not be lost to memory.
struct Deliveries {
  std::mutex mutex;
  std::condition_variable idle;
  std::shared_ptr<Owed> head;  // guarded by mutex
  Owed* tail = nullptr;        // guarded by mutex
  int running = 0;             // guarded by mutex: deliveries under way, any thread
};

Deliveries& deliveries() {
  // Leaked: cancellations may come from the exit sequence.
  static Deliveries* const instance = new Deliveries();
  return *instance;
}

thread_local int tDelivering = 0;  // deliveries under way on this thread

void enqueueLocked(Deliveries& d, const std::shared_ptr<Owed>& owed) {
  owed->state = Owed::State::Queued;
  if (d.tail)
    d.tail->next = owed;
  else
    d.head = owed;
  d.tail = owed.get();
}

// Makes every due delivery on this thread, one at a time.
void deliverDue() {
  Deliveries& d = deliveries();
  while (true) {
    std::shared_ptr<Owed> owed;
    {
      std::lock_guard lock(d.mutex);
      if (!d.head) return;
      owed = std::move(d.head);
      d.head = std::move(owed->next);
      if (!d.head) d.tail = nullptr;
      owed->state = Owed::State::Done;
      ++d.running;
    }
    ++tDelivering;
    try {
      owed->deliver();
    } catch (...) {
      // A callback must not throw; this one's call is over either way.
    }
    --tDelivering;
    owed.reset();  // the host's captures go before the delivery counts as made
    {
      std::lock_guard lock(d.mutex);
      --d.running;
    }
    d.idle.notify_all();
  }
}

// One task per delivery made due; each makes all that are due, so one that
// could not be queued (no memory) is made by the next, or by zvr_shutdown.
void queueDeliveryTask() {
  try {
    ZVMainQueue::shared()->async([] { deliverDue(); });
  } catch (...) {
  }
}

void onCancelled(const std::shared_ptr<Owed>& owed) {
  Deliveries& d = deliveries();
  {
    std::lock_guard lock(d.mutex);
    if (owed->state == Owed::State::Starting) {
      owed->state = Owed::State::CancelledEarly;
      return;
    }
    if (owed->state != Owed::State::Armed) return;
    enqueueLocked(d, owed);
  }
  queueDeliveryTask();
}

void startReturned(const std::shared_ptr<Owed>& owed, bool started) {
  Deliveries& d = deliveries();
  {
    std::lock_guard lock(d.mutex);
    if (!started) {
      owed->state = Owed::State::Done;
      return;
    }
    if (owed->state == Owed::State::Starting) {
      owed->state = Owed::State::Armed;
      return;
    }
    if (owed->state != Owed::State::CancelledEarly) return;
    enqueueLocked(d, owed);
  }
  queueDeliveryTask();
}

// ---- The wake-up hook ----------------------------------------------------------

// One installed hook. Replacing it is the queue's to get right: once
// `setWakeUpHandler` returns, the hook it replaced is not running on another
// thread and is never called again, so the host may free `user`.
struct WakeUp {
  zvr_wakeup_callback callback;
  void* user;
};

// How many wake-up hooks run on this thread (a hook may start an operation
// that wakes the host again).
thread_local int tWakeUpDepth = 0;

void callWakeUp(const WakeUp& hook) {
  struct Depth {
    Depth() { ++tWakeUpDepth; }
    ~Depth() { --tWakeUpDepth; }
  } depth;
  hook.callback(hook.user);
}

// Never under a lock of ours: the queue waits for the replaced hook's calls
// on other threads, and one of them may be replacing the hook itself.
void installWakeUp(zvr_wakeup_callback callback, void* user) {
  std::function<void()> handler;
  if (callback)
    handler = [hook = std::make_shared<const WakeUp>(WakeUp{callback, user})] {
      callWakeUp(*hook);
    };
  ZVMainQueue::shared()->setWakeUpHandler(std::move(handler));
}

// Cancelling waits for handlers on other threads; from the log sink (whose
// lock a handler may wait for) or the wake-up hook it could wait forever.
bool insideHook() {
  return insideLogSink() || tWakeUpDepth > 0;
}

}  // namespace

void zvr::startOperation(ZVScope* scope, std::function<void()> cancelled,
                         const std::function<void()>& start) {
  if (!cancelled) {
    ZVScope::Activation active(scope, nullptr);
    start();
    return;
  }
  auto owed = std::make_shared<Owed>(std::move(cancelled));
  try {
    ZVScope::Activation active(scope, [owed] { onCancelled(owed); });
    start();
  } catch (...) {
    startReturned(owed, false);
    throw;
  }
  startReturned(owed, true);
}

const ZVErrorPtr& zvr::cancellationError() {
  // One for all: the SDK never changes an error it handed out. Leaked, as
  // cancellations may come from the exit sequence.
  static const ZVErrorPtr* const error = new ZVErrorPtr(std::make_shared<ZVError>(
      ZVR_ERROR_TYPE_CANCELLED, "ZVErrorCancelled", "The operation was cancelled"));
  return *error;
}

bool zvr::insideWakeUp() {
  return tWakeUpDepth > 0;
}

extern "C" {

zvr_result zvr_cancel_scope_create(zvr_cancel_scope* out) {
  if (out == nullptr) return ZVR_E_INVALID_ARGUMENT;
  *out = nullptr;
  return guarded([&]() -> zvr_result {
    *out = issueAs<zvr_cancel_scope>(Kind::CancelScope, std::make_shared<ZVScope>());
    return ZVR_OK;
  });
}

zvr_result zvr_cancel_scope_cancel(zvr_cancel_scope scope) {
  if (insideHook()) return ZVR_E_BUSY;
  return guarded([&]() -> zvr_result {
    // Held past the table's lock: cancelling waits for handlers, which may
    // use handles themselves.
    std::shared_ptr<void> held;
    const zvr_result found =
        HandleTable::shared().with(scope, Kind::CancelScope, [&](Slot& slot) -> zvr_result {
          held = slot.object;
          return ZVR_OK;
        });
    if (found != ZVR_OK) return found;
    static_cast<ZVScope*>(held.get())->cancel();
    return ZVR_OK;
  });
}

zvr_result zvr_cancel_scope_get_pending_count(zvr_cancel_scope scope, uint32_t* out) {
  return readRecord<ZVScope>(scope, Kind::CancelScope, out,
                             [](const ZVScope& s, Slot&, uint32_t* o) -> zvr_result {
                               *o = static_cast<uint32_t>(s.pendingCount());
                               return ZVR_OK;
                             });
}

zvr_result zvr_rewards_cancel_all(void) {
  if (insideHook()) return ZVR_E_BUSY;
  return guarded([]() -> zvr_result {
    Zorvane::cancelAllOperations();
    return ZVR_OK;
  });
}

zvr_result zvr_main_queue_set_wakeup(zvr_wakeup_callback callback, void* user) {
  return guarded([&]() -> zvr_result {
    installWakeUp(callback, user);
    return ZVR_OK;
  });
}

zvr_result zvr_shutdown(void) {
  if (insideHook()) return ZVR_E_BUSY;
  return guarded([]() -> zvr_result {
    // The hook goes first: the deliveries that shutdown queues are dropped
    // with the queue, so waking the host for them would be in vain. One
    // installed while shutdown runs goes with the queue's hooks, and here.
    installWakeUp(nullptr, nullptr);
    Zorvane::shutdown();
    installWakeUp(nullptr, nullptr);
    // The queued deliveries were dropped with the queue's tasks: make them
    // here, then wait for those that another thread took before.
    deliverDue();
    Deliveries& d = deliveries();
    std::unique_lock lock(d.mutex);
    d.idle.wait(lock, [&] { return d.running <= tDelivering; });
    return ZVR_OK;
  });
}

}  // extern "C"
