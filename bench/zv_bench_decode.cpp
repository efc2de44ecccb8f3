// zv_bench_decode [benchmark flags] [FILE...]
//
// Decodes each answer body (an offers answer) through the offers handler's
// path many times and prints, per file, one line:
//   FILE decode_mbps=X simdjson_dom_mbps=Y nlohmann_mbps=Z ratio_dom=R
//        ratio_dom.min=R0 ratio_dom.max=R1 ratio_nlohmann=Q
// Without files it decodes generated catalogues of 100, 1,000, 10,000 and
// 100,000 offers. Every iteration runs our decode and both baselines on the
// same bytes, in a rotating order; each figure is the median of five
// repetitions, and the ratio to the DOM parse comes with its lowest and
// highest repetition. The benchmark table, the drop timings and the
// throughput of ZVJSONParse alone go to stderr.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <ZorvaneCoreKit/ZVJSON.h>

#include "ZVBenchCatalogue.h"
#include "ZVBenchReport.h"
#include "ZVBenchSupport.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Input {
  std::string label;
  std::string body;
};

double seconds(Clock::duration d) {
  return std::chrono::duration<double>(d).count();
}

// One iteration runs our decode and both baselines on the same bytes, one
// after the other in a rotating order, and times each: on a shared machine
// whose speed drifts from second to second, the three then meet the same
// conditions, which separate benchmarks run seconds apart do not. Small
// bodies are decoded several times in a row, a few megabytes' worth, so that
// each side mostly runs with its own data in the cache rather than what the
// other two left there. Each repetition reports the three throughputs and
// the ratios.
void pairedBench(benchmark::State& state, Input* input) {
  double decodeSeconds = 0;
  double domSeconds = 0;
  double nlohmannSeconds = 0;
  double dropSeconds = 0;
  size_t offers = 0;
  auto decode = [&] {
    const auto start = Clock::now();
    ZVOfferArrayPtr result = zvbench::decodeOffers(input->body);
    const auto decoded = Clock::now();
    decodeSeconds += seconds(decoded - start);
    offers = result ? result->size() : 0;
    zvbench::forgetCatalogue();
    result.reset();
    dropSeconds += seconds(Clock::now() - decoded);
    return offers > 0;
  };
  auto dom = [&] {
    const auto start = Clock::now();
    benchmark::DoNotOptimize(zvbench::simdjsonDOMParse(input->body));
    domSeconds += seconds(Clock::now() - start);
    return true;
  };
  auto nlohmann = [&] {
    const auto start = Clock::now();
    auto document = nlohmann::json::parse(input->body, nullptr, false);
    nlohmannSeconds += seconds(Clock::now() - start);
    benchmark::DoNotOptimize(document.size());
    return true;  // the document is freed outside the measured time
  };
  constexpr size_t kBlockBytes = size_t{4} << 20;
  const size_t block = std::max<size_t>(1, kBlockBytes / std::max<size_t>(1, input->body.size()));
  int turn = 0;
  for (auto _ : state) {
    const auto start = Clock::now();
    bool ok = true;
    for (int part = 0; part < 3; ++part) {
      for (size_t i = 0; i < block; ++i) {
        switch ((turn + part) % 3) {
          case 0:
            ok = decode() && ok;
            break;
          case 1:
            ok = dom() && ok;
            break;
          default:
            ok = nlohmann() && ok;
        }
      }
    }
    ++turn;
    state.SetIterationTime(seconds(Clock::now() - start));
    if (!ok) {
      state.SkipWithError("not an offers answer");
      return;
    }
  }
  const double runs = static_cast<double>(state.iterations() * block);
  const double mb = runs * static_cast<double>(input->body.size()) / 1e6;
  const double ours = mb / decodeSeconds;
  const double domRate = mb / domSeconds;
  const double nlohmannRate = mb / nlohmannSeconds;
  state.counters["decode_mbps"] = ours;
  state.counters["dom_mbps"] = domRate;
  state.counters["nlohmann_mbps"] = nlohmannRate;
  state.counters["ratio_dom"] = ours / domRate;
  state.counters["ratio_nlohmann"] = ours / nlohmannRate;
  state.counters["decode_s"] = decodeSeconds / runs;
  state.counters["drop_s"] = dropSeconds / runs;
  state.counters["offers"] = static_cast<double>(offers);
}

