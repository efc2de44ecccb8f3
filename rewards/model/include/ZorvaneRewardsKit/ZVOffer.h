// An offer of the rewards catalogue.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <ZorvaneCoreKit/ZVJSON.h>
#include <ZorvaneCoreKit/ZVObject.h>
#include <ZorvaneRewardsKit/ZVRewardsExport.h>

class ZVOffer;
/// An immutable list of offers: the catalogue, or an offer's options.
using ZVOfferArray = ZVArray<ZVOffer>;
using ZVOfferArrayPtr = std::shared_ptr<const ZVOfferArray>;

/// Offer status. The values are part of the interface.
enum ZVOfferStatus : int64_t {
  ZVOfferStatusUnknown = 0,               ///< anything else; printed "unknown"
  ZVOfferStatusAvailable = 1,             ///< "available"
  ZVOfferStatusVerificationRequired = 2,  ///< "verification_required"
  ZVOfferStatusNotQualified = 3,          ///< "not_qualified"
  ZVOfferStatusInsufficientPoints = 4,    ///< "insufficient_points"
  ZVOfferStatusUserRequired = 5,          ///< "user_required"
  ZVOfferStatusRegistrationRequired = 6,  ///< "registration_required"
};

/// One reward offer, built from an offer JSON object. A plain value holder:
/// every field has a getter and a setter, and nothing is validated.
///
/// The offers handler builds one record per element of the answer's "offers"
/// that is a JSON object, options included; an element of another type
/// (outside the contract) is skipped and costs no record. One answer may
/// produce at most `maxResponseBytes / 128` records, options at every depth
/// included (see `ZVConfiguration::maxResponseBytes`).
///
/// Fields "stored as they stand" (`name`, `type`, `details`, `descriptionText`,
/// `startTime`, `endTime`, `tier`, `logoURL`, `data`) are `ZVJSONValue`s: they
/// hold whatever JSON value stood under their key (normally a string; read it
/// with `.string()`), or nil when the key was absent.
///
/// Memory: the records of an answer that makes 8 or more (options included)
/// share one block, freed when the last of them is gone: a record kept after
/// its list keeps the others' memory too (a few hundred bytes a record), as
/// a kept field keeps its answer's parsed values (see `ZVJSONParse`).
///
/// @par Thread safety
/// No locking. The SDK builds a record on its I/O thread and never changes it
/// afterwards; a host that sets fields must not read them concurrently.
class ZV_REWARDS_EXPORT ZVOffer final : public ZVObject {
 public:
  ZVOffer() = default;

  /// `initMutableWithDictionary:`. Takes the keys it consumes out of
  /// `dictionary` in place (options included) and keeps the pruned rest as
  /// `extras`; "options" is read without being removed, so `extras` holds the
  /// options' objects stripped of what the option records consumed. A null
  /// dictionary gives an empty record whose `options` is null.
  static std::shared_ptr<ZVOffer> initMutableWithDictionary(const ZVDictionaryPtr& dictionary);
  /// The same for any JSON value: a value that is not a dictionary gives the
  /// empty record of a null dictionary. (Lists of offers skip such elements
  /// instead: see `parseOptions`.)
  static std::shared_ptr<ZVOffer> initMutableWithDictionary(const ZVJSONValue& value);

  /// `parseOptions:`: one record per element that is a JSON object, in
  /// order; never null. Other elements (outside the contract) are skipped. A
  /// value that is not an array (nil, JSON null, a string...) gives an empty
  /// array. Options nest to any depth the parser accepts.
  static ZVOfferArrayPtr parseOptions(const ZVJSONValue& options);

  /// `statusForString:`: exact, case-sensitive; a value that is not a string gives 0.
  static int64_t statusForString(const ZVJSONValue& status);
  /// `stringForStatus:`: "unknown" for every value outside 1 to 6.
  static std::string stringForStatus(int64_t status);

  /// "\rOffer ID: %@\rType: %@\rName: %@\rDetails: %@\rStatus: %@\rPoints: %ld".
  std::string description() const override;

