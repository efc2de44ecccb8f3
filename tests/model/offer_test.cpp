// Offers, and the skill-testing question and challenge some of them require.
#include <ZorvaneRewardsKit/ZVOffer.h>
#include <ZorvaneRewardsKit/ZVSkillChallenge.h>
#include <ZorvaneRewardsKit/ZVSkillQuestion.h>

#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "ZVTestSupport.h"

namespace {

using namespace zvtest;

TEST(OfferTest, MugOfferIsConsumedAndLeavesUnknownKeys) {
  auto input = dict(R"({"id": "42", "name": "Mug", "points": "150", "weight": 3,
      "featured": "true", "requires_skills_test": 0, "status": "available",
      "description": "Blue mug", "data": {"sku": 7}, "x": 1})");
  const ZVDictionaryPtr data = input->find("data")->dictionary();
  auto offer = ZVOffer::initMutableWithDictionary(input);

  EXPECT_EQ(offer->offerID(), "42");
  EXPECT_EQ(offer->name(), json(R"("Mug")"));
  EXPECT_EQ(offer->points(), 150);
  EXPECT_EQ(offer->weight(), 3);
  EXPECT_TRUE(offer->isFeatured());
  EXPECT_FALSE(offer->isSkillChallengeRequired());
  EXPECT_EQ(offer->status(), ZVOfferStatusAvailable);
  EXPECT_EQ(offer->data().dictionary(), data) << "data must be the input's own object";
  ASSERT_TRUE(offer->options());
  EXPECT_TRUE(offer->options()->empty());
  EXPECT_EQ(offer->extras(), input) << "extras is the pruned input itself";
  EXPECT_EQ(ZVJSONValue(offer->extras()), json(R"({"x": 1})"));
}

TEST(OfferTest, OptionsAreOffersConsumedInPlace) {
  // An element that is not an object is skipped, and stays in extras.
  auto input = dict(R"({"id": "1", "y": 2, "options": [7,
      {"id": "2", "status": "user_required", "z": 9,
       "options": [{"id": "3", "points": 5}, null]}]})");
  auto offer = ZVOffer::initMutableWithDictionary(input);

  ASSERT_EQ(offer->options()->size(), 1u);
  const auto& option = offer->options()->at(0);
  EXPECT_EQ(option->offerID(), "2");
  EXPECT_EQ(option->status(), ZVOfferStatusUserRequired);
  ASSERT_EQ(option->options()->size(), 1u);
  EXPECT_EQ(option->options()->at(0)->points(), 5);
  EXPECT_EQ(ZVJSONValue(offer->extras()),
            json(R"({"y": 2, "options": [7, {"z": 9, "options": [{}, null]}]})"));
  // Options that are not a list give none.
  EXPECT_TRUE(
      ZVOffer::initMutableWithDictionary(dict(R"({"options": {"id": "2"}})"))->options()->empty());
}

TEST(OfferTest, ValueConversions) {
  struct Case {
    const char* input;
    int64_t points, weight;
    bool featured;
    int64_t status;
  } cases[] = {
      {R"({"points": 4294967298, "weight": 4294967298})", 4294967298, 2, false, 0},
      {R"({"points": " -12abc", "weight": "99999999999"})", -12, 2147483647, false, 0},
      {R"({"weight": -1, "featured": "yes"})", 0, -1, true, 0},
      {R"({"featured": 2, "status": "registration_required"})", 0, 0, true, 6},
      {R"({"status": "Available"})", 0, 0, false, 0},
  };
  for (const Case& c : cases) {
    auto offer = ZVOffer::initMutableWithDictionary(dict(c.input));
    EXPECT_EQ(offer->points(), c.points) << c.input;
    EXPECT_EQ(offer->weight(), c.weight) << c.input;
    EXPECT_EQ(offer->isFeatured(), c.featured) << c.input;
    EXPECT_EQ(offer->status(), c.status) << c.input;
  }
}

TEST(OfferTest, StatusStringsRoundTripAndOthersAreUnknown) {
  for (int64_t status = 1; status <= 6; ++status)
    EXPECT_EQ(ZVOffer::statusForString(ZVOffer::stringForStatus(status)), status);
  for (int64_t status : {0, 7, -1}) EXPECT_EQ(ZVOffer::stringForStatus(status), "unknown");
  EXPECT_EQ(ZVOffer::statusForString(json(R"("unknown")")), 0);
}

