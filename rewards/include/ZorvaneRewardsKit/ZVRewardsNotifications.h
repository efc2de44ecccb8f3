// Reading the rewards notifications' payloads, without RTTI.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include <ZorvaneCoreKit/ZVError.h>
#include <ZorvaneCoreKit/ZVNotificationCenter.h>
#include <ZorvaneRewardsKit/ZVOffer.h>
#include <ZorvaneRewardsKit/ZVOrder.h>
#include <ZorvaneRewardsKit/ZVRewardsExport.h>
#include <ZorvaneRewardsKit/ZVSkillChallenge.h>
#include <ZorvaneRewardsKit/ZVSkillQuestion.h>

/// Typed readers of what the rewards manager's notifications carry. Each
/// looks at the notification's name and returns the payload of that name,
/// or an empty value for a notification of another name, so that a host
/// built without RTTI never needs `dynamic_pointer_cast`.
///
/// @par Thread safety
/// Stateless; safe from any thread.
struct ZV_REWARDS_EXPORT ZVRewardsNotification {
  /// `ZV_REWARDS_MANAGER_DID_FETCH_OFFERS_NOTIFICATION`: the delivered offers.
  static ZVOfferArrayPtr offers(const ZVNotification& notification);
  /// `ZV_REWARDS_MANAGER_DID_FETCH_ORDERS_NOTIFICATION`: the delivered orders.
  static ZVOrderArrayPtr orders(const ZVNotification& notification);
  /// `ZV_REWARDS_MANAGER_DID_PLACE_ORDER_NOTIFICATION`: the new order.
  static std::shared_ptr<ZVOrder> order(const ZVNotification& notification);
  /// `ZV_REWARDS_MANAGER_DID_FETCH_SKILL_QUESTION_NOTIFICATION`: the question.
  static std::shared_ptr<ZVSkillQuestion> skillQuestion(const ZVNotification& notification);
  /// `ZV_REWARDS_MANAGER_DID_ANSWER_SKILL_QUESTION_NOTIFICATION`: the verdict.
  static std::shared_ptr<ZVSkillChallenge> skillChallenge(const ZVNotification& notification);
  /// `ZV_REWARDS_MANAGER_REQUEST_DID_FAIL_NOTIFICATION` and
  /// `ZV_REWARDS_MANAGER_VALIDATION_DID_FAIL_NOTIFICATION`: the error.
  static ZVErrorPtr error(const ZVNotification& notification);
  /// `ZV_USER_MANAGER_DID_UPDATE_USER_INTERNAL`: the user's new balances.
  static std::optional<int64_t> availablePoints(const ZVNotification& notification);
  static std::optional<int64_t> testPoints(const ZVNotification& notification);
};
