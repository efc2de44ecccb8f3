// A host process may exit with requests in flight, or stop its main queue,
// without a crash or a hang: each scenario runs in a child process that must
// end with status 0 within a time limit.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include "ZVLoopbackServer.h"
#include "ZVProcess.h"
#include "ZVRawServer.h"

using namespace zvtest;

namespace {

struct Scenario {
  const char* mode;
  bool answering;  // a server that answers at once, else one that never does
};

class ExitTest : public ::testing::TestWithParam<Scenario> {};

TEST_P(ExitTest, ChildEndsCleanlyAndInTime) {
  // One server never answers (requests stay in flight); the other answers at
  // once (deliveries keep arriving on the main queue).
  ZVRawServer silent({.bytes = "", .end = RawScript::End::Hold});
  ZVLoopbackServer answering;
  answering.setHandler(
      [](const LoopbackRequest&) { return LoopbackResponse{.body = R"({"status":"ok"})"}; });
  const std::string host = GetParam().answering ? answering.baseURL() : silent.baseURL();
  const ProcessResult child =
      waitProcess(spawnProcess({ZV_EXIT_CHILD, GetParam().mode, host}), std::chrono::seconds(30));
  ASSERT_FALSE(child.hung);
  ASSERT_TRUE(WIFEXITED(child.status)) << "killed by signal " << WTERMSIG(child.status);
  EXPECT_EQ(child.exitCode(), 0);
}

INSTANTIATE_TEST_SUITE_P(Hosts, ExitTest,
                         ::testing::Values(Scenario{"inflight", false}, Scenario{"inflight", true},
                                           Scenario{"teardown", true}, Scenario{"teardown", false},
                                           Scenario{"handler", false}),
                         [](const auto& info) {
                           return std::string(info.param.mode) +
                                  (info.param.answering ? "Answering" : "Silent");
                         });

}  // namespace
