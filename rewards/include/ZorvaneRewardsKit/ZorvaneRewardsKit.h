// Umbrella header of the rewards module.
#pragma once

#include <ZorvaneCoreKit/ZorvaneCoreKit.h>
#include <ZorvaneRewardsKit/ZVOffer.h>
#include <ZorvaneRewardsKit/ZVOrder.h>
#include <ZorvaneRewardsKit/ZVOrderRequest.h>
#include <ZorvaneRewardsKit/ZVRewardsConstants.h>
#include <ZorvaneRewardsKit/ZVRewardsError.h>
#include <ZorvaneRewardsKit/ZVRewardsManager.h>
#include <ZorvaneRewardsKit/ZVRewardsNotifications.h>
#include <ZorvaneRewardsKit/ZVSkillChallenge.h>
#include <ZorvaneRewardsKit/ZVSkillQuestion.h>
