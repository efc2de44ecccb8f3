// A host process may exit with requests in flight, or stop its main queue,
// without a crash or a hang: each scenario runs in a child process that must
// end with status 0 within a time limit.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "ZVLoopbackServer.h"
#include "ZVRawServer.h"

using namespace zvtest;
using namespace std::chrono_literals;

namespace {

// Runs the child; returns its wait status, or -1 when it had to be killed.
int runChild(const std::string& mode, const std::string& host, std::chrono::seconds limit) {
  const pid_t pid = fork();
  if (pid == 0) {
    execl(ZV_EXIT_CHILD, ZV_EXIT_CHILD, mode.c_str(), host.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  const auto deadline = std::chrono::steady_clock::now() + limit;
  int status = 0;
  while (waitpid(pid, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      return -1;
    }
    std::this_thread::sleep_for(10ms);
  }
  return status;
}

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
  answering.setHandler([](const LoopbackRequest&) {
    LoopbackResponse response;
    response.body = R"({"status":"ok"})";
    return response;
  });
  const std::string host = GetParam().answering ? answering.baseURL() : silent.baseURL();
  const int status = runChild(GetParam().mode, host, 30s);
  ASSERT_NE(status, -1) << "the child hung";
  ASSERT_TRUE(WIFEXITED(status)) << "killed by signal " << WTERMSIG(status);
  EXPECT_EQ(WEXITSTATUS(status), 0);
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
