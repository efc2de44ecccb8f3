// Configuration and the rewards manager's operations and state.
#include <cstddef>

#include <ZorvaneCoreKit/Zorvane.h>
#include <ZorvaneRewardsKit/ZVRewardsManager.h>

#include "Boundary.h"
#include "Callbacks.h"
#include "StructSize.h"

using namespace zvr;

namespace {

std::optional<std::string> copied(const char* text) {
  return text ? std::optional<std::string>(text) : std::nullopt;
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

template <class Fn>
zvr_result start(Fn&& fn) noexcept {
  // The manager logs on the calling thread (validation failures); inside a
  // log sink that would wait for the logger's own lock.
  if (insideLogSink()) return ZVR_E_BUSY;
  return guarded([&]() -> zvr_result {
    fn(*ZVRewardsManager::instance());
    return ZVR_OK;
  });
}

zvr_result fetchOffers(std::optional<ZVLocale> locale, std::optional<bool> force,
                       zvr_offers_callback callback, void* user) {
  return start([&](ZVRewardsManager& manager) {
    ZVOffersCompletionHandler handler;
    if (callback)
      handler = handlerFor<zvr_offer_list, const ZVOfferArray>(Kind::OfferList, callback, user);
    if (force)
      manager.fetchOffersWithLocale(std::move(locale), *force, std::move(handler));
    else
      manager.fetchOffersWithLocale(std::move(locale), std::move(handler));
  });
}

}  // namespace

extern "C" {

zvr_result zvr_configure(const zvr_configuration* c) {
  if (c == nullptr) return ZVR_E_INVALID_ARGUMENT;
  if (!structSizeAccepted(c, c->struct_size, kConfigurationV1, sizeof(zvr_configuration)))
    return ZVR_E_UNSUPPORTED_STRUCT;
  if (c->connect_timeout_ms < 0 || c->request_timeout_ms < 0) return ZVR_E_INVALID_ARGUMENT;
  return guarded([&]() -> zvr_result {
    ZVConfiguration configuration;
    configuration.serviceHost = c->service_host ? c->service_host : "";
    configuration.appID = c->app_id ? c->app_id : "";
    configuration.accessToken = c->access_token ? c->access_token : "";
    configuration.caFile = c->ca_file ? c->ca_file : "";
    configuration.allowInsecureHTTP = c->allow_insecure_http != 0;
    if (c->connect_timeout_ms > 0)
      configuration.connectTimeout = std::chrono::milliseconds(c->connect_timeout_ms);
    if (c->request_timeout_ms > 0)
      configuration.requestTimeout = std::chrono::milliseconds(c->request_timeout_ms);
    if (c->max_response_bytes > 0)
      configuration.maxResponseBytes = static_cast<size_t>(c->max_response_bytes);
    Zorvane::configure(configuration);
    Zorvane::setCustomLocale(localeOf(c->locale));
    return ZVR_OK;
  });
}

zvr_result zvr_rewards_fetch_offers(zvr_offers_callback callback, void* user) {
  return start([&](ZVRewardsManager& manager) {
    ZVOffersCompletionHandler handler;
    if (callback)
      handler = handlerFor<zvr_offer_list, const ZVOfferArray>(Kind::OfferList, callback, user);
    manager.fetchOffersWithCompletionHandler(std::move(handler));
  });
}

zvr_result zvr_rewards_fetch_offers_with_locale(const char* locale, zvr_offers_callback callback,
                                                void* user) {
  return fetchOffers(localeOf(locale), std::nullopt, callback, user);
}

zvr_result zvr_rewards_force_fetch_offers_with_locale(const char* locale,
                                                      zvr_offers_callback callback, void* user) {
  return start([&](ZVRewardsManager& manager) {
    ZVOffersCompletionHandler handler;
    if (callback)
      handler = handlerFor<zvr_offer_list, const ZVOfferArray>(Kind::OfferList, callback, user);
    manager.forceFetchOffersWithLocale(localeOf(locale), std::move(handler));
  });
}

zvr_result zvr_rewards_fetch_offers_with_locale_force_fetch(const char* locale, int32_t forceFetch,
                                                            zvr_offers_callback callback,
                                                            void* user) {
  return fetchOffers(localeOf(locale), forceFetch != 0, callback, user);
}

zvr_result zvr_rewards_fetch_orders(zvr_orders_callback callback, void* user) {
  return start([&](ZVRewardsManager& manager) {
    ZVOrdersCompletionHandler handler;
    if (callback)
      handler = handlerFor<zvr_order_list, const ZVOrderArray>(Kind::OrderList, callback, user);
    manager.fetchOrdersWithCompletionHandler(std::move(handler));
  });
}

zvr_result zvr_rewards_place_order(zvr_order_request request, zvr_order_callback callback,
                                   void* user) {
  if (insideLogSink()) return ZVR_E_BUSY;
  return guarded([&]() -> zvr_result {
    // A copy taken under the table lock: the host may go on changing its
    // request (or release it) while this one is under way.
    std::shared_ptr<ZVOrderRequest> copy;
    if (request) {
      const zvr_result found =
          HandleTable::shared().with(request, Kind::OrderRequest, [&](Slot& slot) -> zvr_result {
            copy = std::make_shared<ZVOrderRequest>(slot.as<ZVOrderRequest>());
            return ZVR_OK;
          });
      if (found != ZVR_OK) return found;
    }
    ZVOrderCompletionHandler handler;
    if (callback) handler = handlerFor<zvr_order, ZVOrder>(Kind::Order, callback, user);
    ZVRewardsManager::instance()->placeOrder(std::move(copy), std::move(handler));
    return ZVR_OK;
  });
}

zvr_result zvr_rewards_fetch_skill_question(zvr_skill_question_callback callback, void* user) {
  return start([&](ZVRewardsManager& manager) {
    ZVSkillQuestionCompletionHandler handler;
    if (callback)
      handler =
          handlerFor<zvr_skill_question, ZVSkillQuestion>(Kind::SkillQuestion, callback, user);
    manager.fetchSkillQuestionWithCompletionHandler(std::move(handler));
  });
}

zvr_result zvr_rewards_answer_skill_question(const char* offerID, const char* questionID,
                                             const char* answer,
                                             zvr_skill_challenge_callback callback, void* user) {
  return start([&](ZVRewardsManager& manager) {
    ZVSkillChallengeCompletionHandler handler;
    if (callback)
      handler =
          handlerFor<zvr_skill_challenge, ZVSkillChallenge>(Kind::SkillChallenge, callback, user);
    manager.answerSkillQuestionForOfferID(copied(offerID), copied(questionID),
                                          answer ? ZVJSONValue(answer) : ZVJSONValue(),
                                          std::move(handler));
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
