#include <ZorvaneCoreKit/ZVAddress.h>
#include <ZorvaneCoreKit/ZVBaseManager.h>
#include <ZorvaneCoreKit/ZVError.h>
#include <ZorvaneCoreKit/ZVIdentity.h>
#include <ZorvaneCoreKit/ZVJSON.h>
#include <ZorvaneCoreKit/ZVMainQueue.h>
#include "runtime/ZVPManagerUtils.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ZVTestSupport.h"

namespace {

struct Sender : ZVObject {};

TEST(ErrorTest, DescriptionShowsTypeCodeAndMessage) {
  EXPECT_EQ(ZVError(2, ZVErrorValidationNoAnswer, "no answer").description(),
            "Error Domain=ZVError Type=2 Code=ZVErrorValidationNoAnswer \"no answer\"");
}

TEST(ManagerUtilsTest, PostsTheFailureThenRunsTheStepOnceOnTheMainQueue) {
  Sender sender;
  auto error = std::make_shared<ZVError>(2, ZVErrorValidationNoOfferID, "missing");
  std::vector<std::string> events;
  const ZVObservation observation =
      ZVNotificationCenter::defaultCenter()->observe("test.failure", &sender, [&](auto& n) {
        auto it = n.userInfo.find(ZV_MANAGER_NOTIFICATION_ERROR_KEY);
        events.push_back(it != n.userInfo.end() && it->second == error ? "notified" : "bad info");
      });
  using Handler = std::function<void(int)>;
  auto fail = [&](Handler handler) {
    ZVPManagerUtils::callDidFailWithError<Handler>(
        error, "test.failure", std::move(handler),
        [&](Handler h, ZVErrorPtr e) {
          events.push_back(e == error ? "step" : "wrong error");
          if (h) h(0);
        },
        &sender);
  };
  fail([&](int) { events.push_back("handler"); });
  fail(Handler{});              // no handler: the notification and the step still happen
  EXPECT_TRUE(events.empty());  // nothing inline
  EXPECT_TRUE(zvtest::drainUntil([&] { return events.size() >= 5; }));
  ZVMainQueue::shared()->drain();
  EXPECT_EQ(events, (std::vector<std::string>{"notified", "step", "handler", "notified", "step"}));
}

struct Manager : ZVBaseManager {
  Manager() { observeUserChanges(); }
  void clearUserState(const ZVObject* argument) override { cleared.push_back(argument); }
  std::vector<const ZVObject*> cleared;
};

TEST(BaseManagerTest, ClearsUserStateOnUserChangeUntilDestroyed) {
  Sender who;
  auto* center = ZVNotificationCenter::defaultCenter();
  {
    Manager manager;
    center->postNotificationName(ZV_USER_MANAGER_USER_DID_CHANGE_NOTIFICATION, &who);
    center->postNotificationName("unrelated", &who);
    EXPECT_EQ(manager.cleared, (std::vector<const ZVObject*>{&who}));
  }
  // The destroyed manager left no observer behind (ASan would see the use after free).
  center->postNotificationName(ZV_USER_MANAGER_USER_DID_CHANGE_NOTIFICATION, &who);
}

TEST(AddressTest, ConsumesItsKeysAndKeepsTheRestAsExtras) {
  auto dict = zvtest::dict(R"({"name":"Ann","street1":"1 Main","city":"Lyon","postal_code":69001,
      "country":"FR","phone":null,"floor":3,"note":null})");
  ASSERT_TRUE(dict);
  auto address = ZVAddress::initMutableWithDictionary(dict);
  EXPECT_EQ(address->postalCode, "69001");
  EXPECT_EQ(address->street2, std::nullopt);
  EXPECT_EQ(address->phone, std::nullopt);
  EXPECT_EQ(address->extras, dict);
  EXPECT_EQ(dict->allKeys(), std::vector<std::string>{"floor"});

  std::string out;
  ASSERT_TRUE(ZVJSONSerialize(address->asDictionary(), false, out));
  EXPECT_EQ(
      out,
      R"({"name":"Ann","street1":"1 Main","city":"Lyon","postal_code":"69001","country":"FR"})");

  for (const auto& empty : {ZVAddress::initMutableWithDictionary(ZVDictionaryPtr()),
                            ZVAddress::initMutableWithDictionary(ZVJSONValue("text"))}) {
    EXPECT_TRUE(empty->asDictionary()->empty());
  }
}

}  // namespace
