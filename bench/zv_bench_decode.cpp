// zv_bench_decode [benchmark flags] [FILE...]
//
// Decodes each answer body (an offers answer) through the offers handler's
// path many times and prints, per file, one line:
//   FILE decode_mbps=X simdjson_dom_mbps=Y nlohmann_mbps=Z ratio_dom=R ratio_nlohmann=Q
// Without files it decodes generated catalogues of 100, 1,000, 10,000 and
// 100,000 offers. Each figure is the median of five repetitions, run in a
// shuffled order with the baselines'. The benchmark table, the drop timings
// and the throughput of ZVJSONParse alone go to stderr.
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

void decodeBench(benchmark::State& state, Input* input) {
  double dropSeconds = 0;
  size_t offers = 0;
  for (auto _ : state) {
    const auto start = Clock::now();
    ZVOfferArrayPtr result = zvbench::decodeOffers(input->body);
    const auto decoded = Clock::now();
    if (!result) {
      state.SkipWithError("not an offers answer");
      return;
    }
    offers = result->size();
    zvbench::forgetCatalogue();
    result.reset();
    dropSeconds += seconds(Clock::now() - decoded);
    state.SetIterationTime(seconds(decoded - start));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * input->body.size()));
  state.counters["offers"] = static_cast<double>(offers);
  state.counters["drop_s"] = dropSeconds / static_cast<double>(state.iterations());
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

void simdjsonBench(benchmark::State& state, const Input* input) {
  for (auto _ : state) benchmark::DoNotOptimize(zvbench::simdjsonDOMParse(input->body));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * input->body.size()));
}

void nlohmannBench(benchmark::State& state, const Input* input) {
  for (auto _ : state) {
    const auto start = Clock::now();
    auto document = nlohmann::json::parse(input->body, nullptr, false);
    state.SetIterationTime(seconds(Clock::now() - start));
    benchmark::DoNotOptimize(document.size());
  }  // the document is freed outside the timed region
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

  // Short repetitions in a shuffled order, medians kept: on a shared machine
  // both sides of a ratio then meet the same background load.
  auto measure = [](benchmark::internal::Benchmark* bench) {
    return bench->MinTime(0.3)->Repetitions(5)->ReportAggregatesOnly(true)->Unit(
        benchmark::kMillisecond);
  };
  for (Input& input : inputs) {
    measure(benchmark::RegisterBenchmark(("decode/" + input.label).c_str(), decodeBench, &input))
        ->UseManualTime();
    measure(
        benchmark::RegisterBenchmark(("zvjson_parse/" + input.label).c_str(), parseBench, &input))
        ->UseManualTime();
    measure(benchmark::RegisterBenchmark(("simdjson_dom/" + input.label).c_str(), simdjsonBench,
                                         &input))
        ->UseRealTime();
    measure(
        benchmark::RegisterBenchmark(("nlohmann/" + input.label).c_str(), nlohmannBench, &input))
        ->UseManualTime();
  }

  zvbench::CollectingReporter reporter;
  reporter.SetOutputStream(&std::cerr);
  reporter.SetErrorStream(&std::cerr);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();

  for (const Input& input : inputs) {
    const std::string suffix = input.label + "/manual_time";
    const double decode = reporter.counter("decode/" + suffix, "bytes_per_second") / 1e6;
    const double dom =
        reporter.counter("simdjson_dom/" + input.label + "/real_time", "bytes_per_second") / 1e6;
    const double nlohmann = reporter.counter("nlohmann/" + suffix, "bytes_per_second") / 1e6;
    fmt::print(
        "{} decode_mbps={:.1f} simdjson_dom_mbps={:.1f} nlohmann_mbps={:.1f} "
        "ratio_dom={:.3f} ratio_nlohmann={:.2f}\n",
        input.label, decode, dom, nlohmann, dom > 0 ? decode / dom : 0.0,
        nlohmann > 0 ? decode / nlohmann : 0.0);
    if (const zvbench::Figure* f = reporter.find("decode/" + suffix)) {
      const double drop = f->counters.count("drop_s") ? f->counters.at("drop_s") : 0.0;
      const double parse = reporter.counter("zvjson_parse/" + suffix, "bytes_per_second") / 1e6;
      fmt::print(stderr,
                 "{} decode_ms={:.3f} drop_ms={:.3f} drop_over_decode={:.3f} "
                 "zvjson_parse_mbps={:.1f}\n",
                 input.label, f->realSeconds * 1e3, drop * 1e3,
                 f->realSeconds > 0 ? drop / f->realSeconds : 0.0, parse);
    }
  }
  std::fflush(stdout);
  return 0;
}
