#include <ZorvaneRewardsKit/ZVRewardsManager.h>

#include <ZorvaneCoreKit/ZVClock.h>
#include <ZorvaneCoreKit/ZVNotificationCenter.h>
#include <ZorvaneCoreKit/Zorvane.h>

#include "ZVRewardsRouting.h"
#include "base/ZVUtil.h"
#include "json/ZVJSONWrite.h"

namespace {

constexpr const char* kOffersURL = "https://:host/api/v1/apps/:appid/offers";
constexpr const char* kOrdersURL = "https://:host/api/v1/apps/:appid/orders";
constexpr const char* kPlaceOrderURL = "https://:host/api/v1/apps/:appid/offers/%@/orders";
constexpr const char* kSkillQuestionURL =
    "https://:host/api/v1/apps/:appid/challenges/skills_test_question";
constexpr const char* kAnswerSkillQuestionURL =
    "https://:host/api/v1/apps/:appid/offers/%@/challenges/skills_test_questions/%@";

std::string textOrNull(const std::optional<std::string>& text) {
  return text ? *text : std::string("(null)");
}

}  // namespace

ZVRewardsManager* ZVRewardsManager::instance() {
  // A function-local static is the once-only guard; the manager is never
  // destroyed, so late deliveries at process exit never see a dead object.
  static ZVRewardsManager* const manager = [] {
    auto* created = new ZVRewardsManager();
    created->observeUserChanges();
    return created;
  }();
  return manager;
}

ZVRewardsManager::ZVRewardsManager() : state_(std::make_unique<State>()) {
  resetData();
}

ZVRewardsManager::~ZVRewardsManager() {
  ZVNotificationCenter::defaultCenter()->removeObserverForOwner(this);
}

// ---- State ------------------------------------------------------------------

ZVOfferArrayPtr ZVRewardsManager::offers() const {
  std::lock_guard lock(state_->mutex);
  return state_->offers;
}

void ZVRewardsManager::setOffers(ZVOfferArrayPtr offers) {
  if (!offers) offers = std::make_shared<const ZVOfferArray>();
  std::lock_guard lock(state_->mutex);
  state_->offers = std::move(offers);
}

ZVOrderArrayPtr ZVRewardsManager::orders() const {
  std::lock_guard lock(state_->mutex);
  return state_->orders;
}

void ZVRewardsManager::setOrders(ZVOrderArrayPtr orders) {
  if (!orders) orders = std::make_shared<const ZVOrderArray>();
  std::lock_guard lock(state_->mutex);
  state_->orders = std::move(orders);
}

double ZVRewardsManager::lastRefreshTime() const {
  std::lock_guard lock(state_->mutex);
  return state_->lastRefreshTime;
}

void ZVRewardsManager::setLastRefreshTime(double time) {
  std::lock_guard lock(state_->mutex);
  state_->lastRefreshTime = time;
}

void ZVRewardsManager::resetData() {
  auto noOffers = std::make_shared<const ZVOfferArray>();
  auto noOrders = std::make_shared<const ZVOrderArray>();
  std::lock_guard lock(state_->mutex);
  state_->offers = std::move(noOffers);
  state_->orders = std::move(noOrders);
  state_->lastRefreshTime = 0.0;
}

void ZVRewardsManager::clearUserState(const ZVObject* /*argument*/) {
  resetData();
}

// ---- Offers -----------------------------------------------------------------

void ZVRewardsManager::fetchOffersWithCompletionHandler(
    ZVOffersCompletionHandler completionHandler) {
  std::optional<ZVLocale> locale = Zorvane::customLocale();
  if (!locale) locale = ZVLocale::currentLocale();
  fetchOffersWithLocale(std::move(locale), false, std::move(completionHandler));
}

void ZVRewardsManager::fetchOffersWithLocale(std::optional<ZVLocale> locale,
                                             ZVOffersCompletionHandler completionHandler) {
  fetchOffersWithLocale(std::move(locale), false, std::move(completionHandler));
}

void ZVRewardsManager::forceFetchOffersWithLocale(std::optional<ZVLocale> locale,
                                                  ZVOffersCompletionHandler completionHandler) {
  fetchOffersWithLocale(std::move(locale), true, std::move(completionHandler));
}

void ZVRewardsManager::fetchOffersWithLocale(std::optional<ZVLocale> locale, bool forceFetch,
                                             ZVOffersCompletionHandler completionHandler) {
  if (!forceFetch) {
    // Read in this order: the time, then the stamp, then the interval. A NaN
    // on either side compares false and so counts as stale; a negative age
    // counts as fresh.
    const double now = ZVClock::now();
    double last;
    ZVOfferArrayPtr cached;
    {
      std::lock_guard lock(state_->mutex);
      last = state_->lastRefreshTime;
      cached = state_->offers;
    }
    const double age = now - last;
    if (age < refreshInterval()) {
      // The array is immutable, so sharing it is the copy: the cost of a hit
      // does not grow with the catalogue.
      ZVRewardsRouting(*this).dispatchOffers(std::move(cached), std::move(completionHandler));
      return;
    }
  }
  if (!locale) {
    locale = Zorvane::customLocale();
    if (!locale) locale = ZVLocale::currentLocale();
  }
  auto builder = ZVGenericRequestBuilder::requestBuilderWithMethod(ZVRequestMethodRead,
                                                                   kKindFetchRewardOffers);
  builder->setBaseURL(kOffersURL);
  builder->params().setObject("locale", ZVUtil::localeToWeb(*locale));
  ZVRewardsRouting(*this).send(builder->build(), std::move(completionHandler));
}

