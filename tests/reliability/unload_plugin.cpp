// A plugin of a host that is unloaded at run time (hot reload): it uses the
// SDK, which only it loads, so that unloading it unloads the SDK as well.
// unload_child.cpp loads it, starts requests and unloads it.
#include <chrono>
#include <thread>

#include <ZorvaneRewardsKit/ZorvaneRewardsKit.h>

extern "C" {

// Configures the SDK for `host`, starts the main queue's thread and sends
// `rounds` rounds of requests.
__attribute__((visibility("default"))) void zv_plugin_start(const char* host, int rounds) {
  ZVConfiguration configuration;
  configuration.serviceHost = host;
  configuration.appID = "app";
  configuration.allowInsecureHTTP = true;
  Zorvane::configure(configuration);
  ZVMainQueue::shared()->startDedicatedThread();
  ZVRewardsManager* manager = ZVRewardsManager::instance();
  for (int round = 0; round < rounds; ++round) {
    manager->forceFetchOffersWithLocale(ZVLocale("en_US"), [](ZVOfferArrayPtr, ZVErrorPtr) {});
    manager->placeOrder(ZVOrderRequest::initWithOfferID("1", 1),
                        [](std::shared_ptr<ZVOrder>, ZVErrorPtr) {});
    manager->placeOrder(nullptr, [](std::shared_ptr<ZVOrder>, ZVErrorPtr) {});
  }
  // Let the transport start on them.
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

// What a plugin does before it is unloaded.
__attribute__((visibility("default"))) void zv_plugin_stop() {
  Zorvane::shutdown();
}
}
