// Getters of the read-only records: offers, orders, their users and
// addresses, the skill question and challenge, errors, and the lists.
#include <ZorvaneCoreKit/ZVError.h>
#include <ZorvaneRewardsKit/ZVOffer.h>
#include <ZorvaneRewardsKit/ZVOrder.h>
#include <ZorvaneRewardsKit/ZVSkillChallenge.h>
#include <ZorvaneRewardsKit/ZVSkillQuestion.h>

#include "Boundary.h"
#include "RecordJSON.h"

using namespace zvr;

namespace {

// Each getter reads one field of a record of type T under the table lock.
template <class T>
zvr_result idText(const void* h, Kind kind, int key, const char** out,
                  const std::optional<std::string>& (T::*field)() const) {
  return readRecord<T>(h, kind, out,
                       [&](const T& record, Slot& slot, const char** o) -> zvr_result {
                         return optionalText(slot, kKeyField + key, (record.*field)(), o);
                       });
}

template <class T>
zvr_result valueText(const void* h, Kind kind, int key, const char** out,
                     const ZVJSONValue& (T::*field)() const) {
  return readRecord<T>(h, kind, out,
                       [&](const T& record, Slot& slot, const char** o) -> zvr_result {
                         return jsonValueText(slot, kKeyField + key, (record.*field)(), o);
                       });
}

template <class T, class Out, class Value>
zvr_result number(const void* h, Kind kind, Out* out, Value (T::*field)() const) {
  return readRecord<T>(h, kind, out, [&](const T& record, Slot&, Out* o) -> zvr_result {
    *o = static_cast<Out>((record.*field)());
    return ZVR_OK;
  });
}

template <class T, class Fn>
zvr_result wholeJSON(const void* h, Kind kind, const char** out, Fn toJSON) {
  return readRecord<T>(h, kind, out,
                       [&](const T& record, Slot& slot, const char** o) -> zvr_result {
                         return rawJSON(slot, kKeyJSON, toJSON(record), o);
                       });
}

template <class T>
zvr_result description(const void* h, Kind kind, const char** out) {
  return readRecord<T>(h, kind, out, [](const T& record, Slot& slot, const char** o) -> zvr_result {
    *o = slot.keep(kKeyDescription, record.description());
    return ZVR_OK;
  });
}

// A field (one of the zvr_*_field values) as raw JSON; `pick` gives its value
// or nothing for an unknown field.
template <class T, class Pick>
zvr_result fieldJSON(const void* h, Kind kind, int32_t field, const char** out, Pick pick) {
  return readRecord<T>(h, kind, out,
                       [&](const T& record, Slot& slot, const char** o) -> zvr_result {
                         const std::optional<ZVJSONValue> value = pick(record, field);
                         if (!value) return ZVR_E_INVALID_ARGUMENT;
                         return rawJSON(slot, kKeyFieldJSON + field, *value, o);
                       });
}

// A nested record as a new handle of its own.
template <class T, class H, class Child>
zvr_result child(const void* h, Kind kind, H* out, Kind childKind,
                 const std::shared_ptr<Child>& (T::*field)() const) {
  return readRecord<T>(h, kind, out, [&](const T& record, Slot&, H* o) -> zvr_result {
    const auto& value = (record.*field)();
    *o = static_cast<H>(HandleTable::shared().issueLocked(
        childKind, std::const_pointer_cast<std::remove_const_t<Child>>(value)));
    return ZVR_OK;
  });
}

template <class List>
zvr_result listCount(const void* h, Kind kind, uint32_t* out) {
  return readRecord<List>(h, kind, out, [](const List& list, Slot&, uint32_t* o) {
    *o = static_cast<uint32_t>(list.size());
    return ZVR_OK;
  });
}

template <class List, class H>
zvr_result listAt(const void* h, Kind kind, uint32_t index, H* out, Kind itemKind) {
  return readRecord<List>(h, kind, out, [&](const List& list, Slot&, H* o) -> zvr_result {
    if (index >= list.size()) return ZVR_E_OUT_OF_RANGE;
    *o = static_cast<H>(HandleTable::shared().issueLocked(itemKind, list[index]));
    return ZVR_OK;
  });
}

}  // namespace

