// Records as JSON objects whose members are named after the C getters
// ("id", "start_time", "is_featured"...): what zvr_*_get_json returns.
#pragma once

#include <ZorvaneCoreKit/ZVAddress.h>
#include <ZorvaneCoreKit/ZVJSON.h>
#include <ZorvaneRewardsKit/ZVOffer.h>
#include <ZorvaneRewardsKit/ZVOrder.h>
#include <ZorvaneRewardsKit/ZVSkillChallenge.h>
#include <ZorvaneRewardsKit/ZVSkillQuestion.h>

namespace zvr {

ZVJSONValue offerJSON(const ZVOffer& offer);
ZVJSONValue offerListJSON(const ZVOfferArray& offers);
ZVJSONValue orderJSON(const ZVOrder& order);
ZVJSONValue orderListJSON(const ZVOrderArray& orders);
ZVJSONValue orderUserJSON(const ZVOrderUser& user);
ZVJSONValue addressJSON(const ZVAddress& address);
ZVJSONValue skillQuestionJSON(const ZVSkillQuestion& question);
ZVJSONValue skillChallengeJSON(const ZVSkillChallenge& challenge);

}  // namespace zvr
