#include "ZVRewardsRouting.h"

#include <algorithm>
#include <cstdint>
#include <exception>
#include <new>
#include <optional>
#include <type_traits>
#include <utility>

#include <ZorvaneCoreKit/ZVClock.h>
#include <ZorvaneCoreKit/ZVIdentity.h>
#include <ZorvaneCoreKit/ZVLogger.h>
#include <ZorvaneCoreKit/ZVMainQueue.h>
#include <ZorvaneCoreKit/ZVNotificationCenter.h>
#include <ZorvaneCoreKit/Zorvane.h>
#include <ZorvaneRewardsKit/ZVRewardsError.h>

#include "ZVRecordMemory.h"
#include "base/ZVStrings.h"
#include "http/ZVGenericRequestManager.h"
#include "json/ZVJSONAccess.h"
#include "runtime/ZVPManagerUtils.h"
#include "runtime/ZVReclaimer.h"
#include "runtime/ZVYieldPoint.h"
#include "runtime/ZorvaneSettings.h"

namespace {

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

// Records one answer may produce, offers' options included: one per this
// many bytes of the answer size limit. A catalogue takes about 560 bytes per
// record, and a record a few hundred bytes of memory, however small its object.
constexpr size_t kBytesPerRecord = 128;

// Thrown while an answer becomes records, when it holds more than the limit.
struct TooManyRecords {
  size_t limit;
};

// The memory one record takes: itself and its reference counts. An offer's
// list of options comes on top; the arena grows for it.
template <class Record>
constexpr size_t kRecordMemory = sizeof(Record) + 2 * sizeof(void*);
// Fewer records than this take their memory from the heap: an arena of their
// own would cost a small answer an allocation more.
constexpr size_t kSharedRecordMemoryFrom = 8;

size_t recordLimit(size_t maxResponseBytes) {
  return maxResponseBytes == 0 ? SIZE_MAX : maxResponseBytes / kBytesPerRecord;
}

// The records the objects of `list` make, counting past `counted`: one per
// object, and for offers their options at every depth, as
// `ZVOffer::parseOptions` builds them. Stops once past `limit`.
size_t recordsIn(const ZVJSONValue& list, bool withOptions, size_t limit, size_t counted) {
  const ZVArrayPtr* array = ZVJSONAccess::arrayIn(list);
  if (!array) return counted;
  for (const ZVJSONValue& element : **array) {
    const ZVDictionaryPtr* object = ZVJSONAccess::dictionaryIn(element);
    if (!object) continue;
    if (++counted > limit) return counted;
    if (withOptions)
      if (const ZVJSONValue* options = std::as_const(**object).find("options"))
        counted = recordsIn(*options, true, limit, counted);
  }
  return counted;
}

// One record per object of the array under `key` ("offers", "orders");
// another type under the key gives an empty list, and elements that are not
// objects (outside the contract) are skipped. Throws TooManyRecords before
// building anything when the array holds more than the limit.
template <class Record>
std::shared_ptr<const ZVArray<Record>> recordsUnder(const ZVMutableDictionary& body,
                                                    std::string_view key, size_t maxResponseBytes) {
  std::vector<std::shared_ptr<Record>> list;
  if (const ZVJSONValue* value = body.find(key)) {
    if (const ZVArrayPtr array = value->array()) {
      const size_t limit = recordLimit(maxResponseBytes);
      const size_t records = recordsIn(*value, std::is_same_v<Record, ZVOffer>, limit, 0);
      if (records > limit) throw TooManyRecords{limit};
      // Opened before the list: the records outlive it.
      std::optional<zv_detail::ZVRecordMemory> memory;
      if (records >= kSharedRecordMemoryFrom) memory.emplace(records, kRecordMemory<Record>);
      list.reserve(static_cast<size_t>(std::count_if(
          array->begin(), array->end(), [](const ZVJSONValue& v) { return v.isDictionary(); })));
      const bool yielding = zv_detail::yieldingHere();
      for (const ZVJSONValue& element : *array)
        if (const ZVDictionaryPtr* object = ZVJSONAccess::dictionaryIn(element)) {
          list.push_back(Record::initMutableWithDictionary(*object));
          if (yielding) zv_detail::yieldPoint();
        }
    }
  }
  return std::make_shared<const ZVArray<Record>>(std::move(list));
}

// Lists of this many records and more cost more to free (a microsecond or
// so a record) than to hand over.
constexpr size_t kReclaimedFrom = 16;

// A list that whoever lets it go last (the host's thread, more often than
// not) does not pay to free: its records and their parsed text are freed on
// the reclaimer thread.
template <class Record>
std::shared_ptr<const ZVArray<Record>> reclaimedElsewhere(
    std::shared_ptr<const ZVArray<Record>> list) {
  const size_t records = list->size();
  if (records < kReclaimedFrom) return list;
  return zv_detail::reclaimedElsewhere(std::move(list), records);
}

// The error of an answer that could not become records: the exception
// being handled says why.
ZVErrorPtr undecodableAnswer(const std::string& kind, const ZVGenericResponse* response) {
  const std::string answer =
      response ? "answer from " + response->url() : "answer to a " + kind + " request";
  try {
    throw;
  } catch (const TooManyRecords& e) {
    return std::make_shared<ZVError>(
        ZVErrorTypeInvalidAnswer, ZVErrorAnswerTooLarge,
        zv_detail::strCat(answer, " holds more than ", e.limit,
                          " records (one per 128 bytes of maxResponseBytes)"));
  } catch (const std::bad_alloc&) {
    return std::make_shared<ZVError>(ZVErrorTypeInvalidAnswer, ZVErrorAnswerNotDecoded,
                                     answer + " could not be turned into records: out of memory");
  } catch (const std::exception& e) {
    return std::make_shared<ZVError>(
        ZVErrorTypeInvalidAnswer, ZVErrorAnswerNotDecoded,
        zv_detail::strCat(answer, " could not be turned into records: ", e.what()));
  } catch (...) {
    return std::make_shared<ZVError>(ZVErrorTypeInvalidAnswer, ZVErrorAnswerNotDecoded,
                                     answer + " could not be turned into records");
  }
}

// Whether the answer numbered `arrival` may replace a list that came from
// the answer numbered `current`: not when a later arrival wrote it already.
// Records `arrival` as the list's when it may.
bool takesOver(const std::optional<uint64_t>& arrival, uint64_t& current) {
  if (!arrival) return true;
  if (*arrival < current) return false;
  current = *arrival;
  return true;
}

ZVJSONValue valueUnder(const ZVMutableDictionary& body, std::string_view key) {
  const ZVJSONValue* value = body.find(key);
  return value ? *value : ZVJSONValue();
}

}  // namespace

