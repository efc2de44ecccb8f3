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
