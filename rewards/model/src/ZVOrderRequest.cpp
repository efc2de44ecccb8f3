#include <ZorvaneRewardsKit/ZVOrderRequest.h>

#include "base/ZVStrings.h"
#include "json/ZVJSONAccess.h"

ZVDictionaryPtr ZVOrderRequest::asDictionary() const {
  auto body = ZVMutableDictionary::make();
  body->reserve(6);
  // The keys are distinct constants, so no lookup is needed before appending.
  if (offerID_) zv_detail::appendUnchecked(*body, "offer_id", *offerID_);
  if (!quantity_.isNil()) zv_detail::appendUnchecked(*body, "quantity", quantity_);
  // The service wants an address in every order: a loopback one when the host gave none.
  zv_detail::appendUnchecked(*body, "ip", ip_ ? *ip_ : std::string("127.0.0.1"));
  if (email_) zv_detail::appendUnchecked(*body, "email", *email_);
  if (shippingAddress_)
    zv_detail::appendUnchecked(*body, "shippingAddress", shippingAddress_->asDictionary());
  if (challengeID_) {
    auto challenge = ZVMutableDictionary::make();
    zv_detail::appendUnchecked(*challenge, "id", *challengeID_);
    zv_detail::appendUnchecked(*body, "challenge", std::move(challenge));
  }
  return body;
}

std::string ZVOrderRequest::description() const {
  return zv_detail::strCat("\rOffer ID: ", ZVDescribe(offerID_ ? &*offerID_ : nullptr),
                           "\rQuantity: ", quantity_.description());
}
