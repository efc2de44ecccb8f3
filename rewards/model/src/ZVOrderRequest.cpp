#include <ZorvaneRewardsKit/ZVOrderRequest.h>

#include <fmt/format.h>

ZVDictionaryPtr ZVOrderRequest::asDictionary() const {
  auto body = ZVMutableDictionary::make();
  body->reserve(6);
  // The keys are distinct constants, so no lookup is needed before appending.
  if (offerID_) body->appendUnchecked("offer_id", *offerID_);
  if (!quantity_.isNil()) body->appendUnchecked("quantity", quantity_);
  // The service wants an address in every order: a loopback one when the host gave none.
  body->appendUnchecked("ip", ip_ ? *ip_ : std::string("127.0.0.1"));
  if (email_) body->appendUnchecked("email", *email_);
  if (shippingAddress_) body->appendUnchecked("shippingAddress", shippingAddress_->asDictionary());
  if (challengeID_) {
    auto challenge = ZVMutableDictionary::make();
    challenge->appendUnchecked("id", *challengeID_);
    body->appendUnchecked("challenge", std::move(challenge));
  }
  return body;
}

std::string ZVOrderRequest::description() const {
  return fmt::format("\rOffer ID: {}\rQuantity: {}", ZVDescribe(offerID_ ? &*offerID_ : nullptr),
                     quantity_.description());
}
