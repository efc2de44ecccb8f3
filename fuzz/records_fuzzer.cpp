// Feeds arbitrary bytes through the parser into every record of the rewards
// model: whatever the answer body holds, building, describing and serialising
// the records must neither crash nor trip a sanitizer.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include <ZorvaneCoreKit/ZVAddress.h>
#include <ZorvaneCoreKit/ZVJSON.h>
#include <ZorvaneRewardsKit/ZVOffer.h>
#include <ZorvaneRewardsKit/ZVOrder.h>
#include <ZorvaneRewardsKit/ZVOrderRequest.h>
#include <ZorvaneRewardsKit/ZVRewardsError.h>
#include <ZorvaneRewardsKit/ZVSkillChallenge.h>
#include <ZorvaneRewardsKit/ZVSkillQuestion.h>
#include "base/ZVUtil.h"

namespace {

void serialise(const ZVDictionaryPtr& extras) {
  std::string out;
  if (extras) ZVJSONSerialize(ZVJSONValue(extras), true, out);
}

void describeOffer(const ZVOffer& offer) {
  (void)offer.description();
  serialise(offer.extras());
  if (offer.options()) {
    (void)offer.options()->description();
    for (const auto& option : *offer.options()) serialise(option->extras());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const ZVJSONParseResult parsed =
      ZVJSONParse(std::string_view(reinterpret_cast<const char*>(data), size));
  const ZVDictionaryPtr input = parsed.value.dictionary();
  if (!input) return 0;

  describeOffer(*ZVOffer::initMutableWithDictionary(input->mutableCopy()));

  // The order's user and address are built by the order itself.
  auto order = ZVOrder::initMutableWithDictionary(input->mutableCopy());
  (void)order->description();
  (void)order->user()->description();
  if (order->shippingAddress()) (void)order->shippingAddress()->asDictionary();
  serialise(order->extras());
  (void)ZVOrderUser::initMutableWithDictionary(input->mutableCopy())->description();

  auto question = ZVSkillQuestion::initMutableWithDictionary(input->mutableCopy());
  (void)question->description();
  serialise(question->extras());

  auto challenge = ZVSkillChallenge::initMutableWithDictionary(input->mutableCopy());
  (void)challenge->description();
  serialise(challenge->extras());

  const ZVRewardsError error(ZVErrorTypeService, input->mutableCopy());
  (void)error.description();

  // An order request filled from the same input, as a host might do it.
  auto request = ZVOrderRequest::initWithOfferID(
      ZVUtil::nilOrStringFromObject(input->objectForKey("offer_id")),
      input->objectForKey("quantity"));
  request->setIp(ZVUtil::nilOrStringFromObject(input->objectForKey("ip")));
  request->setShippingAddress(
      ZVAddress::initMutableWithDictionary(input->mutableCopy()->objectForKey("shipping_address")));
  (void)request->description();
  serialise(request->asDictionary());
  return 0;
}
