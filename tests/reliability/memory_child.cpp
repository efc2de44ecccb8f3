// A host that decodes one answer in a process of its own, so that its peak
// resident memory is the SDK's alone; memory_test.cpp runs it.
//   memory_child WARMUP_HOST HOST MAX_RESPONSE_BYTES offers|orders|order
// One request to WARMUP_HOST first (threads, libcurl and the main queue
// start), then one to HOST. Prints
//   rss_kb=R peak_kb=P after_kb=A ms=T outcome=...
// where R is the resident size before the second request, P the peak of the
// whole process after it, A the resident size once its result is dropped,
// and the outcome the records delivered or the error.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include <ZorvaneRewardsKit/ZorvaneRewardsKit.h>

namespace {

size_t statusKB(const char* field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind(field, 0) == 0)
      return std::strtoull(line.c_str() + std::strlen(field), nullptr, 10);
  return 0;
}

void configure(const char* host, size_t maxResponseBytes) {
  ZVConfiguration configuration;
  configuration.serviceHost = host;
  configuration.appID = "app";
  configuration.allowInsecureHTTP = true;
  configuration.requestTimeout = std::chrono::seconds(60);
  configuration.maxResponseBytes = maxResponseBytes;
  Zorvane::configure(configuration);
}

size_t records(const ZVOfferArrayPtr& offers) {
  size_t n = 0;
  if (offers)
    for (const auto& offer : *offers) n += 1 + records(offer->options());
  return n;
}

// Sends one request and drives the main queue until its handler ran.
std::string fetch(ZVRewardsManager* manager, const std::string& operation) {
  std::string outcome;
  bool done = false;
  const auto failed = [&](const ZVErrorPtr& error) {
    outcome = error->code() + ": " + error->message().value_or("");
    if (outcome.size() > 160) outcome.resize(160);
    for (char& c : outcome)
      if (c == '\n' || c == '\r') c = ' ';
  };
  if (operation == "order") {
    manager->placeOrder(ZVOrderRequest::initWithOfferID("1", 1),
                        [&](std::shared_ptr<ZVOrder> order, ZVErrorPtr error) {
                          if (error)
                            failed(error);
                          else
                            outcome = order ? "1 records" : "0 records";
                          done = true;
                        });
  } else if (operation == "orders") {
    manager->fetchOrdersWithCompletionHandler([&](ZVOrderArrayPtr orders, ZVErrorPtr error) {
      if (error)
        failed(error);
      else
        outcome = std::to_string(orders->size()) + " records";
      done = true;
    });
  } else {
    manager->forceFetchOffersWithLocale(ZVLocale("en_US"),
                                        [&](ZVOfferArrayPtr offers, ZVErrorPtr error) {
                                          if (error)
                                            failed(error);
                                          else
                                            outcome = std::to_string(records(offers)) + " records";
                                          done = true;
                                        });
  }
  ZVMainQueue::shared()->runUntil([&] { return done; }, std::chrono::minutes(2));
  return outcome;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    std::fprintf(stderr,
                 "usage: memory_child WARMUP_HOST HOST MAX_RESPONSE_BYTES offers|orders|order\n");
    return 2;
  }
  const size_t limit = std::strtoull(argv[3], nullptr, 10);
  ZVRewardsManager* manager = ZVRewardsManager::instance();
  configure(argv[1], limit);
  fetch(manager, argv[4]);
  manager->resetData();

  configure(argv[2], limit);
  const size_t before = statusKB("VmRSS:");
  const auto start = std::chrono::steady_clock::now();
  const std::string outcome = fetch(manager, argv[4]);
  const auto ms =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  const size_t peak = statusKB("VmHWM:");
  manager->resetData();
  std::printf("rss_kb=%zu peak_kb=%zu after_kb=%zu ms=%.0f outcome=%s\n", before, peak,
              statusKB("VmRSS:"), ms, outcome.c_str());
  return 0;
}