// ---- Orders -----------------------------------------------------------------

void ZVRewardsManager::fetchOrdersWithCompletionHandler(
    ZVOrdersCompletionHandler completionHandler) {
  auto builder = ZVGenericRequestBuilder::requestBuilderWithMethod(ZVRequestMethodRead,
                                                                   kKindFetchRewardOrders);
  builder->setBaseURL(kOrdersURL);
  ZVRewardsRouting(*this).send(builder->build(), std::move(completionHandler));
}

void ZVRewardsManager::placeOrder(std::shared_ptr<ZVOrderRequest> order,
                                  ZVOrderCompletionHandler completionHandler) {
  ZVRewardsRouting routing(*this);
  // The logged line number is the check's own, so it stays on one line.
  // clang-format off
  if (!order) { routing.failValidation("-[ZVRewardsManager placeOrder:completionHandler:]", __LINE__, ZVErrorServerNoRequest, "Missing 'order' parameter", kKindPlaceOrder, std::move(completionHandler)); return; }
  // clang-format on
  auto builder =
      ZVGenericRequestBuilder::requestBuilderWithMethod(ZVRequestMethodSubmit, kKindPlaceOrder);
  builder->setBaseURL(kPlaceOrderURL);
  // The request layer puts each id in as one path segment.
  builder->setPathValues({textOrNull(order->offerID())});
  if (order->idempotencyKey()) builder->setIdempotencyKey(*order->idempotencyKey());
  auto body = ZVMutableDictionary::make();
  body->setObject("order", order->asDictionary());
  builder->setBody(std::move(body));
  builder->setErrorMessageMaker([](const ZVGenericRequest&, const ZVDictionaryPtr& result) {
    // Checked compactly, then quoted pretty-printed up to 16 KiB: indentation
    // can make a nested body's text hundreds of times longer than the answer.
    std::string text;
    if (!result || !ZVJSONSerialize(ZVJSONValue(result), false, text))
      return std::string("Unknown error result");
    return zv_detail::describeCapped(ZVJSONValue(result), 16 << 10);
  });
  routing.send(builder->build(), std::move(completionHandler));
}

// ---- Skill-testing question ---------------------------------------------------

void ZVRewardsManager::fetchSkillQuestionWithCompletionHandler(
    ZVSkillQuestionCompletionHandler completionHandler) {
  auto builder = ZVGenericRequestBuilder::requestBuilderWithMethod(ZVRequestMethodRead,
                                                                   kKindFetchSkillQuestion);
  builder->setBaseURL(kSkillQuestionURL);
  ZVRewardsRouting(*this).send(builder->build(), std::move(completionHandler));
}

void ZVRewardsManager::answerSkillQuestionForOfferID(
    std::optional<std::string> offerID, std::optional<std::string> questionID, ZVJSONValue answer,
    ZVSkillChallengeCompletionHandler completionHandler) {
  ZVRewardsRouting routing(*this);
  constexpr const char* kFunction =
      "-[ZVRewardsManager answerSkillQuestionForOfferID:questionID:answer:completionHandler:]";
  if (!offerID) {
    routing.failValidation(kFunction, __LINE__, ZVErrorValidationNoOfferID,
                           "Missing 'offerID' parameter for answering skill question",
                           kKindAnswerSkillQuestion, std::move(completionHandler));
    return;
  }
  if (!questionID) {
    routing.failValidation(kFunction, __LINE__, ZVErrorValidationNoQuestionID,
                           "Missing 'questionID' parameter for answering skill question",
                           kKindAnswerSkillQuestion, std::move(completionHandler));
    return;
  }
  if (answer.isNil()) {
    routing.failValidation(kFunction, __LINE__, ZVErrorValidationNoAnswer,
                           "Missing 'answer' parameter for answering skill question",
                           kKindAnswerSkillQuestion, std::move(completionHandler));
    return;
  }
  auto builder = ZVGenericRequestBuilder::requestBuilderWithMethod(ZVRequestMethodSubmit,
                                                                   kKindAnswerSkillQuestion);
  builder->setBaseURL(kAnswerSkillQuestionURL);
  builder->setPathValues({*offerID, *questionID});
  auto response = ZVMutableDictionary::make();
  response->setObject("response", std::move(answer));
  auto question = ZVMutableDictionary::make();
  question->setObject("skills_test_question", std::move(response));
  auto challenge = ZVMutableDictionary::make();
  challenge->setObject("challenge", std::move(question));
  builder->setBody(challenge->mutableCopy());
  routing.send(builder->build(), std::move(completionHandler));
}