extern "C" {

// ---- Errors ------------------------------------------------------------------

zvr_result zvr_error_get_type(zvr_error error, int64_t* out) {
  return number<ZVError>(error, Kind::Error, out, &ZVError::type);
}
zvr_result zvr_error_get_code(zvr_error error, const char** out) {
  return readRecord<ZVError>(error, Kind::Error, out,
                             [](const ZVError& e, Slot& slot, const char** o) -> zvr_result {
                               if (!e.code().empty()) *o = slot.keep(kKeyField + 1, e.code());
                               return ZVR_OK;
                             });
}
zvr_result zvr_error_get_message(zvr_error error, const char** out) {
  return readRecord<ZVError>(error, Kind::Error, out,
                             [](const ZVError& e, Slot& slot, const char** o) -> zvr_result {
                               return optionalText(slot, kKeyField + 2, e.message(), o);
                             });
}
zvr_result zvr_error_get_http_status(zvr_error error, int32_t* out) {
  return number<ZVError>(error, Kind::Error, out, &ZVError::httpStatus);
}
zvr_result zvr_error_get_raw_json(zvr_error error, const char** out) {
  return readRecord<ZVError>(error, Kind::Error, out,
                             [](const ZVError& e, Slot& slot, const char** o) -> zvr_result {
                               return rawJSON(slot, kKeyJSON, ZVJSONValue(e.raw()), o);
                             });
}
zvr_result zvr_error_get_description(zvr_error error, const char** out) {
  return description<ZVError>(error, Kind::Error, out);
}
zvr_result zvr_error_get_attempts(zvr_error error, int32_t* out) {
  return number<ZVError>(error, Kind::Error, out, &ZVError::attempts);
}

// ---- Offers ------------------------------------------------------------------

zvr_result zvr_offer_get_id(zvr_offer offer, const char** out) {
  return idText<ZVOffer>(offer, Kind::Offer, 0, out, &ZVOffer::offerID);
}
zvr_result zvr_offer_get_name(zvr_offer offer, const char** out) {
  return valueText<ZVOffer>(offer, Kind::Offer, ZVR_OFFER_FIELD_NAME, out, &ZVOffer::name);
}
zvr_result zvr_offer_get_type(zvr_offer offer, const char** out) {
  return valueText<ZVOffer>(offer, Kind::Offer, ZVR_OFFER_FIELD_TYPE, out, &ZVOffer::type);
}
zvr_result zvr_offer_get_details(zvr_offer offer, const char** out) {
  return valueText<ZVOffer>(offer, Kind::Offer, ZVR_OFFER_FIELD_DETAILS, out, &ZVOffer::details);
}
zvr_result zvr_offer_get_description_text(zvr_offer offer, const char** out) {
  return valueText<ZVOffer>(offer, Kind::Offer, ZVR_OFFER_FIELD_DESCRIPTION_TEXT, out,
                            &ZVOffer::descriptionText);
}
zvr_result zvr_offer_get_points(zvr_offer offer, int64_t* out) {
  return number<ZVOffer>(offer, Kind::Offer, out, &ZVOffer::points);
}
zvr_result zvr_offer_get_start_time(zvr_offer offer, const char** out) {
  return valueText<ZVOffer>(offer, Kind::Offer, ZVR_OFFER_FIELD_START_TIME, out,
                            &ZVOffer::startTime);
}
zvr_result zvr_offer_get_end_time(zvr_offer offer, const char** out) {
  return valueText<ZVOffer>(offer, Kind::Offer, ZVR_OFFER_FIELD_END_TIME, out, &ZVOffer::endTime);
}
zvr_result zvr_offer_get_weight(zvr_offer offer, int64_t* out) {
  return number<ZVOffer>(offer, Kind::Offer, out, &ZVOffer::weight);
}
zvr_result zvr_offer_get_is_featured(zvr_offer offer, int32_t* out) {
  return number<ZVOffer>(offer, Kind::Offer, out, &ZVOffer::isFeatured);
}
zvr_result zvr_offer_get_is_skill_challenge_required(zvr_offer offer, int32_t* out) {
  return number<ZVOffer>(offer, Kind::Offer, out, &ZVOffer::isSkillChallengeRequired);
}
zvr_result zvr_offer_get_tier(zvr_offer offer, const char** out) {
  return valueText<ZVOffer>(offer, Kind::Offer, ZVR_OFFER_FIELD_TIER, out, &ZVOffer::tier);
}
zvr_result zvr_offer_get_logo_url(zvr_offer offer, const char** out) {
  return valueText<ZVOffer>(offer, Kind::Offer, ZVR_OFFER_FIELD_LOGO_URL, out, &ZVOffer::logoURL);
}
zvr_result zvr_offer_get_status(zvr_offer offer, int64_t* out) {
  return number<ZVOffer>(offer, Kind::Offer, out, &ZVOffer::status);
}
zvr_result zvr_offer_get_status_text(zvr_offer offer, const char** out) {
  return readRecord<ZVOffer>(offer, Kind::Offer, out,
                             [](const ZVOffer& o, Slot& slot, const char** t) -> zvr_result {
                               *t = slot.keep(kKeyStatusText, ZVOffer::stringForStatus(o.status()));
                               return ZVR_OK;
                             });
}
zvr_result zvr_offer_get_options(zvr_offer offer, zvr_offer_list* out) {
  return child<ZVOffer>(offer, Kind::Offer, out, Kind::OfferList, &ZVOffer::options);
}
zvr_result zvr_offer_get_field_json(zvr_offer offer, int32_t field, const char** out) {
  return fieldJSON<ZVOffer>(offer, Kind::Offer, field, out,
                            [](const ZVOffer& o, int32_t f) -> std::optional<ZVJSONValue> {
                              switch (f) {
                                case ZVR_OFFER_FIELD_NAME:
                                  return o.name();
                                case ZVR_OFFER_FIELD_TYPE:
                                  return o.type();
                                case ZVR_OFFER_FIELD_DETAILS:
                                  return o.details();
                                case ZVR_OFFER_FIELD_DESCRIPTION_TEXT:
                                  return o.descriptionText();
                                case ZVR_OFFER_FIELD_START_TIME:
                                  return o.startTime();
                                case ZVR_OFFER_FIELD_END_TIME:
                                  return o.endTime();
                                case ZVR_OFFER_FIELD_TIER:
                                  return o.tier();
                                case ZVR_OFFER_FIELD_LOGO_URL:
                                  return o.logoURL();
                                case ZVR_OFFER_FIELD_DATA:
                                  return o.data();
                                case ZVR_OFFER_FIELD_EXTRAS:
                                  return ZVJSONValue(o.extras());
                                default:
                                  return std::nullopt;
                              }
                            });
}
zvr_result zvr_offer_get_json(zvr_offer offer, const char** out) {
  return wholeJSON<ZVOffer>(offer, Kind::Offer, out, offerJSON);
}
zvr_result zvr_offer_get_description(zvr_offer offer, const char** out) {
  return description<ZVOffer>(offer, Kind::Offer, out);
}

zvr_result zvr_offer_list_get_count(zvr_offer_list list, uint32_t* out) {
  return listCount<ZVOfferArray>(list, Kind::OfferList, out);
}
zvr_result zvr_offer_list_get_at(zvr_offer_list list, uint32_t index, zvr_offer* out) {
  return listAt<ZVOfferArray>(list, Kind::OfferList, index, out, Kind::Offer);
}
zvr_result zvr_offer_list_get_json(zvr_offer_list list, const char** out) {
  return wholeJSON<ZVOfferArray>(list, Kind::OfferList, out, offerListJSON);
}

// ---- Orders ------------------------------------------------------------------

zvr_result zvr_order_get_id(zvr_order order, const char** out) {
  return idText<ZVOrder>(order, Kind::Order, 0, out, &ZVOrder::orderID);
}
zvr_result zvr_order_get_offer_type(zvr_order order, const char** out) {
  return idText<ZVOrder>(order, Kind::Order, 50, out, &ZVOrder::offerType);
}
zvr_result zvr_order_get_user_id(zvr_order order, const char** out) {
  return idText<ZVOrder>(order, Kind::Order, 51, out, &ZVOrder::userID);
}
zvr_result zvr_order_get_external_id(zvr_order order, const char** out) {
  return idText<ZVOrder>(order, Kind::Order, 52, out, &ZVOrder::externalID);
}
zvr_result zvr_order_get_offer_id(zvr_order order, const char** out) {
  return idText<ZVOrder>(order, Kind::Order, 53, out, &ZVOrder::offerID);
}
zvr_result zvr_order_get_user(zvr_order order, zvr_order_user* out) {
  return child<ZVOrder>(order, Kind::Order, out, Kind::OrderUser, &ZVOrder::user);
}
zvr_result zvr_order_get_quantity(zvr_order order, int64_t* out) {
  return number<ZVOrder>(order, Kind::Order, out, &ZVOrder::quantity);
}
zvr_result zvr_order_get_points(zvr_order order, int64_t* out) {
  return number<ZVOrder>(order, Kind::Order, out, &ZVOrder::points);
}
zvr_result zvr_order_get_created_time(zvr_order order, const char** out) {
  return valueText<ZVOrder>(order, Kind::Order, ZVR_ORDER_FIELD_CREATED_TIME, out,
                            &ZVOrder::createdTime);
}
zvr_result zvr_order_get_name(zvr_order order, const char** out) {
  return valueText<ZVOrder>(order, Kind::Order, ZVR_ORDER_FIELD_NAME, out, &ZVOrder::name);
}
zvr_result zvr_order_get_logo_url(zvr_order order, const char** out) {
  return valueText<ZVOrder>(order, Kind::Order, ZVR_ORDER_FIELD_LOGO_URL, out, &ZVOrder::logoURL);
}
zvr_result zvr_order_get_details(zvr_order order, const char** out) {
  return valueText<ZVOrder>(order, Kind::Order, ZVR_ORDER_FIELD_DETAILS, out, &ZVOrder::details);
}
zvr_result zvr_order_get_description_text(zvr_order order, const char** out) {
  return valueText<ZVOrder>(order, Kind::Order, ZVR_ORDER_FIELD_DESCRIPTION_TEXT, out,
                            &ZVOrder::descriptionText);
}
zvr_result zvr_order_get_shipping_address(zvr_order order, zvr_address* out) {
  return child<ZVOrder>(order, Kind::Order, out, Kind::Address, &ZVOrder::shippingAddress);
}
zvr_result zvr_order_get_status(zvr_order order, int64_t* out) {
  return number<ZVOrder>(order, Kind::Order, out, &ZVOrder::status);
}
zvr_result zvr_order_get_status_text(zvr_order order, const char** out) {
  return readRecord<ZVOrder>(order, Kind::Order, out,
                             [](const ZVOrder& o, Slot& slot, const char** t) -> zvr_result {
                               *t = slot.keep(kKeyStatusText, o.stringForCurrentStatus());
                               return ZVR_OK;
                             });
}
zvr_result zvr_order_get_field_json(zvr_order order, int32_t field, const char** out) {
  return fieldJSON<ZVOrder>(order, Kind::Order, field, out,
                            [](const ZVOrder& o, int32_t f) -> std::optional<ZVJSONValue> {
                              switch (f) {
                                case ZVR_ORDER_FIELD_CREATED_TIME:
                                  return o.createdTime();
                                case ZVR_ORDER_FIELD_NAME:
                                  return o.name();
                                case ZVR_ORDER_FIELD_LOGO_URL:
                                  return o.logoURL();
                                case ZVR_ORDER_FIELD_DETAILS:
                                  return o.details();
                                case ZVR_ORDER_FIELD_DESCRIPTION_TEXT:
                                  return o.descriptionText();
                                case ZVR_ORDER_FIELD_DATA:
                                  return o.data();
                                case ZVR_ORDER_FIELD_EXTRAS:
                                  return ZVJSONValue(o.extras());
                                default:
                                  return std::nullopt;
                              }
                            });
}
zvr_result zvr_order_get_json(zvr_order order, const char** out) {
  return wholeJSON<ZVOrder>(order, Kind::Order, out, orderJSON);
}
zvr_result zvr_order_get_description(zvr_order order, const char** out) {
  return description<ZVOrder>(order, Kind::Order, out);
}

zvr_result zvr_order_list_get_count(zvr_order_list list, uint32_t* out) {
  return listCount<ZVOrderArray>(list, Kind::OrderList, out);
}
zvr_result zvr_order_list_get_at(zvr_order_list list, uint32_t index, zvr_order* out) {
  return listAt<ZVOrderArray>(list, Kind::OrderList, index, out, Kind::Order);
}
zvr_result zvr_order_list_get_json(zvr_order_list list, const char** out) {
  return wholeJSON<ZVOrderArray>(list, Kind::OrderList, out, orderListJSON);
}

zvr_result zvr_order_user_get_id(zvr_order_user user, const char** out) {
  return idText<ZVOrderUser>(user, Kind::OrderUser, 0, out, &ZVOrderUser::userID);
}
zvr_result zvr_order_user_get_available_points(zvr_order_user user, int64_t* out) {
  return number<ZVOrderUser>(user, Kind::OrderUser, out, &ZVOrderUser::availablePoints);
}
zvr_result zvr_order_user_get_test_points(zvr_order_user user, int64_t* out) {
  return number<ZVOrderUser>(user, Kind::OrderUser, out, &ZVOrderUser::testPoints);
}
zvr_result zvr_order_user_get_json(zvr_order_user user, const char** out) {
  return wholeJSON<ZVOrderUser>(user, Kind::OrderUser, out, orderUserJSON);
}

// ---- Addresses (public fields, not getters) -----------------------------------

namespace {
zvr_result addressText(zvr_address address, int key, const char** out,
                       std::optional<std::string> ZVAddress::*field) {
  return readRecord<ZVAddress>(address, Kind::Address, out,
                               [&](const ZVAddress& a, Slot& slot, const char** o) -> zvr_result {
                                 return optionalText(slot, kKeyField + key, a.*field, o);
                               });
}
}  // namespace

zvr_result zvr_address_get_name(zvr_address a, const char** out) {
  return addressText(a, 1, out, &ZVAddress::name);
}
zvr_result zvr_address_get_street1(zvr_address a, const char** out) {
  return addressText(a, 2, out, &ZVAddress::street1);
}
zvr_result zvr_address_get_street2(zvr_address a, const char** out) {
  return addressText(a, 3, out, &ZVAddress::street2);
}
zvr_result zvr_address_get_city(zvr_address a, const char** out) {
  return addressText(a, 4, out, &ZVAddress::city);
}
zvr_result zvr_address_get_region(zvr_address a, const char** out) {
  return addressText(a, 5, out, &ZVAddress::region);
}
zvr_result zvr_address_get_postal_code(zvr_address a, const char** out) {
  return addressText(a, 6, out, &ZVAddress::postalCode);
}
zvr_result zvr_address_get_country(zvr_address a, const char** out) {
  return addressText(a, 7, out, &ZVAddress::country);
}
zvr_result zvr_address_get_phone(zvr_address a, const char** out) {
  return addressText(a, 8, out, &ZVAddress::phone);
}
zvr_result zvr_address_get_extras_json(zvr_address a, const char** out) {
  return readRecord<ZVAddress>(a, Kind::Address, out,
                               [](const ZVAddress& r, Slot& slot, const char** o) -> zvr_result {
                                 return rawJSON(slot, kKeyFieldJSON + 1, ZVJSONValue(r.extras), o);
                               });
}
zvr_result zvr_address_get_json(zvr_address a, const char** out) {
  return wholeJSON<ZVAddress>(a, Kind::Address, out, addressJSON);
}

// ---- Skill question and challenge ----------------------------------------------

zvr_result zvr_skill_question_get_id(zvr_skill_question q, const char** out) {
  return idText<ZVSkillQuestion>(q, Kind::SkillQuestion, 0, out, &ZVSkillQuestion::questionID);
}
zvr_result zvr_skill_question_get_question(zvr_skill_question q, const char** out) {
  return valueText<ZVSkillQuestion>(q, Kind::SkillQuestion, ZVR_SKILL_QUESTION_FIELD_QUESTION, out,
                                    &ZVSkillQuestion::question);
}
zvr_result zvr_skill_question_get_field_json(zvr_skill_question q, int32_t field,
                                             const char** out) {
  return fieldJSON<ZVSkillQuestion>(
      q, Kind::SkillQuestion, field, out,
      [](const ZVSkillQuestion& r, int32_t f) -> std::optional<ZVJSONValue> {
        if (f == ZVR_SKILL_QUESTION_FIELD_QUESTION) return r.question();
        if (f == ZVR_SKILL_QUESTION_FIELD_EXTRAS) return ZVJSONValue(r.extras());
        return std::nullopt;
      });
}
zvr_result zvr_skill_question_get_json(zvr_skill_question q, const char** out) {
  return wholeJSON<ZVSkillQuestion>(q, Kind::SkillQuestion, out, skillQuestionJSON);
}
zvr_result zvr_skill_question_get_description(zvr_skill_question q, const char** out) {
  return description<ZVSkillQuestion>(q, Kind::SkillQuestion, out);
}

zvr_result zvr_skill_challenge_get_id(zvr_skill_challenge c, const char** out) {
  return idText<ZVSkillChallenge>(c, Kind::SkillChallenge, 0, out, &ZVSkillChallenge::challengeID);
}
zvr_result zvr_skill_challenge_get_status(zvr_skill_challenge c, const char** out) {
  return valueText<ZVSkillChallenge>(c, Kind::SkillChallenge, ZVR_SKILL_CHALLENGE_FIELD_STATUS, out,
                                     &ZVSkillChallenge::status);
}
zvr_result zvr_skill_challenge_get_field_json(zvr_skill_challenge c, int32_t field,
                                              const char** out) {
  return fieldJSON<ZVSkillChallenge>(
      c, Kind::SkillChallenge, field, out,
      [](const ZVSkillChallenge& r, int32_t f) -> std::optional<ZVJSONValue> {
        if (f == ZVR_SKILL_CHALLENGE_FIELD_STATUS) return r.status();
        if (f == ZVR_SKILL_CHALLENGE_FIELD_EXTRAS) return ZVJSONValue(r.extras());
        return std::nullopt;
      });
}
zvr_result zvr_skill_challenge_get_json(zvr_skill_challenge c, const char** out) {
  return wholeJSON<ZVSkillChallenge>(c, Kind::SkillChallenge, out, skillChallengeJSON);
}
zvr_result zvr_skill_challenge_get_description(zvr_skill_challenge c, const char** out) {
  return description<ZVSkillChallenge>(c, Kind::SkillChallenge, out);
}

}  // extern "C"
