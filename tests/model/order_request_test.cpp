#include <ZorvaneRewardsKit/ZVOrderRequest.h>

#include <gtest/gtest.h>

#include "json_text.h"

namespace {

using zvtest::json;

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

TEST(OrderRequestTest, Description) {
  EXPECT_EQ(ZVOrderRequest::initWithOfferID("12", 2)->description(), "\rOffer ID: 12\rQuantity: 2");
  EXPECT_EQ(ZVOrderRequest().description(), "\rOffer ID: (null)\rQuantity: (null)");
}

}  // namespace
