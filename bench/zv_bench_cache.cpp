// zv_bench_cache: CPU cost of a non-forced offers fetch that hits the cache,
// from the call to the completion handler on the main queue, for catalogues
// of several sizes. Baseline from the same run: one empty task through the
// main queue, the floor of any delivery. Target: at most 2 microseconds,
// whatever the catalogue's size.
#include <iostream>
#include <optional>
#include <string>

#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <ZorvaneCoreKit/ZVMainQueue.h>
#include <ZorvaneRewardsKit/ZVRewardsManager.h>

#include "ZVBenchCatalogue.h"
#include "ZVBenchReport.h"
#include "ZVBenchSupport.h"

namespace {

void cacheHit(benchmark::State& state) {
  const auto size = static_cast<size_t>(state.range(0));
  ZVRewardsManager* manager = ZVRewardsManager::instance();
  manager->setRefreshInterval(1e9);
  std::string body = zvbench::asAnswerBody(zvbench::makeCatalogue(size));
  ZVOfferArrayPtr decoded = zvbench::decodeOffers(body);
  if (!decoded || decoded->size() != size) {
    state.SkipWithError("the catalogue did not decode");
    return;
  }
  size_t delivered = 0;
  bool shared = true;
  ZVMainQueue* queue = ZVMainQueue::shared();
  for (auto _ : state) {
    bool called = false;
    manager->fetchOffersWithLocale(std::nullopt, [&](ZVOfferArrayPtr offers, ZVErrorPtr) {
      called = true;
      delivered = offers ? offers->size() : 0;
      shared = shared && offers && offers->size() > 0 && (*offers)[0].get() == (*decoded)[0].get();
    });
    while (!called) queue->drain();
  }
  if (delivered != size || !shared) state.SkipWithError("the cache did not deliver the records");
  zvbench::forgetCatalogue();
}

void mainQueueFloor(benchmark::State& state) {
  ZVMainQueue* queue = ZVMainQueue::shared();
  for (auto _ : state) {
    bool called = false;
    queue->async([&] { called = true; });
    while (!called) queue->drain();
  }
}

}  // namespace

BENCHMARK(cacheHit)->Arg(100)->Arg(10000)->Arg(100000)->Unit(benchmark::kNanosecond);
BENCHMARK(mainQueueFloor)->Unit(benchmark::kNanosecond);

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  zvbench::quietSDK();
  // The table goes to stderr so that stdout holds only the result lines.
  zvbench::CollectingReporter reporter;
  reporter.SetOutputStream(&std::cerr);
  reporter.SetErrorStream(&std::cerr);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  const zvbench::Figure* floor = reporter.find("mainQueueFloor");
  for (int size : {100, 10000, 100000}) {
    const zvbench::Figure* hit = reporter.find(fmt::format("cacheHit/{}", size));
    if (!hit || !floor) continue;
    fmt::print(
        "cache_hit offers={} cpu_us={:.3f} main_queue_floor_us={:.3f} target_us=2.000 "
        "meets={}\n",
        size, hit->cpuSeconds * 1e6, floor->cpuSeconds * 1e6,
        hit->cpuSeconds * 1e6 <= 2.0 ? "yes" : "no");
  }
  return 0;
}
