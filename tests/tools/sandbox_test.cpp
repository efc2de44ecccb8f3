// The sandbox service, driven over loopback HTTP with a plain client: what
// the client's tests (zvrewards_test) do not reach through the client.
#include <ZVSandbox.h>

#include <unistd.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <fmt/core.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <nlohmann/json.hpp>

#include "ZVCliArithmetic.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr const char* kToken = "sandbox-token";

struct Answer {
  int status = 0;  ///< 0: no answer at all
  std::string text;
  json body;
};

class SandboxTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() /
           fmt::format("zv-sandbox-test-{}-{}", getpid(),
                       ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(dir_);
    fs::create_directories(dir_);
  }
  void TearDown() override {
    sandbox_.reset();
    fs::remove_all(dir_);
  }

  ZVSandboxOptions defaults() const {
    ZVSandboxOptions options;
    options.statePath = (dir_ / "state.sqlite").string();
    options.certDir = dir_.string();
    return options;
  }
  void start(const ZVSandboxOptions& options) {
    sandbox_.reset();
    sandbox_ = std::make_unique<ZVSandbox>(options);
    std::string error;
    ASSERT_TRUE(sandbox_->start(error)) << error;
  }

  Answer call(const std::string& method, const std::string& path, const std::string& body = {},
              const char* token = kToken) const {
    httplib::Client client("127.0.0.1", sandbox_->port());
    client.set_connection_timeout(std::chrono::seconds(2));
    client.set_read_timeout(std::chrono::seconds(30));  // sanitizers are slow
    httplib::Headers headers;
    if (token) headers.emplace("Authorization", fmt::format("Bearer {}", token));
    auto result = method == "GET" ? client.Get(path, headers)
                                  : client.Post(path, headers, body, "application/json");
    if (!result) return {};
    return {result->status, result->body, json::parse(result->body, nullptr, false)};
  }
  Answer get(const std::string& endpoint) const {
    return call("GET", "/api/v1/apps/sandbox-app/" + endpoint);
  }
  Answer post(const std::string& endpoint, const json& body) const {
    return call("POST", "/api/v1/apps/sandbox-app/" + endpoint, body.dump());
  }
  Answer order(const std::string& offerID, json order = json::object()) const {
    return post(fmt::format("offers/{}/orders", offerID), {{"order", std::move(order)}});
  }
  // Fetches a question and answers it for `offerID`; returns the challenge.
  json answerQuestion(const std::string& offerID, bool correctly) const {
    const auto question = get("challenges/skills_test_question").body["challenge"];
    const auto& inner = question["skills_test_question"];
    const auto expected = zvcli::evaluateArithmetic(inner["question"].get<std::string>());
    EXPECT_TRUE(expected) << inner["question"];
    const std::string response = zvcli::answerText(expected.value_or(0) + (correctly ? 0 : 1));
    const auto answer = post(fmt::format("offers/{}/challenges/skills_test_questions/{}", offerID,
                                         inner["id"].get<std::string>()),
                             {{"challenge", {{"skills_test_question", {{"response", response}}}}}});
    return answer.body["challenge"];
  }
  json userOf(const Answer& answer) const { return answer.body["order"]["user"]; }

  fs::path dir_;
  std::unique_ptr<ZVSandbox> sandbox_;
};

TEST_F(SandboxTest, GateChecksTokenAppAndPath) {
  start(defaults());
  const struct {
    const char* path;
    const char* token;
    int status;
    const char* message;
  } cases[] = {
      {"/api/v1/apps/sandbox-app/orders", nullptr, 401, "invalid access token"},
      {"/api/v1/apps/sandbox-app/orders", "wrong", 401, "invalid access token"},
      {"/api/v1/apps/other-app/orders", kToken, 404, "unknown app 'other-app'"},
      {"/api/v1/apps/sandbox-app/nothing", kToken, 404,
       "no such endpoint: GET /api/v1/apps/sandbox-app/nothing"},
      {"/api/v1/apps/sandbox-app/orders", kToken, 200, nullptr},
  };
  for (const auto& c : cases) {
    const auto answer = call("GET", c.path, {}, c.token);
    EXPECT_EQ(answer.status, c.status) << c.path;
    if (c.message) {
      EXPECT_EQ(answer.body["status"], "error");
      EXPECT_EQ(answer.body["message"], c.message);
    }
  }
}

