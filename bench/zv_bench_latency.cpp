// zv_bench_latency WORK_DIR [benchmark flags]
//
// What a host feels of large answers, against a local nginx that this program
// starts under WORK_DIR (client pinned to one CPU, nginx to another):
//
// stall/<protocol>: small requests (orders fetches, a 27-byte answer) sent
//   one a millisecond from the host's thread, which runs the main queue in
//   between; latency from the call to its completion handler. Idle phases
//   alternate with loaded ones, in which forced fetches of a 10,000-offer
//   catalogue (14.6 MB) follow each other, each sent from the previous one's
//   handler; the host drops each catalogue in its handler. Reports the small
//   requests' p50/p99 in both (pooled over five rounds), the median over the
//   rounds of the ratio of the p99s, and the large answer's own time (call
//   to handler) beside raw libcurl's download plus simdjson DOM parse of the
//   same answer on the same connection kind, two after every round. Each
//   round starts with the same phases for raw libcurl (small requests on a
//   multi handle, the large answers fetched and DOM-parsed on a second
//   thread), its decode thread at the process's priority, then at idle
//   priority: the stall of a client that never decodes on the small
//   requests' thread.
//
// frame/latest: the host's frame loop, drain() then a 1 ms sleep, while
//   10,000-offer catalogues are delivered one after the other (the next sent
//   after the frame that delivered the previous one). In alternating rounds
//   of six deliveries, the handler keeps the latest catalogue, so the one it
//   replaces is freed inside drain() ("keep"), or keeps none ("drop": the
//   SDK's cache is then the last owner). Reports drain()'s p50/p99/max over
//   the frames that delivered a catalogue, wall and the thread's CPU time.
//
// frame/burst16: 16 forced fetches of a 100-offer catalogue whose handlers
//   (which keep the latest) all run in one drain(); the time per result,
//   beside 16 empty tasks through the same queue.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <sched.h>

#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <fmt/format.h>

#include <ZorvaneCoreKit/ZVMainQueue.h>
#include <ZorvaneRewardsKit/ZVRewardsManager.h>
#include "http/ZVGenericRequestManager.h"

#include "ZVBenchCatalogue.h"
#include "ZVBenchClients.h"
#include "ZVBenchNginx.h"
#include "ZVBenchReport.h"

namespace {

using Clock = std::chrono::steady_clock;
using zvbench::Endpoint;
using zvbench::percentile;

double msSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double threadCPUms() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) * 1e-6;
}

constexpr auto kPace = std::chrono::milliseconds(1);
constexpr int kRounds = 5;
constexpr double kIdleSeconds = 1.0;
constexpr double kLoadedSeconds = 2.0;

struct Samples {
  std::vector<double> small;  // ms
  std::vector<double> large;  // ms
  int64_t failures = 0;
};

// One phase of paced small requests, with the chain of large fetches running
// when `loaded`. Returns when every request sent has been answered.
void phase(double seconds, bool loaded, Samples& out) {
  ZVRewardsManager* manager = ZVRewardsManager::instance();
  ZVMainQueue* queue = ZVMainQueue::shared();
  const ZVLocale large(zvbench::kCatalogue10k.locale);
  const auto start = Clock::now();
  const auto end =
      start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  int outstanding = 0;  // touched by this thread and the handlers, which it runs
  std::function<void()> sendLarge = [&] {
    ++outstanding;
    const auto sent = Clock::now();
    manager->forceFetchOffersWithLocale(large, [&, sent](ZVOfferArrayPtr offers, ZVErrorPtr error) {
      --outstanding;
      out.large.push_back(msSince(sent));
      if (error || !offers || offers->size() != zvbench::kCatalogue10k.offers) ++out.failures;
      if (Clock::now() < end) sendLarge();
    });
  };
  if (loaded) sendLarge();
  auto next = start;
  while (true) {
    const auto now = Clock::now();
    if (now >= end && outstanding == 0) break;
    if (now < end && now >= next) {
      ++outstanding;
      manager->fetchOrdersWithCompletionHandler([&, now](ZVOrderArrayPtr orders, ZVErrorPtr error) {
        --outstanding;
        out.small.push_back(msSince(now));
        if (error || !orders) ++out.failures;
      });
      next += kPace;
      continue;
    }
    queue->runUntil(
        [&] {
          const auto t = Clock::now();
          return (t < end && t >= next) || (t >= end && outstanding == 0);
        },
        std::chrono::milliseconds(2));
  }
}

// The same phase for raw libcurl: the small requests paced on a multi handle
// on this thread and, when loaded, the large answer fetched and DOM-parsed
// again and again on a second thread, on a connection of its own, at the
// process's priority or at idle priority (SCHED_IDLE: it runs when no other
// thread wants the CPU, or close to that). How much a client whose decode
// never runs on the small requests' thread still stalls on this machine.
enum class RawDecoder { None, Normal, Idle };