TEST(OfferTest, DescriptionText) {
  auto offer = ZVOffer::initMutableWithDictionary(
      dict(R"({"id": "42", "type": "physical", "name": "Mug", "description": "Blue mug",
               "status": "insufficient_points", "points": 150})"));
  EXPECT_EQ(offer->description(),
            "\rOffer ID: 42\rType: physical\rName: Mug\rDetails: Blue mug\r"
            "Status: insufficient_points\rPoints: 150");
  // The service's own carriage returns cannot start a field of their own.
  offer = ZVOffer::initMutableWithDictionary(
      dict(R"({"id": "4\r2", "name": "Mug\rPoints: 0", "description": {"a": "\r"}})"));
  EXPECT_EQ(offer->description(),
            "\rOffer ID: 4\\r2\rType: (null)\rName: Mug\\rPoints: 0\rDetails: {\n  \"a\" : "
            "\"\\r\"\n}\rStatus: unknown\rPoints: 0");
}

// A container where the contract puts text prints 128 bytes at most: its
// indented form could be hundreds of times longer than the answer.
TEST(OfferTest, DescriptionOfAContainerFieldIsCutShort) {
  const std::string deep = std::string(500, '[') + std::string(500, ']');
  auto offer = ZVOffer::initMutableWithDictionary(
      dict(R"({"name": )" + deep + R"(, "type": {"en": "Mug"}, "description": )" + deep + "}"));
  const std::string text = offer->description();
  EXPECT_LE(text.size(), 3 * (128 + 3) + 80u) << text;
  EXPECT_NE(text.find("\rType: {\n  \"en\" : \"Mug\"\n}\rName: [\n  [\n"), std::string::npos)
      << text;
}

TEST(OfferTest, NullOrNonObjectInputGivesEmptyRecordWithoutOptions) {
  for (const ZVJSONValue& input : {ZVJSONValue(), json("null"), json("[]"), json(R"("x")")}) {
    auto offer = ZVOffer::initMutableWithDictionary(input);
    ASSERT_TRUE(offer);
    EXPECT_FALSE(offer->offerID());
    EXPECT_FALSE(offer->options());
    EXPECT_FALSE(offer->extras());
  }
}

TEST(OfferTest, OptionsNestedToTheParserLimit) {
  // Each level adds an object and an array: 255 levels stay within depth 512.
  constexpr int kLevels = 255;
  std::string text;
  for (int i = 0; i < kLevels; ++i) text += R"({"id": 1, "options": [)";
  text += "{}";
  for (int i = 0; i < kLevels; ++i) text += "]}";
  auto offer = ZVOffer::initMutableWithDictionary(dict(text));

  int depth = 0;
  for (const ZVOffer* level = offer.get(); !level->options()->empty();
       level = level->options()->at(0).get())
    ++depth;
  EXPECT_EQ(depth, kLevels);
}

TEST(SkillQuestionTest, InnerObjectIsConsumedAndStaysInExtras) {
  auto input = dict(R"({"skills_test_question": {"id": 42, "question": 7, "hint": "sum"},
      "expires": 60, "gone": null})");
  auto question = ZVSkillQuestion::initMutableWithDictionary(input);

  EXPECT_EQ(question->questionID(), "42");
  EXPECT_EQ(question->question(), json("7")) << "the question is kept as the service typed it";
  EXPECT_EQ(question->extras(), input);
  EXPECT_EQ(ZVJSONValue(question->extras()),
            json(R"({"skills_test_question": {"hint": "sum"}, "expires": 60})"));
}

TEST(SkillChallengeTest, IdAndStatusAreTakenOut) {
  auto input = dict(R"({"id": "c9", "status": 1, "extra": [1]})");
  auto challenge = ZVSkillChallenge::initMutableWithDictionary(input);

  EXPECT_EQ(challenge->challengeID(), "c9");
  EXPECT_EQ(challenge->status(), json("1"));
  EXPECT_EQ(ZVJSONValue(input), json(R"({"extra": [1]})"));
}

// Whatever JSON type the service sends, the question and the challenge's
// status are kept as typed; a question that is not an object stays in extras.
TEST(SkillRecordsTest, AnyJSONTypeIsKeptAsSent) {
  for (const std::string& value : zvtest::everyJSONType()) {
    const ZVJSONValue expected = json(value);
    auto question = ZVSkillQuestion::initMutableWithDictionary(
        dict(withKey("skills_test_question", withKey("question", value))));
    EXPECT_EQ(question->question(), expected) << value;
    question =
        ZVSkillQuestion::initMutableWithDictionary(dict(withKey("skills_test_question", value)));
    EXPECT_FALSE(question->questionID()) << value;
    if (!expected.isNull()) {
      EXPECT_EQ(*question->extras()->find("skills_test_question"), expected) << value;
    }
    auto challenge = ZVSkillChallenge::initMutableWithDictionary(dict(withKey("status", value)));
    EXPECT_EQ(challenge->status(), expected) << value;
  }
}

}  // namespace