bool ZVRewardsCall::deliverFailure(const ZVErrorPtr& error) const {
  return operation_->deliver("a completion handler", [&](ZVAnyCompletionHandler& any) {
    std::visit(
        [&](const auto& handler) {
          if constexpr (!std::is_same_v<std::decay_t<decltype(handler)>, std::monostate>)
            if (handler) handler(nullptr, error);
        },
        any);
  });
}

void ZVRewardsRouting::send(std::shared_ptr<ZVGenericRequest> request,
                            ZVRewardsCall completionHandler) {
  ZVRewardsManager* manager = &manager_;
  ZVGenericRequestManager::instance()->sendRequest(
      std::move(request),
      [manager, call = std::move(completionHandler)](
          const std::string& kind, std::shared_ptr<ZVGenericResponse> response, ZVErrorPtr error,
          ZVDictionaryPtr /*body: read from the response instead*/) {
        // A cancelled operation's answer is dropped before any work on it.
        if (call.cancelled()) return;
        ZVRewardsRouting(*manager).requestKind(kind, std::move(response), std::move(error), call);
      });
}

size_t ZVRewardsRouting::answerLimit() const {
  // Shared, not copied: a copy of the configuration costs a dozen allocations.
  return maxResponseBytes_ ? *maxResponseBytes_
                           : zv_detail::currentConfiguration()->maxResponseBytes;
}

