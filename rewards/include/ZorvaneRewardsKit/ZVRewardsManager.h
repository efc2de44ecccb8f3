// The single entry point of the rewards module.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <ZorvaneCoreKit/ZVBaseManager.h>
#include <ZorvaneCoreKit/ZVError.h>
#include <ZorvaneCoreKit/ZVJSON.h>
#include <ZorvaneCoreKit/ZVLocale.h>
#include <ZorvaneRewardsKit/ZVOffer.h>
#include <ZorvaneRewardsKit/ZVOrder.h>
#include <ZorvaneRewardsKit/ZVOrderRequest.h>
#include <ZorvaneRewardsKit/ZVRewardsConstants.h>
#include <ZorvaneRewardsKit/ZVRewardsExport.h>
#include <ZorvaneRewardsKit/ZVSkillChallenge.h>
#include <ZorvaneRewardsKit/ZVSkillQuestion.h>

// Completion handlers: (result, error), exactly one of the two non-null. An
// empty std::function is allowed wherever a handler is taken.
using ZVOffersCompletionHandler = std::function<void(ZVOfferArrayPtr offers, ZVErrorPtr error)>;
using ZVOrdersCompletionHandler = std::function<void(ZVOrderArrayPtr orders, ZVErrorPtr error)>;
using ZVOrderCompletionHandler =
    std::function<void(std::shared_ptr<ZVOrder> order, ZVErrorPtr error)>;
using ZVSkillQuestionCompletionHandler =
    std::function<void(std::shared_ptr<ZVSkillQuestion> question, ZVErrorPtr error)>;
using ZVSkillChallengeCompletionHandler =
    std::function<void(std::shared_ptr<ZVSkillChallenge> challenge, ZVErrorPtr error)>;

class ZVRewardsRouting;

/// The rewards manager: lists offers (with an in-memory cache), places
/// orders, lists past orders and runs the skill-testing question.
///
/// Every operation returns at once. Its outcome arrives later, on the main
/// queue (`ZVMainQueue::shared()`), never from inside the call:
/// - success: the completion handler with (result, nullptr), then the success
///   notification (object: the manager; user information:
///   {`ZV_MANAGER_NOTIFICATION_DATA_KEY`: the same result object});
/// - failure: the failure notification (`ZV_REWARDS_MANAGER_REQUEST_DID_FAIL_NOTIFICATION`
///   or `ZV_REWARDS_MANAGER_VALIDATION_DID_FAIL_NOTIFICATION`, with the error
///   under `ZV_MANAGER_NOTIFICATION_ERROR_KEY`), then the completion handler
///   with (nullptr, error).
///
/// Each call is an operation that ends once: its completion handler is called
/// exactly once, unless the operation is cancelled first (by the `ZVScope`
/// active when it was started, by `Zorvane::cancelAllOperations()` or by
/// `Zorvane::shutdown()`); a cancelled operation never calls its handler,
/// releases it at once, and its answer changes no state and posts no
/// notification. A handler or observer that throws is reported and stops
/// nothing else (see `Zorvane::setHostExceptionHandler`).
///
/// @par Thread safety
/// Every operation is safe from any thread. The state (`offers`, `orders`,
/// `lastRefreshTime`) is guarded by an internal lock and always written
/// before the delivery that reflects it is queued; an offers answer's
/// `lastRefreshTime` and catalogue are published together. Handlers run on
/// the main queue with no SDK lock held, so they may call the manager again.
class ZV_REWARDS_EXPORT ZVRewardsManager final : public ZVBaseManager {
 public:
  /// `+instance`: the shared manager, created on the first call (once, even
  /// when threads race) and never destroyed.
  static ZVRewardsManager* instance();

  // ---- State ----------------------------------------------------------------

  /// The catalogue of the last accepted offers answer (empty, never null).
  ZVOfferArrayPtr offers() const;
  void setOffers(ZVOfferArrayPtr offers);
  /// The history of the last accepted orders answer (empty, never null).
  ZVOrderArrayPtr orders() const;
  void setOrders(ZVOrderArrayPtr orders);
  /// When the last offers answer arrived, in seconds since 1970; 0 = never.
  double lastRefreshTime() const;
  void setLastRefreshTime(double time);

  /// Empties `offers` and `orders` and zeroes `lastRefreshTime`.
  void resetData();
  /// `clearUserState:`: calls `resetData`; the argument is ignored. Requests
  /// in flight are not cancelled: an answer that arrives afterwards fills the
  /// state again (call `Zorvane::cancelAllOperations()` first to prevent it).
  /// Called when `ZV_USER_MANAGER_USER_DID_CHANGE_NOTIFICATION` is posted.
  void clearUserState(const ZVObject* argument) override;

