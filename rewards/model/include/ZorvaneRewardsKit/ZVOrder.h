// An order (a redemption) and the user summary embedded in it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <ZorvaneCoreKit/ZVAddress.h>
#include <ZorvaneCoreKit/ZVJSON.h>
#include <ZorvaneCoreKit/ZVObject.h>
#include <ZorvaneRewardsKit/ZVRewardsExport.h>

/// Order status. The values are part of the interface.
enum ZVOrderStatus : int64_t {
  ZVOrderStatusUnknown = 0,          ///< anything else; printed "unknown"
  ZVOrderStatusApproved = 1,         ///< "approved"
  ZVOrderStatusRejected = 2,         ///< "rejected"
  ZVOrderStatusPendingApproval = 3,  ///< "pending_approval"
  ZVOrderStatusRedemptionError = 4,  ///< "redemption_error"
};

/// The user summary of an order: id and point balances after the order.
///
/// @par Thread safety
/// No locking; see `ZVOffer`.
class ZV_REWARDS_EXPORT ZVOrderUser final : public ZVObject {
 public:
  ZVOrderUser() = default;
  /// Takes "id", "available_points" and "test_points" out of `dictionary`;
  /// other keys stay there. Balances use the 32-bit conversion, sign-extended.
  /// A null dictionary (or a value that is not one) gives an empty record.
  static std::shared_ptr<ZVOrderUser> initMutableWithDictionary(const ZVDictionaryPtr& dictionary);
  static std::shared_ptr<ZVOrderUser> initMutableWithDictionary(const ZVJSONValue& value);

  /// "\rUser ID: %@\rAvailable points: %ld\rTest points: %ld".
  std::string description() const override;

  const std::optional<std::string>& userID() const { return userID_; }
  void setUserID(std::optional<std::string> v) { userID_ = std::move(v); }
  int64_t availablePoints() const { return availablePoints_; }
  void setAvailablePoints(int64_t v) { availablePoints_ = v; }
  int64_t testPoints() const { return testPoints_; }
  void setTestPoints(int64_t v) { testPoints_ = v; }

 private:
  std::optional<std::string> userID_;
  int64_t availablePoints_ = 0;
  int64_t testPoints_ = 0;
};

/// One order, built from an order JSON object (or a wrapper {"order": {...}}).
///
/// The orders handler builds one record per element of the answer's "orders"
/// that is a JSON object; an element of another type (outside the contract)
/// is skipped and costs no record. One answer may produce at most
/// `maxResponseBytes / 128` orders (see `ZVConfiguration::maxResponseBytes`).
/// The records of one answer share memory as offers do (see `ZVOffer`).
///
/// @par Thread safety
/// No locking; see `ZVOffer`.
class ZV_REWARDS_EXPORT ZVOrder final : public ZVObject {
 public:
  ZVOrder() = default;

  /// `initMutableWithDictionary:`. When `dictionary` holds a dictionary under
  /// "order", the fields come from that nested object; `extras` is always the
  /// pruned outer dictionary. "user" and "shipping_address" are read without
  /// being removed. A null dictionary (or a value that is not one) gives an
  /// empty record whose `user` is null; otherwise `user` is never null. A
  /// value under "order" that is not a dictionary (JSON null included) counts
  /// as absent: the fields then come from `dictionary` itself.
  static std::shared_ptr<ZVOrder> initMutableWithDictionary(const ZVDictionaryPtr& dictionary);
  static std::shared_ptr<ZVOrder> initMutableWithDictionary(const ZVJSONValue& value);

  /// `statusForString:`: exact, case-sensitive; a value that is not a string gives 0.
  static int64_t statusForString(const ZVJSONValue& status);
  /// `stringForStatus:`: "unknown" outside 1 to 4.
  static std::string stringForStatus(int64_t status);
  std::string stringForCurrentStatus() const { return stringForStatus(status_); }

  /// "Offer ID: %@\rOrder ID: %@ (Offer ID: %@)\rName: %@\rDetails: %@"
  /// "\rStatus: %@\rQuantity: %ld\rPoints: %ld": the offer id twice, on purpose.
  std::string description() const override;

  /// From "id".
  const std::optional<std::string>& orderID() const { return orderID_; }
  void setOrderID(std::optional<std::string> v) { orderID_ = std::move(v); }
  const std::optional<std::string>& offerType() const { return offerType_; }
  void setOfferType(std::optional<std::string> v) { offerType_ = std::move(v); }
  const std::optional<std::string>& userID() const { return userID_; }
  void setUserID(std::optional<std::string> v) { userID_ = std::move(v); }
  const std::optional<std::string>& externalID() const { return externalID_; }
  void setExternalID(std::optional<std::string> v) { externalID_ = std::move(v); }
  const std::optional<std::string>& offerID() const { return offerID_; }
  void setOfferID(std::optional<std::string> v) { offerID_ = std::move(v); }
  /// From "user"; a "user" that is absent or not an object gives an empty user.
  const std::shared_ptr<ZVOrderUser>& user() const { return user_; }
  void setUser(std::shared_ptr<ZVOrderUser> v) { user_ = std::move(v); }
  /// 32-bit integer value of "quantity", sign-extended. Here and for `points`
  /// and the user's balances, a value that is neither a number nor text gives 0.
  int64_t quantity() const { return quantity_; }
  void setQuantity(int64_t v) { quantity_ = v; }
  /// 32-bit integer value of "points", sign-extended.
  int64_t points() const { return points_; }
  void setPoints(int64_t v) { points_ = v; }
  /// "created_at" as it stands.
  const ZVJSONValue& createdTime() const { return createdTime_; }
  void setCreatedTime(ZVJSONValue v) { createdTime_ = std::move(v); }
  const ZVJSONValue& name() const { return name_; }
  void setName(ZVJSONValue v) { name_ = std::move(v); }
  const ZVJSONValue& logoURL() const { return logoURL_; }
  void setLogoURL(ZVJSONValue v) { logoURL_ = std::move(v); }
  /// From "description".
  const ZVJSONValue& details() const { return details_; }
  void setDetails(ZVJSONValue v) { details_ = std::move(v); }
  const ZVJSONValue& descriptionText() const { return descriptionText_; }
  void setDescriptionText(ZVJSONValue v) { descriptionText_ = std::move(v); }
  /// From "shipping_address"; null when the key was absent or not an object.
  const std::shared_ptr<ZVAddress>& shippingAddress() const { return shippingAddress_; }
  void setShippingAddress(std::shared_ptr<ZVAddress> v) { shippingAddress_ = std::move(v); }
  const ZVJSONValue& data() const { return data_; }
  void setData(ZVJSONValue v) { data_ = std::move(v); }
  /// A `ZVOrderStatus` value; a "status" that is not a string gives 0.
  int64_t status() const { return status_; }
  void setStatus(int64_t v) { status_ = v; }
  const ZVDictionaryPtr& extras() const { return extras_; }
  void setExtras(ZVDictionaryPtr v) { extras_ = std::move(v); }

 private:
  std::optional<std::string> orderID_, offerType_, userID_, externalID_, offerID_;
  std::shared_ptr<ZVOrderUser> user_;
  int64_t quantity_ = 0;
  int64_t points_ = 0;
  ZVJSONValue createdTime_, name_, logoURL_, details_, descriptionText_;
  std::shared_ptr<ZVAddress> shippingAddress_;
  ZVJSONValue data_;
  int64_t status_ = ZVOrderStatusUnknown;
  ZVDictionaryPtr extras_;
};

using ZVOrderArray = ZVArray<ZVOrder>;
using ZVOrderArrayPtr = std::shared_ptr<const ZVOrderArray>;
