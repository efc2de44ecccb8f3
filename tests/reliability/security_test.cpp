// The access token stays out of every log line and of the command-line
// client's output, and hostile ids cannot steer a request to another endpoint
// or smuggle in a header: checked on what the server actually receives.
#include <fmt/format.h>

#include <fmt/ranges.h>

#include <filesystem>

#include <httplib.h>

#include "ZVProcess.h"
#include "ZVRawServer.h"
#include "ZVRewardsFixture.h"

using namespace zvtest;

namespace {

LoopbackResponse reply(int status, std::string body) {
  return {.status = status, .body = std::move(body)};
}

// Failures of every kind, by endpoint.
LoopbackResponse failureFor(const LoopbackRequest& request) {
  if (request.path.ends_with("/offers"))
    return reply(401, R"({"status":"error","message":"expired"})");
  if (request.path.ends_with("/orders")) return reply(200, R"({"status":"error","message":"no"})");
  return reply(500, "oops");
}

TEST(SecurityTest, TokenNeverReachesALogLineAtAnyLevelOrCategory) {
  ZVLoopbackServer server;
  CloseConnectionsFirst closeFirst;
  std::atomic<bool> fail{false};
  server.setHandler(
      [&](const LoopbackRequest& r) { return fail ? failureFor(r) : serviceAnswer(r); });
  configureService(server.baseURL());
  ZVRewardsManager* manager = ZVRewardsManager::instance();
  for (int64_t level : {0, 1, 2, 3}) {
    SCOPED_TRACE(level);
    LogCapture log(level);
    for (bool failing : {false, true}) {
      fail = failing;
      manager->resetData();
      // A cache hit and the validation failures log as well.
      Completions completions = startAll(allOperationsAndRefusals());
      ASSERT_TRUE(waitForAll(completions));
      for (const auto& c : completions) {
        if (ZVErrorPtr error = c->error) {
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
  const std::string url = server.baseURL();
  const std::string closed = fmt::format("http://127.0.0.1:{}", ZVRawServer::closedPort());
  const std::vector<std::string> cases[] = {
      {url, "offers", "--force"},      {url, "orders"},    {url, "--json", "order", "101"},
      {url, "answer", "1", "q", "42"}, {closed, "offers"}, {url, "no-such-command"}};
  for (std::vector<std::string> args : cases) {
    SCOPED_TRACE(fmt::format("{}", fmt::join(args, " ")));
    args.insert(args.begin(), {ZVREWARDS_BIN, "--token", kSecretToken, "--app", "app",
                               "--insecure-http", "-vv", "--timeout", "5", "--service"});
    const ProcessResult run = runProcess(args, std::chrono::seconds(60));
    EXPECT_FALSE(run.out.empty() && run.err.empty());
    EXPECT_EQ((run.out + run.err).find(kSecretToken), std::string::npos) << run.out << run.err;
  }
  // Without --insecure-http the client refuses, still without printing the token.
  const ProcessResult refused =
      runProcess({ZVREWARDS_BIN, "--service", url, "--token", kSecretToken, "offers"},
                 std::chrono::seconds(60));
  EXPECT_EQ((refused.out + refused.err).find(kSecretToken), std::string::npos) << refused.err;
  EXPECT_GE(server.requestCount(), 4u);
}
#endif

TEST(SecurityTest, HostileIdsStayInTheirSlotOfTheirEndpoint) {
  ZVLoopbackServer server;
  CloseConnectionsFirst closeFirst;
  server.setHandler([](const LoopbackRequest&) { return reply(200, R"({"status":"ok"})"); });
  configureService(server.baseURL());
  const std::string ids[] = {"a/b",
                             "5/challenges/skills_test_questions",
                             "a b",
                             "..",
                             ".",
                             "...",
                             "",
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
    for (const bool order : {true, false}) {
      SCOPED_TRACE(::testing::PrintToString(id) + (order ? " in an order" : " in an answer"));
      const size_t before = server.requestCount();
      Completions completion;
      completion.push_back(std::make_unique<Completion>());
      if (order)
        manager->placeOrder(ZVOrderRequest::initWithOfferID(id, 1), completion[0]->handler());
      else
        manager->answerSkillQuestionForOfferID(id, id, ZVJSONValue("x"), completion[0]->handler());
      ASSERT_TRUE(waitForAll(completion));
      if (!completion[0]->result) {
        // Refused before anything was sent: a dot segment cannot be an id, and
        // an order body cannot carry text that is not UTF-8.
        ASSERT_TRUE(completion[0]->error);
        EXPECT_EQ(completion[0]->error->type(), ZVErrorTypeValidation);
        EXPECT_EQ(completion[0]->error->code() == ZVErrorInvalidPathValue, id == "." || id == "..");
        EXPECT_EQ(server.requestCount(), before);
        continue;
      }
      EXPECT_NE(id, "..");
      // Exactly one request, nothing smuggled in after it.
      ASSERT_EQ(server.requestCount(), before + 1);
      const LoopbackRequest request = server.requests().back();
      EXPECT_EQ(request.method, "POST");
      EXPECT_EQ(request.target.find_first_of("#?"), std::string::npos) << request.target;
      EXPECT_FALSE(request.hasHeader("X-Injected"));
      EXPECT_EQ(request.header("Authorization"), fmt::format("Bearer {}", kSecretToken));
      // No segment a server or proxy would fold into a parent directory.
      for (const std::string_view dots : {"/../", "/./"})
        EXPECT_EQ((request.path + "/").find(dots), std::string::npos) << request.path;
      // The id comes back intact from its slot (both slots of an answer).
      const std::string tail = order ? "/orders" : "/challenges/skills_test_questions/";
      ASSERT_TRUE(request.path.starts_with(root)) << request.path;
      const std::string rest = request.path.substr(root.size());
      const size_t at = rest.rfind(tail);
      ASSERT_NE(at, std::string::npos) << request.path;
      // Each id is exactly one segment.
      EXPECT_EQ(std::ranges::count(rest, '/'), order ? 1 : 3) << request.path;
      // (Decoded as a server would.)
      EXPECT_EQ(httplib::detail::decode_url(rest.substr(0, at), false), id);
      EXPECT_EQ(httplib::detail::decode_url(rest.substr(at + tail.size()), false), order ? "" : id);
    }
  }
}

}  // namespace
