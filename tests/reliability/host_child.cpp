// A host run as a child process by the reliability tests:
//   host_child inflight HOST   returns from main with requests in flight while
//                              other threads keep calling the manager
//   host_child teardown HOST   stops the main queue's thread with deliveries
//                              pending, restarts and stops it again, then exits
//   host_child handler HOST    calls exit() from inside a completion handler
//   host_child shutdown HOST   shuts the SDK down with requests in flight and
//                              deliveries queued while other threads keep
//                              calling, uses it again, then exits
// For exit_test.cpp, where success is exit status 0 within a time limit; and
//   host_child decode WARMUP_HOST HOST MAX_RESPONSE_BYTES offers|orders|order
// for memory_test.cpp: one request to WARMUP_HOST first (threads, libcurl and
// the main queue start), then one to HOST, in a process of its own so that
// its peak resident memory is the SDK's alone. Prints
//   rss_kb=R peak_kb=P after_kb=A ms=T outcome=...
// where R is the resident size before the second request, P the peak of the
// whole process after it, A the resident size once its result is dropped,
// and the outcome the records delivered or the error.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <thread>

#include <ZorvaneRewardsKit/ZorvaneRewardsKit.h>

#include "http/ZVGenericRequestManager.h"

namespace {

void configure(const char* host, size_t maxResponseBytes = ZVConfiguration{}.maxResponseBytes) {
  ZVConfiguration configuration;
  configuration.serviceHost = host;
  configuration.appID = "app";
  configuration.accessToken = "token";
  configuration.allowInsecureHTTP = true;
  configuration.requestTimeout = std::chrono::seconds(60);
  configuration.maxResponseBytes = maxResponseBytes;
  Zorvane::configure(configuration);
}

void callEverything(ZVRewardsManager* manager) {
  manager->forceFetchOffersWithLocale(ZVLocale("en_US"), [](auto, auto) {});
  manager->fetchOrdersWithCompletionHandler([](auto, auto) {});
  manager->placeOrder(ZVOrderRequest::initWithOfferID("1", 1), [](auto, auto) {});
  manager->fetchSkillQuestionWithCompletionHandler([](auto, auto) {});
  manager->answerSkillQuestionForOfferID("1", "q", ZVJSONValue("a"), [](auto, auto) {});
  manager->placeOrder(nullptr, [](auto, auto) {});
}

// Starts `threads` threads that call everything (and clear the user's state
// when `clear`) until the process ends; waits for `inFlight` requests.
void keepCalling(ZVRewardsManager* manager, int threads, bool clear, size_t inFlight) {
  for (int t = 0; t < threads; ++t)
    std::thread([manager, clear] {
      while (true) {
        callEverything(manager);
        if (clear) manager->clearUserState(nullptr);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));  // a busy host
      }
    }).detach();
  while (ZVGenericRequestManager::instance()->requestsInFlight() < inFlight)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

size_t statusKB(const char* field) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);)
    if (line.starts_with(field))
      return std::strtoull(line.c_str() + std::strlen(field), nullptr, 10);
  return 0;
}

size_t records(const ZVOfferArrayPtr& offers) {
  size_t n = 0;
  for (const auto& offer : offers ? *offers : ZVOfferArray{}) n += 1 + records(offer->options());
  return n;
}

// Sends one request and drives the main queue until its handler ran; says
// how many records it delivered, or the error.
std::string fetch(ZVRewardsManager* manager, const std::string& operation) {
  std::string outcome;
  bool done = false;
  const auto report = [&](size_t records, const ZVErrorPtr& error) {
    outcome = error ? error->code() + ": " + error->message().value_or("")
                    : std::to_string(records) + " records";
    done = true;
  };
  if (operation == "order")
    manager->placeOrder(ZVOrderRequest::initWithOfferID("1", 1),
                        [&](auto order, ZVErrorPtr error) { report(order ? 1 : 0, error); });
  else if (operation == "orders")
    manager->fetchOrdersWithCompletionHandler([&](ZVOrderArrayPtr orders, ZVErrorPtr error) {
      report(orders ? orders->size() : 0, error);
    });
  else
    manager->forceFetchOffersWithLocale(
        ZVLocale("en_US"),
        [&](ZVOfferArrayPtr offers, ZVErrorPtr error) { report(records(offers), error); });
  ZVMainQueue::shared()->runUntil([&] { return done; }, std::chrono::minutes(2));
  return outcome;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  if (argc != (mode == "decode" ? 6 : 3)) return 2;  // usage: see the top of this file
  ZVRewardsManager* manager = ZVRewardsManager::instance();
  ZVMainQueue* queue = ZVMainQueue::shared();
  if (mode == "decode") {
    const size_t limit = std::strtoull(argv[4], nullptr, 10);
    configure(argv[2], limit);
    fetch(manager, argv[5]);
    manager->resetData();
    configure(argv[3], limit);
    const size_t before = statusKB("VmRSS:");
    const auto start = std::chrono::steady_clock::now();
    const std::string outcome = fetch(manager, argv[5]);
    const std::chrono::duration<double, std::milli> ms = std::chrono::steady_clock::now() - start;
    const size_t peak = statusKB("VmHWM:");
    manager->resetData();
    std::printf("rss_kb=%zu peak_kb=%zu after_kb=%zu ms=%.0f outcome=%s\n", before, peak,
                statusKB("VmRSS:"), ms.count(), outcome.c_str());
    return 0;
  }
  configure(argv[2]);
  if (mode == "teardown") {
    for (int round = 0; round < 5; ++round) {
      queue->startDedicatedThread();
      for (int i = 0; i < 20; ++i) callEverything(manager);
      std::this_thread::sleep_for(std::chrono::milliseconds(20));  // deliveries under way
      queue->stopDedicatedThread();
    }
    for (int i = 0; i < 20; ++i) callEverything(manager);
    return 0;  // whatever is still queued never runs
  }
  queue->startDedicatedThread();
  for (int i = 0; i < 20; ++i) callEverything(manager);
  if (mode == "inflight") {
    keepCalling(manager, 3, true, 50);  // these threads are still calling as the process exits
    return 0;
  }
  if (mode == "shutdown") {
    keepCalling(manager, 2, false, 20);
    Zorvane::shutdown();
    queue->startDedicatedThread();
    for (int i = 0; i < 5; ++i) callEverything(manager);
    Zorvane::shutdown();
    return 0;
  }
  if (mode == "handler") {
    manager->placeOrder(nullptr, [](auto, auto) { std::exit(0); });
    std::this_thread::sleep_for(std::chrono::seconds(20));
    return 3;  // the handler never ran
  }
  return 2;
}