void ZVRewardsRouting::requestKind(const std::string& kind,
                                   std::shared_ptr<ZVGenericResponse> response, ZVErrorPtr error,
                                   ZVRewardsCall completionHandler) {
  ZVRewardsManager* manager = &manager_;
  if (error) {
    ZVPManagerUtils::callDidFailWithError<ZVRewardsCall>(
        std::move(error), ZV_REWARDS_MANAGER_REQUEST_DID_FAIL_NOTIFICATION,
        std::move(completionHandler),
        [manager, kind](ZVRewardsCall handler, ZVErrorPtr given) {
          ZVRewardsRouting(*manager).dispatchFailWithError(std::move(given), kind, handler);
        },
        manager);
    return;
  }
  // Whatever is thrown while the answer becomes records (memory running out,
  // too many records) fails the call instead of reaching the transport, which
  // would drop the handler. Every handler queues its delivery last, so one
  // that threw has queued nothing, and the call is delivered once either way.
  const ZVRewardsCall call = completionHandler;
  if (response) {
    attempts_ = response->attempts();
    maxResponseBytes_ = response->maxResponseBytes();
  }
  try {
    ZVDictionaryPtr body =
        response && response->body() ? response->body()->mutableCopy() : ZVDictionaryPtr();
    // Ordered as the transport finished reading them, not as they were
    // decoded; an answer not numbered (none here) always writes.
    if (response && response->arrival() != 0) arrivalNumber_ = response->arrival();
    if (kind == kKindFetchRewardOffers) {
      // The stamp records the answer's arrival, before its status is looked
      // at; it is published with the catalogue it belongs to, never before.
      arrival_ = ZVClock::now();
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
  } catch (...) {
    try {
      ZVErrorPtr undecodable = undecodableAnswer(kind, response.get());
      zv_detail::stampAttempts(*undecodable, attempts_);
      requestKind(kind, nullptr, std::move(undecodable), call);
    } catch (...) {
      // Not even the failure fits in memory: nothing more can be done here.
    }
  }
}

void ZVRewardsRouting::dispatchFailWithError(ZVErrorPtr error, const std::string& kind,
                                             const ZVRewardsCall& completionHandler) {
  if (!isKnownKind(kind)) return;
  completionHandler.deliverFailure(error);
}

// ---- Answer handlers ----------------------------------------------------------

void ZVRewardsRouting::handleFetchRewardOffers(ZVDictionaryPtr body,
                                               ZVRewardsCall completionHandler) {
  if (!isOK(body)) {
    {
      // Undo the routing's stamp so that the next fetch asks the service again.
      auto noOffers = std::make_shared<const ZVOfferArray>();
      std::lock_guard lock(manager_.state_->mutex);
      if (completionHandler.cancelled()) return;
      if (takesOver(arrivalNumber_, manager_.state_->offersArrival)) {
        manager_.state_->offers = std::move(noOffers);
        manager_.state_->lastRefreshTime = 0.0;
      }
    }
    failService(std::move(body), kKindFetchRewardOffers, std::move(completionHandler));
    return;
  }
  ZVOfferArrayPtr result =
      reclaimedElsewhere(recordsUnder<ZVOffer>(*body, "offers", answerLimit()));
  ZVOfferArrayPtr previous;
  double previousStamp = 0.0;
  uint64_t previousArrival = 0;
  {
    // The stamp and the catalogue together: a reader sees both or neither,
    // so a catalogue still being built is never served as fresh.
    std::lock_guard lock(manager_.state_->mutex);
    if (completionHandler.cancelled()) return;
    previous = manager_.state_->offers;
    previousStamp = manager_.state_->lastRefreshTime;
    previousArrival = manager_.state_->offersArrival;
    // A later arrival's catalogue stays; this answer still goes to its handler.
    if (takesOver(arrivalNumber_, manager_.state_->offersArrival)) {
      manager_.state_->offers = result;
      if (arrival_) manager_.state_->lastRefreshTime = *arrival_;
    }
  }
  try {
    dispatchOffers(result, std::move(completionHandler));
  } catch (...) {
    // The delivery could not be queued (no memory), so the call fails: the
    // cache goes back to what it was, unless another answer replaced it since.
    std::lock_guard lock(manager_.state_->mutex);
    if (manager_.state_->offers == result) {
      manager_.state_->offers = std::move(previous);
      manager_.state_->lastRefreshTime = previousStamp;
      manager_.state_->offersArrival = previousArrival;
    }
    throw;
  }
}

void ZVRewardsRouting::dispatchOffers(ZVOfferArrayPtr offers, ZVRewardsCall completionHandler) {
  ZVRewardsManager* manager = &manager_;
  ZVMainQueue::shared()->async(
      [manager, offers = std::move(offers), call = std::move(completionHandler)] {
        if (call.cancelled()) return;
        ZVRewardsRouting(*manager).logLine(
            "-[ZVRewardsManager dispatchOffers:completionHandler:]_block_invoke", __LINE__,
            [&] { return "Fetched offers: " + ZVDescribe(offers.get()); });
        if (!call.deliver<ZVOffersCompletionHandler>(offers, nullptr)) return;
        ZVNotificationCenter::defaultCenter()->postNotificationName(
            ZV_REWARDS_MANAGER_DID_FETCH_OFFERS_NOTIFICATION, manager,
            {{ZV_MANAGER_NOTIFICATION_DATA_KEY, offers}});
      });
}

void ZVRewardsRouting::handleFetchRewardOrders(ZVDictionaryPtr body,
                                               ZVRewardsCall completionHandler) {
  if (!isOK(body)) {
    {
      auto noOrders = std::make_shared<const ZVOrderArray>();
      std::lock_guard lock(manager_.state_->mutex);
      if (completionHandler.cancelled()) return;
      if (takesOver(arrivalNumber_, manager_.state_->ordersArrival))
        manager_.state_->orders = std::move(noOrders);
    }
    failService(std::move(body), kKindFetchRewardOrders, std::move(completionHandler));
    return;
  }
  auto result = reclaimedElsewhere(recordsUnder<ZVOrder>(*body, "orders", answerLimit()));
  {
    std::lock_guard lock(manager_.state_->mutex);
    if (completionHandler.cancelled()) return;
    if (takesOver(arrivalNumber_, manager_.state_->ordersArrival)) manager_.state_->orders = result;
  }
  deliver<ZVOrdersCompletionHandler>(result, ZV_REWARDS_MANAGER_DID_FETCH_ORDERS_NOTIFICATION,
                                     std::move(completionHandler));
}

void ZVRewardsRouting::handlePlaceRewardOrder(ZVDictionaryPtr body,
                                              ZVRewardsCall completionHandler) {
  if (!isOK(body)) {
    failService(std::move(body), kKindPlaceOrder, std::move(completionHandler));
    return;
  }
  std::shared_ptr<ZVOrder> order = ZVOrder::initMutableWithDictionary(valueUnder(*body, "order"));
  ZVRewardsManager* manager = &manager_;
  ZVMainQueue::shared()->async([manager, order, call = std::move(completionHandler)] {
    // Each step is guarded on its own: a handler that throws does not keep
    // the order's news, and the new balances, from their observers.
    if (!call.deliver<ZVOrderCompletionHandler>(order, nullptr)) return;
    auto* center = ZVNotificationCenter::defaultCenter();
    center->postNotificationName(ZV_REWARDS_MANAGER_DID_PLACE_ORDER_NOTIFICATION, manager,
                                 {{ZV_MANAGER_NOTIFICATION_DATA_KEY, order}});
    const std::shared_ptr<ZVOrderUser>& user = order->user();
    center->postNotificationName(
        ZV_USER_MANAGER_DID_UPDATE_USER_INTERNAL, manager,
        {{kUserAvailablePoints, std::make_shared<ZVNumber>(user ? user->availablePoints() : 0)},
         {kUserTestPoints, std::make_shared<ZVNumber>(user ? user->testPoints() : 0)}});
  });
}

void ZVRewardsRouting::handleFetchSkillQuestion(ZVDictionaryPtr body,
                                                ZVRewardsCall completionHandler) {
  if (!isOK(body)) {
    failService(std::move(body), kKindFetchSkillQuestion, std::move(completionHandler));
    return;
  }
  deliver<ZVSkillQuestionCompletionHandler>(
      ZVSkillQuestion::initMutableWithDictionary(valueUnder(*body, "challenge")),
      ZV_REWARDS_MANAGER_DID_FETCH_SKILL_QUESTION_NOTIFICATION, std::move(completionHandler));
}

void ZVRewardsRouting::handleAnswerSkillQuestion(ZVDictionaryPtr body,
                                                 ZVRewardsCall completionHandler) {
  if (!isOK(body)) {
    failService(std::move(body), kKindAnswerSkillQuestion, std::move(completionHandler));
    return;
  }
  deliver<ZVSkillChallengeCompletionHandler>(
      ZVSkillChallenge::initMutableWithDictionary(valueUnder(*body, "challenge")),
      ZV_REWARDS_MANAGER_DID_ANSWER_SKILL_QUESTION_NOTIFICATION, std::move(completionHandler));
}

// ---- Deliveries ---------------------------------------------------------------

template <class Handler, class Result>
void ZVRewardsRouting::deliver(std::shared_ptr<Result> result, const char* notification,
                               ZVRewardsCall completionHandler) {
  ZVRewardsManager* manager = &manager_;
  ZVMainQueue::shared()->async(
      [manager, result = std::move(result), notification, call = std::move(completionHandler)] {
        if (!call.deliver<Handler>(result, nullptr)) return;
        ZVNotificationCenter::defaultCenter()->postNotificationName(
            notification, manager, {{ZV_MANAGER_NOTIFICATION_DATA_KEY, result}});
      });
}

void ZVRewardsRouting::failService(ZVDictionaryPtr body, const char* kind,
                                   ZVRewardsCall completionHandler) {
  auto error = std::make_shared<ZVRewardsError>(ZVErrorTypeService, std::move(body));
  zv_detail::stampAttempts(*error, attempts_);
  ZVRewardsManager* manager = &manager_;
  // The step delivers the error made here, whatever the utility hands it.
  ZVPManagerUtils::callDidFailWithError<ZVRewardsCall>(
      error, ZV_REWARDS_MANAGER_REQUEST_DID_FAIL_NOTIFICATION, std::move(completionHandler),
      [manager, error, kind = std::string(kind)](ZVRewardsCall handler, ZVErrorPtr) {
        ZVRewardsRouting(*manager).dispatchFailWithError(error, kind, handler);
      },
      manager);
}

void ZVRewardsRouting::failValidation(const char* function, int line, const char* code,
                                      const char* message, const char* kind,
                                      ZVRewardsCall completionHandler) {
  logLine(function, line, [message] { return std::string(message); });
  auto error = std::make_shared<ZVRewardsError>(ZVErrorTypeValidation, code, message);
  ZVRewardsManager* manager = &manager_;
  ZVPManagerUtils::callDidFailWithError<ZVRewardsCall>(
      std::move(error), ZV_REWARDS_MANAGER_VALIDATION_DID_FAIL_NOTIFICATION,
      std::move(completionHandler),
      [manager, kind = std::string(kind)](ZVRewardsCall handler, ZVErrorPtr given) {
        ZVRewardsRouting(*manager).dispatchFailWithError(std::move(given), kind, handler);
      },
      manager);
}

void ZVRewardsRouting::logLine(const char* function, int line,
                               const std::function<std::string()>& message) {
  // The gate is read afresh for every line; the message is only built when
  // a line will be written, so a silent logger costs nothing on a cache hit.
  ZVLogger* logger = ZVLogger::instance();
  const bool category = (logger->logCategories() & ZVLogCategoryRewards) != 0;
  const int64_t level = logger->logLevel();
  try {
    if (category && level == 1) {
      logger->log(manager_.description() + " " + message());
    } else if (level == 2 && category) {
      logger->log(zv_detail::strCat(function, " [Line ", line, "] ", message()));
    }
  } catch (...) {
    // No memory for the line: the delivery that logs it goes on without it.
  }
}
