// Request kinds, notification names and version symbols of the rewards module.
#pragma once

#include <ZorvaneRewardsKit/ZVRewardsExport.h>

// Request kinds: name the operation of a request and select its answer handler.
extern ZV_REWARDS_EXPORT const char* const kKindFetchRewardOffers;   // "kind.fetch.rewards.offers"
extern ZV_REWARDS_EXPORT const char* const kKindPlaceOrder;          // "kind.place.order"
extern ZV_REWARDS_EXPORT const char* const kKindFetchRewardOrders;   // "kind.fetch.rewards.orders"
extern ZV_REWARDS_EXPORT const char* const kKindFetchSkillQuestion;  // "kind.fetch.skill.question"
extern ZV_REWARDS_EXPORT const char* const
    kKindAnswerSkillQuestion;  // "kind.answer.skill.question"

// Notification names, "com.zorvane." followed by the suffix in the comment.
// Success notifications have the manager as object and the result under
// ZV_MANAGER_NOTIFICATION_DATA_KEY; failure notifications the error under
// ZV_MANAGER_NOTIFICATION_ERROR_KEY.
extern ZV_REWARDS_EXPORT const char* const
    ZV_REWARDS_MANAGER_REQUEST_DID_FAIL_NOTIFICATION;  // rewards.manager.request.did.fail
extern ZV_REWARDS_EXPORT const char* const
    ZV_REWARDS_MANAGER_VALIDATION_DID_FAIL_NOTIFICATION;  // rewards.manager.validation.did.fail
extern ZV_REWARDS_EXPORT const char* const
    ZV_REWARDS_MANAGER_DID_FETCH_OFFERS_NOTIFICATION;  // rewards.manager.did.fetch.offers
extern ZV_REWARDS_EXPORT const char* const
    ZV_REWARDS_MANAGER_DID_FETCH_ORDERS_NOTIFICATION;  // rewards.manager.did.fetch.orders
extern ZV_REWARDS_EXPORT const char* const
    ZV_REWARDS_MANAGER_DID_PLACE_ORDER_NOTIFICATION;  // rewards.manager.did.place.order
extern ZV_REWARDS_EXPORT const char* const
    ZV_REWARDS_MANAGER_DID_FETCH_SKILL_QUESTION_NOTIFICATION;  // rewards.manager.did.fetch.skill.question
extern ZV_REWARDS_EXPORT const char* const
    ZV_REWARDS_MANAGER_DID_ANSWER_SKILL_QUESTION_NOTIFICATION;  // rewards.manager.did.answer.skill.question

// Version symbols, with C linkage so that version tools and `nm` find them.
extern "C" {
/// 3.0
extern ZV_REWARDS_EXPORT const double ZorvaneRewardsKitVersionNumber;
/// "@(#)PROGRAM:ZorvaneRewardsKit  PROJECT:ZorvaneSDK-3.0.0-b2\n"
extern ZV_REWARDS_EXPORT const unsigned char ZorvaneRewardsKitVersionString[];
}
