// The service's verdict on an answer to the skill-testing question.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include <ZorvaneCoreKit/ZVJSON.h>
#include <ZorvaneCoreKit/ZVObject.h>
#include <ZorvaneRewardsKit/ZVRewardsExport.h>

/// A challenge, built from the "challenge" object of the answer: {"id", "status"}.
/// Put its `challengeID` into `ZVOrderRequest::setChallengeID` to order an
/// offer that requires the question.
///
/// @par Thread safety
/// No locking; see `ZVOffer`.
class ZV_REWARDS_EXPORT ZVSkillChallenge final : public ZVObject {
 public:
  ZVSkillChallenge() = default;
  /// Takes "id" and "status" out of `dictionary`, keeps the pruned rest as
  /// `extras`. A null dictionary gives an empty record.
  static std::shared_ptr<ZVSkillChallenge> initMutableWithDictionary(
      const ZVDictionaryPtr& dictionary);
  static std::shared_ptr<ZVSkillChallenge> initMutableWithDictionary(const ZVJSONValue& value);

  /// "\rChallenge ID: %@\rStatus: %@".
  std::string description() const override;

  const std::optional<std::string>& challengeID() const { return challengeID_; }
  void setChallengeID(std::optional<std::string> v) { challengeID_ = std::move(v); }
  /// The service's status word, as it stood (not interpreted).
  const ZVJSONValue& status() const { return status_; }
  void setStatus(ZVJSONValue v) { status_ = std::move(v); }
  const ZVDictionaryPtr& extras() const { return extras_; }
  void setExtras(ZVDictionaryPtr v) { extras_ = std::move(v); }

 private:
  std::optional<std::string> challengeID_;
  ZVJSONValue status_;
  ZVDictionaryPtr extras_;
};
