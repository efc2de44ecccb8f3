// zv_bench_transport WORK_DIR [benchmark flags]
//
// Request rate and client CPU per request of the SDK against raw libcurl, both
// fetching from a local nginx (one worker, keep-alive, the answers as static
// files) that this program starts under WORK_DIR and stops. The client process
// is pinned to one CPU and nginx to another, so that the client's CPU time is
// its own work and the server never competes with it.
//
// Each benchmark times four clients in turn within every iteration, a batch
// each, in a rotating order, so that they meet the same speed of a shared
// machine:
//   host: ZVRewardsManager's forced offers fetch, the completion handler on
//         the main queue run by this thread (as a host's main thread does),
//         each handler sending the next fetch;
//   core: ZVGenericRequestManager alone (transport and JSON parse, callback
//         on the transport's thread, no records, no main queue), for where
//         the time goes;
//   hop:  core with each callback handed to the main queue, which this
//         thread runs and where the next request is sent: the hand-off to
//         the host's thread without the rewards layer, for the same;
//   raw:  raw libcurl, the baseline: a multi handle with the same number in
//         flight (or one reused easy handle for sequential requests), the
//         same request headers, each body kept in a std::string, and for the
//         catalogue a simdjson DOM parse of each body.
// CPU per request is the process's CPU time (CLOCK_PROCESS_CPUTIME_ID) over a
// batch divided by its requests; context switches and minor page faults
// come from getrusage.
// Prints one line per benchmark on stdout with the medians over the
// repetitions, and the spread (".min", ".max") of the ratios. With
// --only=host|core|hop|raw, that client runs alone (for a profiler); with
// --repetitions=N, N repetitions instead of 11 (two runs that differ only in
// N give a profiler's cost per request, without the start-up).
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <sys/resource.h>

#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <fmt/format.h>

#include <ZorvaneCoreKit/Zorvane.h>

#include "http/ZVGenericRequest.h"
#include "http/ZVGenericRequestManager.h"

#include "ZVBenchCatalogue.h"
#include "ZVBenchClients.h"
#include "ZVBenchNginx.h"
#include "ZVBenchReport.h"

namespace {

using zvbench::Catalogue;
using zvbench::Endpoint;

constexpr int kInFlight = 16;

struct Side {
  std::string name;
  std::function<int64_t()> batch;  // runs one batch, returns the failures
};

struct Case {
  std::string name;  // "http1/empty/inflight16"
  const Endpoint* endpoint;
  int requests;             // per batch and side
  std::vector<Side> sides;  // the last is the baseline
};

double processCPUSeconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Context switches and minor page faults of the whole process so far.
std::pair<long, long> switchesAndFaults() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return {usage.ru_nvcsw + usage.ru_nivcsw, usage.ru_minflt};
}

zvbench::Nginx* server = nullptr;
// Requests each client sent, warm-up included, by "case side": a profiler's
// totals divided by these are per request.
std::map<std::string, int64_t> sentTotals;

