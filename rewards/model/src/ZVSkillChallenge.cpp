#include <ZorvaneRewardsKit/ZVSkillChallenge.h>

#include "base/ZVStrings.h"

#include "base/ZVUtil.h"
#include "json/ZVJSONWrite.h"

std::shared_ptr<ZVSkillChallenge> ZVSkillChallenge::initMutableWithDictionary(
    const ZVDictionaryPtr& dictionary) {
  auto challenge = std::make_shared<ZVSkillChallenge>();
  if (!dictionary) return challenge;
  challenge->challengeID_ =
      ZVUtil::nilOrStringFromObject(dictionary->getAndRemoveObjectForKey("id"));
  // The service's verdict word is handed on untouched, whatever its type.
  challenge->status_ = dictionary->getAndRemoveObjectForKey("status");
  challenge->extras_ = dictionary->prune();
  return challenge;
}

std::shared_ptr<ZVSkillChallenge> ZVSkillChallenge::initMutableWithDictionary(
    const ZVJSONValue& value) {
  return initMutableWithDictionary(value.dictionary());
}

std::string ZVSkillChallenge::description() const {
  return zv_detail::strCat("\rChallenge ID: ", ZVDescribe(challengeID_ ? &*challengeID_ : nullptr),
                           "\rStatus: ", zv_detail::describeField(status_));
}