TEST_F(SandboxTest, RefusalsExplainThemselves) {
  start(defaults());
  const std::string deep = std::string(100000, '[') + std::string(100000, ']');
  const struct {
    std::string offer;
    std::string body;
    int status;
    const char* message;
  } cases[] = {
      {"107", R"({"order":{"quantity":0}})", 200, "Quantity must be a whole number from 1 to 1000"},
      {"107", R"({"order":{"quantity":1.5}})", 200,
       "Quantity must be a whole number from 1 to 1000"},
      {"105", R"({"order":{}})", 200, "Offer '105' is not available at the user's tier"},
      {"103", R"({"order":{"challenge":{"id":"c-made-up"}}})", 200,
       "A passed skill-testing challenge is required for offer '103'"},
      {"107", R"({"order":{"quantity":"2"}})", 400, "\"quantity\" must be a number"},
      {"107", R"({"order":{"shippingAddress":[]}})", 400, "\"shippingAddress\" must be an object"},
      {"107", R"({"order":)", 400, "the body is not valid JSON"},
      {"107", "[1]", 400, "the body is not a JSON object"},
      {"107", R"({"order":5})", 400, "the body has no \"order\" object"},
      {"107", R"({"order":)" + deep + "}", 400, "the body has no \"order\" object"},
  };
  for (const auto& c : cases) {
    const auto answer =
        call("POST", fmt::format("/api/v1/apps/sandbox-app/offers/{}/orders", c.offer), c.body);
    EXPECT_EQ(answer.status, c.status) << c.body.substr(0, 40);
    ASSERT_TRUE(answer.body.is_object()) << answer.text;
    EXPECT_EQ(answer.body["status"], "error");
    EXPECT_EQ(answer.body["message"], c.message) << c.body.substr(0, 40);
  }

  const auto bottle = order("111", {{"quantity", 1}});
  EXPECT_EQ(bottle.body, json::parse(R"({"status":"error","order":{
      "base":["Insufficient points: needs 9000, has 5000"],"user_id":"sandbox-user"}})"));
  EXPECT_TRUE(get("orders").body["orders"].empty());
}

TEST_F(SandboxTest, PassedChallengeServesOneOrderOfItsOffer) {
  start(defaults());
  const auto failed = answerQuestion("103", false);
  EXPECT_EQ(failed["status"], "failed");
  EXPECT_EQ(order("103", {{"challenge", {{"id", failed["id"]}}}}).body["status"], "error");

  const auto passed = answerQuestion("103", true);
  ASSERT_EQ(passed["status"], "passed");
  EXPECT_EQ(passed["offer_id"], "103");
  EXPECT_EQ(order("108", {{"challenge", {{"id", passed["id"]}}}}).body["status"], "error");
  EXPECT_EQ(order("103", {{"challenge", {{"id", passed["id"]}}}}).body["status"], "ok");
  EXPECT_EQ(order("103", {{"challenge", {{"id", passed["id"]}}}}).body["message"],
            "A passed skill-testing challenge is required for offer '103'");

  const auto question = get("challenges/skills_test_question").body["challenge"];
  const std::string id = question["skills_test_question"]["id"];
  const json answer = {{"challenge", {{"skills_test_question", {{"response", "1"}}}}}};
  const auto path = "offers/103/challenges/skills_test_questions/";
  EXPECT_EQ(post(path + id, answer).body["status"], "ok");
  EXPECT_EQ(post(path + id, answer).body["message"],
            fmt::format("Question '{}' was already answered", id));
  EXPECT_EQ(post(std::string(path) + "q-none", answer).body["message"],
            "Unknown question 'q-none'");
  EXPECT_EQ(post(path + id, json::object()).status, 400);
}

TEST_F(SandboxTest, StatePersistsAcrossRestartsUntilReset) {
  start(defaults());
  ASSERT_EQ(order("107").body["status"], "ok");
  sandbox_->stop();

  start(defaults());
  EXPECT_EQ(get("orders").body["orders"].size(), 1u);
  EXPECT_EQ(userOf(order("107"))["available_points"], 4500);

  auto options = defaults();
  options.reset = true;
  options.initialPoints = 300;
  start(options);
  EXPECT_TRUE(get("orders").body["orders"].empty());
  EXPECT_EQ(userOf(order("107"))["available_points"], 50);
}

TEST_F(SandboxTest, FaultsAreInjectedAndRepeatable) {
  const auto withFaults = [&](double http500, double malformed, double drop) {
    auto options = defaults();
    options.faults = {0, http500, malformed, drop, 7};
    start(options);
  };
  withFaults(1, 0, 0);
  EXPECT_EQ(get("orders").status, 500);
  withFaults(0, 1, 0);
  const auto truncated = get("orders");
  EXPECT_EQ(truncated.status, 200);
  EXPECT_TRUE(truncated.body.is_discarded()) << truncated.text;
  withFaults(0, 0, 1);
  EXPECT_EQ(get("orders").status, 0);

  const auto statuses = [&] {
    withFaults(0.5, 0, 0);
    std::vector<int> seen;
    for (int i = 0; i < 20; ++i) seen.push_back(get("orders").status);
    return seen;
  };
  const auto first = statuses();
  EXPECT_EQ(statuses(), first);
  EXPECT_EQ(std::set<int>(first.begin(), first.end()), (std::set<int>{200, 500}));
}

}  // namespace
