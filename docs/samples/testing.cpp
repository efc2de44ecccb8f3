// Testing a host app: the fake rewards service in place of the network.
#include <chrono>
#include <memory>

#include <ZorvaneRewardsKit/ZorvaneRewardsKit.h>
#include <ZorvaneRewardsKit/testing/ZVFakeRewardsService.h>

int main() {
  //! [fake_offers]
  ZVScopedFakeRewardsService fake;  // until the end of the scope: no network
  fake->setBody(kKindFetchRewardOffers, R"({"status": "ok", "offers": [
      {"id": "1", "name": "Coffee", "points": 500, "status": "available"}]})");

  ZVOfferArrayPtr received;
  ZVRewardsManager::instance()->fetchOffersWithCompletionHandler(
      [&](ZVOfferArrayPtr offers, ZVErrorPtr) { received = offers; });
  ZVMainQueue::shared()->runUntil([&] { return received != nullptr; }, std::chrono::seconds(5));
  if (!received || received->size() != 1) return 1;
  //! [fake_offers]

  //! [fake_failures]
  // One-shot answers come first, in order; then the standing answer of the kind.
  fake->pushAnswer(kKindPlaceOrder, ZVFakeAnswer::httpStatus(503));
  fake->pushAnswer(kKindPlaceOrder,
                   ZVFakeAnswer::transportFailure(ZVTransportFailure::Timeout, "timed out"));
  fake->setBody(kKindPlaceOrder, R"({"status": "error", "message": "Not enough points"})");
  //! [fake_failures]

  //! [fake_requests]
  ZVErrorPtr failure;
  ZVRewardsManager::instance()->placeOrder(
      ZVOrderRequest::initWithOfferID("1", 1),
      [&](std::shared_ptr<ZVOrder>, ZVErrorPtr error) { failure = error; });
  ZVMainQueue::shared()->runUntil([&] { return failure != nullptr; }, std::chrono::seconds(5));
  if (!failure || failure->httpStatus() != 503) return 1;
  const auto sent = fake->requestsOfKind(kKindPlaceOrder);
  if (sent.size() != 1 || sent[0].offerID != "1") return 1;
  // sent[0].body holds the JSON the SDK sent: {"order": {"offer_id": "1", ...}}
  //! [fake_requests]
  return 0;
}