  // ---- Offers ---------------------------------------------------------------

  /// `fetchOffersWithCompletionHandler:`: in `Zorvane::customLocale()`, else
  /// the device's locale, using the cache.
  void fetchOffersWithCompletionHandler(ZVOffersCompletionHandler completionHandler);
  /// `fetchOffersWithLocale:completionHandler:`: using the cache.
  void fetchOffersWithLocale(std::optional<ZVLocale> locale,
                             ZVOffersCompletionHandler completionHandler);
  /// `forceFetchOffersWithLocale:completionHandler:`: bypassing the cache.
  void forceFetchOffersWithLocale(std::optional<ZVLocale> locale,
                                  ZVOffersCompletionHandler completionHandler);
  /// `fetchOffersWithLocale:forceFetch:completionHandler:`.
  ///
  /// Unless `forceFetch`, delivers the cached `offers` without a request when
  /// now minus `lastRefreshTime` is strictly less than `refreshInterval` (a
  /// NaN, or an age equal to the interval, is stale; a negative age, after
  /// the clock was set back, is fresh), whatever the locale. Otherwise sends
  /// GET .../offers?locale=<ZVUtil::localeToWeb(locale)>, with a null locale
  /// resolved as in `fetchOffersWithCompletionHandler`. Success: the array of
  /// offers and `ZV_REWARDS_MANAGER_DID_FETCH_OFFERS_NOTIFICATION`. An answer
  /// without "status" "ok" empties `offers` and zeroes `lastRefreshTime`.
  void fetchOffersWithLocale(std::optional<ZVLocale> locale, bool forceFetch,
                             ZVOffersCompletionHandler completionHandler);

  // ---- Orders ---------------------------------------------------------------

  /// `fetchOrdersWithCompletionHandler:`: GET .../orders, no cache. Success:
  /// the array of orders and `ZV_REWARDS_MANAGER_DID_FETCH_ORDERS_NOTIFICATION`.
  /// An answer without "status" "ok" empties `orders`.
  void fetchOrdersWithCompletionHandler(ZVOrdersCompletionHandler completionHandler);

  /// `placeOrder:completionHandler:`: POST `.../offers/<offerID>/orders` with
  /// {"order": order->asDictionary()}. A null order fails validation
  /// (`ZVErrorServerNoRequest`, "Missing 'order' parameter") and sends nothing.
  /// Success: the new order, `ZV_REWARDS_MANAGER_DID_PLACE_ORDER_NOTIFICATION`,
  /// then `ZV_USER_MANAGER_DID_UPDATE_USER_INTERNAL` with the new balances.
  /// The manager's state is not changed.
  void placeOrder(std::shared_ptr<ZVOrderRequest> order,
                  ZVOrderCompletionHandler completionHandler);

  // ---- Skill-testing question -----------------------------------------------

  /// `fetchSkillQuestionWithCompletionHandler:`: GET
  /// .../challenges/skills_test_question. Success: the question and
  /// `ZV_REWARDS_MANAGER_DID_FETCH_SKILL_QUESTION_NOTIFICATION`.
  void fetchSkillQuestionWithCompletionHandler(ZVSkillQuestionCompletionHandler completionHandler);

  /// `answerSkillQuestionForOfferID:questionID:answer:completionHandler:`:
  /// POST `.../offers/<offerID>/challenges/skills_test_questions/<questionID>`
  /// with {"challenge": {"skills_test_question": {"response": answer}}}.
  /// Checks, in order, that offerID, questionID and answer are present (nil
  /// answer = absent; an empty string passes) and fails validation on the
  /// first that is not. Success: the challenge and
  /// `ZV_REWARDS_MANAGER_DID_ANSWER_SKILL_QUESTION_NOTIFICATION`.
  void answerSkillQuestionForOfferID(std::optional<std::string> offerID,
                                     std::optional<std::string> questionID, ZVJSONValue answer,
                                     ZVSkillChallengeCompletionHandler completionHandler);

  ~ZVRewardsManager() override;

 private:
  friend class ZVRewardsRouting;  // the routing of answers and the deliveries, inside the SDK
  struct State;
  ZVRewardsManager();

  const std::unique_ptr<State> state_;  // `offers`, `orders`, `lastRefreshTime` and their lock
};
