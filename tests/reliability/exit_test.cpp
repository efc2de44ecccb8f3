// A host process may exit, shut the SDK down or unload it, with requests in
// flight or from inside a handler, without a crash, a hang or a sanitizer
// report: each scenario runs in a child process, many times over (a race at
// exit shows in a fraction of the runs), and every run must end with status
// 0 within a time limit. ZV_EXIT_RUNS sets the runs per scenario.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "ZVLoopbackServer.h"
#include "ZVProcess.h"
#include "ZVRawServer.h"

extern char** environ;

using namespace zvtest;

namespace {

struct Scenario {
  const char* name;
  std::vector<std::string> argv;  // HOST stands for the server's URL
  bool answering;                 // a server that answers at once, else one that never does
};

int runsPerScenario() {
  const char* runs = std::getenv("ZV_EXIT_RUNS");
  return runs != nullptr && std::atoi(runs) > 0 ? std::atoi(runs) : 25;
}

// Ours, but with no leak check: a library unloaded leaves its singletons
// behind (see docs/lifetimes.md), which LeakSanitizer would report.
std::vector<std::string> environmentWithoutLeakCheck() {
  std::vector<std::string> environment;
  std::string asan = "ASAN_OPTIONS=detect_leaks=0";
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    if (text.starts_with("ASAN_OPTIONS="))
      asan = text + ":detect_leaks=0";
    else
      environment.push_back(text);
  }
  environment.push_back(asan);
  return environment;
}

class ExitTest : public ::testing::TestWithParam<Scenario> {};

TEST_P(ExitTest, EveryRunEndsCleanlyAndInTime) {
  const Scenario& scenario = GetParam();
  const bool unload = scenario.argv[0] == ZV_UNLOAD_CHILD;
  const std::vector<std::string> environment =
      unload ? environmentWithoutLeakCheck() : std::vector<std::string>{};
  const int runs = runsPerScenario();
  for (int run = 0; run < runs; ++run) {
    // One server never answers (requests stay in flight); the other answers at
    // once (deliveries keep arriving on the main queue).
    ZVRawServer silent({.bytes = "", .end = RawScript::End::Hold});
    ZVLoopbackServer answering;
    answering.setHandler(
        [](const LoopbackRequest&) { return LoopbackResponse{.body = R"({"status":"ok"})"}; });
    std::vector<std::string> argv = scenario.argv;
    for (std::string& arg : argv)
      if (arg == "HOST") arg = scenario.answering ? answering.baseURL() : silent.baseURL();
    const ProcessResult child = runProcess(argv, std::chrono::seconds(30), environment);
    ASSERT_FALSE(child.hung) << "run " << run << " hung\n" << child.err;
    ASSERT_TRUE(WIFEXITED(child.status))
        << "run " << run << " killed by signal " << WTERMSIG(child.status) << "\n"
        << child.err;
    ASSERT_EQ(child.exitCode(), 0) << "run " << run << "\n" << child.err;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Hosts, ExitTest,
    ::testing::Values(Scenario{"inflightSilent", {ZV_EXIT_CHILD, "inflight", "HOST"}, false},
                      Scenario{"inflightAnswering", {ZV_EXIT_CHILD, "inflight", "HOST"}, true},
                      Scenario{"teardownAnswering", {ZV_EXIT_CHILD, "teardown", "HOST"}, true},
                      Scenario{"teardownSilent", {ZV_EXIT_CHILD, "teardown", "HOST"}, false},
                      Scenario{"handlerSilent", {ZV_EXIT_CHILD, "handler", "HOST"}, false},
                      Scenario{"shutdownAnswering", {ZV_EXIT_CHILD, "shutdown", "HOST"}, true},
                      Scenario{"unloadSilent", {ZV_UNLOAD_CHILD, ZV_UNLOAD_PLUGIN, "HOST"}, false},
                      Scenario{
                          "unloadAnswering", {ZV_UNLOAD_CHILD, ZV_UNLOAD_PLUGIN, "HOST"}, true}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