// The request manager's parse alone: where the time goes between the
// parser and the records.
void parseBench(benchmark::State& state, Input* input) {
  for (auto _ : state) {
    const auto start = Clock::now();
    ZVJSONParseResult parsed = ZVJSONParse(input->body);
    state.SetIterationTime(seconds(Clock::now() - start));
    if (!parsed.ok()) {
      state.SkipWithError("not JSON");
      return;
    }
  }  // the tree is freed outside the timed region
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * input->body.size()));
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<char*> args(argv, argv + argc);
  char interleave[] = "--benchmark_enable_random_interleaving=true";
  args.insert(args.begin() + 1, interleave);  // a later flag on the command line still wins
  int count = static_cast<int>(args.size());
  benchmark::Initialize(&count, args.data());
  zvbench::quietSDK();

  std::vector<Input> inputs;
  for (int i = 1; i < count; ++i) {
    std::string error;
    std::string body = zvbench::readFile(args[i], error);
    if (!error.empty()) {
      fmt::print(stderr, "zv_bench_decode: {}\n", error);
      return 2;
    }
    inputs.push_back({args[i], zvbench::asAnswerBody(std::move(body))});
  }
  if (inputs.empty()) {
    for (size_t n : {100, 1000, 10000, 100000})
      inputs.push_back(
          {fmt::format("generated-{}", n), zvbench::asAnswerBody(zvbench::makeCatalogue(n))});
  }

  // Short repetitions, medians kept; the parse-alone figures are shuffled in
  // between.
  auto measure = [](benchmark::internal::Benchmark* bench) {
    return bench->MinTime(0.3)
        ->Repetitions(5)
        ->ReportAggregatesOnly(true)
        ->Unit(benchmark::kMillisecond)
        ->UseManualTime();
  };
  for (Input& input : inputs) {
    zvbench::CollectingReporter::addSpread(measure(
        benchmark::RegisterBenchmark(("paired/" + input.label).c_str(), pairedBench, &input)));
    measure(
        benchmark::RegisterBenchmark(("zvjson_parse/" + input.label).c_str(), parseBench, &input));
  }

  zvbench::CollectingReporter reporter;
  reporter.SetOutputStream(&std::cerr);
  reporter.SetErrorStream(&std::cerr);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();

  for (const Input& input : inputs) {
    const std::string name = "paired/" + input.label + "/manual_time";
    auto get = [&](const char* counter) { return reporter.counter(name, counter); };
    fmt::print(
        "{} decode_mbps={:.1f} simdjson_dom_mbps={:.1f} nlohmann_mbps={:.1f} "
        "ratio_dom={:.3f} ratio_dom.min={:.3f} ratio_dom.max={:.3f} ratio_nlohmann={:.2f}\n",
        input.label, get("decode_mbps"), get("dom_mbps"), get("nlohmann_mbps"), get("ratio_dom"),
        get("ratio_dom.min"), get("ratio_dom.max"), get("ratio_nlohmann"));
    const double decode = get("decode_s");
    const double drop = get("drop_s");
    const double parse =
        reporter.counter("zvjson_parse/" + input.label + "/manual_time", "bytes_per_second") / 1e6;
    fmt::print(stderr,
               "{} decode_ms={:.3f} drop_ms={:.3f} drop_over_decode={:.3f} "
               "zvjson_parse_mbps={:.1f}\n",
               input.label, decode * 1e3, drop * 1e3, decode > 0 ? drop / decode : 0.0, parse);
  }
  std::fflush(stdout);
  return 0;
}
