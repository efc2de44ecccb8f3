// A host process may exit, shut the SDK down or unload it, with requests in
// flight or from inside a handler, without a crash, a hang or a sanitizer
// report: each scenario runs in a child process (host_child.cpp,
// unload_child.cpp), many times over (a race at exit shows in a fraction of
// the runs), and every run must end with status 0 within a time limit.
// ZV_EXIT_RUNS sets the runs per scenario.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "ZVLoopbackServer.h"
#include "ZVProcess.h"
#include "ZVRawServer.h"
#include "ZVTestSupport.h"

extern char** environ;

using namespace zvtest;

namespace {

struct Scenario {
  std::string name;
  std::vector<std::string> argv;  // HOST stands for the server's URL
  bool answering;                 // a server that answers at once, else one that never does
};

class ExitTest : public ::testing::TestWithParam<Scenario> {};

TEST_P(ExitTest, EveryRunEndsCleanlyAndInTime) {
  const Scenario& scenario = GetParam();
  // An unloaded library leaves its singletons behind (see docs/lifetimes.md),
  // which LeakSanitizer would report: no leak check for those runs.
  std::vector<std::string> environment;
  if (scenario.argv[0] == ZV_UNLOAD_CHILD) {
    for (char** entry = environ; *entry != nullptr; ++entry)
      if (!std::string_view(*entry).starts_with("ASAN_OPTIONS=")) environment.emplace_back(*entry);
    const char* asan = std::getenv("ASAN_OPTIONS");
    environment.push_back("ASAN_OPTIONS=" + std::string(asan ? asan : "") + ":detect_leaks=0");
  }
  const size_t runs = envOr("ZV_EXIT_RUNS", 25);
  for (size_t run = 0; run < runs; ++run) {
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
    // Not 0 when it hung, was killed by a signal or failed.
    ASSERT_EQ(child.exitCode(), 0) << "run " << run << ", wait status " << child.status << "\n"
                                   << child.err;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Hosts, ExitTest,
    ::testing::Values(Scenario{"inflightSilent", {ZV_HOST_CHILD, "inflight", "HOST"}, false},
                      Scenario{"inflightAnswering", {ZV_HOST_CHILD, "inflight", "HOST"}, true},
                      Scenario{"teardownAnswering", {ZV_HOST_CHILD, "teardown", "HOST"}, true},
                      Scenario{"teardownSilent", {ZV_HOST_CHILD, "teardown", "HOST"}, false},
                      Scenario{"handlerSilent", {ZV_HOST_CHILD, "handler", "HOST"}, false},
                      Scenario{"shutdownAnswering", {ZV_HOST_CHILD, "shutdown", "HOST"}, true},
                      Scenario{"unloadSilent", {ZV_UNLOAD_CHILD, ZV_UNLOAD_PLUGIN, "HOST"}, false},
                      Scenario{
                          "unloadAnswering", {ZV_UNLOAD_CHILD, ZV_UNLOAD_PLUGIN, "HOST"}, true}),
    caseName<Scenario>);

}  // namespace
