// A loopback rewards server, a configured SDK and a recorder of what the
// manager delivers, for the manager's end-to-end tests.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <vector>

#include <ZorvaneRewardsKit/ZorvaneRewardsKit.h>

#include "ZVLoopbackServer.h"
#include "ZVTestSupport.h"

namespace zvtest {

/// Every notification posted by the manager, in order.
class NotificationLog {
 public:
  NotificationLog() {
    token_ = ZVNotificationCenter::defaultCenter()->addObserver(
        "", nullptr, [this](const ZVNotification& note) {
          std::lock_guard lock(mutex_);
          notes_.push_back(note);
        });
  }
  ~NotificationLog() { ZVNotificationCenter::defaultCenter()->removeObserver(token_); }

  std::vector<ZVNotification> all() const {
    std::lock_guard lock(mutex_);
    return notes_;
  }
  std::vector<std::string> names() const {
    std::vector<std::string> result;
    for (const auto& n : all()) result.push_back(n.name);
    return result;
  }
  size_t count(const std::string& name) const {
    size_t n = 0;
    for (const auto& note : all()) n += note.name == name;
    return n;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<ZVNotification> notes_;
  ZVObserverToken token_;
};

/// Base fixture: a fresh loopback server, the SDK pointed at it, the manager
/// reset, the system clock and a silent logger.
class RewardsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ZVConfiguration configuration;
    configuration.serviceHost = server.baseURL();
    configuration.appID = "app 1";
    configuration.accessToken = "secret-token";
    configuration.allowInsecureHTTP = true;
    configuration.requestTimeout = std::chrono::seconds(5);
    Zorvane::configure(configuration);
    Zorvane::setCustomLocale(std::nullopt);
    ZVClock::setSource({});
    ZVLogger::instance()->setLogCategories(0);
    ZVLogger::instance()->setLogLevel(0);
    manager()->setRefreshInterval(ZVBaseManager::kDefaultRefreshInterval);
    manager()->resetData();
    ZVMainQueue::shared()->drain();
  }
  void TearDown() override {
    // Let every delivery of the test run before the next test starts.
    drainUntil([] { return ZVGenericRequestManager::instance()->requestsInFlight() == 0; });
    ZVMainQueue::shared()->drain();
    // A fresh transport closes the kept-alive connections, so the server's
    // workers need not wait out their keep-alive timeout when it stops.
    ZVGenericRequestManager::instance()->setTransport(ZVMakeCurlTransport());
    ZVClock::setSource({});
    ZVLogger::instance()->setSink({});
    ZVLogger::instance()->setLogLevel(0);
  }

  static ZVRewardsManager* manager() { return ZVRewardsManager::instance(); }

  /// Answers the next request with `body` and HTTP 200.
  void answer(std::string body, int status = 200) {
    LoopbackResponse response;
    response.status = status;
    response.body = std::move(body);
    server.enqueue(std::move(response));
  }

  ZVLoopbackServer server;
  NotificationLog notifications;
};

/// What one completion handler received, and how often it ran.
template <class Result>
struct Outcome {
  std::shared_ptr<Result> result;
  ZVErrorPtr error;
  std::atomic<int> calls{0};

  auto handler() {
    return [this](std::shared_ptr<Result> r, ZVErrorPtr e) {
      result = std::move(r);
      error = std::move(e);
      ++calls;
    };
  }
  bool wait() { return drainUntil([this] { return calls.load() > 0; }); }
};

}  // namespace zvtest
