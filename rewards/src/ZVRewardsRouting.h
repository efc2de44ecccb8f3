// Inside the SDK: the rewards manager's routing of answers to their handlers,
// the handlers that turn answers into records and state, and the deliveries.
// Our tests drive it directly; hosts only see the manager.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <variant>

#include <ZorvaneRewardsKit/ZVRewardsManager.h>

#include "http/ZVGenericRequest.h"
#include "runtime/ZVOperation.h"

struct ZVRewardsManager::State {
  mutable std::mutex mutex;
  ZVOfferArrayPtr offers;        // guarded by mutex
  ZVOrderArrayPtr orders;        // guarded by mutex
  double lastRefreshTime = 0.0;  // guarded by mutex
  // Answers are numbered as the transport finishes reading them
  // (`ZVGenericResponse::arrival`). Decodes run on more than one thread (a
  // large answer on the decode thread), so an answer may be ready after one
  // that arrived later; the lists keep the later arrival.
  uint64_t offersArrival = 0;  // guarded by mutex: the arrival `offers` came from
  uint64_t ordersArrival = 0;  // guarded by mutex: the arrival `orders` came from
};

/// One operation's completion handler, with its type: the kind of a request
/// picks the handler of its answer, and the alternative held here picks what
/// the result is. `std::monostate`, like an empty function, is no handler.
using ZVAnyCompletionHandler =
    std::variant<std::monostate, ZVOffersCompletionHandler, ZVOrdersCompletionHandler,
                 ZVOrderCompletionHandler, ZVSkillQuestionCompletionHandler,
                 ZVSkillChallengeCompletionHandler>;

/// One operation of the manager: its completion handler, kept by the
/// operation until the one delivery that may call it, and its tracking
/// (scope, cancellation). Made from a handler when the operation starts, on
/// the caller's thread, so that it joins the scope active there. Copies
/// share the operation.
class ZVRewardsCall {
 public:
  using Operation = zv_detail::ZVOperationWith<ZVAnyCompletionHandler>;

  /// An operation without a handler.
  ZVRewardsCall() : ZVRewardsCall(ZVAnyCompletionHandler()) {}
  /// An operation with `handler` (any of the manager's handler types).
  template <class Handler,
            std::enable_if_t<std::is_constructible_v<ZVAnyCompletionHandler, Handler&&>,
                             int> = 0>
  ZVRewardsCall(Handler&& handler)  // NOLINT: converts, as the handler types did
      : operation_(Operation::make(ZVAnyCompletionHandler(std::forward<Handler>(handler)))) {}

  const std::shared_ptr<Operation>& operation() const { return operation_; }
  /// Cancelled: the answer must change nothing and deliver nothing.
  bool cancelled() const { return operation_->cancelled(); }

  /// The one delivery: calls the handler, when it is of type Handler, with
  /// (result, error). Returns false when the operation was cancelled or
  /// delivered already (nothing else of the delivery may happen then).
  template <class Handler, class Result>
  bool deliver(const std::shared_ptr<Result>& result, const ZVErrorPtr& error) const {
    return operation_->deliver("a completion handler", [&](ZVAnyCompletionHandler& any) {
      if (const Handler* handler = std::get_if<Handler>(&any); handler && *handler)
        (*handler)(result, error);
    });
  }
  /// The one delivery of a failure, whatever the handler's type.
  bool deliverFailure(const ZVErrorPtr& error) const;

 private:
  std::shared_ptr<Operation> operation_;
};

/// Stateless: a view of the manager, made where it is needed. Exported for
/// our tests and fuzzers only; not part of the API.
class ZV_REWARDS_EXPORT ZVRewardsRouting {
 public:
  explicit ZVRewardsRouting(ZVRewardsManager& manager) : manager_(manager) {}

  /// Sends `request`; its answer comes back to `requestKind`.
  void send(std::shared_ptr<ZVGenericRequest> request, ZVRewardsCall completionHandler);

  /// `requestKind:response:error:completionHandler:`. An error goes to the
  /// failure path; otherwise a mutable copy of the body goes to the kind's
  /// handler. For the offers kind, the time of arrival is taken first: it is
  /// the `lastRefreshTime` that the handler publishes with the catalogue. An
  /// unknown kind is dropped: the handler is never called.
  void requestKind(const std::string& kind, std::shared_ptr<ZVGenericResponse> response,
                   ZVErrorPtr error, ZVRewardsCall completionHandler);
  /// `dispatchFailWithError:requestKind:completionHandler:`: calls a present
  /// handler with (nullptr, error) at once when `kind` is one of the five.
  void dispatchFailWithError(ZVErrorPtr error, const std::string& kind,
                             const ZVRewardsCall& completionHandler);

  /// The handlers change the manager's state only for an operation that is
  /// not cancelled, checked under the state's lock.
  void handleFetchRewardOffers(ZVDictionaryPtr body, ZVRewardsCall completionHandler);
  void handleFetchRewardOrders(ZVDictionaryPtr body, ZVRewardsCall completionHandler);
  void handlePlaceRewardOrder(ZVDictionaryPtr body, ZVRewardsCall completionHandler);
  void handleFetchSkillQuestion(ZVDictionaryPtr body, ZVRewardsCall completionHandler);
  void handleAnswerSkillQuestion(ZVDictionaryPtr body, ZVRewardsCall completionHandler);
  /// `dispatchOffers:completionHandler:`: on the main queue, the log line
  /// "Fetched offers: %@", the handler, then the notification.
  void dispatchOffers(ZVOfferArrayPtr offers, ZVRewardsCall completionHandler);

  /// A validation failure: the log line, then the failure notification and
  /// the handler on the main queue. Nothing is sent.
  void failValidation(const char* function, int line, const char* code, const char* message,
                      const char* kind, ZVRewardsCall completionHandler);

 private:
  void failService(ZVDictionaryPtr body, const char* kind, ZVRewardsCall completionHandler);
  template <class Handler, class Result>
  void deliver(std::shared_ptr<Result> result, const char* notification,
               ZVRewardsCall completionHandler);
  void logLine(const char* function, int line, const std::function<std::string()>& message);

  ZVRewardsManager& manager_;
  // When the offers answer being handled arrived; unset when a handler is
  // called directly, which then leaves `lastRefreshTime` alone.
  std::optional<double> arrival_;
  // The answer's `arrival()`; unset when a handler is called directly, or
  // for an answer not numbered, which then always writes the state.
  std::optional<uint64_t> arrivalNumber_;
  // How often the answer's request was sent; 0 when a handler is called directly.
  int attempts_ = 0;
  // The answer size limit its request was sent under; unset when a handler
  // is called directly, which then takes the current configuration's.
  std::optional<size_t> maxResponseBytes_;
  size_t answerLimit() const;
};
