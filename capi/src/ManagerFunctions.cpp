// Configuration and the rewards manager's operations and state.
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <limits>

#include <ZorvaneCoreKit/Zorvane.h>
#include <ZorvaneRewardsKit/ZVRewardsManager.h>

#include "Boundary.h"
#include "Callbacks.h"
#include "Lifetimes.h"
#include "StructSize.h"

using namespace zvr;

namespace {

std::optional<std::string> copied(const char* text) {
  return text ? std::optional<std::string>(text) : std::nullopt;
}

// A 64-bit size on a platform whose size_t is narrower: the largest there.
size_t sizeOf(uint64_t value) {
  return static_cast<size_t>(std::min<uint64_t>(value, std::numeric_limits<size_t>::max()));
}

std::optional<ZVLocale> localeOf(const char* identifier) {
  return identifier ? std::optional<ZVLocale>(ZVLocale(identifier)) : std::nullopt;
}

// The first version of zvr_configuration ends with max_response_bytes; a
// field added later is read only when the caller's struct_size covers it.
constexpr size_t kConfigurationV1 =
    offsetof(zvr_configuration, max_response_bytes) + sizeof(zvr_configuration::max_response_bytes);

// A C callback with its user pointer becomes the manager's completion
// handler: the result and error are lent to it as handles for the call.
template <class H, class Result, class Callback>
auto handlerFor(Kind resultKind, Callback callback, void* user) {
  return [resultKind, callback, user](std::shared_ptr<Result> result, ZVErrorPtr error) {
    lend(resultKind, std::const_pointer_cast<std::remove_const_t<Result>>(std::move(result)),
         std::move(error),
         [&](void* r, void* e) { callback(static_cast<H>(r), static_cast<zvr_error>(e), user); });
  };
}

// What the same callback gets when its operation is cancelled instead.
template <class H, class Callback>
std::function<void()> cancellationFor(Callback callback, void* user) {
  if (!callback) return {};
  return [callback, user] {
    lend(Kind::Error, nullptr, cancellationError(), [&](void*, void* e) {
      callback(static_cast<H>(nullptr), static_cast<zvr_error>(e), user);
    });
  };
}

// The scope of a call; `scope` stays alive for the call even should the host
// release it meanwhile.
zvr_result scopeOf(zvr_cancel_scope handle, std::shared_ptr<ZVScope>& scope) {
  return HandleTable::shared().with(handle, Kind::CancelScope, [&](Slot& slot) -> zvr_result {
    scope = std::static_pointer_cast<ZVScope>(slot.object);
    return ZVR_OK;
  });
}

// Starts `fn(manager, handler)` in `scope` (null: none) with the handler of
// `callback`, whose call, completed or cancelled, is then owed once.
template <class H, class Result, class Handler, class Callback, class Fn>
zvr_result start(const std::shared_ptr<ZVScope>& scope, Kind resultKind, Callback callback,
                 void* user, Fn&& fn) noexcept {
  // The manager logs on the calling thread (validation failures); inside a
  // log sink that would wait for the logger's own lock.
  if (insideLogSink()) return ZVR_E_BUSY;
  return guarded([&]() -> zvr_result {
    Handler handler;
    if (callback) handler = handlerFor<H, Result>(resultKind, callback, user);
    startOperation(scope.get(), cancellationFor<H>(callback, user),
                   [&] { fn(*ZVRewardsManager::instance(), std::move(handler)); });
    return ZVR_OK;
  });
}

const std::shared_ptr<ZVScope> kNoScope;

// Each operation, with or without a scope.
zvr_result fetchOffers(const std::shared_ptr<ZVScope>& scope, std::optional<ZVLocale> locale,
                       std::optional<bool> force, zvr_offers_callback callback, void* user) {
  return start<zvr_offer_list, const ZVOfferArray, ZVOffersCompletionHandler>(
      scope, Kind::OfferList, callback, user,
      [&](ZVRewardsManager& manager, ZVOffersCompletionHandler handler) {
        if (force)
          manager.fetchOffersWithLocale(std::move(locale), *force, std::move(handler));
        else
          manager.fetchOffersWithLocale(std::move(locale), std::move(handler));
      });
}

zvr_result fetchOrders(const std::shared_ptr<ZVScope>& scope, zvr_orders_callback callback,
                       void* user) {
  return start<zvr_order_list, const ZVOrderArray, ZVOrdersCompletionHandler>(
      scope, Kind::OrderList, callback, user,
      [](ZVRewardsManager& manager, ZVOrdersCompletionHandler handler) {
        manager.fetchOrdersWithCompletionHandler(std::move(handler));
      });
}

zvr_result placeOrder(const std::shared_ptr<ZVScope>& scope, zvr_order_request request,
                      zvr_order_callback callback, void* user) {
  std::shared_ptr<ZVOrderRequest> copy;
  if (request) {
    // A copy taken under the table lock: the host may go on changing its
    // request (or release it) while this one is under way.
    const zvr_result found = guarded([&]() -> zvr_result {
      return HandleTable::shared().with(request, Kind::OrderRequest, [&](Slot& slot) -> zvr_result {
        copy = std::make_shared<ZVOrderRequest>(slot.as<ZVOrderRequest>());
        return ZVR_OK;
      });
    });
    if (found != ZVR_OK) return found;
  }
  return start<zvr_order, ZVOrder, ZVOrderCompletionHandler>(
      scope, Kind::Order, callback, user,
      [&](ZVRewardsManager& manager, ZVOrderCompletionHandler handler) {
        manager.placeOrder(std::move(copy), std::move(handler));
      });
}

zvr_result fetchSkillQuestion(const std::shared_ptr<ZVScope>& scope,
                              zvr_skill_question_callback callback, void* user) {
  return start<zvr_skill_question, ZVSkillQuestion, ZVSkillQuestionCompletionHandler>(
      scope, Kind::SkillQuestion, callback, user,
      [](ZVRewardsManager& manager, ZVSkillQuestionCompletionHandler handler) {
        manager.fetchSkillQuestionWithCompletionHandler(std::move(handler));
      });
}

zvr_result answerSkillQuestion(const std::shared_ptr<ZVScope>& scope, const char* offerID,
                               const char* questionID, const char* answer,
                               zvr_skill_challenge_callback callback, void* user) {
  return start<zvr_skill_challenge, ZVSkillChallenge, ZVSkillChallengeCompletionHandler>(
      scope, Kind::SkillChallenge, callback, user,
      [&](ZVRewardsManager& manager, ZVSkillChallengeCompletionHandler handler) {
        manager.answerSkillQuestionForOfferID(copied(offerID), copied(questionID),
                                              answer ? ZVJSONValue(answer) : ZVJSONValue(),
                                              std::move(handler));
      });
}

// Runs `fn(scope)` with the scope of `handle`, required.
template <class Fn>
zvr_result inScope(zvr_cancel_scope handle, Fn&& fn) noexcept {
  std::shared_ptr<ZVScope> scope;
  const zvr_result found = guarded([&] { return scopeOf(handle, scope); });
  return found != ZVR_OK ? found : fn(scope);
}

}  // namespace