void rawPhase(double seconds, RawDecoder decoder, zvbench::RawClient& small,
              zvbench::RawClient& large, Samples& out) {
  std::atomic<bool> stop{false};
  std::atomic<int64_t> largeFailures{0};
  std::thread thread;
  if (decoder != RawDecoder::None)
    thread = std::thread([&] {
      if (decoder == RawDecoder::Idle) {
        const sched_param none{};
        if (sched_setscheduler(0, SCHED_IDLE, &none) != 0) ++largeFailures;
      }
      while (!stop.load()) largeFailures += large.sequential(1, true);
    });
  out.failures += small.paced(seconds, kPace, out.small);
  stop = true;
  if (thread.joinable()) thread.join();
  out.failures += largeFailures.load();
}

zvbench::Nginx* server = nullptr;
// One worker encrypts a 14.6 MB answer over TLS in runs of 9 to 12 ms and
// answers nothing else meanwhile: the small requests' stall over HTTP/2
// would then be the server's (26 to 31 ms at p99, client unchanged). Real
// services do not queue one client's small answers behind its large one;
// with several workers, each connection usually has one to itself.
constexpr int kServerWorkers = 4;

void stall(benchmark::State& state, const Endpoint* endpoint) {
  zvbench::configureSDK(*endpoint);
  Samples idle, loaded;
  std::vector<double> roundRatios;
  // The baseline for the large answer: raw libcurl fetching it on one reused
  // handle and parsing it with simdjson's DOM, twice after every round.
  zvbench::RawClient client(*endpoint, endpoint->offersURL(zvbench::kCatalogue10k), 1);
  std::vector<double> raw;
  // The stall's baselines: raw libcurl's small requests, beside its decode
  // at the process's priority and at idle priority. With 64 handles none
  // waits for a free one unless a stall lasts 64 ms, so each is timed from
  // its call, as the SDK's are.
  zvbench::RawClient rawSmall(*endpoint, endpoint->ordersURL(), 64);
  Samples rawIdle, rawLoaded, rawLoadedIdle;
  std::vector<double> rawRatios, rawIdleRatios;
  for (auto _ : state) {
    phase(0.3, true, loaded);  // opens the connections, warms the parser
    client.sequential(1, true);
    rawSmall.paced(0.1, kPace, rawIdle.small);
    idle = {};
    loaded = {};
    rawIdle = {};
    rawLoaded = {};
    rawLoadedIdle = {};
    rawRatios.clear();
    rawIdleRatios.clear();
    for (int round = 0; round < kRounds; ++round) {
      Samples ri, rl, rli;
      rawPhase(kIdleSeconds, RawDecoder::None, rawSmall, client, ri);
      rawPhase(kLoadedSeconds, RawDecoder::Normal, rawSmall, client, rl);
      rawPhase(kLoadedSeconds, RawDecoder::Idle, rawSmall, client, rli);
      const double riP99 = percentile(ri.small, 99);
      rawRatios.push_back(percentile(rl.small, 99) / riP99);
      rawIdleRatios.push_back(percentile(rli.small, 99) / riP99);
      for (auto [from, into] : {std::pair{&ri, &rawIdle}, std::pair{&rl, &rawLoaded},
                                std::pair{&rli, &rawLoadedIdle}}) {
        into->small.insert(into->small.end(), from->small.begin(), from->small.end());
        into->failures += from->failures;
      }
      Samples i, l;
      phase(kIdleSeconds, false, i);
      phase(kLoadedSeconds, true, l);
      for (int fetch = 0; fetch < 2; ++fetch) {
        const auto start = Clock::now();
        if (client.sequential(1, true) != 0) ++l.failures;
        raw.push_back(msSince(start));
      }
      const double ratio = percentile(l.small, 99) / percentile(i.small, 99);
      roundRatios.push_back(ratio);
      for (Samples* s : {&i, &l}) {
        Samples& into = s == &i ? idle : loaded;
        into.small.insert(into.small.end(), s->small.begin(), s->small.end());
        into.large.insert(into.large.end(), s->large.begin(), s->large.end());
        into.failures += s->failures;
      }
    }
  }
  const double idleP99 = percentile(idle.small, 99);
  const double loadedP99 = percentile(loaded.small, 99);
  state.counters["idle_p50_ms"] = percentile(idle.small, 50);
  state.counters["idle_p99_ms"] = idleP99;
  state.counters["loaded_p50_ms"] = percentile(loaded.small, 50);
  state.counters["loaded_p99_ms"] = loadedP99;
  state.counters["loaded_max_ms"] = percentile(loaded.small, 100);
  // Per round, like the repetitions of the other benchmarks: one stall of
  // the machine in one idle phase moves one round, not the figure.
  state.counters["p99_ratio"] = percentile(roundRatios, 50);
  state.counters["p99_ratio_pooled"] = loadedP99 / idleP99;
  state.counters["p99_ratio.min"] = percentile(roundRatios, 0);
  state.counters["p99_ratio.max"] = percentile(roundRatios, 100);
  state.counters["small_idle_n"] = static_cast<double>(idle.small.size());
  state.counters["small_loaded_n"] = static_cast<double>(loaded.small.size());
  state.counters["large_n"] = static_cast<double>(loaded.large.size());
  state.counters["large_p50_ms"] = percentile(loaded.large, 50);
  state.counters["large_max_ms"] = percentile(loaded.large, 100);
  state.counters["raw_large_p50_ms"] = percentile(raw, 50);
  state.counters["large_ratio"] = percentile(loaded.large, 50) / percentile(raw, 50);
  state.counters["raw_idle_p99_ms"] = percentile(rawIdle.small, 99);
  state.counters["raw_loaded_p99_ms"] = percentile(rawLoaded.small, 99);
  state.counters["raw_p99_ratio"] = percentile(rawRatios, 50);
  state.counters["raw_p99_ratio.min"] = percentile(rawRatios, 0);
  state.counters["raw_p99_ratio.max"] = percentile(rawRatios, 100);
  state.counters["raw_idledecode_loaded_p99_ms"] = percentile(rawLoadedIdle.small, 99);
  state.counters["raw_idledecode_p99_ratio"] = percentile(rawIdleRatios, 50);
  state.counters["raw_idledecode_p99_ratio.min"] = percentile(rawIdleRatios, 0);
  state.counters["raw_idledecode_p99_ratio.max"] = percentile(rawIdleRatios, 100);
  const int64_t rawFailures = rawIdle.failures + rawLoaded.failures + rawLoadedIdle.failures;
  if (idle.failures + loaded.failures + rawFailures != 0) state.SkipWithError("requests failed");
}

