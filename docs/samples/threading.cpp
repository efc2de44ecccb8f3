// Threading: who runs what, and three ways to run the main queue.
#include <chrono>
#include <cstdio>
#include <thread>

#include <ZorvaneRewardsKit/ZorvaneRewardsKit.h>

namespace {

bool quit = false;
void updateAndRender() {}

//! [game_loop]
void runGame() {
  while (!quit) {
    // Completion handlers and notifications of the SDK run here, on the game
    // thread, between frames: they may touch game state without locks.
    ZVMainQueue::shared()->drain();
    updateAndRender();
  }
}
//! [game_loop]

//! [gui_timer]
// Called by the GUI toolkit's timer (say every 16 ms) or idle callback on the
// UI thread, so handlers may update widgets directly.
void onUiTimer() {
  ZVMainQueue::shared()->drain();
}
//! [gui_timer]

}  // namespace

int main() {
  runGame();
  onUiTimer();

  //! [any_thread]
  // Operations may start on any thread; the outcome still arrives on the main queue.
  std::thread worker([] {
    ZVRewardsManager::instance()->fetchOrdersWithCompletionHandler(
        [](ZVOrderArrayPtr orders, ZVErrorPtr error) {
          if (!error) std::printf("%zu orders\n", orders->size());
        });
  });
  worker.join();
  //! [any_thread]

  //! [dedicated_thread]
  // No loop of your own: the SDK runs the main queue on a thread it owns.
  // Handlers then run on that thread; hand results to your UI thread yourself.
  ZVMainQueue::shared()->startDedicatedThread();
  // ... the application runs ...
  ZVMainQueue::shared()->stopDedicatedThread();
  //! [dedicated_thread]
  return 0;
}