void paired(benchmark::State& state, Case* c) {
  zvbench::configureSDK(*c->endpoint);
  const size_t n = c->sides.size();
  std::vector<double> wall(n), cpu(n);
  std::vector<long> switches(n), faults(n), connections(n);
  int64_t failures = 0;
  size_t turn = 0;
  for (auto _ : state) {
    double iteration = 0;
    for (size_t part = 0; part < n; ++part) {
      const size_t side = (turn + part) % n;
      const long accepted = server->acceptedConnections();
      const auto [switchesBefore, faultsBefore] = switchesAndFaults();
      const double cpuBefore = processCPUSeconds();
      const auto start = std::chrono::steady_clock::now();
      failures += c->sides[side].batch();
      sentTotals[c->name + " " + c->sides[side].name] += c->requests;
      const double seconds =
          std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      cpu[side] += processCPUSeconds() - cpuBefore;
      const auto [switchesAfter, faultsAfter] = switchesAndFaults();
      switches[side] += switchesAfter - switchesBefore;
      faults[side] += faultsAfter - faultsBefore;
      wall[side] += seconds;
      iteration += seconds;
      // The status request's own connection was opened at the first reading.
      connections[side] += server->acceptedConnections() - accepted;
    }
    ++turn;
    state.SetIterationTime(iteration);
  }
  const double requests = static_cast<double>(state.iterations()) * c->requests;
  const size_t base = n - 1;
  for (size_t i = 0; i < n; ++i) {
    const std::string& name = c->sides[i].name;
    state.counters[name + "_rps"] = requests / wall[i];
    state.counters[name + "_cpu_us"] = cpu[i] / requests * 1e6;
    state.counters[name + "_csw"] = static_cast<double>(switches[i]) / requests;
    state.counters[name + "_faults"] = static_cast<double>(faults[i]) / requests;
    state.counters[name + "_new_connections"] = static_cast<double>(connections[i]);
    // Below 1 while the client was busy, the machine's other load took its
    // CPU: the rates then favour the side with more threads.
    state.counters[name + "_cpu_share"] = cpu[i] / wall[i];
    if (i != base && base != 0) {
      state.counters[name + "_rate_ratio"] = wall[base] / wall[i];
      state.counters[name + "_cpu_ratio"] = cpu[i] / cpu[base];
    }
  }
  if (failures != 0) state.SkipWithError("requests failed");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argv[1][0] == '-') {
    std::fprintf(stderr, "usage: zv_bench_transport WORK_DIR [benchmark flags]\n");
    return 2;
  }
  const std::string workDir = argv[1];
  // Our own flags: --only=host|core|hop|raw and --repetitions=N.
  std::string only;
  int repetitions = 11;
  std::vector<char*> args{argv[0]};
  char interleave[] = "--benchmark_enable_random_interleaving=true";
  args.push_back(interleave);  // a later flag on the command line still wins
  for (int i = 2; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg.rfind("--only=", 0) == 0)
      only = arg.substr(7);
    else if (arg.rfind("--repetitions=", 0) == 0)
      repetitions = std::max(1, std::atoi(arg.c_str() + 14));
    else
      args.push_back(argv[i]);
  }
  int count = static_cast<int>(args.size());
  benchmark::Initialize(&count, args.data());

  // Before any thread starts: they all inherit the client's CPU.
  const zvbench::Placement placement = zvbench::pinClientAndPickServerCPU();
  curl_global_init(CURL_GLOBAL_DEFAULT);
  const std::unique_ptr<zvbench::Nginx> nginx = zvbench::startNginx(
      "zv_bench_transport", workDir,
      std::map<std::string, std::string>{
          {zvbench::kEmptyCatalogue.fileName(), R"({"status":"ok","offers":[]})"},
          {zvbench::kCatalogue100.fileName(), zvbench::makeCatalogue(100)}},
      placement.serverCPU);
  if (!nginx) return 1;
  server = nginx.get();

  const Endpoint http1{"http1", "http", nginx->httpPort(), "", false};
  const Endpoint h2{"h2", "https", nginx->httpsPort(), nginx->caFile(), true};
  std::vector<std::unique_ptr<zvbench::RawClient>> raws;
  std::vector<Case> cases;
  for (const Endpoint* endpoint : {&http1, &h2}) {
    for (const Catalogue* catalogue : {&zvbench::kEmptyCatalogue, &zvbench::kCatalogue100}) {
      const bool parse = catalogue->offers > 0;
      const std::string label = parse ? "catalogue100" : "empty";
      raws.push_back(std::make_unique<zvbench::RawClient>(
          *endpoint, endpoint->offersURL(*catalogue), kInFlight));
      zvbench::RawClient* raw = raws.back().get();
      const int batch = parse ? 128 : 512;
      cases.push_back(
          {endpoint->name + "/" + label + "/inflight16",
           endpoint,
           batch,
           {{"host", [=] { return zvbench::hostFetches(*catalogue, kInFlight, batch); }},
            {"core", [=] { return zvbench::coreFetches(*catalogue, kInFlight, batch); }},
            {"hop", [=] { return zvbench::hopFetches(*catalogue, kInFlight, batch); }},
            {"raw", [=] { return raw->multi(batch, parse); }}}});
      if (parse) continue;
      const int sequential = 256;
      cases.push_back({endpoint->name + "/" + label + "/sequential",
                       endpoint,
                       sequential,
                       {{"host", [=] { return zvbench::hostFetches(*catalogue, 1, sequential); }},
                        {"core", [=] { return zvbench::coreFetches(*catalogue, 1, sequential); }},
                        {"hop", [=] { return zvbench::hopFetches(*catalogue, 1, sequential); }},
                        {"raw", [=] { return raw->sequential(sequential, false); }}}});
    }
  }
  for (Case& c : cases) {
    if (!only.empty()) std::erase_if(c.sides, [&](const Side& side) { return side.name != only; });
    auto* bench = benchmark::RegisterBenchmark(c.name.c_str(), paired, &c)
                      ->MinTime(0.3)
                      ->MinWarmUpTime(0.1)
                      ->Repetitions(repetitions)
                      ->ReportAggregatesOnly(true)
                      ->UseManualTime();
    zvbench::CollectingReporter::addSpread(bench);
  }

  // The table goes to stderr so that stdout holds only the result lines.
  zvbench::CollectingReporter reporter;
  reporter.SetOutputStream(&std::cerr);
  reporter.SetErrorStream(&std::cerr);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  // Closes the connections before nginx stops.
  raws.clear();
  ZVGenericRequestManager::instance()->setTransport(nullptr);

  fmt::print("placement {}\n", placement.describe());
  fmt::print("server {}\n", nginx->version());
  for (const Case& c : cases) {
    const zvbench::Figure* figure = reporter.find(c.name + "/manual_time");
    if (figure == nullptr) continue;
    std::string line = "transport " + c.name;
    for (const auto& [counter, value] : figure->counters)
      line += fmt::format(" {}={}", counter, zvbench::number(value));
    fmt::print("{}\n", line);
  }
  for (const auto& [name, sent] : sentTotals) fmt::print("sent {} requests={}\n", name, sent);
  return 0;
}
