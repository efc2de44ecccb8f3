// The order request: the one handle a host changes. Its object is read and
// written only under the table lock, so concurrent setters and placements
// each see a whole request.
#include <cstring>

#include <ZorvaneCoreKit/ZVAddress.h>
#include <ZorvaneRewardsKit/ZVOrderRequest.h>

#include "Boundary.h"
#include "StructSize.h"

using namespace zvr;

namespace {

std::optional<std::string> copied(const char* text) {
  return text ? std::optional<std::string>(text) : std::nullopt;
}

template <class Fn>
zvr_result change(zvr_order_request request, Fn&& fn) noexcept {
  return guarded([&]() -> zvr_result {
    return HandleTable::shared().with(request, Kind::OrderRequest, [&](Slot& slot) -> zvr_result {
      fn(slot.as<ZVOrderRequest>());
      return ZVR_OK;
    });
  });
}

}  // namespace

extern "C" {

zvr_result zvr_order_request_create(const char* offerID, int64_t quantity, zvr_order_request* out) {
  if (out == nullptr) return ZVR_E_INVALID_ARGUMENT;
  *out = nullptr;
  return guarded([&]() -> zvr_result {
    auto request = ZVOrderRequest::initWithOfferID(copied(offerID),
                                                   ZVJSONValue(static_cast<long long>(quantity)));
    *out = issueAs<zvr_order_request>(Kind::OrderRequest, std::move(request));
    return ZVR_OK;
  });
}

zvr_result zvr_order_request_set_offer_id(zvr_order_request request, const char* offerID) {
  return change(request, [&](ZVOrderRequest& r) { r.setOfferID(copied(offerID)); });
}

zvr_result zvr_order_request_set_quantity(zvr_order_request request, int64_t quantity) {
  return change(request, [&](ZVOrderRequest& r) {
    r.setQuantity(ZVJSONValue(static_cast<long long>(quantity)));
  });
}

zvr_result zvr_order_request_unset_quantity(zvr_order_request request) {
  return change(request, [](ZVOrderRequest& r) { r.setQuantity(ZVJSONValue()); });
}

zvr_result zvr_order_request_set_email(zvr_order_request request, const char* email) {
  return change(request, [&](ZVOrderRequest& r) { r.setEmail(copied(email)); });
}

zvr_result zvr_order_request_set_ip(zvr_order_request request, const char* ip) {
  return change(request, [&](ZVOrderRequest& r) { r.setIp(copied(ip)); });
}

zvr_result zvr_order_request_set_challenge_id(zvr_order_request request, const char* challengeID) {
  return change(request, [&](ZVOrderRequest& r) { r.setChallengeID(copied(challengeID)); });
}

zvr_result zvr_order_request_set_shipping_address(zvr_order_request request,
                                                  const zvr_address_fields* fields) {
  if (fields && !structSizeAccepted(fields, fields->struct_size, sizeof(zvr_address_fields),
                                    sizeof(zvr_address_fields)))
    return ZVR_E_UNSUPPORTED_STRUCT;
  return guarded([&]() -> zvr_result {
    // A new address each time: the request shares it with the orders it
    // places, so it is never changed once set.
    std::shared_ptr<ZVAddress> address;
    if (fields) {
      address = std::make_shared<ZVAddress>();
      address->name = copied(fields->name);
      address->street1 = copied(fields->street1);
      address->street2 = copied(fields->street2);
      address->city = copied(fields->city);
      address->region = copied(fields->region);
      address->postalCode = copied(fields->postal_code);
      address->country = copied(fields->country);
      address->phone = copied(fields->phone);
    }
    return change(request, [&](ZVOrderRequest& r) { r.setShippingAddress(std::move(address)); });
  });
}

zvr_result zvr_order_request_set_idempotency_key(zvr_order_request request, const char* key) {
  // Checked here rather than when placing, so that a bad key is the host's
  // error result at once; the rule is the request layer's.
  if (key != nullptr) {
    const size_t length = std::strlen(key);
    if (length == 0 || length > 255) return ZVR_E_INVALID_ARGUMENT;
    for (size_t i = 0; i < length; ++i)
      if (key[i] < 0x21 || key[i] > 0x7E) return ZVR_E_INVALID_ARGUMENT;
  }
  return change(request, [&](ZVOrderRequest& r) { r.setIdempotencyKey(copied(key)); });
}

zvr_result zvr_order_request_get_idempotency_key(zvr_order_request request, const char** out) {
  return readRecord<ZVOrderRequest>(
      request, Kind::OrderRequest, out,
      [](const ZVOrderRequest& r, Slot& slot, const char** o) -> zvr_result {
        return optionalText(slot, kKeyField, r.idempotencyKey(), o);
      });
}

zvr_result zvr_order_request_get_json(zvr_order_request request, const char** out) {
  if (out == nullptr) return ZVR_E_INVALID_ARGUMENT;
  *out = nullptr;
  return guarded([&]() -> zvr_result {
    return HandleTable::shared().with(request, Kind::OrderRequest, [&](Slot& slot) -> zvr_result {
      return rawJSON(slot, kKeyJSON, ZVJSONValue(slot.as<ZVOrderRequest>().asDictionary()), out);
    });
  });
}

}  // extern "C"
