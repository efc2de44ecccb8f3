// Feeds arbitrary bytes as the service's answer to each of the five request
// kinds, twice: straight into the manager's routing as a parsed body, and
// through the request manager (over a transport that answers with the bytes),
// so that status, parsing, routing, records, errors and deliveries all see
// hostile input. Every handler must run exactly once; nothing may crash.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>

#include <ZorvaneRewardsKit/ZVRewardsError.h>
#include <ZorvaneRewardsKit/ZorvaneRewardsKit.h>

#include "ZVRewardsRouting.h"

namespace {

// Answers every request with the bytes under test, from the fuzzer's own loop
// rather than inline from `send`, as the transport contract requires.
class ReplayTransport final : public ZVTransport {
 public:
  void send(ZVHTTPRequest, Completion done) override {
    std::lock_guard lock(mutex_);
    pending_.push_back(std::move(done));
  }
  void answerAll(const ZVHTTPResult& result) {
    std::deque<Completion> pending;
    {
      std::lock_guard lock(mutex_);
      pending.swap(pending_);
    }
    for (Completion& done : pending) done(result);
  }

 private:
  std::mutex mutex_;
  std::deque<Completion> pending_;
};

std::shared_ptr<ReplayTransport> setUp() {
  ZVConfiguration configuration;
  configuration.serviceHost = "https://rewards.example.com";
  configuration.appID = "fuzz";
  configuration.accessToken = "token";
  Zorvane::configure(configuration);
  // Level 1 with the rewards category: the offers log line describes every offer.
  ZVLogger::instance()->setLogCategories(ZVLogCategoryRewards);
  ZVLogger::instance()->setLogLevel(1);
  ZVLogger::instance()->setSink([](std::string_view) {});
  auto transport = std::make_shared<ReplayTransport>();
  Zorvane::setTransport(transport);
  return transport;
}

int calls = 0;  // the fuzzer is single-threaded; handlers run on its thread

template <class T>
auto typed() {
  return [](std::shared_ptr<T> result, ZVErrorPtr error) {
    ++calls;
    if ((result == nullptr) == (error == nullptr)) std::abort();  // exactly one of the two
    if (result) (void)result->description();
    if (error) (void)error->description();
  };
}

// A handler of the kind's own type.
ZVAnyCompletionHandler countingHandler(std::string_view kind) {
  if (kind == kKindPlaceOrder) return ZVOrderCompletionHandler(typed<ZVOrder>());
  if (kind == kKindFetchRewardOrders) return ZVOrdersCompletionHandler(typed<const ZVOrderArray>());
  if (kind == kKindFetchSkillQuestion)
    return ZVSkillQuestionCompletionHandler(typed<ZVSkillQuestion>());
  if (kind == kKindAnswerSkillQuestion)
    return ZVSkillChallengeCompletionHandler(typed<ZVSkillChallenge>());
  return ZVOffersCompletionHandler(typed<const ZVOfferArray>());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::shared_ptr<ReplayTransport> transport = setUp();
  std::string_view bytes(reinterpret_cast<const char*>(data), size);
  ZVRewardsManager* manager = ZVRewardsManager::instance();
  const char* const kinds[] = {kKindFetchRewardOffers, kKindPlaceOrder, kKindFetchRewardOrders,
                               kKindFetchSkillQuestion, kKindAnswerSkillQuestion};
  calls = 0;

  // The routing, with a freshly parsed body per kind: records consume the
  // nested objects in place.
  for (const char* kind : kinds) {
    const ZVJSONParseResult parsed = ZVJSONParse(bytes);
    auto response = std::make_shared<ZVGenericResponse>(200, "https://rewards.example.com/x",
                                                        parsed.value.dictionary());
    ZVRewardsRouting(*manager).requestKind(kind, std::move(response), nullptr,
                                           countingHandler(kind));
  }
  {
    const ZVJSONParseResult parsed = ZVJSONParse(bytes);
    ZVRewardsError error(ZVErrorTypeService, parsed.value.dictionary());
    (void)error.description();
  }

  // The whole answer path. A leading byte 1 to 4 picks an HTTP failure status.
  ZVHTTPResult result;
  result.status = 200;
  static constexpr int kStatuses[] = {401, 404, 500, 503};
  if (!bytes.empty() && bytes[0] >= 1 && bytes[0] <= 4) {
    result.status = kStatuses[bytes[0] - 1];
    bytes.remove_prefix(1);
  }
  result.body.assign(bytes);
  manager->forceFetchOffersWithLocale(ZVLocale("en_US"), typed<const ZVOfferArray>());
  manager->placeOrder(ZVOrderRequest::initWithOfferID("1", 1), typed<ZVOrder>());
  manager->fetchOrdersWithCompletionHandler(typed<const ZVOrderArray>());
  manager->fetchSkillQuestionWithCompletionHandler(typed<ZVSkillQuestion>());
  manager->answerSkillQuestionForOfferID("1", "q", ZVJSONValue("a"), typed<ZVSkillChallenge>());
  transport->answerAll(result);

  // Deliveries may queue further tasks (none today): drain until quiet.
  while (ZVMainQueue::shared()->drain() != 0) {
  }
  if (calls != 10) {
    std::fprintf(stderr, "%d completion calls instead of 10\n", calls);
    std::abort();
  }
  return 0;
}
