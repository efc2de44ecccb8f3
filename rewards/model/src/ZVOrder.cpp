#include <ZorvaneRewardsKit/ZVOrder.h>

#include <string_view>
#include <utility>

#include "ZVRecordMemory.h"
#include "base/ZVStrings.h"

#include "base/ZVUtil.h"
#include "json/ZVJSONWrite.h"

namespace {

const std::string* optionalText(const std::optional<std::string>& text) {
  return text ? &*text : nullptr;
}

// The dictionary under `key`, left in place; empty when absent or not an object.
ZVDictionaryPtr nestedDictionary(const ZVMutableDictionary& d, std::string_view key) {
  const ZVJSONValue* value = d.find(key);
  return value ? value->dictionary() : nullptr;
}

}  // namespace

std::shared_ptr<ZVOrderUser> ZVOrderUser::initMutableWithDictionary(
    const ZVDictionaryPtr& dictionary) {
  auto user = zv_detail::makeRecord<ZVOrderUser>();
  if (!dictionary) return user;
  ZVMutableDictionary& d = *dictionary;
  user->userID_ = ZVUtil::nilOrStringFromObject(d.getAndRemoveObjectForKey("id"));
  user->availablePoints_ = ZVUtil::intValue(d.getAndRemoveObjectForKey("available_points"));
  user->testPoints_ = ZVUtil::intValue(d.getAndRemoveObjectForKey("test_points"));
  return user;
}

std::shared_ptr<ZVOrderUser> ZVOrderUser::initMutableWithDictionary(const ZVJSONValue& value) {
  return initMutableWithDictionary(value.dictionary());
}

std::string ZVOrderUser::description() const {
  return zv_detail::strCat("\rUser ID: ", ZVDescribe(optionalText(userID_)),
                           "\rAvailable points: ", availablePoints_,
                           "\rTest points: ", testPoints_);
}

std::shared_ptr<ZVOrder> ZVOrder::initMutableWithDictionary(const ZVDictionaryPtr& dictionary) {
  auto order = zv_detail::makeRecord<ZVOrder>();
  if (!dictionary) return order;

  // The placement answer wraps the order as {"order": {...}}; history gives it bare.
  ZVDictionaryPtr wrapped = nestedDictionary(*dictionary, "order");
  ZVMutableDictionary& src = wrapped ? *wrapped : *dictionary;

  order->offerID_ = ZVUtil::nilOrStringFromObject(src.getAndRemoveObjectForKey("offer_id"));
  order->orderID_ = ZVUtil::nilOrStringFromObject(src.getAndRemoveObjectForKey("id"));
  order->userID_ = ZVUtil::nilOrStringFromObject(src.getAndRemoveObjectForKey("user_id"));
  order->externalID_ = ZVUtil::nilOrStringFromObject(src.getAndRemoveObjectForKey("external_id"));
  order->offerType_ = ZVUtil::nilOrStringFromObject(src.getAndRemoveObjectForKey("offer_type"));

  // "user" and "shipping_address" stay in the source, so extras keeps what
  // their records did not consume.
  order->user_ = ZVOrderUser::initMutableWithDictionary(nestedDictionary(src, "user"));

  order->quantity_ = ZVUtil::intValue(src.getAndRemoveObjectForKey("quantity"));
  order->points_ = ZVUtil::intValue(src.getAndRemoveObjectForKey("points"));
  order->createdTime_ = src.getAndRemoveObjectForKey("created_at");
  order->name_ = src.getAndRemoveObjectForKey("name");
  order->logoURL_ = src.getAndRemoveObjectForKey("logo");
  order->details_ = src.getAndRemoveObjectForKey("description");
  order->descriptionText_ = order->details_;

  if (ZVDictionaryPtr address = nestedDictionary(src, "shipping_address"))
    order->shippingAddress_ = ZVAddress::initMutableWithDictionary(address);

  order->status_ = statusForString(src.getAndRemoveObjectForKey("status"));
  order->data_ = src.getAndRemoveObjectForKey("data");

  // Always the outer dictionary: a wrapped order leaves its remains under "order".
  order->extras_ = dictionary->prune();
  return order;
}

std::shared_ptr<ZVOrder> ZVOrder::initMutableWithDictionary(const ZVJSONValue& value) {
  return initMutableWithDictionary(value.dictionary());
}

int64_t ZVOrder::statusForString(const ZVJSONValue& status) {
  const auto text = status.string();
  if (!text) return ZVOrderStatusUnknown;
  const std::string_view s = *text;
  if (s == "approved") return ZVOrderStatusApproved;
  if (s == "rejected") return ZVOrderStatusRejected;
  if (s == "redemption_error") return ZVOrderStatusRedemptionError;
  if (s == "pending_approval") return ZVOrderStatusPendingApproval;
  return ZVOrderStatusUnknown;
}

std::string ZVOrder::stringForStatus(int64_t status) {
  switch (status) {
    case ZVOrderStatusApproved:
      return "approved";
    case ZVOrderStatusRejected:
      return "rejected";
    case ZVOrderStatusPendingApproval:
      return "pending_approval";
    case ZVOrderStatusRedemptionError:
      return "redemption_error";
    default:
      return "unknown";
  }
}

std::string ZVOrder::description() const {
  const std::string offer = ZVDescribe(optionalText(offerID_));
  return zv_detail::strCat("Offer ID: ", offer, "\rOrder ID: ", ZVDescribe(optionalText(orderID_)),
                           " (Offer ID: ", offer, ")\rName: ", zv_detail::describeField(name_),
                           "\rDetails: ", zv_detail::describeField(details_),
                           "\rStatus: ", stringForStatus(status_), "\rQuantity: ", quantity_,
                           "\rPoints: ", points_);
}
