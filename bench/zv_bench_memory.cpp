// zv_bench_memory [OFFERS | FILE]
//
// Decodes one catalogue through the offers handler's path once, in a fresh
// process so that nothing else has raised the peak, and prints:
//   body_mb=B peak_delta_mb=P ratio_peak=R rss_before_mb=.. peak_total_mb=..
//   decode_ms=D drop_ms=F drop_over_decode=Q offers=N
// `peak_delta` is VmHWM after the decode minus VmRSS before it (the body
// already in memory), so `ratio_peak` is what decoding costs on top of the
// answer itself. As in the request manager, the body is freed once parsed,
// before the records are built. Default: a generated catalogue of 100,000
// offers.
#include <chrono>
#include <cstdlib>
#include <string>

#include <fmt/format.h>

#include "ZVBenchCatalogue.h"
#include "ZVBenchSupport.h"

int main(int argc, char** argv) {
  zvbench::quietSDK();
  std::string body;
  std::string label = "generated-100000";
  if (argc > 1 && std::strtoull(argv[1], nullptr, 10) == 0) {
    std::string error;
    body = zvbench::readFile(argv[1], error);
    if (!error.empty()) {
      fmt::print(stderr, "zv_bench_memory: {}\n", error);
      return 2;
    }
    label = argv[1];
  } else {
    const size_t offers = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 100000;
    body = zvbench::makeCatalogue(offers);
    label = fmt::format("generated-{}", offers);
  }
  body = zvbench::asAnswerBody(std::move(body));
  // The generator's own scratch is gone; what stays resident is the body.
  if (!zvbench::resetPeakResident())
    fmt::print(stderr, "zv_bench_memory: cannot reset the peak; run it in a fresh process\n");
  const size_t before = zvbench::residentBytes();
  const size_t peakBefore = zvbench::peakResidentBytes();

  using Clock = std::chrono::steady_clock;
  const auto start = Clock::now();
  const size_t bodySize = body.size();
  ZVOfferArrayPtr offers = zvbench::decodeOffers(std::move(body));
  const auto decoded = Clock::now();
  const size_t peakAfter = zvbench::peakResidentBytes();
  const size_t count = offers ? offers->size() : 0;
  zvbench::forgetCatalogue();
  offers.reset();
  const auto dropped = Clock::now();

  const double mb = 1e6;
  const double decodeMs = std::chrono::duration<double, std::milli>(decoded - start).count();
  const double dropMs = std::chrono::duration<double, std::milli>(dropped - decoded).count();
  const double delta = static_cast<double>(peakAfter - before);
  fmt::print(
      "{} body_mb={:.1f} peak_delta_mb={:.1f} ratio_peak={:.2f} rss_before_mb={:.1f} "
      "peak_before_mb={:.1f} peak_total_mb={:.1f} decode_ms={:.1f} drop_ms={:.1f} "
      "drop_over_decode={:.3f} offers={}\n",
      label, static_cast<double>(bodySize) / mb, delta / mb, delta / static_cast<double>(bodySize),
      static_cast<double>(before) / mb, static_cast<double>(peakBefore) / mb,
      static_cast<double>(peakAfter) / mb, decodeMs, dropMs, dropMs / decodeMs, count);
  return count > 0 ? 0 : 1;
}
