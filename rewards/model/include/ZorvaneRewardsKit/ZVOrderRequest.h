// What a host fills in to redeem an offer.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include <ZorvaneCoreKit/ZVAddress.h>
#include <ZorvaneCoreKit/ZVJSON.h>
#include <ZorvaneCoreKit/ZVObject.h>
#include <ZorvaneRewardsKit/ZVRewardsExport.h>

/// An order to place. Every field is optional; nothing is validated here.
///
/// @par Thread safety
/// No locking; `placeOrder` reads it on the calling thread before returning.
class ZV_REWARDS_EXPORT ZVOrderRequest final : public ZVObject {
 public:
  ZVOrderRequest() = default;
  /// `initWithOfferID:quantity:`. `quantity` is a JSON number sent as it
  /// stands (an integer or not, as the host decides); nil leaves it out.
  ZVOrderRequest(std::optional<std::string> offerID, ZVJSONValue quantity)
      : offerID_(std::move(offerID)), quantity_(std::move(quantity)) {}
  static std::shared_ptr<ZVOrderRequest> initWithOfferID(std::optional<std::string> offerID,
                                                         ZVJSONValue quantity) {
    return std::make_shared<ZVOrderRequest>(std::move(offerID), std::move(quantity));
  }

  /// The body under "order": "offer_id", "quantity", "ip" (always; "127.0.0.1"
  /// when `ip` is unset), "email", "shippingAddress", "challenge": {"id": ...},
  /// each only when set. A new object on each call.
  ZVDictionaryPtr asDictionary() const;

  std::string description() const override;

  const std::optional<std::string>& offerID() const { return offerID_; }
  void setOfferID(std::optional<std::string> v) { offerID_ = std::move(v); }
  /// nil when unset (then left out of the body); any other value, JSON null
  /// included, is sent as it stands.
  const ZVJSONValue& quantity() const { return quantity_; }
  void setQuantity(ZVJSONValue v) { quantity_ = std::move(v); }
  const std::optional<std::string>& email() const { return email_; }
  void setEmail(std::optional<std::string> v) { email_ = std::move(v); }
  const std::optional<std::string>& ip() const { return ip_; }
  void setIp(std::optional<std::string> v) { ip_ = std::move(v); }
  const std::shared_ptr<ZVAddress>& shippingAddress() const { return shippingAddress_; }
  void setShippingAddress(std::shared_ptr<ZVAddress> v) { shippingAddress_ = std::move(v); }
  /// The `challengeID` of a passed `ZVSkillChallenge`.
  const std::optional<std::string>& challengeID() const { return challengeID_; }
  void setChallengeID(std::optional<std::string> v) { challengeID_ = std::move(v); }

  /// The order's idempotency key, sent as the `Idempotency-Key` header (never
  /// in the body): a service that honours it stores one order per key, so a
  /// host that lost track of an order (a timeout, then an app restart) can
  /// place it again with the same key and be charged once. 1 to 255 visible
  /// ASCII characters; another value fails the call with
  /// `ZVErrorInvalidIdempotencyKey` and sends nothing. Unset (the default):
  /// the SDK makes a random 128-bit key for each `placeOrder` call, the same
  /// for each of its attempts. Keep a key you set, with the order's details,
  /// until the order's outcome is known.
  const std::optional<std::string>& idempotencyKey() const { return idempotencyKey_; }
  void setIdempotencyKey(std::optional<std::string> v) { idempotencyKey_ = std::move(v); }

 private:
  std::optional<std::string> offerID_;
  ZVJSONValue quantity_;
  std::optional<std::string> email_, ip_;
  std::shared_ptr<ZVAddress> shippingAddress_;
  std::optional<std::string> challengeID_;
  std::optional<std::string> idempotencyKey_;
};
