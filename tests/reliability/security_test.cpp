// The access token stays out of every log line, and hostile ids cannot steer
// a request to another endpoint or smuggle in a header: checked on what the
// server actually receives. (zvrewards_test checks the client's output.)
// TLS against the sandbox's self-signed certificate: refused by default,
// accepted with the host's certificate authority file, refused for a host
// name the certificate does not cover; plain http only when allowed.
#include <ZVSandbox.h>
#include <fmt/format.h>
#include <httplib.h>
#include <unistd.h>

#include <filesystem>

#include "ZVRewardsFixture.h"

using namespace zvtest;

namespace {

TEST(SecurityTest, TokenNeverReachesALogLineAtAnyLevelOrCategory) {
  std::atomic<bool> fail{false};
  // When failing, failures of every kind, by endpoint.
  ServiceServer server([&](const LoopbackRequest& r) {
    if (!fail) return serviceAnswer(r);
    if (r.path.ends_with("/offers"))
      return LoopbackResponse{401, R"({"status":"error","message":"expired"})"};
    if (r.path.ends_with("/orders"))
      return LoopbackResponse{200, R"({"status":"error","message":"no"})"};
    return LoopbackResponse{500, "oops"};
  });
  for (int64_t level : {0, 1, 2, 3}) {
    SCOPED_TRACE(level);
    LogCapture log(level);
    for (bool failing : {false, true}) {
      fail = failing;
      ZVRewardsManager::instance()->resetData();
      // A cache hit and the validation failures log as well.
      Completions completions = startAll(allOperationsAndRefusals());
      ASSERT_TRUE(waitForAll(completions));
      for (const auto& c : completions)
        EXPECT_EQ(c->error ? c->error->description().find(kSecretToken) : std::string::npos,
                  std::string::npos);
    }
    const auto lines = log.lines();
    for (const std::string& line : lines) EXPECT_EQ(line.find(kSecretToken), std::string::npos);
    // Levels 1 and 2 do write lines, so the check above is not vacuous.
    EXPECT_GE(lines.size(), level == 1 || level == 2 ? 3u : 0u);
  }
}

TEST(SecurityTest, HostileIdsStayInTheirSlotOfTheirEndpoint) {
  ServiceServer server([](const LoopbackRequest&) {
    return LoopbackResponse{200, R"({"status":"ok"})"};
  });
  // Path separators, dot segments, encodings, control characters, bad UTF-8,
  // and an id that takes a whole path.
  std::vector<std::string> ids = {"a/b",  "a b",          "..",        ".",
                                  "",     "../../orders", "%2e%2e%2f", "?locale=xx",
                                  "#top", ":appid",       "a\x01\x7f", "\xc3\xa9\xff"};
  ids.insert(ids.end(), {"a\r\nX-Injected: 1", "5/challenges/skills_test_questions"});
  ids.emplace_back("a\0b", 3);
  const std::string root = "/api/v1/apps/app/offers/";
  for (const std::string& id : ids) {
    for (const bool order : {true, false}) {
      SCOPED_TRACE(::testing::PrintToString(id) + (order ? " in an order" : " in an answer"));
      const size_t before = server.requestCount();
      const auto done = await([&](auto h) {
        auto* m = ZVRewardsManager::instance();
        order ? m->placeOrder(ZVOrderRequest::initWithOfferID(id, 1), h)
              : m->answerSkillQuestionForOfferID(id, id, "x", h);
      });
      if (const ZVErrorPtr error = done->error; !done->result) {
        // Refused before anything was sent: a dot segment cannot be an id, and
        // an order body cannot carry text that is not UTF-8.
        ASSERT_TRUE(error);
        EXPECT_EQ(error->type(), ZVErrorTypeValidation);
        EXPECT_EQ(error->code() == ZVErrorInvalidPathValue, id == "." || id == "..");
        EXPECT_EQ(server.requestCount(), before);
        continue;
      }
      EXPECT_NE(id, "..");
      // Exactly one request, nothing smuggled in after it.
      ASSERT_EQ(server.requestCount(), before + 1);
      const LoopbackRequest request = server.requests().back();
      EXPECT_EQ(request.header("X-Injected"), "");
      // No segment a server or proxy would fold into a parent directory.
      for (const std::string_view dots : {"/../", "/./"})
        EXPECT_EQ((request.path + "/").find(dots), std::string::npos) << request.path;
      // The id comes back intact from its slot (both slots of an answer), as
      // exactly one segment, decoded as a server would.
      const std::string tail = order ? "/orders" : "/challenges/skills_test_questions/";
      ASSERT_TRUE(request.path.starts_with(root)) << request.path;
      const std::string rest = request.path.substr(root.size());
      const size_t at = rest.rfind(tail);
      ASSERT_NE(at, std::string::npos) << request.path;
      EXPECT_EQ(std::ranges::count(rest, '/'), order ? 1 : 3) << request.path;
      EXPECT_EQ(httplib::detail::decode_url(rest.substr(0, at), false), id);
      EXPECT_EQ(httplib::detail::decode_url(rest.substr(at + tail.size()), false), order ? "" : id);
    }
  }
}

TEST(TLSTest, CertificateMustChainToTheCAFileAndNameTheHost) {
  const struct {
    const char* address;  // any 127/8 address is loopback
    bool trustCertificate;
    const char* refusal;  // nullptr: accepted
  } cases[] = {
      // The certificate names localhost and 127.0.0.1.
      {"127.0.0.1", false, "TLS certificate of 127.0.0.1 could not be verified"},
      {"127.0.0.1", true, nullptr},
      {"127.0.0.2", true, "TLS certificate of 127.0.0.2 could not be verified"},
  };
  const auto certRoot = std::filesystem::temp_directory_path() / fmt::format("zv-tls-{}", getpid());
  for (const auto& c : cases) {
    SCOPED_TRACE(fmt::format("{}, CA file {}", c.address, c.trustCertificate));
    ZVSandbox sandbox({.host = c.address,
                       .statePath = ":memory:",
                       .tls = true,
                       .certDir = (certRoot / c.address).string(),
                       .appID = "app",
                       .accessToken = kSecretToken,
                       .faults = {}});
    CloseConnectionsFirst closeFirst;
    std::string problem;
    ASSERT_TRUE(sandbox.start(problem)) << problem;
    configureService(sandbox.serviceHost(), std::chrono::seconds(10));
    reconfigure([&](ZVConfiguration& config) {
      config.caFile = c.trustCertificate ? sandbox.certificatePath() : "";
    });
    ZVRewardsManager::instance()->resetData();

    Completions completions = startAll(allOperations());
    ASSERT_TRUE(waitForAll(completions));
    EXPECT_EQ(completions[0]->result != nullptr, !c.refusal);
    for (const auto& completion : completions) {
      const ZVErrorPtr error = completion->error;
      if (!c.refusal) {
        // Through to the service, which may still refuse (an unknown question).
        EXPECT_TRUE(!error || error->type() == ZVErrorTypeService) << error->description();
      } else {
        ASSERT_TRUE(error);
        EXPECT_EQ(error->code(), ZVErrorTransportTLS);
        EXPECT_NE(error->message()->find(c.refusal), std::string::npos) << *error->message();
      }
    }
  }
  std::filesystem::remove_all(certRoot);
}

// Every operation is refused before anything is sent (the tests that talk to
// a loopback service show plain http allowed).
TEST(TLSTest, PlainHTTPIsRefusedUnlessTheHostAllowsIt) {
  ServiceServer server;
  reconfigure([&](ZVConfiguration& config) { config.allowInsecureHTTP = false; });
  Completions refused = startAll(allOperations());
  ASSERT_TRUE(waitForAll(refused));
  for (const auto& c : refused) {
    ASSERT_TRUE(c->error);
    EXPECT_EQ(c->error->code(), ZVErrorNotConfigured);  // worded: the URL resolution test
  }
  EXPECT_EQ(server.requestCount(), 0u);
}

}  // namespace
