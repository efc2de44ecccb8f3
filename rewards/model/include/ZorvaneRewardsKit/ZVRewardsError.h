// The error of the rewards module.
#pragma once

#include <memory>
#include <string>

#include <ZorvaneCoreKit/ZVError.h>
#include <ZorvaneRewardsKit/ZVRewardsExport.h>

/// A `ZVError` whose `message` is composed from a failed answer's body.
class ZV_REWARDS_EXPORT ZVRewardsError final : public ZVError {
 public:
  /// `initWithType:result:`: keeps `result` as `raw` and composes `message`:
  /// a non-empty string "message" wins; otherwise, for a non-empty dictionary
  /// "order", "Reward: " and its "base" texts joined by ", ", then a line feed
  /// and "User: <user_id>" when both parts are present; otherwise no message.
  /// Once the "base" texts pass 4 KiB, the rest is left out ("..."), and a
  /// container among them is cut to what room is left: so that a hostile
  /// answer cannot make the message many times larger than itself.
  ZVRewardsError(int64_t type, ZVDictionaryPtr result);
  /// `initWithType:code:message:`, used for failed argument checks.
  ZVRewardsError(int64_t type, std::string code, std::string message)
      : ZVError(type, std::move(code), std::move(message)) {}
};
