// Retries and idempotency: turning retries on, and placing an order again
// with its key after a restart.
#include <cstdio>
#include <string>

#include <ZorvaneRewardsKit/ZorvaneRewardsKit.h>

// What the app keeps across restarts about an order whose outcome it has
// not seen yet (its own storage: a file, a database, the platform's store).
struct PendingOrder {
  std::string offerID;
  std::string key;
};

void savePending(const PendingOrder&) {}
void clearPending() {}

int main() {
  //! [enable_retries]
  ZVConfiguration configuration = Zorvane::configuration();
  configuration.retry.maxAttempts = 4;  // the first attempt and up to three retries
  configuration.retry.baseDelay = std::chrono::milliseconds(250);
  configuration.retry.maxDelay = std::chrono::seconds(4);
  configuration.requestTimeout = std::chrono::seconds(30);  // every attempt and wait included
  Zorvane::configure(configuration);
  //! [enable_retries]

  //! [order_with_key]
  // Choose the key before the first attempt and keep it with the order until
  // its outcome is known: after a crash or a lost answer, placing the order
  // again with the same key cannot charge the user twice.
  PendingOrder pending{"101", "order-2f9c81e0-user-42-offer-101"};
  savePending(pending);
  auto order = ZVOrderRequest::initWithOfferID(pending.offerID, 1);
  order->setIdempotencyKey(pending.key);
  ZVRewardsManager::instance()->placeOrder(
      order, [](std::shared_ptr<ZVOrder> placed, ZVErrorPtr error) {
        if (error && error->type() == ZVErrorTypeTransport) {
          // The order may or may not have been placed: keep the pending record
          // and place it again with the same key later (at the next start, say).
          std::printf("will try again with the same key (%d attempts so far)\n", error->attempts());
          return;
        }
        clearPending();
        if (placed) std::printf("order %s placed\n", placed->orderID().value_or("?").c_str());
      });
  //! [order_with_key]
  return 0;
}
