// The access token stays out of every log line and of the command-line
// client's output, and hostile ids cannot steer a request to another endpoint
// or smuggle in a header: checked on what the server actually receives.
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>

#include "../rewards/RewardsFixture.h"
#include "ReliabilityFixture.h"
#include "ZVRawServer.h"

using namespace zvtest;

namespace {

LoopbackResponse reply(int status, std::string body) {
  LoopbackResponse response;
  response.status = status;
  response.body = std::move(body);
  return response;
}

// Good answers for every endpoint, or failures of every kind, by turns.
LoopbackResponse answerFor(const LoopbackRequest& request, bool fail) {
  const std::string& path = request.path;
  if (fail) {
    if (path.ends_with("/offers")) return reply(401, R"({"status":"error","message":"expired"})");
    if (path.ends_with("/orders")) return reply(200, R"({"status":"error","message":"no"})");
    return reply(500, "oops");
  }
  if (path.ends_with("/offers")) return reply(200, R"({"status":"ok","offers":[{"id":"1"}]})");
  if (path.ends_with("/orders") && request.method == "GET")
    return reply(200, R"({"status":"ok","orders":[{"id":"1"}]})");
  if (path.ends_with("/orders")) return reply(200, R"({"status":"ok","order":{"id":"2"}})");
  return reply(200, R"({"status":"ok","challenge":{"id":"c"}})");
}

TEST(SecurityTest, TokenNeverReachesALogLineAtAnyLevelOrCategory) {
  ZVLoopbackServer server;
  CloseConnectionsFirst closeFirst;
  std::atomic<bool> fail{false};
  server.setHandler([&](const LoopbackRequest& r) { return answerFor(r, fail.load()); });
  configureService(server.baseURL());
  ZVRewardsManager* manager = ZVRewardsManager::instance();
  for (int64_t level : {0, 1, 2, 3}) {
    SCOPED_TRACE(level);
    LogCapture log(level);
    for (bool failing : {false, true}) {
      fail = failing;
      manager->resetData();
      std::vector<std::unique_ptr<Completion>> completions;
      for (const Operation& operation : allOperations()) {
        completions.push_back(std::make_unique<Completion>());
        operation.start(manager, *completions.back());
      }
      // A cache hit and the two validation failures log as well.
      completions.push_back(std::make_unique<Completion>());
      manager->placeOrder(nullptr, [c = completions.back().get()](auto, ZVErrorPtr e) {
        c->record(false, std::move(e));
      });
      completions.push_back(std::make_unique<Completion>());
      manager->answerSkillQuestionForOfferID(
          std::nullopt, "q", ZVJSONValue("a"),
          [c = completions.back().get()](auto, ZVErrorPtr e) { c->record(false, std::move(e)); });
      ASSERT_TRUE(waitForAll(completions));
      for (const auto& c : completions) {
        if (ZVErrorPtr error = c->lastError()) {
          EXPECT_EQ(error->description().find(kSecretToken), std::string::npos);
        }
      }
    }
    const auto lines = log.lines();
    for (const std::string& line : lines) EXPECT_EQ(line.find(kSecretToken), std::string::npos);
    // Levels 1 and 2 do write lines, so the check above is not vacuous.
    if (level == 1 || level == 2) {
      EXPECT_GE(lines.size(), 3u);
    }
  }
}

#ifdef ZVREWARDS_BIN
std::string runClient(const std::string& arguments) {
  const std::string command = fmt::format("{} {} 2>&1", ZVREWARDS_BIN, arguments);
  std::string output;
  if (FILE* pipe = ::popen(command.c_str(), "r")) {
    char buffer[4096];
    while (size_t got = std::fread(buffer, 1, sizeof buffer, pipe)) output.append(buffer, got);
    ::pclose(pipe);
  }
  return output;
}

TEST(SecurityTest, CommandLineClientNeverPrintsTheToken) {
  if (!std::filesystem::exists(ZVREWARDS_BIN)) GTEST_SKIP() << ZVREWARDS_BIN << " is not built";
  // This service even quotes the token back in its refusals.
  ZVLoopbackServer server;
  CloseConnectionsFirst closeFirst;
  server.setHandler([](const LoopbackRequest& request) {
    const std::string message = "credential " + request.header("Authorization") + " was revoked";
    return reply(request.path.ends_with("/offers") ? 200 : 403,
                 fmt::format(R"({{"status":"error","message":"{}"}})", message));
  });
  const std::string common =
      fmt::format("--token {} --app app --insecure-http -vv --timeout 5", kSecretToken);
  const std::string closed = fmt::format("http://127.0.0.1:{}", ZVRawServer::closedPort());
  for (const std::string& arguments :
       {fmt::format("--service {} {} offers --force", server.baseURL(), common),
        fmt::format("--service {} {} orders", server.baseURL(), common),
        fmt::format("--service {} {} --json order 101", server.baseURL(), common),
        fmt::format("--service {} {} answer 1 q 42", server.baseURL(), common),
        fmt::format("--service {} {} offers", closed, common),
        fmt::format("--service {} --token {} offers", server.baseURL(), kSecretToken),
        fmt::format("--service {} {} no-such-command", server.baseURL(), common)}) {
    const std::string output = runClient(arguments);
    SCOPED_TRACE(arguments);
    EXPECT_FALSE(output.empty());
    EXPECT_EQ(output.find(kSecretToken), std::string::npos) << output;
  }
  EXPECT_GE(server.requestCount(), 4u);
}
#endif

// Percent-decodes a path segment as a server would.
std::string decoded(std::string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size()) {
      out += static_cast<char>(std::stoi(std::string(text.substr(i + 1, 2)), nullptr, 16));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

TEST(SecurityTest, HostileIdsStayInTheirSlotOfTheirEndpoint) {
  ZVLoopbackServer server;
  CloseConnectionsFirst closeFirst;
  server.setHandler([](const LoopbackRequest&) { return reply(200, R"({"status":"ok"})"); });
  configureService(server.baseURL());
  const std::vector<std::string> ids = {"a/b",
                                        "a b",
                                        "..",
                                        "../../orders",
                                        "./.",
                                        "%2e%2e%2f",
                                        "%00",
                                        "50%",
                                        std::string("a\0b", 3),
                                        "a\r\nX-Injected: 1",
                                        "a\nb",
                                        "\t",
                                        "?locale=xx",
                                        "#top",
                                        "a\x01\x7f",
                                        "\xc3\xa9\xff",
                                        "a;b=c,d&e=f",
                                        ":appid",
                                        ":host"};
  ZVRewardsManager* manager = ZVRewardsManager::instance();
  const std::string root = "/api/v1/apps/app/offers/";
  for (const std::string& id : ids) {
    SCOPED_TRACE(::testing::PrintToString(id));
    const size_t before = server.requestCount();
    std::vector<std::unique_ptr<Completion>> completions;
    completions.push_back(std::make_unique<Completion>());
    manager->placeOrder(ZVOrderRequest::initWithOfferID(id, 1),
                        [c = completions.back().get()](auto r, ZVErrorPtr e) {
                          c->record(r != nullptr, std::move(e));
                        });
    completions.push_back(std::make_unique<Completion>());
    manager->answerSkillQuestionForOfferID(id, id, ZVJSONValue("x"),
                                           [c = completions.back().get()](auto r, ZVErrorPtr e) {
                                             c->record(r != nullptr, std::move(e));
                                           });
    ASSERT_TRUE(waitForAll(completions));

    // Each call reached its endpoint, or was refused before anything was
    // sent (an order body cannot carry text that is not UTF-8).
    const auto requests = server.requests();
    std::vector<size_t> sent;
    for (size_t i = 0; i < 2; ++i) {
      if (completions[i]->hadResult) {
        sent.push_back(i);
      } else {
        ASSERT_TRUE(completions[i]->lastError());
        EXPECT_EQ(completions[i]->lastError()->type(), ZVErrorTypeValidation);
      }
    }
    // Exactly those requests, nothing smuggled in after them.
    ASSERT_EQ(requests.size(), before + sent.size());
    const std::string suffixes[] = {"/orders", "/challenges/skills_test_questions/"};
    std::vector<size_t> arrived;
    for (size_t n = 0; n < sent.size(); ++n) {
      // The two requests race each other: tell them apart by their path.
      const LoopbackRequest& request = requests[before + n];
      const size_t i = request.path.find(suffixes[1]) == std::string::npos ? 0 : 1;
      arrived.push_back(i);
      EXPECT_EQ(request.method, "POST");
      EXPECT_TRUE(request.query.empty()) << request.target;
      EXPECT_EQ(request.target.find_first_of("#?"), std::string::npos);
      ASSERT_TRUE(request.path.starts_with(root)) << request.path;
      // No segment a server or proxy would fold into a parent directory.
      for (const std::string_view dots : {"/../", "/./"})
        EXPECT_EQ((request.path + "/").find(dots), std::string::npos) << request.path;
      // The id comes back intact from its slot.
      const std::string rest = request.path.substr(root.size());
      const size_t suffix = rest.rfind(suffixes[i]);
      ASSERT_NE(suffix, std::string::npos) << request.path;
      EXPECT_EQ(decoded(rest.substr(0, suffix)), id);
      if (i == 1) {
        EXPECT_EQ(decoded(rest.substr(suffix + suffixes[i].size())), id);
      }
      EXPECT_FALSE(request.hasHeader("X-Injected"));
      EXPECT_EQ(request.header("Authorization"), fmt::format("Bearer {}", kSecretToken));
    }
    std::ranges::sort(arrived);
    EXPECT_EQ(arrived, sent);
  }
}

}  // namespace

namespace {

TEST(SecurityTest, AppIDOfDotsStaysOneSegment) {
  ZVLoopbackServer server;
  CloseConnectionsFirst closeFirst;
  server.setHandler([](const LoopbackRequest&) { return reply(200, R"({"status":"ok"})"); });
  for (const char* appID : {"..", ".", "a/../b"}) {
    configureService(server.baseURL(), std::chrono::seconds(5), appID);
    Outcome<const ZVOrderArray> orders;
    ZVRewardsManager::instance()->fetchOrdersWithCompletionHandler(orders.handler());
    ASSERT_TRUE(orders.wait());
    EXPECT_TRUE(orders.result);
  }
  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(requests[0].path, "/api/v1/apps/%2E%2E/orders");
  EXPECT_EQ(requests[1].path, "/api/v1/apps/%2E/orders");
  EXPECT_EQ(requests[2].path, "/api/v1/apps/a%2F..%2Fb/orders");
}

}  // namespace
