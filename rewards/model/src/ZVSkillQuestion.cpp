#include <ZorvaneRewardsKit/ZVSkillQuestion.h>

#include "base/ZVStrings.h"

#include "base/ZVUtil.h"
#include "json/ZVJSONWrite.h"

std::shared_ptr<ZVSkillQuestion> ZVSkillQuestion::initMutableWithDictionary(
    const ZVDictionaryPtr& dictionary) {
  auto question = std::make_shared<ZVSkillQuestion>();
  if (!dictionary) return question;

  // The inner object stays in the outer one: extras is the outer dictionary,
  // and through it the host reaches whatever the question object had besides.
  const ZVJSONValue* inner = dictionary->find("skills_test_question");
  if (ZVDictionaryPtr q = inner ? inner->dictionary() : nullptr) {
    question->questionID_ = ZVUtil::nilOrStringFromObject(q->getAndRemoveObjectForKey("id"));
    question->question_ = q->getAndRemoveObjectForKey("question");
  }
  question->extras_ = dictionary->prune();
  return question;
}

std::shared_ptr<ZVSkillQuestion> ZVSkillQuestion::initMutableWithDictionary(
    const ZVJSONValue& value) {
  return initMutableWithDictionary(value.dictionary());
}

std::string ZVSkillQuestion::description() const {
  return zv_detail::strCat("\rQuestion ID: ", ZVDescribe(questionID_ ? &*questionID_ : nullptr),
                           "\rQuestion: ", zv_detail::describeField(question_));
}
