#include <ZorvaneRewardsKit/ZVRewardsConstants.h>

const char* const kKindFetchRewardOffers = "kind.fetch.rewards.offers";
const char* const kKindPlaceOrder = "kind.place.order";
const char* const kKindFetchRewardOrders = "kind.fetch.rewards.orders";
const char* const kKindFetchSkillQuestion = "kind.fetch.skill.question";
const char* const kKindAnswerSkillQuestion = "kind.answer.skill.question";

const char* const ZV_REWARDS_MANAGER_REQUEST_DID_FAIL_NOTIFICATION =
    "com.zorvane.rewards.manager.request.did.fail";
const char* const ZV_REWARDS_MANAGER_VALIDATION_DID_FAIL_NOTIFICATION =
    "com.zorvane.rewards.manager.validation.did.fail";
const char* const ZV_REWARDS_MANAGER_DID_FETCH_OFFERS_NOTIFICATION =
    "com.zorvane.rewards.manager.did.fetch.offers";
const char* const ZV_REWARDS_MANAGER_DID_FETCH_ORDERS_NOTIFICATION =
    "com.zorvane.rewards.manager.did.fetch.orders";
const char* const ZV_REWARDS_MANAGER_DID_PLACE_ORDER_NOTIFICATION =
    "com.zorvane.rewards.manager.did.place.order";
const char* const ZV_REWARDS_MANAGER_DID_FETCH_SKILL_QUESTION_NOTIFICATION =
    "com.zorvane.rewards.manager.did.fetch.skill.question";
const char* const ZV_REWARDS_MANAGER_DID_ANSWER_SKILL_QUESTION_NOTIFICATION =
    "com.zorvane.rewards.manager.did.answer.skill.question";

extern "C" {
const double ZorvaneRewardsKitVersionNumber = 3.0;
// "@(#)" lets what(1)-style version tools find the string in the binary.
const unsigned char ZorvaneRewardsKitVersionString[] =
    "@(#)PROGRAM:ZorvaneRewardsKit  PROJECT:ZorvaneSDK-3.0.0-b2\n";
}
