// A host that leaves abruptly, run as a child process by exit_test.cpp:
//   exit_child inflight HOST   returns from main with requests in flight while
//                              other threads keep calling the manager
//   exit_child teardown HOST   stops the main queue's thread with deliveries
//                              pending, restarts and stops it again, then exits
//   exit_child handler HOST    calls exit() from inside a completion handler
//   exit_child shutdown HOST   shuts the SDK down with requests in flight and
//                              deliveries queued while other threads keep
//                              calling, uses it again, then exits
// Success is exit status 0 within the parent's time limit.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include <ZorvaneRewardsKit/ZorvaneRewardsKit.h>

#include "http/ZVGenericRequestManager.h"

namespace {

void configure(const char* host) {
  ZVConfiguration configuration;
  configuration.serviceHost = host;
  configuration.appID = "app";
  configuration.accessToken = "token";
  configuration.allowInsecureHTTP = true;
  configuration.requestTimeout = std::chrono::seconds(30);
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

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: exit_child inflight|teardown|handler|shutdown HOST\n");
    return 2;
  }
  const std::string mode = argv[1];
  configure(argv[2]);
  ZVRewardsManager* manager = ZVRewardsManager::instance();
  ZVMainQueue* queue = ZVMainQueue::shared();

  if (mode == "inflight") {
    queue->startDedicatedThread();
    for (int i = 0; i < 20; ++i) callEverything(manager);
    // These threads are still calling while the process exits.
    for (int t = 0; t < 3; ++t)
      std::thread([manager] {
        while (true) {
          callEverything(manager);
          manager->clearUserState(nullptr);
          std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
      }).detach();
    while (ZVGenericRequestManager::instance()->requestsInFlight() < 50)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return 0;
  }
  if (mode == "teardown") {
    for (int round = 0; round < 5; ++round) {
      queue->startDedicatedThread();
      for (int i = 0; i < 20; ++i) callEverything(manager);
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      queue->stopDedicatedThread();
    }
    for (int i = 0; i < 20; ++i) callEverything(manager);
    return 0;  // whatever is still queued never runs
  }
  if (mode == "shutdown") {
    queue->startDedicatedThread();
    for (int i = 0; i < 20; ++i) callEverything(manager);
    for (int t = 0; t < 2; ++t)
      std::thread([manager] {
        while (true) {
          callEverything(manager);
          std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
      }).detach();
    while (ZVGenericRequestManager::instance()->requestsInFlight() < 20)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    Zorvane::shutdown();
    queue->startDedicatedThread();
    for (int i = 0; i < 5; ++i) callEverything(manager);
    Zorvane::shutdown();
    return 0;
  }
  if (mode == "handler") {
    queue->startDedicatedThread();
    for (int i = 0; i < 20; ++i) callEverything(manager);
    manager->placeOrder(nullptr, [](auto, auto) { std::exit(0); });
    std::this_thread::sleep_for(std::chrono::seconds(20));
    return 3;  // the handler never ran
  }
  return 2;
}