// Frames of the host while 10,000-offer catalogues are delivered: `keep`
// decides whether the handler keeps the latest. Runs `deliveries` of them.
struct Frames {
  std::vector<double> wallMs, cpuMs;
  int64_t failures = 0;
};

void frames(bool keep, int deliveries, Frames& out) {
  ZVRewardsManager* manager = ZVRewardsManager::instance();
  ZVMainQueue* queue = ZVMainQueue::shared();
  const ZVLocale large(zvbench::kCatalogue10k.locale);
  ZVOfferArrayPtr latest;
  int delivered = 0;
  bool arrived = false;
  auto send = [&] {
    manager->forceFetchOffersWithLocale(large, [&](ZVOfferArrayPtr offers, ZVErrorPtr error) {
      if (error || !offers || offers->size() != zvbench::kCatalogue10k.offers) ++out.failures;
      if (keep) latest = std::move(offers);
      arrived = true;
      ++delivered;
    });
  };
  send();
  const auto limit = Clock::now() + std::chrono::seconds(120);
  while (delivered < deliveries && Clock::now() < limit) {
    const double cpu = threadCPUms();
    const auto start = Clock::now();
    const size_t ran = queue->drain();
    const double wall = msSince(start);
    if (ran > 0) {
      out.wallMs.push_back(wall);
      out.cpuMs.push_back(threadCPUms() - cpu);
    }
    if (arrived) {
      arrived = false;
      if (delivered < deliveries) send();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  if (delivered < deliveries) ++out.failures;
}

void frameLatest(benchmark::State& state, const Endpoint* endpoint) {
  zvbench::configureSDK(*endpoint);
  Frames keep, drop;
  for (auto _ : state) {
    Frames warm;
    frames(true, 2, warm);
    for (int round = 0; round < 4; ++round) {
      frames(true, 6, keep);
      frames(false, 6, drop);
    }
  }
  for (auto [name, f] : {std::pair{"keep", &keep}, std::pair{"drop", &drop}}) {
    const std::string n = name;
    state.counters[n + "_drain_p50_ms"] = percentile(f->wallMs, 50);
    state.counters[n + "_drain_p99_ms"] = percentile(f->wallMs, 99);
    state.counters[n + "_drain_max_ms"] = percentile(f->wallMs, 100);
    state.counters[n + "_drain_cpu_p99_ms"] = percentile(f->cpuMs, 99);
    state.counters[n + "_deliveries"] = static_cast<double>(f->wallMs.size());
  }
  if (keep.failures + drop.failures != 0) state.SkipWithError("deliveries failed");
}

void frameBurst(benchmark::State& state, const Endpoint* endpoint) {
  zvbench::configureSDK(*endpoint);
  ZVRewardsManager* manager = ZVRewardsManager::instance();
  ZVMainQueue* queue = ZVMainQueue::shared();
  const ZVLocale locale(zvbench::kCatalogue100.locale);
  constexpr size_t kResults = 16;
  std::vector<double> perResult, perTask;
  int64_t failures = 0;
  ZVOfferArrayPtr latest;
  for (auto _ : state) {
    for (int round = 0; round < 62; ++round) {
      for (size_t i = 0; i < kResults; ++i)
        manager->forceFetchOffersWithLocale(locale, [&](ZVOfferArrayPtr offers, ZVErrorPtr error) {
          if (error || !offers || offers->size() != zvbench::kCatalogue100.offers) ++failures;
          latest = std::move(offers);
        });
      // Every delivery is one task: wait until all 16 are queued.
      const auto limit = Clock::now() + std::chrono::seconds(30);
      while (queue->pendingCount() < kResults && Clock::now() < limit)
        std::this_thread::sleep_for(std::chrono::microseconds(200));
      auto start = Clock::now();
      const size_t ran = queue->drain();
      const double burst = msSince(start) * 1e3;
      if (ran != kResults) ++failures;
      for (size_t i = 0; i < kResults; ++i) queue->async([] {});
      start = Clock::now();
      queue->drain();
      const double empty = msSince(start) * 1e3;
      if (round >= 2) {  // the first rounds open the connections
        perResult.push_back(burst / static_cast<double>(kResults));
        perTask.push_back(empty / static_cast<double>(kResults));
      }
    }
  }
  state.counters["per_result_p50_us"] = percentile(perResult, 50);
  state.counters["per_result_p99_us"] = percentile(perResult, 99);
  state.counters["empty_task_p50_us"] = percentile(perTask, 50);
  state.counters["rounds"] = static_cast<double>(perResult.size());
  if (failures != 0) state.SkipWithError("deliveries failed");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argv[1][0] == '-') {
    std::fprintf(stderr, "usage: zv_bench_latency WORK_DIR [benchmark flags]\n");
    return 2;
  }
  const std::string workDir = argv[1];
  std::vector<char*> args{argv[0]};
  args.insert(args.end(), argv + 2, argv + argc);
  int count = static_cast<int>(args.size());
  benchmark::Initialize(&count, args.data());

  // Before any thread starts: they all inherit the client's CPU.
  const zvbench::Placement placement = zvbench::pinClientAndPickServerCPU();
  curl_global_init(CURL_GLOBAL_DEFAULT);
  const std::unique_ptr<zvbench::Nginx> nginx =
      zvbench::startNginx("zv_bench_latency", workDir,
                          std::map<std::string, std::string>{
                              {"orders.json", zvbench::kEmptyOrders},
                              {zvbench::kCatalogue100.fileName(), zvbench::makeCatalogue(100)},
                              {zvbench::kCatalogue10k.fileName(), zvbench::makeCatalogue(10000)}},
                          placement.serverCPU, kServerWorkers);
  if (!nginx) return 1;
  server = nginx.get();
  const Endpoint http1{"http1", "http", nginx->httpPort(), "", false};
  const Endpoint h2{"h2", "https", nginx->httpsPort(), nginx->caFile(), true};

  std::vector<std::string> names;
  for (const Endpoint* endpoint : {&http1, &h2}) {
    names.push_back("stall/" + endpoint->name);
    benchmark::RegisterBenchmark(names.back().c_str(), stall, endpoint)
        ->Iterations(1)
        ->UseRealTime();
  }
  names.push_back("frame/latest/http1");
  benchmark::RegisterBenchmark(names.back().c_str(), frameLatest, &http1)
      ->Iterations(1)
      ->UseRealTime();
  names.push_back("frame/burst16/http1");
  benchmark::RegisterBenchmark(names.back().c_str(), frameBurst, &http1)
      ->Iterations(1)
      ->UseRealTime();

  zvbench::CollectingReporter reporter;
  reporter.SetOutputStream(&std::cerr);
  reporter.SetErrorStream(&std::cerr);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  ZVRewardsManager::instance()->resetData();
  ZVGenericRequestManager::instance()->setTransport(nullptr);

  fmt::print("placement {}\n", placement.describe());
  fmt::print("server {}\n", nginx->version());
  for (const std::string& name : names) {
    const zvbench::Figure* figure = reporter.find(name + "/iterations:1/real_time");
    if (figure == nullptr) continue;
    std::string line = "latency " + name;
    for (const auto& [counter, value] : figure->counters)
      line += fmt::format(" {}={}", counter, zvbench::number(value));
    fmt::print("{}\n", line);
  }
  return 0;
}
