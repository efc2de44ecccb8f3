// Shared by the reliability tests: every public operation of the manager
// behind one signature, a counter of completion calls, and the SDK pointed at
// a given service.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <ZorvaneRewardsKit/ZorvaneRewardsKit.h>

#include "ZVTestSupport.h"

namespace zvtest {

/// A token that must never show up in a log line, message or output.
inline constexpr const char* kSecretToken = "tok-7f3a9c-never-print-me";

/// What one completion handler received, and how often it ran.
struct Completion {
  std::atomic<int> calls{0};
  std::atomic<bool> hadResult{false};
  ZVErrorPtr error;  // guarded by mutex
  std::mutex mutex;

  void record(bool result, ZVErrorPtr e) {
    {
      std::lock_guard lock(mutex);
      error = std::move(e);
    }
    hadResult = result;
    ++calls;
  }
  ZVErrorPtr lastError() {
    std::lock_guard lock(mutex);
    return error;
  }
};

/// One public operation, started with a handler that reports into a Completion.
struct Operation {
  const char* name;
  const char* kind;
  std::function<void(ZVRewardsManager*, Completion&)> start;
};

/// Every public operation of the manager, each sending one request (the
/// offers cache must be stale for the cached variants).
inline const std::vector<Operation>& allOperations() {
  auto report = [](Completion& c) {
    return [&c](auto result, ZVErrorPtr error) { c.record(result != nullptr, std::move(error)); };
  };
  static const std::vector<Operation> operations = {
      {"fetchOffers", kKindFetchRewardOffers,
       [=](ZVRewardsManager* m, Completion& c) { m->fetchOffersWithCompletionHandler(report(c)); }},
      {"fetchOffersWithLocale", kKindFetchRewardOffers,
       [=](ZVRewardsManager* m, Completion& c) {
         m->fetchOffersWithLocale(ZVLocale("fr_CA"), report(c));
       }},
      {"forceFetchOffers", kKindFetchRewardOffers,
       [=](ZVRewardsManager* m, Completion& c) {
         m->forceFetchOffersWithLocale(ZVLocale("en_US"), report(c));
       }},
      {"fetchOrders", kKindFetchRewardOrders,
       [=](ZVRewardsManager* m, Completion& c) { m->fetchOrdersWithCompletionHandler(report(c)); }},
      {"placeOrder", kKindPlaceOrder,
       [=](ZVRewardsManager* m, Completion& c) {
         m->placeOrder(ZVOrderRequest::initWithOfferID("101", 1), report(c));
       }},
      {"fetchSkillQuestion", kKindFetchSkillQuestion,
       [=](ZVRewardsManager* m, Completion& c) {
         m->fetchSkillQuestionWithCompletionHandler(report(c));
       }},
      {"answerSkillQuestion", kKindAnswerSkillQuestion,
       [=](ZVRewardsManager* m, Completion& c) {
         m->answerSkillQuestionForOfferID("101", "q1", ZVJSONValue("42"), report(c));
       }},
  };
  return operations;
}

/// Points the SDK at `serviceHost` with the secret token and a short timeout.
inline void configureService(const std::string& serviceHost,
                             std::chrono::milliseconds timeout = std::chrono::seconds(5),
                             const std::string& appID = "app") {
  ZVConfiguration configuration;
  configuration.serviceHost = serviceHost;
  configuration.appID = appID;
  configuration.accessToken = kSecretToken;
  configuration.allowInsecureHTTP = true;
  configuration.connectTimeout = timeout;
  configuration.requestTimeout = timeout;
  Zorvane::configure(configuration);
}

/// Waits, draining the main queue, until no request is in flight and every
/// completion has run at least once; then runs whatever is still queued.
inline bool waitForAll(std::vector<std::unique_ptr<Completion>>& completions,
                       std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
  const bool done = drainUntil(
      [&] {
        if (ZVGenericRequestManager::instance()->requestsInFlight() != 0) return false;
        for (const auto& c : completions)
          if (c->calls.load() == 0) return false;
        return true;
      },
      timeout);
  // A second, wrong call would have been queued by now.
  ZVMainQueue::shared()->drain();
  return done;
}

/// Declared after a loopback server, closes the SDK's kept-alive connections
/// first, so that the server does not wait out their keep-alive on its way down.
struct CloseConnectionsFirst {
  ~CloseConnectionsFirst() { ZVGenericRequestManager::instance()->setTransport(nullptr); }
};

/// Every line the logger writes, at the level and categories set here.
class LogCapture {
 public:
  explicit LogCapture(int64_t level) {
    ZVLogger::instance()->setLogCategories(~int64_t{0});
    ZVLogger::instance()->setLogLevel(level);
    ZVLogger::instance()->setSink([this](std::string_view line) {
      std::lock_guard lock(mutex_);
      lines_.emplace_back(line);
    });
  }
  ~LogCapture() {
    ZVLogger::instance()->setSink({});
    ZVLogger::instance()->setLogLevel(0);
    ZVLogger::instance()->setLogCategories(0);
  }
  std::vector<std::string> lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

}  // namespace zvtest
