#include <ZorvaneRewardsKit/ZVRewardsManager.h>

#include <fmt/format.h>

#include <ZorvaneCoreKit/ZVClock.h>
#include <ZorvaneCoreKit/ZVGenericRequestManager.h>
#include <ZorvaneCoreKit/ZVIdentity.h>
#include <ZorvaneCoreKit/ZVLogger.h>
#include <ZorvaneCoreKit/ZVMainQueue.h>
#include <ZorvaneCoreKit/ZVNotificationCenter.h>
#include <ZorvaneCoreKit/ZVPManagerUtils.h>
#include <ZorvaneCoreKit/ZVUtil.h>
#include <ZorvaneCoreKit/Zorvane.h>
#include <ZorvaneRewardsKit/ZVRewardsError.h>

namespace {

constexpr const char* kOffersURL = "https://:host/api/v1/apps/:appid/offers";
constexpr const char* kOrdersURL = "https://:host/api/v1/apps/:appid/orders";
constexpr const char* kPlaceOrderURL = "https://:host/api/v1/apps/:appid/offers/{}/orders";
constexpr const char* kSkillQuestionURL =
    "https://:host/api/v1/apps/:appid/challenges/skills_test_question";
constexpr const char* kAnswerSkillQuestionURL =
    "https://:host/api/v1/apps/:appid/offers/{}/challenges/skills_test_questions/{}";

// Wraps a typed handler into the routing's type-erased one. An empty handler
// stays empty, so "no handler" checks keep working downstream.
template <class T, class Handler>
ZVCompletionHandler eraseHandler(Handler handler) {
  if (!handler) return {};
  return [h = std::move(handler)](std::shared_ptr<const ZVObject> result, ZVErrorPtr error) {
    h(std::const_pointer_cast<T>(std::dynamic_pointer_cast<const T>(result)), std::move(error));
  };
}

// The answer is good only when "status" is the string "ok"; any other type,
// or no body at all, is not.
bool isOK(const ZVDictionaryPtr& body) {
  if (!body) return false;
  const ZVJSONValue* status = body->find("status");
  return status && status->string() && *status->string() == "ok";
}

bool isKnownKind(const std::string& kind) {
  return kind == kKindFetchRewardOffers || kind == kKindPlaceOrder ||
         kind == kKindFetchRewardOrders || kind == kKindFetchSkillQuestion ||
         kind == kKindAnswerSkillQuestion;
}

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

ZVRewardsManager::ZVRewardsManager() {
  resetData();
}

ZVRewardsManager::~ZVRewardsManager() {
  ZVNotificationCenter::defaultCenter()->removeObserverForOwner(this);
}

// ---- State ------------------------------------------------------------------

ZVOfferArrayPtr ZVRewardsManager::offers() const {
  std::lock_guard lock(mutex_);
  return offers_;
}

void ZVRewardsManager::setOffers(ZVOfferArrayPtr offers) {
  if (!offers) offers = std::make_shared<const ZVOfferArray>();
  std::lock_guard lock(mutex_);
  offers_ = std::move(offers);
}

ZVOrderArrayPtr ZVRewardsManager::orders() const {
  std::lock_guard lock(mutex_);
  return orders_;
}

void ZVRewardsManager::setOrders(ZVOrderArrayPtr orders) {
  if (!orders) orders = std::make_shared<const ZVOrderArray>();
  std::lock_guard lock(mutex_);
  orders_ = std::move(orders);
}

double ZVRewardsManager::lastRefreshTime() const {
  std::lock_guard lock(mutex_);
  return lastRefreshTime_;
}

void ZVRewardsManager::setLastRefreshTime(double time) {
  std::lock_guard lock(mutex_);
  lastRefreshTime_ = time;
}

void ZVRewardsManager::resetData() {
  auto noOffers = std::make_shared<const ZVOfferArray>();
  auto noOrders = std::make_shared<const ZVOrderArray>();
  std::lock_guard lock(mutex_);
  offers_ = std::move(noOffers);
  orders_ = std::move(noOrders);
  lastRefreshTime_ = 0.0;
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
  ZVCompletionHandler handler = eraseHandler<const ZVOfferArray>(std::move(completionHandler));
  if (!forceFetch) {
    // Read in this order: now, the stamp, the interval. NaN on either side
    // compares false, so it counts as stale; a negative age counts as fresh.
    const double now = ZVClock::now();
    double last;
    ZVOfferArrayPtr cached;
    {
      std::lock_guard lock(mutex_);
      last = lastRefreshTime_;
      cached = offers_;
    }
    const double age = now - last;
    if (age < refreshInterval()) {
      // The array is immutable, so sharing it is the copy: the cost of a hit
      // does not grow with the catalogue.
      dispatchOffers(std::move(cached), std::move(handler));
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
  send(builder->build(), std::move(handler));
}

void ZVRewardsManager::handleFetchRewardOffers(ZVDictionaryPtr body,
                                               ZVCompletionHandler completionHandler) {
  if (!isOK(body)) {
    {
      // Undo the routing's stamp so that the next fetch asks the service again.
      auto noOffers = std::make_shared<const ZVOfferArray>();
      std::lock_guard lock(mutex_);
      offers_ = std::move(noOffers);
      lastRefreshTime_ = 0.0;
    }
    failService(std::move(body), kKindFetchRewardOffers, std::move(completionHandler));
    return;
  }
  // "offers" of another type than an array is treated as absent: an empty list.
  std::vector<std::shared_ptr<ZVOffer>> list;
  if (const ZVJSONValue* value = body->find("offers")) {
    if (const ZVArrayPtr array = value->array()) {
      list.reserve(array->count());
      for (const ZVJSONValue& element : *array)
        list.push_back(ZVOffer::initMutableWithDictionary(element));
    }
  }
  auto result = std::make_shared<const ZVOfferArray>(std::move(list));
  {
    std::lock_guard lock(mutex_);
    offers_ = result;
  }
  dispatchOffers(std::move(result), std::move(completionHandler));
}

void ZVRewardsManager::dispatchOffers(ZVOfferArrayPtr offers,
                                      ZVCompletionHandler completionHandler) {
  ZVMainQueue::shared()->async(
      [this, offers = std::move(offers), handler = std::move(completionHandler)] {
        logLine("-[ZVRewardsManager dispatchOffers:completionHandler:]_block_invoke", __LINE__,
                [&] { return "Fetched offers: " + ZVDescribe(offers.get()); });
        if (handler) handler(offers, nullptr);
        ZVNotificationCenter::defaultCenter()->postNotificationName(
            ZV_REWARDS_MANAGER_DID_FETCH_OFFERS_NOTIFICATION, this,
            {{ZV_MANAGER_NOTIFICATION_DATA_KEY, offers}});
      });
}

// ---- Orders -----------------------------------------------------------------

void ZVRewardsManager::fetchOrdersWithCompletionHandler(
    ZVOrdersCompletionHandler completionHandler) {
  auto builder = ZVGenericRequestBuilder::requestBuilderWithMethod(ZVRequestMethodRead,
                                                                   kKindFetchRewardOrders);
  builder->setBaseURL(kOrdersURL);
  send(builder->build(), eraseHandler<const ZVOrderArray>(std::move(completionHandler)));
}

void ZVRewardsManager::handleFetchRewardOrders(ZVDictionaryPtr body,
                                               ZVCompletionHandler completionHandler) {
  if (!isOK(body)) {
    setOrders(nullptr);
    failService(std::move(body), kKindFetchRewardOrders, std::move(completionHandler));
    return;
  }
  std::vector<std::shared_ptr<ZVOrder>> list;
  if (const ZVJSONValue* value = body->find("orders")) {
    if (const ZVArrayPtr array = value->array()) {
      list.reserve(array->count());
      for (const ZVJSONValue& element : *array)
        list.push_back(ZVOrder::initMutableWithDictionary(element));
    }
  }
  auto result = std::make_shared<const ZVOrderArray>(std::move(list));
  setOrders(result);
  deliver(std::move(result), ZV_REWARDS_MANAGER_DID_FETCH_ORDERS_NOTIFICATION,
          std::move(completionHandler));
}

void ZVRewardsManager::placeOrder(std::shared_ptr<ZVOrderRequest> order,
                                  ZVOrderCompletionHandler completionHandler) {
  ZVCompletionHandler handler = eraseHandler<ZVOrder>(std::move(completionHandler));
  // The logged line number is the check's own, so it stays on one line.
  // clang-format off
  if (!order) { failValidation("-[ZVRewardsManager placeOrder:completionHandler:]", __LINE__, ZVErrorServerNoRequest, "Missing 'order' parameter", kKindPlaceOrder, std::move(handler)); return; }
  // clang-format on
  auto builder =
      ZVGenericRequestBuilder::requestBuilderWithMethod(ZVRequestMethodSubmit, kKindPlaceOrder);
  builder->setBaseURL(fmt::format(fmt::runtime(kPlaceOrderURL), textOrNull(order->offerID())));
  auto body = ZVMutableDictionary::make();
  body->setObject("order", order->asDictionary());
  builder->setBody(std::move(body));
  builder->setErrorMessageMaker([](const ZVGenericRequest&, const ZVDictionaryPtr& result) {
    std::string text;
    if (!result || !ZVJSONSerialize(ZVJSONValue(result), true, text))
      return std::string("Unknown error result");
    return text;
  });
  send(builder->build(), std::move(handler));
}

void ZVRewardsManager::handlePlaceRewardOrder(ZVDictionaryPtr body,
                                              ZVCompletionHandler completionHandler) {
  if (!isOK(body)) {
    failService(std::move(body), kKindPlaceOrder, std::move(completionHandler));
    return;
  }
  const ZVJSONValue* value = body->find("order");
  std::shared_ptr<ZVOrder> order =
      ZVOrder::initMutableWithDictionary(value ? *value : ZVJSONValue());
  ZVMainQueue::shared()->async([this, order, handler = std::move(completionHandler)] {
    if (handler) handler(order, nullptr);
    auto* center = ZVNotificationCenter::defaultCenter();
    center->postNotificationName(ZV_REWARDS_MANAGER_DID_PLACE_ORDER_NOTIFICATION, this,
                                 {{ZV_MANAGER_NOTIFICATION_DATA_KEY, order}});
    const std::shared_ptr<ZVOrderUser>& user = order->user();
    center->postNotificationName(
        ZV_USER_MANAGER_DID_UPDATE_USER_INTERNAL, this,
        {{kUserAvailablePoints, std::make_shared<ZVNumber>(user ? user->availablePoints() : 0)},
         {kUserTestPoints, std::make_shared<ZVNumber>(user ? user->testPoints() : 0)}});
  });
}

// ---- Skill-testing question ---------------------------------------------------

void ZVRewardsManager::fetchSkillQuestionWithCompletionHandler(
    ZVSkillQuestionCompletionHandler completionHandler) {
  auto builder = ZVGenericRequestBuilder::requestBuilderWithMethod(ZVRequestMethodRead,
                                                                   kKindFetchSkillQuestion);
  builder->setBaseURL(kSkillQuestionURL);
  send(builder->build(), eraseHandler<ZVSkillQuestion>(std::move(completionHandler)));
}

void ZVRewardsManager::answerSkillQuestionForOfferID(
    std::optional<std::string> offerID, std::optional<std::string> questionID, ZVJSONValue answer,
    ZVSkillChallengeCompletionHandler completionHandler) {
  ZVCompletionHandler handler = eraseHandler<ZVSkillChallenge>(std::move(completionHandler));
  constexpr const char* kFunction =
      "-[ZVRewardsManager answerSkillQuestionForOfferID:questionID:answer:completionHandler:]";
  if (!offerID) {
    failValidation(kFunction, __LINE__, ZVErrorValidationNoOfferID,
                   "Missing 'offerID' parameter for answering skill question",
                   kKindAnswerSkillQuestion, std::move(handler));
    return;
  }
  if (!questionID) {
    failValidation(kFunction, __LINE__, ZVErrorValidationNoQuestionID,
                   "Missing 'questionID' parameter for answering skill question",
                   kKindAnswerSkillQuestion, std::move(handler));
    return;
  }
  if (answer.isNil()) {
    failValidation(kFunction, __LINE__, ZVErrorValidationNoAnswer,
                   "Missing 'answer' parameter for answering skill question",
                   kKindAnswerSkillQuestion, std::move(handler));
    return;
  }
  auto builder = ZVGenericRequestBuilder::requestBuilderWithMethod(ZVRequestMethodSubmit,
                                                                   kKindAnswerSkillQuestion);
  builder->setBaseURL(fmt::format(fmt::runtime(kAnswerSkillQuestionURL), *offerID, *questionID));
  auto response = ZVMutableDictionary::make();
  response->setObject("response", std::move(answer));
  auto question = ZVMutableDictionary::make();
  question->setObject("skills_test_question", std::move(response));
  auto challenge = ZVMutableDictionary::make();
  challenge->setObject("challenge", std::move(question));
  builder->setBody(challenge->mutableCopy());
  send(builder->build(), std::move(handler));
}

void ZVRewardsManager::handleFetchSkillQuestion(ZVDictionaryPtr body,
                                                ZVCompletionHandler completionHandler) {
  if (!isOK(body)) {
    failService(std::move(body), kKindFetchSkillQuestion, std::move(completionHandler));
    return;
  }
  const ZVJSONValue* value = body->find("challenge");
  deliver(ZVSkillQuestion::initMutableWithDictionary(value ? *value : ZVJSONValue()),
          ZV_REWARDS_MANAGER_DID_FETCH_SKILL_QUESTION_NOTIFICATION, std::move(completionHandler));
}

void ZVRewardsManager::handleAnswerSkillQuestion(ZVDictionaryPtr body,
                                                 ZVCompletionHandler completionHandler) {
  if (!isOK(body)) {
    failService(std::move(body), kKindAnswerSkillQuestion, std::move(completionHandler));
    return;
  }
  const ZVJSONValue* value = body->find("challenge");
  deliver(ZVSkillChallenge::initMutableWithDictionary(value ? *value : ZVJSONValue()),
          ZV_REWARDS_MANAGER_DID_ANSWER_SKILL_QUESTION_NOTIFICATION, std::move(completionHandler));
}

// ---- Routing ------------------------------------------------------------------

void ZVRewardsManager::send(std::shared_ptr<ZVGenericRequest> request,
                            ZVCompletionHandler completionHandler) {
  ZVGenericRequestManager::instance()->sendRequest(
      std::move(request),
      [this, handler = std::move(completionHandler)](
          const std::string& kind, std::shared_ptr<ZVGenericResponse> response, ZVErrorPtr error,
          ZVDictionaryPtr /*body: read from the response instead*/) {
        requestKind(kind, std::move(response), std::move(error), handler);
      });
}

void ZVRewardsManager::requestKind(const std::string& kind,
                                   std::shared_ptr<ZVGenericResponse> response, ZVErrorPtr error,
                                   ZVCompletionHandler completionHandler) {
  if (error) {
    ZVPManagerUtils::callDidFailWithError<ZVCompletionHandler>(
        std::move(error), ZV_REWARDS_MANAGER_REQUEST_DID_FAIL_NOTIFICATION,
        std::move(completionHandler),
        [this, kind](ZVCompletionHandler handler, ZVErrorPtr given) {
          dispatchFailWithError(std::move(given), kind, handler);
        },
        this);
    return;
  }
  ZVDictionaryPtr body =
      response && response->body() ? response->body()->mutableCopy() : ZVDictionaryPtr();
  if (kind == kKindFetchRewardOffers) {
    // The stamp records the answer's arrival, before its status is looked at.
    setLastRefreshTime(ZVClock::now());
    handleFetchRewardOffers(std::move(body), std::move(completionHandler));
  } else if (kind == kKindPlaceOrder) {
    handlePlaceRewardOrder(std::move(body), std::move(completionHandler));
  } else if (kind == kKindFetchRewardOrders) {
    handleFetchRewardOrders(std::move(body), std::move(completionHandler));
  } else if (kind == kKindFetchSkillQuestion) {
    handleFetchSkillQuestion(std::move(body), std::move(completionHandler));
  } else if (kind == kKindAnswerSkillQuestion) {
    handleAnswerSkillQuestion(std::move(body), std::move(completionHandler));
  }
  // Any other kind is dropped on purpose: no handler runs, nothing is posted.
}

void ZVRewardsManager::dispatchFailWithError(ZVErrorPtr error, const std::string& kind,
                                             const ZVCompletionHandler& completionHandler) {
  if (!completionHandler || !isKnownKind(kind)) return;
  completionHandler(nullptr, std::move(error));
}

// ---- Delivery helpers ---------------------------------------------------------

void ZVRewardsManager::failService(ZVDictionaryPtr body, const char* kind,
                                   ZVCompletionHandler completionHandler) {
  auto error = std::make_shared<ZVRewardsError>(ZVErrorTypeService, std::move(body));
  // The step delivers the error made here, whatever the utility hands it.
  ZVPManagerUtils::callDidFailWithError<ZVCompletionHandler>(
      error, ZV_REWARDS_MANAGER_REQUEST_DID_FAIL_NOTIFICATION, std::move(completionHandler),
      [this, error, kind = std::string(kind)](ZVCompletionHandler handler, ZVErrorPtr) {
        dispatchFailWithError(error, kind, handler);
      },
      this);
}

void ZVRewardsManager::failValidation(const char* function, int line, const char* code,
                                      const char* message, const char* kind,
                                      ZVCompletionHandler completionHandler) {
  logLine(function, line, [message] { return std::string(message); });
  auto error = std::make_shared<ZVRewardsError>(ZVErrorTypeValidation, code, message);
  ZVPManagerUtils::callDidFailWithError<ZVCompletionHandler>(
      std::move(error), ZV_REWARDS_MANAGER_VALIDATION_DID_FAIL_NOTIFICATION,
      std::move(completionHandler),
      [this, kind = std::string(kind)](ZVCompletionHandler handler, ZVErrorPtr given) {
        dispatchFailWithError(std::move(given), kind, handler);
      },
      this);
}

void ZVRewardsManager::deliver(std::shared_ptr<const ZVObject> result, const char* notification,
                               ZVCompletionHandler completionHandler) {
  ZVMainQueue::shared()->async(
      [this, result = std::move(result), notification, handler = std::move(completionHandler)] {
        if (handler) handler(result, nullptr);
        ZVNotificationCenter::defaultCenter()->postNotificationName(
            notification, this, {{ZV_MANAGER_NOTIFICATION_DATA_KEY, result}});
      });
}

void ZVRewardsManager::logLine(const char* function, int line,
                               const std::function<std::string()>& message) {
  // The gate is read afresh for every line; the message is only built when
  // a line will be written, so a silent logger costs nothing on a cache hit.
  ZVLogger* logger = ZVLogger::instance();
  const bool category = (logger->logCategories() & ZVLogCategoryRewards) != 0;
  const int64_t level = logger->logLevel();
  if (category && level == 1) {
    logger->log(description() + " " + message());
  } else if (level == 2 && category) {
    logger->log(fmt::format("{} [Line {}] {}", function, line, message()));
  }
}
