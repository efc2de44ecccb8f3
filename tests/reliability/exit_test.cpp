// A host process may exit, shut the SDK down or unload it, with requests in
// flight or from inside a handler, without a crash, a hang or a sanitizer
// report: each scenario runs in a child process (host_child.cpp,
// unload_child.cpp), many times over (a race at exit shows in a fraction of
// the runs), and every run must end with status 0 within a time limit.
// ZV_EXIT_RUNS sets the runs per scenario.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "ZVLoopbackServer.h"
#include "ZVProcess.h"
#include "ZVRawServer.h"
#include "ZVTestSupport.h"

using namespace zvtest;

namespace {

// A mode of host_child ("unload": unload_child with its plugin), against a
// server that answers at once (deliveries keep arriving on the main queue)
// or one that never does (requests stay in flight).
using Scenario = std::tuple<std::string, bool>;

class ExitTest : public ::testing::TestWithParam<Scenario> {};

TEST_P(ExitTest, EveryRunEndsCleanlyAndInTime) {
  const auto& [mode, answers] = GetParam();
  const size_t runs = envOr("ZV_EXIT_RUNS", 25);
  for (size_t run = 0; run < runs; ++run) {
    ZVRawServer silent({.bytes = "", .end = RawScript::End::Hold});
    ZVLoopbackServer answering;
    answering.setHandler(
        [](const LoopbackRequest&) { return LoopbackResponse{.body = R"({"status":"ok"})"}; });
    const std::string host = answers ? answering.baseURL() : silent.baseURL();
    const ProcessResult child = runProcess(
        mode == "unload" ? std::vector<std::string>{ZV_UNLOAD_CHILD, ZV_UNLOAD_PLUGIN, host}
                         : std::vector<std::string>{ZV_HOST_CHILD, mode, host},
        std::chrono::seconds(30));
    // Not 0 when it hung, was killed by a signal or failed.
    ASSERT_EQ(child.exitCode(), 0) << "run " << run << ", wait status " << child.status << "\n"
                                   << child.err;
  }
}

INSTANTIATE_TEST_SUITE_P(Hosts, ExitTest,
                         ::testing::Combine(::testing::Values("inflight", "teardown", "handler",
                                                              "shutdown", "unload"),
                                            ::testing::Bool()),
                         [](const ::testing::TestParamInfo<Scenario>& info) {
                           return std::get<0>(info.param) +
                                  (std::get<1>(info.param) ? "Answering" : "Silent");
                         });

}  // namespace