  /// From "id", through `ZVUtil::nilOrStringFromObject`.
  const std::optional<std::string>& offerID() const { return offerID_; }
  void setOfferID(std::optional<std::string> v) { offerID_ = std::move(v); }
  const ZVJSONValue& name() const { return name_; }
  void setName(ZVJSONValue v) { name_ = std::move(v); }
  /// The service's offer type word, not interpreted.
  const ZVJSONValue& type() const { return type_; }
  void setType(ZVJSONValue v) { type_ = std::move(v); }
  /// From "description".
  const ZVJSONValue& details() const { return details_; }
  void setDetails(ZVJSONValue v) { details_ = std::move(v); }
  /// The same value as `details` at build time; set independently afterwards.
  const ZVJSONValue& descriptionText() const { return descriptionText_; }
  void setDescriptionText(ZVJSONValue v) { descriptionText_ = std::move(v); }
  /// 64-bit integer value of "points". Like `weight` and the booleans, a value
  /// that is neither a number nor text (null, a container) reads as 0 / false.
  int64_t points() const { return points_; }
  void setPoints(int64_t v) { points_ = v; }
  const ZVJSONValue& startTime() const { return startTime_; }
  void setStartTime(ZVJSONValue v) { startTime_ = std::move(v); }
  const ZVJSONValue& endTime() const { return endTime_; }
  void setEndTime(ZVJSONValue v) { endTime_ = std::move(v); }
  /// 32-bit integer value of "weight", sign-extended.
  int64_t weight() const { return weight_; }
  void setWeight(int64_t v) { weight_ = v; }
  /// Boolean value of "featured".
  bool isFeatured() const { return isFeatured_; }
  void setIsFeatured(bool v) { isFeatured_ = v; }
  /// Boolean value of "requires_skills_test": the skill-testing question must
  /// be answered before ordering.
  bool isSkillChallengeRequired() const { return isSkillChallengeRequired_; }
  void setIsSkillChallengeRequired(bool v) { isSkillChallengeRequired_ = v; }
  const ZVJSONValue& tier() const { return tier_; }
  void setTier(ZVJSONValue v) { tier_ = std::move(v); }
  /// From "logo": a URL as text, not parsed.
  const ZVJSONValue& logoURL() const { return logoURL_; }
  void setLogoURL(ZVJSONValue v) { logoURL_ = std::move(v); }
  /// A `ZVOfferStatus` value; a "status" that is not a string (a number, JSON
  /// null, a container) gives 0.
  int64_t status() const { return status_; }
  void setStatus(int64_t v) { status_ = v; }
  /// "data" as it stands: the very object of the input.
  const ZVJSONValue& data() const { return data_; }
  void setData(ZVJSONValue v) { data_ = std::move(v); }
  /// The option records; null only for the record of a null dictionary. An
  /// "options" that is absent or not an array gives an empty array; an element
  /// that is not an object is skipped (it stays in `extras`). The list of an
  /// offer without options may be shared between records.
  const ZVOfferArrayPtr& options() const { return options_; }
  void setOptions(ZVOfferArrayPtr v) { options_ = std::move(v); }
  /// The keys the record did not consume (unknown keys, "options").
  const ZVDictionaryPtr& extras() const { return extras_; }
  void setExtras(ZVDictionaryPtr v) { extras_ = std::move(v); }

 private:
  std::optional<std::string> offerID_;
  ZVJSONValue name_, type_, details_, descriptionText_;
  int64_t points_ = 0;
  ZVJSONValue startTime_, endTime_;
  int64_t weight_ = 0;
  bool isFeatured_ = false;
  bool isSkillChallengeRequired_ = false;
  ZVJSONValue tier_, logoURL_;
  int64_t status_ = ZVOfferStatusUnknown;
  ZVJSONValue data_;
  ZVOfferArrayPtr options_;
  ZVDictionaryPtr extras_;
};
