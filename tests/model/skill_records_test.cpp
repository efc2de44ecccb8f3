#include <ZorvaneRewardsKit/ZVSkillChallenge.h>
#include <ZorvaneRewardsKit/ZVSkillQuestion.h>

#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "json_text.h"

namespace {

using namespace zvtest;

TEST(SkillQuestionTest, InnerObjectIsConsumedAndStaysInExtras) {
  auto input = dict(R"({"skills_test_question": {"id": 42, "question": 7, "hint": "sum"},
      "expires": 60, "gone": null})");
  auto question = ZVSkillQuestion::initMutableWithDictionary(input);

  EXPECT_EQ(question->questionID(), "42");
  EXPECT_EQ(question->question(), json("7")) << "the question is kept as the service typed it";
  EXPECT_EQ(question->extras(), input);
  EXPECT_EQ(ZVJSONValue(question->extras()),
            json(R"({"skills_test_question": {"hint": "sum"}, "expires": 60})"));
  EXPECT_EQ(question->description(), "\rQuestion ID: 42\rQuestion: 7");
}

TEST(SkillChallengeTest, IdAndStatusAreTakenOut) {
  auto input = dict(R"({"id": "c9", "status": 1, "extra": [1]})");
  auto challenge = ZVSkillChallenge::initMutableWithDictionary(input);

  EXPECT_EQ(challenge->challengeID(), "c9");
  EXPECT_EQ(challenge->status(), json("1"));
  EXPECT_EQ(ZVJSONValue(input), json(R"({"extra": [1]})"));
  EXPECT_EQ(challenge->description(), "\rChallenge ID: c9\rStatus: 1");
}

TEST(SkillRecordsTest, EmptyAndNullInputs) {
  auto question = ZVSkillQuestion::initMutableWithDictionary(dict("{}"));
  EXPECT_FALSE(question->questionID());
  EXPECT_TRUE(question->question().isNil());
  ASSERT_TRUE(question->extras());
  EXPECT_TRUE(question->extras()->empty());

  EXPECT_EQ(ZVSkillChallenge::initMutableWithDictionary(dict("{}"))->description(),
            "\rChallenge ID: (null)\rStatus: (null)");
  EXPECT_FALSE(ZVSkillChallenge::initMutableWithDictionary(ZVDictionaryPtr())->extras());
  EXPECT_EQ(ZVSkillQuestion::initMutableWithDictionary(json("[1]"))->description(),
            "\rQuestion ID: (null)\rQuestion: (null)");
}

// Every JSON type under every key: stored or ignored, never a crash.
TEST(SkillRecordsTest, AnyJSONTypeUnderAnyKey) {
  for (const std::string& value : zvtest::everyJSONType()) {
    const ZVJSONValue expected = json(value);
    for (std::string_view key : {"id", "question"}) {
      const std::string text = zvtest::withKey("skills_test_question", zvtest::withKey(key, value));
      auto question = ZVSkillQuestion::initMutableWithDictionary(dict(text));
      EXPECT_TRUE(question->description().starts_with("\rQuestion ID: ")) << text;
      if (key == "question") {
        EXPECT_EQ(question->question(), expected) << text;
      }
    }
    // Not an object: nothing is read from it and it stays in extras as it was.
    auto question = ZVSkillQuestion::initMutableWithDictionary(
        dict(zvtest::withKey("skills_test_question", value)));
    EXPECT_FALSE(question->questionID()) << value;
    if (!expected.isNull()) {
      EXPECT_EQ(*question->extras()->find("skills_test_question"), expected) << value;
    }
    for (std::string_view key : {"id", "status"}) {
      auto challenge =
          ZVSkillChallenge::initMutableWithDictionary(dict(zvtest::withKey(key, value)));
      EXPECT_TRUE(challenge->description().starts_with("\rChallenge ID: ")) << value;
      if (key == "status") {
        EXPECT_EQ(challenge->status(), expected) << value;
      }
    }
  }
}

}  // namespace
