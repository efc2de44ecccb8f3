#include <ZorvaneRewardsKit/ZVOffer.h>

#include <algorithm>
#include <string_view>
#include <utility>
#include <vector>

#include "ZVRecordMemory.h"
#include "base/ZVStrings.h"

#include "base/ZVUtil.h"
#include "json/ZVJSONAccess.h"
#include "json/ZVJSONWrite.h"
#include "json/ZVKeyList.h"

namespace {

// Every offer without options shares this one: the list is immutable, and a
// catalogue of many plain offers then costs no allocation for it.
const ZVOfferArrayPtr& emptyOptions() {
  // Never destroyed: records may still be built on the SDK's threads while
  // the process exits.
  static const ZVOfferArrayPtr& empty =
      *new ZVOfferArrayPtr(std::make_shared<const ZVOfferArray>());
  return empty;
}

const std::string* optionalText(const std::optional<std::string>& text) {
  return text ? &*text : nullptr;
}

}  // namespace

std::shared_ptr<ZVOffer> ZVOffer::initMutableWithDictionary(const ZVDictionaryPtr& dictionary) {
  auto offer = zv_detail::makeRecord<ZVOffer>();
  if (!dictionary) return offer;
  ZVMutableDictionary& d = *dictionary;

  // The keys the record consumes, taken in one pass; values are moved, not copied.
  ZV_KEY_LIST(kKeys, "id", "name", "type", "description", "points", "start_time", "end_time",
              "weight", "featured", "requires_skills_test", "tier", "logo", "status", "data");
  ZVJSONValue v[14];
  zv_detail::takeObjectsForKeys(d, kKeys, v);
  offer->offerID_ = ZVUtil::nilOrStringFromObject(v[0]);
  offer->name_ = std::move(v[1]);
  offer->type_ = std::move(v[2]);
  offer->details_ = std::move(v[3]);
  offer->descriptionText_ = offer->details_;
  offer->points_ = ZVUtil::longLongValue(v[4]);
  offer->startTime_ = std::move(v[5]);
  offer->endTime_ = std::move(v[6]);
  // Unlike points, weight goes through the 32-bit conversion: a larger number wraps.
  offer->weight_ = ZVUtil::intValue(v[7]);
  offer->isFeatured_ = ZVUtil::boolValue(v[8]);
  offer->isSkillChallengeRequired_ = ZVUtil::boolValue(v[9]);
  offer->tier_ = std::move(v[10]);
  offer->logoURL_ = std::move(v[11]);
  offer->status_ = statusForString(v[12]);
  offer->data_ = std::move(v[13]);

  // "options" stays in the dictionary so that extras shows what the option
  // records left of their objects.
  const ZVJSONValue* options = d.find("options");
  offer->options_ = options ? parseOptions(*options) : emptyOptions();

  offer->extras_ = d.prune();
  return offer;
}

std::shared_ptr<ZVOffer> ZVOffer::initMutableWithDictionary(const ZVJSONValue& value) {
  return initMutableWithDictionary(value.dictionary());
}

ZVOfferArrayPtr ZVOffer::parseOptions(const ZVJSONValue& value) {
  // Held by value: the option records below edit their own objects in place.
  const ZVArrayPtr options = value.array();
  if (!options) return emptyOptions();
  // Elements that are not objects are skipped: a record for each would cost
  // hundreds of bytes for every two bytes of a hostile answer.
  const auto objects = static_cast<size_t>(std::count_if(
      options->begin(), options->end(), [](const ZVJSONValue& v) { return v.isDictionary(); }));
  if (objects == 0) return emptyOptions();
  std::vector<std::shared_ptr<ZVOffer>> records;
  records.reserve(objects);
  for (const ZVJSONValue& element : *options)
    if (const ZVDictionaryPtr* option = ZVJSONAccess::dictionaryIn(element))
      records.push_back(initMutableWithDictionary(*option));
  return zv_detail::makeRecord<const ZVOfferArray>(std::move(records));
}

int64_t ZVOffer::statusForString(const ZVJSONValue& status) {
  const auto text = status.string();
  if (!text) return ZVOfferStatusUnknown;
  const std::string_view s = *text;
  if (s == "available") return ZVOfferStatusAvailable;
  if (s == "verification_required") return ZVOfferStatusVerificationRequired;
  if (s == "registration_required") return ZVOfferStatusRegistrationRequired;
  if (s == "not_qualified") return ZVOfferStatusNotQualified;
  if (s == "insufficient_points") return ZVOfferStatusInsufficientPoints;
  if (s == "user_required") return ZVOfferStatusUserRequired;
  return ZVOfferStatusUnknown;
}

std::string ZVOffer::stringForStatus(int64_t status) {
  switch (status) {
    case ZVOfferStatusAvailable:
      return "available";
    case ZVOfferStatusVerificationRequired:
      return "verification_required";
    case ZVOfferStatusNotQualified:
      return "not_qualified";
    case ZVOfferStatusInsufficientPoints:
      return "insufficient_points";
    case ZVOfferStatusUserRequired:
      return "user_required";
    case ZVOfferStatusRegistrationRequired:
      return "registration_required";
    default:
      return "unknown";
  }
}

std::string ZVOffer::description() const {
  return zv_detail::strCat("\rOffer ID: ", ZVDescribe(optionalText(offerID_)),
                           "\rType: ", zv_detail::describeField(type_),
                           "\rName: ", zv_detail::describeField(name_),
                           "\rDetails: ", zv_detail::describeField(details_),
                           "\rStatus: ", stringForStatus(status_), "\rPoints: ", points_);
}
