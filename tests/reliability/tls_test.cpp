// TLS against the sandbox's self-signed certificate: refused by default,
// accepted with the host's certificate authority file, refused for a host
// name the certificate does not cover; plain http only when allowed.
#include <ZVSandbox.h>
#include <fmt/format.h>

#include <unistd.h>

#include <filesystem>

#include "../rewards/RewardsFixture.h"
#include "ReliabilityFixture.h"

using namespace zvtest;

namespace {

class TLSTest : public ::testing::Test {
 protected:
  // A TLS sandbox listening on `address` (any 127/8 address is loopback).
  std::unique_ptr<ZVSandbox> startSandbox(const std::string& address) {
    ZVSandboxOptions options;
    options.host = address;
    options.tls = true;
    options.statePath = ":memory:";
    options.reset = true;
    options.certDir = (certRoot_ / address).string();
    auto sandbox = std::make_unique<ZVSandbox>(options);
    std::string problem;
    EXPECT_TRUE(sandbox->start(problem)) << problem;
    return sandbox;
  }

  void configure(const ZVSandbox& sandbox, std::string caFile) {
    ZVConfiguration configuration;
    configuration.serviceHost = sandbox.serviceHost();
    configuration.appID = sandbox.options().appID;
    configuration.accessToken = sandbox.options().accessToken;
    configuration.caFile = std::move(caFile);
    configuration.requestTimeout = std::chrono::seconds(10);
    Zorvane::configure(configuration);
    ZVRewardsManager::instance()->resetData();
  }

  // Runs every operation; returns the completions once all have run.
  std::vector<std::unique_ptr<Completion>> runAll() {
    std::vector<std::unique_ptr<Completion>> completions;
    for (const Operation& operation : allOperations()) {
      completions.push_back(std::make_unique<Completion>());
      operation.start(ZVRewardsManager::instance(), *completions.back());
    }
    EXPECT_TRUE(waitForAll(completions));
    return completions;
  }

  void TearDown() override {
    std::error_code ignored;
    std::filesystem::remove_all(certRoot_, ignored);
  }

  std::filesystem::path certRoot_ =
      std::filesystem::temp_directory_path() / fmt::format("zv-tls-{}", ::getpid());
};

TEST_F(TLSTest, SelfSignedCertificateIsRefusedByDefault) {
  auto sandbox = startSandbox("127.0.0.1");
  CloseConnectionsFirst closeFirst;
  configure(*sandbox, "");
  for (const auto& c : runAll()) {
    ASSERT_EQ(c->calls.load(), 1);
    ZVErrorPtr error = c->lastError();
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), ZVErrorTransportTLS);
    EXPECT_NE(error->message()->find("TLS certificate of 127.0.0.1 could not be verified"),
              std::string::npos)
        << *error->message();
  }
}

TEST_F(TLSTest, CertificateAuthorityFileOfTheHostIsTrusted) {
  auto sandbox = startSandbox("127.0.0.1");
  CloseConnectionsFirst closeFirst;
  configure(*sandbox, sandbox->certificatePath());
  Outcome<const ZVOfferArray> offers;
  ZVRewardsManager::instance()->forceFetchOffersWithLocale(ZVLocale("en_US"), offers.handler());
  ASSERT_TRUE(offers.wait());
  ASSERT_FALSE(offers.error) << offers.error->description();
  EXPECT_FALSE(offers.result->empty());
}

TEST_F(TLSTest, CertificateForAnotherHostNameIsRefused) {
  // The certificate names localhost and 127.0.0.1; the service is reached as 127.0.0.2.
  auto sandbox = startSandbox("127.0.0.2");
  CloseConnectionsFirst closeFirst;
  configure(*sandbox, sandbox->certificatePath());
  Outcome<const ZVOfferArray> offers;
  ZVRewardsManager::instance()->forceFetchOffersWithLocale(ZVLocale("en_US"), offers.handler());
  ASSERT_TRUE(offers.wait());
  ASSERT_TRUE(offers.error);
  EXPECT_EQ(offers.error->code(), ZVErrorTransportTLS);
  EXPECT_NE(offers.error->message()->find("TLS certificate of 127.0.0.2 could not be verified"),
            std::string::npos)
      << *offers.error->message();
}

TEST_F(TLSTest, PlainHTTPIsRefusedUnlessTheHostAllowsIt) {
  ZVLoopbackServer server;
  CloseConnectionsFirst closeFirst;
  server.setHandler([](const LoopbackRequest&) {
    LoopbackResponse response;
    response.body = R"({"status":"ok"})";
    return response;
  });
  configureService(server.baseURL());
  ZVConfiguration configuration = Zorvane::configuration();
  configuration.allowInsecureHTTP = false;
  Zorvane::configure(configuration);
  for (const auto& c : runAll()) {
    ZVErrorPtr error = c->lastError();
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), ZVErrorNotConfigured);
    EXPECT_EQ(*error->message(), fmt::format("plain http to {} is refused: set allowInsecureHTTP "
                                             "to allow it",
                                             server.hostAndPort()));
  }
  EXPECT_EQ(server.requestCount(), 0u);

  configuration.allowInsecureHTTP = true;
  Zorvane::configure(configuration);
  for (const auto& c : runAll()) EXPECT_TRUE(c->hadResult.load());
}

}  // namespace
