#include <ZorvaneRewardsKit/ZVRewardsError.h>

#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "json_text.h"

namespace {

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
      {R"({"order": {"user_id": "42"}})", "User: 42"},
      {R"({"order": {}})", std::nullopt},
      {R"({"order": ["base"]})", std::nullopt},
      {R"({"order": "base"})", std::nullopt},
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
    EXPECT_EQ(error.type(), ZVErrorTypeService);
  }
}

TEST(RewardsErrorTest, AnyJSONTypeUnderAnyKey) {
  for (const std::string& value : zvtest::everyJSONType()) {
    for (const std::string& body :
         {zvtest::withKey("message", value), zvtest::withKey("order", value),
          zvtest::withKey("order", zvtest::withKey("base", value)),
          zvtest::withKey("order", zvtest::withKey("user_id", value))}) {
      ZVRewardsError error(ZVErrorTypeService, zvtest::dict(body));
      EXPECT_FALSE(error.description().empty()) << body;
    }
  }
  EXPECT_FALSE(ZVRewardsError(ZVErrorTypeService, ZVDictionaryPtr()).message());
}

}  // namespace
