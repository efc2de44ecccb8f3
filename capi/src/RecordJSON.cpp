#include "RecordJSON.h"

namespace zvr {
namespace {

ZVJSONValue text(const std::optional<std::string>& value) {
  return value ? ZVJSONValue(*value) : ZVJSONValue();
}

ZVJSONValue integer(int64_t value) {
  return ZVJSONValue(static_cast<long long>(value));
}

}  // namespace

// setObject leaves nil values out, so absent fields are absent members.
ZVJSONValue offerJSON(const ZVOffer& offer) {
  auto object = ZVMutableDictionary::make();
  object->setObject("id", text(offer.offerID()));
  object->setObject("name", offer.name());
  object->setObject("type", offer.type());
  object->setObject("details", offer.details());
  object->setObject("description_text", offer.descriptionText());
  object->setObject("points", integer(offer.points()));
  object->setObject("start_time", offer.startTime());
  object->setObject("end_time", offer.endTime());
  object->setObject("weight", integer(offer.weight()));
  object->setObject("is_featured", offer.isFeatured());
  object->setObject("is_skill_challenge_required", offer.isSkillChallengeRequired());
  object->setObject("tier", offer.tier());
  object->setObject("logo_url", offer.logoURL());
  object->setObject("status", integer(offer.status()));
  object->setObject("status_text", ZVOffer::stringForStatus(offer.status()));
  object->setObject("data", offer.data());
  if (offer.options()) object->setObject("options", offerListJSON(*offer.options()));
  object->setObject("extras", offer.extras());
  return object;
}

ZVJSONValue offerListJSON(const ZVOfferArray& offers) {
  auto array = ZVMutableArray::make();
  array->reserve(offers.size());
  for (const auto& offer : offers) array->add(offer ? offerJSON(*offer) : ZVJSONValue::null());
  return array;
}

ZVJSONValue orderJSON(const ZVOrder& order) {
  auto object = ZVMutableDictionary::make();
  object->setObject("id", text(order.orderID()));
  object->setObject("offer_type", text(order.offerType()));
  object->setObject("user_id", text(order.userID()));
  object->setObject("external_id", text(order.externalID()));
  object->setObject("offer_id", text(order.offerID()));
  if (order.user()) object->setObject("user", orderUserJSON(*order.user()));
  object->setObject("quantity", integer(order.quantity()));
  object->setObject("points", integer(order.points()));
  object->setObject("created_time", order.createdTime());
  object->setObject("name", order.name());
  object->setObject("logo_url", order.logoURL());
  object->setObject("details", order.details());
  object->setObject("description_text", order.descriptionText());
  if (order.shippingAddress())
    object->setObject("shipping_address", addressJSON(*order.shippingAddress()));
  object->setObject("status", integer(order.status()));
  object->setObject("status_text", order.stringForCurrentStatus());
  object->setObject("data", order.data());
  object->setObject("extras", order.extras());
  return object;
}

ZVJSONValue orderListJSON(const ZVOrderArray& orders) {
  auto array = ZVMutableArray::make();
  array->reserve(orders.size());
  for (const auto& order : orders) array->add(order ? orderJSON(*order) : ZVJSONValue::null());
  return array;
}

ZVJSONValue orderUserJSON(const ZVOrderUser& user) {
  auto object = ZVMutableDictionary::make();
  object->setObject("id", text(user.userID()));
  object->setObject("available_points", integer(user.availablePoints()));
  object->setObject("test_points", integer(user.testPoints()));
  return object;
}

ZVJSONValue addressJSON(const ZVAddress& address) {
  auto object = ZVMutableDictionary::make();
  object->setObject("name", text(address.name));
  object->setObject("street1", text(address.street1));
  object->setObject("street2", text(address.street2));
  object->setObject("city", text(address.city));
  object->setObject("region", text(address.region));
  object->setObject("postal_code", text(address.postalCode));
  object->setObject("country", text(address.country));
  object->setObject("phone", text(address.phone));
  object->setObject("extras", address.extras);
  return object;
}

ZVJSONValue skillQuestionJSON(const ZVSkillQuestion& question) {
  auto object = ZVMutableDictionary::make();
  object->setObject("id", text(question.questionID()));
  object->setObject("question", question.question());
  object->setObject("extras", question.extras());
  return object;
}

ZVJSONValue skillChallengeJSON(const ZVSkillChallenge& challenge) {
  auto object = ZVMutableDictionary::make();
  object->setObject("id", text(challenge.challengeID()));
  object->setObject("status", challenge.status());
  object->setObject("extras", challenge.extras());
  return object;
}

}  // namespace zvr
