// Orders as the service describes them, the request that places one, and
// the error made of the service's refusal.
#include <ZorvaneRewardsKit/ZVOrder.h>
#include <ZorvaneRewardsKit/ZVOrderRequest.h>
#include <ZorvaneRewardsKit/ZVRewardsError.h>

#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "ZVTestSupport.h"

namespace {

using namespace zvtest;

// A wrapped order is read from inside "order"; what it leaves, the user's
// and the address's remains included, stays in the outer extras.
TEST(OrderTest, WrappedOrderWithUserAndAddressLeavesItsRemainsInTheOuterExtras) {
  auto input = dict(R"({"order": {"id": "7", "offer_id": "12", "status": "approved",
      "quantity": "2", "user": {"id": "u1", "available_points": 500, "x": 1},
      "shipping_address": {"city": "Lyon", "note": "door"}, "data": {"a": 1}}, "status": "ok"})");
  const ZVDictionaryPtr data = input->find("order")->dictionary()->find("data")->dictionary();
  auto order = ZVOrder::initMutableWithDictionary(input);

  EXPECT_EQ(order->orderID(), "7");
  EXPECT_EQ(order->offerID(), "12");
  EXPECT_EQ(order->status(), ZVOrderStatusApproved);
  EXPECT_EQ(order->quantity(), 2);
  ASSERT_TRUE(order->user());
  EXPECT_EQ(order->user()->userID(), "u1");
  EXPECT_EQ(order->user()->availablePoints(), 500);
  ASSERT_TRUE(order->shippingAddress());
  EXPECT_EQ(order->shippingAddress()->city, "Lyon");
  EXPECT_EQ(order->data().dictionary(), data);
  EXPECT_EQ(order->extras(), input);
  EXPECT_EQ(ZVJSONValue(order->extras()),
            json(R"({"order": {"user": {"x": 1}, "shipping_address": {"note": "door"}},
                     "status": "ok"})"));
}

TEST(OrderTest, ValueConversions) {
  struct Case {
    const char* input;
    int64_t quantity, points, status, available, test;
    bool hasAddress;
  } cases[] = {
      {R"({"quantity": 4294967297, "points": -4294967297})", 1, -1, 0, 0, 0, false},
      {R"({"points": "250", "status": "pending_approval"})", 0, 250, 3, 0, 0, false},
      {R"({"status": "APPROVED"})", 0, 0, 0, 0, 0, false},
      {R"({"status": "redemption_error", "shipping_address": "Lyon"})", 0, 0, 4, 0, 0, false},
      {R"({"user": {"available_points": 4294967295, "test_points": 4294967293}})", 0, 0, 0, -1, -3,
       false},
      {R"({"order": null, "shipping_address": {}})", 0, 0, 0, 0, 0, true},
  };
  for (const Case& c : cases) {
    auto order = ZVOrder::initMutableWithDictionary(dict(c.input));
    EXPECT_EQ(order->quantity(), c.quantity) << c.input;
    EXPECT_EQ(order->points(), c.points) << c.input;
    EXPECT_EQ(order->status(), c.status) << c.input;
    EXPECT_EQ(order->user()->availablePoints(), c.available) << c.input;
    EXPECT_EQ(order->user()->testPoints(), c.test) << c.input;
    EXPECT_EQ(order->shippingAddress() != nullptr, c.hasAddress) << c.input;
  }
}

TEST(OrderTest, StatusStringsRoundTripAndOthersAreUnknown) {
  for (int64_t status = 1; status <= 4; ++status)
    EXPECT_EQ(ZVOrder::statusForString(ZVOrder::stringForStatus(status)), status);
  for (int64_t status : {0, 5, -1}) EXPECT_EQ(ZVOrder::stringForStatus(status), "unknown");
}

TEST(OrderTest, DescriptionText) {
  auto order = ZVOrder::initMutableWithDictionary(
      dict(R"({"offer_id": "12", "id": "7", "name": "Mug", "description": "Blue",
               "status": "pending_approval", "quantity": 1, "points": 250})"));
  EXPECT_EQ(order->description(),
            "Offer ID: 12\rOrder ID: 7 (Offer ID: 12)\rName: Mug\rDetails: Blue\r"
            "Status: pending_approval\rQuantity: 1\rPoints: 250");
}

TEST(OrderTest, NullOrNonObjectInputGivesEmptyRecord) {
  for (const ZVJSONValue& input : {ZVJSONValue(), json("null"), json("[{}]"), json("3")}) {
    auto order = ZVOrder::initMutableWithDictionary(input);
    ASSERT_TRUE(order);
    EXPECT_FALSE(order->user());
    EXPECT_FALSE(order->extras());
    EXPECT_TRUE(ZVOrderUser::initMutableWithDictionary(input));
  }
}