extern "C" {

zvr_result zvr_configure(const zvr_configuration* c) {
  if (c == nullptr) return ZVR_E_INVALID_ARGUMENT;
  if (!structSizeAccepted(c, c->struct_size, kConfigurationV1, sizeof(zvr_configuration)))
    return ZVR_E_UNSUPPORTED_STRUCT;
  // Fields past the caller's struct read as zero: their defaults.
  zvr_configuration f{};
  std::memcpy(&f, c, std::min<size_t>(c->struct_size, sizeof f));
  if (f.connect_timeout_ms < 0 || f.request_timeout_ms < 0 || f.retry_max_attempts < 0 ||
      f.retry_max_attempts > std::numeric_limits<int>::max() || f.retry_base_delay_ms < 0 ||
      f.retry_max_delay_ms < 0 || f.retry_max_retry_after_ms < 0 || f.retry_attempt_timeout_ms < 0)
    return ZVR_E_INVALID_ARGUMENT;
  return guarded([&]() -> zvr_result {
    ZVConfiguration configuration;
    configuration.serviceHost = f.service_host ? f.service_host : "";
    configuration.appID = f.app_id ? f.app_id : "";
    configuration.accessToken = f.access_token ? f.access_token : "";
    configuration.caFile = f.ca_file ? f.ca_file : "";
    configuration.allowInsecureHTTP = f.allow_insecure_http != 0;
    if (f.connect_timeout_ms > 0)
      configuration.connectTimeout = std::chrono::milliseconds(f.connect_timeout_ms);
    if (f.request_timeout_ms > 0)
      configuration.requestTimeout = std::chrono::milliseconds(f.request_timeout_ms);
    if (f.max_response_bytes > 0) configuration.maxResponseBytes = sizeOf(f.max_response_bytes);
    if (f.max_header_bytes > 0) configuration.maxHeaderBytes = sizeOf(f.max_header_bytes);
    if (f.max_requests_in_flight > 0)
      configuration.maxRequestsInFlight = sizeOf(f.max_requests_in_flight);
    ZVRetryPolicy& retry = configuration.retry;
    if (f.retry_max_attempts > 0) retry.maxAttempts = static_cast<int>(f.retry_max_attempts);
    if (f.retry_base_delay_ms > 0)
      retry.baseDelay = std::chrono::milliseconds(f.retry_base_delay_ms);
    if (f.retry_max_delay_ms > 0) retry.maxDelay = std::chrono::milliseconds(f.retry_max_delay_ms);
    if (f.retry_max_retry_after_ms > 0)
      retry.maxRetryAfter = std::chrono::milliseconds(f.retry_max_retry_after_ms);
    if (f.retry_attempt_timeout_ms > 0)
      retry.attemptTimeout = std::chrono::milliseconds(f.retry_attempt_timeout_ms);
    Zorvane::configure(configuration);
    Zorvane::setCustomLocale(localeOf(f.locale));
    return ZVR_OK;
  });
}

zvr_result zvr_rewards_fetch_offers(zvr_offers_callback callback, void* user) {
  return fetchOffers(kNoScope, std::nullopt, std::nullopt, callback, user);
}

zvr_result zvr_rewards_fetch_offers_with_locale(const char* locale, zvr_offers_callback callback,
                                                void* user) {
  return fetchOffers(kNoScope, localeOf(locale), std::nullopt, callback, user);
}

zvr_result zvr_rewards_force_fetch_offers_with_locale(const char* locale,
                                                      zvr_offers_callback callback, void* user) {
  return fetchOffers(kNoScope, localeOf(locale), true, callback, user);
}

zvr_result zvr_rewards_fetch_offers_with_locale_force_fetch(const char* locale, int32_t forceFetch,
                                                            zvr_offers_callback callback,
                                                            void* user) {
  return fetchOffers(kNoScope, localeOf(locale), forceFetch != 0, callback, user);
}

zvr_result zvr_rewards_fetch_orders(zvr_orders_callback callback, void* user) {
  return fetchOrders(kNoScope, callback, user);
}

zvr_result zvr_rewards_place_order(zvr_order_request request, zvr_order_callback callback,
                                   void* user) {
  return placeOrder(kNoScope, request, callback, user);
}

zvr_result zvr_rewards_fetch_skill_question(zvr_skill_question_callback callback, void* user) {
  return fetchSkillQuestion(kNoScope, callback, user);
}

zvr_result zvr_rewards_answer_skill_question(const char* offerID, const char* questionID,
                                             const char* answer,
                                             zvr_skill_challenge_callback callback, void* user) {
  return answerSkillQuestion(kNoScope, offerID, questionID, answer, callback, user);
}

zvr_result zvr_rewards_fetch_offers_in_scope(zvr_cancel_scope scope, const char* locale,
                                             int32_t forceFetch, zvr_offers_callback callback,
                                             void* user) {
  return inScope(scope, [&](const std::shared_ptr<ZVScope>& s) {
    return fetchOffers(s, localeOf(locale), forceFetch != 0, callback, user);
  });
}

zvr_result zvr_rewards_fetch_orders_in_scope(zvr_cancel_scope scope, zvr_orders_callback callback,
                                             void* user) {
  return inScope(scope,
                 [&](const std::shared_ptr<ZVScope>& s) { return fetchOrders(s, callback, user); });
}

zvr_result zvr_rewards_place_order_in_scope(zvr_cancel_scope scope, zvr_order_request request,
                                            zvr_order_callback callback, void* user) {
  return inScope(scope, [&](const std::shared_ptr<ZVScope>& s) {
    return placeOrder(s, request, callback, user);
  });
}

zvr_result zvr_rewards_fetch_skill_question_in_scope(zvr_cancel_scope scope,
                                                     zvr_skill_question_callback callback,
                                                     void* user) {
  return inScope(scope, [&](const std::shared_ptr<ZVScope>& s) {
    return fetchSkillQuestion(s, callback, user);
  });
}

zvr_result zvr_rewards_answer_skill_question_in_scope(zvr_cancel_scope scope, const char* offerID,
                                                      const char* questionID, const char* answer,
                                                      zvr_skill_challenge_callback callback,
                                                      void* user) {
  return inScope(scope, [&](const std::shared_ptr<ZVScope>& s) {
    return answerSkillQuestion(s, offerID, questionID, answer, callback, user);
  });
}

zvr_result zvr_rewards_get_offers(zvr_offer_list* out) {
  if (out == nullptr) return ZVR_E_INVALID_ARGUMENT;
  *out = nullptr;
  return guarded([&]() -> zvr_result {
    *out = issueAs<zvr_offer_list>(Kind::OfferList, ZVRewardsManager::instance()->offers());
    return ZVR_OK;
  });
}

zvr_result zvr_rewards_get_orders(zvr_order_list* out) {
  if (out == nullptr) return ZVR_E_INVALID_ARGUMENT;
  *out = nullptr;
  return guarded([&]() -> zvr_result {
    *out = issueAs<zvr_order_list>(Kind::OrderList, ZVRewardsManager::instance()->orders());
    return ZVR_OK;
  });
}

zvr_result zvr_rewards_get_last_refresh_time(double* out) {
  if (out == nullptr) return ZVR_E_INVALID_ARGUMENT;
  *out = 0.0;
  return guarded([&]() -> zvr_result {
    *out = ZVRewardsManager::instance()->lastRefreshTime();
    return ZVR_OK;
  });
}

zvr_result zvr_rewards_clear_user_state(void) {
  return guarded([]() -> zvr_result {
    ZVRewardsManager::instance()->clearUserState(nullptr);
    return ZVR_OK;
  });
}

zvr_result zvr_rewards_get_refresh_interval(double* out) {
  if (out == nullptr) return ZVR_E_INVALID_ARGUMENT;
  *out = 0.0;
  return guarded([&]() -> zvr_result {
    *out = ZVRewardsManager::instance()->refreshInterval();
    return ZVR_OK;
  });
}

zvr_result zvr_rewards_set_refresh_interval(double seconds) {
  return guarded([&]() -> zvr_result {
    ZVRewardsManager::instance()->setRefreshInterval(seconds);
    return ZVR_OK;
  });
}

}  // extern "C"
