// Inside the SDK: the rewards manager's routing of answers to their handlers,
// the handlers that turn answers into records and state, and the deliveries.
// Our tests drive it directly; hosts only see the manager.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <variant>

#include <ZorvaneRewardsKit/ZVRewardsManager.h>

#include "http/ZVGenericRequest.h"

struct ZVRewardsManager::State {
  mutable std::mutex mutex;
  ZVOfferArrayPtr offers;        // guarded by mutex
  ZVOrderArrayPtr orders;        // guarded by mutex
  double lastRefreshTime = 0.0;  // guarded by mutex
};

/// One operation's completion handler, with its type: the kind of a request
/// picks the handler of its answer, and the alternative held here picks what
/// the result is. `std::monostate`, like an empty function, is no handler.
using ZVAnyCompletionHandler =
    std::variant<std::monostate, ZVOffersCompletionHandler, ZVOrdersCompletionHandler,
                 ZVOrderCompletionHandler, ZVSkillQuestionCompletionHandler,
                 ZVSkillChallengeCompletionHandler>;

/// Stateless: a view of the manager, made where it is needed. Exported for
/// our tests and fuzzers only; not part of the API.
class ZV_REWARDS_EXPORT ZVRewardsRouting {
 public:
  explicit ZVRewardsRouting(ZVRewardsManager& manager) : manager_(manager) {}

  /// Sends `request`; its answer comes back to `requestKind`.
  void send(std::shared_ptr<ZVGenericRequest> request, ZVAnyCompletionHandler completionHandler);

  /// `requestKind:response:error:completionHandler:`. An error goes to the
  /// failure path; otherwise a mutable copy of the body goes to the kind's
  /// handler (the offers kind stamps `lastRefreshTime` first). An unknown
  /// kind is dropped: the handler is never called.
  void requestKind(const std::string& kind, std::shared_ptr<ZVGenericResponse> response,
                   ZVErrorPtr error, ZVAnyCompletionHandler completionHandler);
  /// `dispatchFailWithError:requestKind:completionHandler:`: calls a present
  /// handler with (nullptr, error) at once when `kind` is one of the five.
  void dispatchFailWithError(ZVErrorPtr error, const std::string& kind,
                             const ZVAnyCompletionHandler& completionHandler);

  void handleFetchRewardOffers(ZVDictionaryPtr body, ZVAnyCompletionHandler completionHandler);
  void handleFetchRewardOrders(ZVDictionaryPtr body, ZVAnyCompletionHandler completionHandler);
  void handlePlaceRewardOrder(ZVDictionaryPtr body, ZVAnyCompletionHandler completionHandler);
  void handleFetchSkillQuestion(ZVDictionaryPtr body, ZVAnyCompletionHandler completionHandler);
  void handleAnswerSkillQuestion(ZVDictionaryPtr body, ZVAnyCompletionHandler completionHandler);
  /// `dispatchOffers:completionHandler:`: on the main queue, the log line
  /// "Fetched offers: %@", the handler, then the notification.
  void dispatchOffers(ZVOfferArrayPtr offers, ZVAnyCompletionHandler completionHandler);

  /// A validation failure: the log line, then the failure notification and
  /// the handler on the main queue. Nothing is sent.
  void failValidation(const char* function, int line, const char* code, const char* message,
                      const char* kind, ZVAnyCompletionHandler completionHandler);

 private:
  void failService(ZVDictionaryPtr body, const char* kind,
                   ZVAnyCompletionHandler completionHandler);
  template <class Handler, class Result>
  void deliver(std::shared_ptr<Result> result, const char* notification,
               ZVAnyCompletionHandler completionHandler);
  void logLine(const char* function, int line, const std::function<std::string()>& message);

  ZVRewardsManager& manager_;
};
