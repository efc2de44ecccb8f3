// The skill-testing question some offers require.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include <ZorvaneCoreKit/ZVJSON.h>
#include <ZorvaneCoreKit/ZVObject.h>
#include <ZorvaneRewardsKit/ZVRewardsExport.h>

/// A question, built from the "challenge" object of the question answer:
/// {"skills_test_question": {"id": ..., "question": ...}, ...}.
///
/// @par Thread safety
/// No locking; see `ZVOffer`.
class ZV_REWARDS_EXPORT ZVSkillQuestion final : public ZVObject {
 public:
  ZVSkillQuestion() = default;
  /// Takes "id" and "question" out of the nested "skills_test_question"
  /// object (which stays in `dictionary`), and keeps the pruned outer
  /// dictionary as `extras`. A null dictionary gives an empty record. A
  /// "skills_test_question" that is not an object counts as absent: both
  /// fields stay empty and the value stays in `extras` as it was.
  static std::shared_ptr<ZVSkillQuestion> initMutableWithDictionary(
      const ZVDictionaryPtr& dictionary);
  static std::shared_ptr<ZVSkillQuestion> initMutableWithDictionary(const ZVJSONValue& value);

  /// "\rQuestion ID: %@\rQuestion: %@".
  std::string description() const override;

  const std::optional<std::string>& questionID() const { return questionID_; }
  void setQuestionID(std::optional<std::string> v) { questionID_ = std::move(v); }
  /// The question as it stood (normally text).
  const ZVJSONValue& question() const { return question_; }
  void setQuestion(ZVJSONValue v) { question_ = std::move(v); }
  const ZVDictionaryPtr& extras() const { return extras_; }
  void setExtras(ZVDictionaryPtr v) { extras_ = std::move(v); }

 private:
  std::optional<std::string> questionID_;
  ZVJSONValue question_;
  ZVDictionaryPtr extras_;
};
