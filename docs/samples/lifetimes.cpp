// Lifetimes: scopes, observations, sign-out, a loop that sleeps, an executor,
// throwing host code, shutdown before unloading, and a C wrapper's per-call data.
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>

#include <ZorvaneRewardsKit/ZorvaneRewardsKit.h>

namespace {

//! [observation]
// A badge that shows the number of offers while it exists. The observation
// is removed when the badge is destroyed; if the observer is running on
// another thread at that moment, the destruction waits for it.
class OffersBadge {
 public:
  OffersBadge()
      : observation_(ZVNotificationCenter::defaultCenter()->observe(
            ZV_REWARDS_MANAGER_DID_FETCH_OFFERS_NOTIFICATION, nullptr,
            [this](const ZVNotification& note) {
              if (auto offers = ZVRewardsNotification::offers(note)) count_ = offers->size();
            })) {}

 private:
  size_t count_ = 0;
  ZVObservation observation_;  // last: removed before `count_` goes
};
//! [observation]

//! [wake_up]
// A loop that sleeps until there is something to do: the SDK wakes it when a
// delivery is queued, from whatever thread queued it.
class SleepingLoop {
 public:
  SleepingLoop() {
    ZVMainQueue::shared()->setWakeUpHandler([this] {
      std::lock_guard lock(mutex_);
      woken_ = true;
      wake_.notify_one();
    });
  }
  ~SleepingLoop() { ZVMainQueue::shared()->setWakeUpHandler(nullptr); }

  void runOnce() {
    {
      std::unique_lock lock(mutex_);
      wake_.wait_for(lock, std::chrono::milliseconds(100), [this] { return woken_; });
      woken_ = false;
    }
    ZVMainQueue::shared()->drain();  // handlers run here, on the loop's thread
  }

 private:
  std::mutex mutex_;
  std::condition_variable wake_;
  bool woken_ = false;
};
//! [wake_up]

//! [executor]
// A toolkit's own task queue, standing in for a GUI's "post to the UI thread".
struct UiThread {
  std::mutex mutex;
  std::deque<std::function<void()>> posted;
  void post(std::function<void()> task) {
    std::lock_guard lock(mutex);
    posted.push_back(std::move(task));
  }
};

void deliverOnTheUiThread(UiThread& ui) {
  // Every delivery of the SDK goes to the UI thread's queue, in order; the
  // UI thread runs them one at a time, as it runs its own events.
  ZVMainQueue::shared()->setExecutor([&ui](ZVMainQueue::Task task) { ui.post(std::move(task)); });
}
//! [executor]

//! [c_wrapper]
// A C interface's call: the C caller's `user` pointer must be handed back
// exactly once, to the callback when the operation completes, or to a
// release function when it is cancelled instead.
extern "C" typedef void (*OffersCallback)(void* user, size_t count, const char* error);
extern "C" typedef void (*ReleaseCallback)(void* user);

void fetchOffersForC(OffersCallback callback, ReleaseCallback release, void* user) {
  ZVScope::Activation active(nullptr, [release, user] { release(user); });
  ZVRewardsManager::instance()->fetchOffersWithCompletionHandler(
      [callback, user](ZVOfferArrayPtr offers, ZVErrorPtr error) {
        if (error) {
          const std::string message = error->description();
          callback(user, 0, message.c_str());
        } else {
          callback(user, offers->size(), nullptr);
        }
      });
}
//! [c_wrapper]

}  // namespace

int main() {
  OffersBadge badge;
  SleepingLoop loop;
  loop.runOnce();
  UiThread ui;
  deliverOnTheUiThread(ui);
  ZVMainQueue::shared()->setExecutor(nullptr);
  fetchOffersForC([](void*, size_t, const char*) {}, [](void*) {}, nullptr);

  //! [sign_out]
  // The user signs out: no answer to their requests may reach the next user.
  // Cancel first (their handlers never run, their answers change nothing),
  // then forget their offers and orders.
  Zorvane::cancelAllOperations();
  ZVRewardsManager::instance()->clearUserState(nullptr);
  //! [sign_out]

  //! [exception_handler]
  // Host code that throws is caught where the SDK called it; the SDK goes on.
  // Send those reports to the app's crash reporter.
  Zorvane::setHostExceptionHandler([](std::string_view where, std::string_view what) {
    std::fprintf(stderr, "rewards: %.*s threw: %.*s\n", static_cast<int>(where.size()),
                 where.data(), static_cast<int>(what.size()), what.data());
  });
  //! [exception_handler]

  //! [shutdown]
  // A plugin about to be unloaded (hot reload): end the SDK's work, then
  // unload. Call it from the plugin's own thread, not from a handler.
  Zorvane::shutdown();
  // dlclose(plugin);  // safe now, once the plugin's observations are gone
  //! [shutdown]
  return EXIT_SUCCESS;
}