TEST(OrderRequestTest, BodyLayout) {
  auto address = std::make_shared<ZVAddress>();
  address->city = "Lyon";
  struct Case {
    const char* name;
    std::shared_ptr<ZVOrderRequest> request;
    ZVJSONValue expected;
  } cases[] = {
      {"offer and quantity", ZVOrderRequest::initWithOfferID("12", 1),
       json(R"({"offer_id": "12", "quantity": 1, "ip": "127.0.0.1"})")},
      {"ip and challenge", ZVOrderRequest::initWithOfferID("12", 1),
       json(R"({"offer_id": "12", "quantity": 1, "ip": "10.0.0.5", "challenge": {"id": "99"}})")},
      {"nothing set", std::make_shared<ZVOrderRequest>(), json(R"({"ip": "127.0.0.1"})")},
      {"empty ip kept", std::make_shared<ZVOrderRequest>(), json(R"({"ip": ""})")},
      {"fractional quantity, email and address", ZVOrderRequest::initWithOfferID({}, 1.5),
       json(R"({"quantity": 1.5, "ip": "127.0.0.1", "email": "a@b.c",
                "shippingAddress": {"city": "Lyon"}})")},
  };
  cases[1].request->setIp("10.0.0.5");
  cases[1].request->setChallengeID("99");
  cases[3].request->setIp("");
  cases[4].request->setEmail("a@b.c");
  cases[4].request->setShippingAddress(address);

  for (const Case& c : cases) {
    ZVDictionaryPtr body = c.request->asDictionary();
    EXPECT_EQ(ZVJSONValue(body), c.expected) << c.name;
    EXPECT_NE(body, c.request->asDictionary()) << c.name << ": each call builds a new body";
  }
}

TEST(RewardsErrorTest, MessageComposedFromTheBody) {
  struct Case {
    const char* body;
    std::optional<std::string> message;
  } cases[] = {
      {R"({"message": "Out of stock", "order": {"user_id": "42"}})", "Out of stock"},
      {R"({"message": 5})", std::nullopt},
      {R"({"message": ""})", std::nullopt},
      {R"({"message": "", "order": {"base": ["A", "B"], "user_id": "42"}})",
       "Reward: A, B\nUser: 42"},
      {R"({"order": {"base": ["A", "B"]}})", "Reward: A, B"},
      {R"({"order": {}})", std::nullopt},
      {R"({"order": ["base"]})", std::nullopt},
      {R"({"order": {"status": "failed"}})", ""},
      {R"({"order": {"base": []}})", ""},
      {R"({"order": {"base": ["", "A"]}})", "Reward: A"},
      {R"({"order": {"base": ["A", "", "B"]}})", "Reward: A, , B"},
      {R"({"order": {"base": ["", ""], "user_id": "7"}})", "Reward: \nUser: 7"},
      {R"({"order": {"base": [3, 2.5, null, true]}})", "Reward: 3, 2.5, <null>, 1"},
      {R"({"order": {"base": "A", "user_id": 42}})", ""},
      {R"({"order": {"user_id": ""}})", ""},
  };
  for (const Case& c : cases) {
    ZVDictionaryPtr body = zvtest::dict(c.body);
    ZVRewardsError error(ZVErrorTypeService, body);
    EXPECT_EQ(error.message(), c.message) << c.body;
    EXPECT_EQ(error.raw(), body) << c.body;
  }
  EXPECT_FALSE(ZVRewardsError(ZVErrorTypeService, ZVDictionaryPtr()).message());
}

// A nested container's indented text is hundreds of times longer than its
// JSON: the message quotes about 4 KiB of "base" at most, whatever it holds.
TEST(RewardsErrorTest, MessageStaysSmallWhateverBaseHolds) {
  const std::string deep = std::string(500, '[') + std::string(500, ']');
  std::string containers = deep;
  std::string strings = R"("x")";
  for (int i = 0; i < 3000; ++i) {
    if (i < 50) containers += "," + deep;
    strings += R"(, "x")";
  }
  for (const std::string& base : {containers, strings}) {
    ZVRewardsError error(ZVErrorTypeService,
                         zvtest::dict(R"({"order": {"base": [)" + base + "]}}"));
    ASSERT_TRUE(error.message());
    EXPECT_TRUE(error.message()->starts_with("Reward: ")) << base.substr(0, 10);
    EXPECT_TRUE(error.message()->ends_with("...")) << base.substr(0, 10);
    EXPECT_LE(error.message()->size(), 4096u + 16u) << base.substr(0, 10);
  }
}

}  // namespace
