// TLS against the sandbox's self-signed certificate: refused by default,
// accepted with the host's certificate authority file, refused for a host
// name the certificate does not cover; plain http only when allowed.
#include <ZVSandbox.h>
#include <fmt/format.h>
#include <unistd.h>

#include <filesystem>

#include "ZVRewardsFixture.h"

using namespace zvtest;

namespace {

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
  ZVLoopbackServer server;
  CloseConnectionsFirst closeFirst;
  configureService(server.baseURL());
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
