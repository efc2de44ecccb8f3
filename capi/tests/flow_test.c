/* The flow through the C interface against the sandbox service, for what the
 * C layer adds to the SDK (whose behaviour the C++ tests cover): records and
 * their texts read through handles, notification payloads, log lines,
 * callbacks once each on the draining thread, cancellation and shutdown with
 * a request in flight, configuration fields reaching the library, and no
 * handle left behind. (The service's refusals, keys and the error getters on
 * them: the C# test, through this layer; bad keys: misuse_test.c.) */
#include <pthread.h>
#include <stdlib.h>
#include <time.h>

#include "zvr_test.h"

static pthread_t main_thread;

/* ---- Results the callbacks leave behind ----------------------------------- */

typedef struct {
  int calls;
  int on_main_thread;
  void* result;    /* retained */
  zvr_error error; /* retained */
} outcome;

static void keep(outcome* o, void* result, zvr_error error) {
  ++o->calls;
  o->on_main_thread = pthread_equal(pthread_self(), main_thread);
  if (result) zvr_retain(result);
  if (error) zvr_retain(error);
  o->result = result;
  o->error = error;
}

static void ZVR_CALL on_offers(zvr_offer_list offers, zvr_error error, void* user) {
  keep(user, offers, error);
}
static void ZVR_CALL on_orders(zvr_order_list orders, zvr_error error, void* user) {
  keep(user, orders, error);
}
static void ZVR_CALL on_order(zvr_order order, zvr_error error, void* user) {
  keep(user, order, error);
}
static void ZVR_CALL on_question(zvr_skill_question question, zvr_error error, void* user) {
  keep(user, question, error);
}
static void ZVR_CALL on_challenge(zvr_skill_challenge challenge, zvr_error error, void* user) {
  keep(user, challenge, error);
}

static void forget(outcome* o) {
  if (o->result) CHECK_RESULT(ZVR_OK, zvr_release(o->result));
  if (o->error) CHECK_RESULT(ZVR_OK, zvr_release(o->error));
  memset(o, 0, sizeof *o);
}

/* Waits for the outcome, then lets the queue run dry so that a second call
 * of the callback would show. */
static void settle(outcome* o) {
  CHECK(zvr_test_wait_for(&o->calls));
  uint32_t ran = 0;
  do CHECK_RESULT(ZVR_OK, zvr_main_queue_drain(&ran));
  while (ran > 0);
  CHECK(o->calls == 1 && o->on_main_thread);
}

static void check_error(zvr_error error, int64_t type, const char* code, int32_t attempts) {
  int64_t actual_type = 0;
  int32_t actual_attempts = -1;
  const char* actual_code = NULL;
  CHECK_RESULT(ZVR_OK, zvr_error_get_type(error, &actual_type));
  CHECK_RESULT(ZVR_OK, zvr_error_get_code(error, &actual_code));
  CHECK_RESULT(ZVR_OK, zvr_error_get_attempts(error, &actual_attempts));
  CHECK(actual_type == type && actual_attempts == attempts);
  CHECK_TEXT(code, actual_code);
}

/* ---- Notifications and log lines ------------------------------------------- */

typedef struct {
  int offers, orders, placed;
  uint32_t offers_notified; /* how many offers the last offers notification carried */
  int64_t available_points, test_points;
} notifications;

static void ZVR_CALL on_notification(zvr_notification n, void* user) {
  notifications* seen = user;
  const char* name = NULL;
  CHECK_RESULT(ZVR_OK, zvr_notification_get_name(n, &name));
  if (strcmp(name, ZVR_NOTIFICATION_DID_FETCH_OFFERS) == 0) {
    ++seen->offers;
    zvr_offer_list offers = NULL;
    CHECK_RESULT(ZVR_OK, zvr_notification_get_offers(n, &offers));
    CHECK_RESULT(ZVR_OK, zvr_offer_list_get_count(offers, &seen->offers_notified));
    zvr_release(offers);
  }
  seen->orders += strcmp(name, ZVR_NOTIFICATION_DID_FETCH_ORDERS) == 0;
  seen->placed += strcmp(name, ZVR_NOTIFICATION_DID_PLACE_ORDER) == 0;
  if (strcmp(name, ZVR_NOTIFICATION_USER_DID_UPDATE) == 0)
    CHECK_RESULT(ZVR_OK,
                 zvr_notification_get_balances(n, &seen->available_points, &seen->test_points));
}

static int fetched_lines = 0;
static void ZVR_CALL on_log_line(const char* line, uint32_t length, void* user) {
  CHECK(user == &fetched_lines && strlen(line) == length);
  if (strstr(line, "Fetched offers: ") != NULL) ++fetched_lines;
}

/* ---- Cancellation, keys, limits and shutdown ---------------------------------- */

/* Cancelled with the request in flight: the callback comes once, on the main
 * queue, cancelled, and no notification. (An outcome already queued when the
 * scope is cancelled: misuse_test.c, and the C++ lifetimes test.) */
static void check_scope_cancel(const notifications* seen) {
  zvr_cancel_scope scope = NULL;
  CHECK_RESULT(ZVR_OK, zvr_cancel_scope_create(&scope));
  const int notified = seen->orders;
  outcome cancelled;
  memset(&cancelled, 0, sizeof cancelled);
  CHECK_RESULT(ZVR_OK, zvr_rewards_fetch_orders_in_scope(scope, on_orders, &cancelled));
  CHECK_RESULT(ZVR_OK, zvr_cancel_scope_cancel(scope));
  CHECK(cancelled.calls == 0);
  settle(&cancelled);
  CHECK(cancelled.result == NULL && seen->orders == notified);
  check_error(cancelled.error, ZVR_ERROR_TYPE_CANCELLED, "ZVErrorCancelled", 0);
  forget(&cancelled);
  zvr_release(scope);
}

/* One request at a time: the calls made while one is in flight fail at once,
 * unsent (the first may be refused too: the previous call counts until just
 * after its outcome is queued). */
static void check_request_limit(zvr_configuration configuration) {
  configuration.max_requests_in_flight = 1;
  CHECK_RESULT(ZVR_OK, zvr_configure(&configuration));
  outcome calls[3];
  memset(calls, 0, sizeof calls);
  for (int i = 0; i < 3; ++i) CHECK_RESULT(ZVR_OK, zvr_rewards_fetch_orders(on_orders, &calls[i]));
  int refused = 0;
  for (int i = 0; i < 3; ++i) {
    settle(&calls[i]);
    if (calls[i].error != NULL) {
      check_error(calls[i].error, ZVR_ERROR_TYPE_TRANSPORT, "ZVErrorTooManyRequests", 0);
      ++refused;
    }
    forget(&calls[i]);
  }
  CHECK(refused >= 2);
  configuration.max_requests_in_flight = 0;
  CHECK_RESULT(ZVR_OK, zvr_configure(&configuration));
}

/* Shutdown with a request in flight calls it back, cancelled, before it
 * returns; then the SDK works again, on a new transport. */
static void check_shutdown_and_reuse(void) {
  outcome dropped, later;
  memset(&dropped, 0, sizeof dropped);
  later = dropped;
  CHECK_RESULT(ZVR_OK, zvr_rewards_fetch_orders(on_orders, &dropped));
  CHECK_RESULT(ZVR_OK, zvr_shutdown());
  CHECK(dropped.calls == 1 && dropped.on_main_thread);
  check_error(dropped.error, ZVR_ERROR_TYPE_CANCELLED, "ZVErrorCancelled", 0);
  CHECK_RESULT(ZVR_OK, zvr_rewards_fetch_orders(on_orders, &later));
  settle(&later);
  CHECK(later.error == NULL && later.result != NULL);
  forget(&dropped);
  forget(&later);
}

/* ---- Records ----------------------------------------------------------------- */

/* The offer of `list` whose id is `id` (a new reference), or NULL. */
static zvr_offer find_offer(zvr_offer_list list, const char* id) {
  uint32_t count = 0;
  CHECK_RESULT(ZVR_OK, zvr_offer_list_get_count(list, &count));
  for (uint32_t i = 0; i < count; ++i) {
    zvr_offer offer = NULL;
    const char* offer_id = NULL;
    CHECK_RESULT(ZVR_OK, zvr_offer_list_get_at(list, i, &offer));
    CHECK_RESULT(ZVR_OK, zvr_offer_get_id(offer, &offer_id));
    if (offer_id != NULL && strcmp(offer_id, id) == 0) return offer;
    zvr_release(offer);
  }
  return NULL;
}

static void check_offers(zvr_offer_list offers) {
  /* The mug: text, numbers, booleans and the "data" object. */
  zvr_offer mug = find_offer(offers, "101");
  CHECK(mug != NULL);
  const char *name = NULL, *again = NULL, *status = NULL, *data = NULL, *json = NULL;
  int64_t points = 0;
  int32_t featured = 0, needs_question = 1;
  CHECK_RESULT(ZVR_OK, zvr_offer_get_name(mug, &name));
  CHECK_TEXT("Coffee mug", name);
  CHECK_RESULT(ZVR_OK, zvr_offer_get_name(mug, &again));
  CHECK(again == name); /* asking again gives the very same text */
  CHECK_RESULT(ZVR_OK, zvr_offer_get_points(mug, &points));
  CHECK_RESULT(ZVR_OK, zvr_offer_get_is_featured(mug, &featured));
  CHECK_RESULT(ZVR_OK, zvr_offer_get_is_skill_challenge_required(mug, &needs_question));
  CHECK(points == 150 && featured == 1 && needs_question == 0);
  CHECK_RESULT(ZVR_OK, zvr_offer_get_status_text(mug, &status));
  CHECK_TEXT("available", status);
  CHECK_RESULT(ZVR_OK, zvr_offer_get_field_json(mug, ZVR_OFFER_FIELD_DATA, &data));
  CHECK(data != NULL && data[0] == '{' && strstr(data, "\"sku\":\"MUG-01\"") != NULL);
  CHECK_RESULT(ZVR_OK, zvr_offer_get_json(mug, &json));
  CHECK(json != NULL && strstr(json, "\"id\":\"101\"") != NULL);
  zvr_release(mug);

  /* The T-shirt: options, options of an option, and a leaf without any. */
  zvr_offer shirt = find_offer(offers, "106");
  zvr_offer_list colours = NULL, sizes = NULL, none = NULL;
  uint32_t colour_count = 0, size_count = 0, none_count = 1;
  CHECK_RESULT(ZVR_OK, zvr_offer_get_options(shirt, &colours));
  CHECK_RESULT(ZVR_OK, zvr_offer_list_get_count(colours, &colour_count));
  zvr_offer black = find_offer(colours, "106-black");
  CHECK(colour_count == 2 && black != NULL);
  CHECK_RESULT(ZVR_OK, zvr_offer_get_options(black, &sizes));
  CHECK_RESULT(ZVR_OK, zvr_offer_list_get_count(sizes, &size_count));
  zvr_offer leaf = NULL;
  CHECK_RESULT(ZVR_OK, zvr_offer_list_get_at(sizes, 0, &leaf));
  CHECK_RESULT(ZVR_OK, zvr_offer_get_options(leaf, &none));
  CHECK_RESULT(ZVR_OK, zvr_offer_list_get_count(none, &none_count));
  CHECK(size_count > 0 && none_count == 0);
  zvr_release(leaf);
  CHECK_RESULT(ZVR_E_OUT_OF_RANGE, zvr_offer_list_get_at(sizes, size_count, &leaf));
  CHECK(leaf == NULL);
  zvr_release(none);
  zvr_release(sizes);
  zvr_release(black);
  zvr_release(colours);
  zvr_release(shirt);
}

int main(int argc, char** argv) {
  char host[128];
  main_thread = pthread_self();
  if (argc < 2 || zvr_test_start_sandbox(argv[1], host, sizeof host) != 0) return 1;
  uint32_t handles_before = 0;
  CHECK_RESULT(ZVR_OK, zvr_handle_count(&handles_before));

  zvr_configuration configuration = ZVR_CONFIGURATION_INIT;
  configuration.service_host = host;
  configuration.app_id = "sandbox-app";
  configuration.access_token = "sandbox-token";
  configuration.allow_insecure_http = 1;
  configuration.locale = "en_US";
  CHECK_RESULT(ZVR_OK, zvr_configure(&configuration));

  notifications seen;
  memset(&seen, 0, sizeof seen);
  uint64_t subscription = 0;
  CHECK_RESULT(ZVR_OK, zvr_notifications_subscribe(NULL, on_notification, &seen, &subscription));
  CHECK_RESULT(ZVR_OK, zvr_logger_set_sink(on_log_line, &fetched_lines));
  CHECK_RESULT(ZVR_OK, zvr_logger_set_categories(ZVR_LOG_CATEGORY_REWARDS));
  CHECK_RESULT(ZVR_OK, zvr_logger_set_level(ZVR_LOG_LEVEL_COMPACT));

  /* Offers, then the same from the cache: both delivered later, on this thread. */
  outcome fetched, cached, question, challenge, placed, orders;
  memset(&fetched, 0, sizeof fetched);
  cached = question = challenge = placed = orders = fetched;
  CHECK_RESULT(ZVR_OK, zvr_rewards_fetch_offers(on_offers, &fetched));
  CHECK(fetched.calls == 0);
  settle(&fetched);
  CHECK(fetched.error == NULL && fetched.result != NULL);
  check_offers(fetched.result);
  CHECK_RESULT(ZVR_OK, zvr_rewards_fetch_offers_with_locale("fr_CA", on_offers, &cached));
  CHECK(cached.calls == 0);
  settle(&cached);
  uint32_t fetched_count = 0;
  CHECK_RESULT(ZVR_OK, zvr_offer_list_get_count(fetched.result, &fetched_count));
  CHECK(seen.offers == 2 && fetched_lines == 2 && seen.offers_notified == fetched_count);
  double refreshed = 0;
  CHECK_RESULT(ZVR_OK, zvr_rewards_get_last_refresh_time(&refreshed));
  CHECK(refreshed > (double)time(NULL) - 60);

  /* The question and an answer to it (right or wrong, a challenge comes back). */
  CHECK_RESULT(ZVR_OK, zvr_rewards_fetch_skill_question(on_question, &question));
  settle(&question);
  const char *question_id = NULL, *text = NULL, *verdict = NULL, *challenge_id = NULL;
  CHECK_RESULT(ZVR_OK, zvr_skill_question_get_id(question.result, &question_id));
  CHECK_RESULT(ZVR_OK, zvr_skill_question_get_question(question.result, &text));
  CHECK(question_id != NULL && text != NULL);
  CHECK_RESULT(
      ZVR_OK, zvr_rewards_answer_skill_question("103", question_id, "0", on_challenge, &challenge));
  settle(&challenge);
  CHECK_RESULT(ZVR_OK, zvr_skill_challenge_get_status(challenge.result, &verdict));
  CHECK_RESULT(ZVR_OK, zvr_skill_challenge_get_id(challenge.result, &challenge_id));
  CHECK(verdict != NULL && challenge_id != NULL &&
        (strcmp(verdict, "passed") == 0 || strcmp(verdict, "failed") == 0));

  /* An order with the challenge id and an address; the request may go at once. */
  zvr_order_request request = NULL;
  CHECK_RESULT(ZVR_OK, zvr_order_request_create("999", 1, &request));
  CHECK_RESULT(ZVR_OK, zvr_order_request_set_offer_id(request, "101"));
  CHECK_RESULT(ZVR_OK, zvr_order_request_set_challenge_id(request, challenge_id));
  zvr_address_fields address = ZVR_ADDRESS_FIELDS_INIT;
  address.name = "Ada Player";
  address.city = "Montréal";
  address.country = "CA";
  CHECK_RESULT(ZVR_OK, zvr_order_request_set_shipping_address(request, &address));
  const char* body = NULL;
  CHECK_RESULT(ZVR_OK, zvr_order_request_get_json(request, &body));
  CHECK(body != NULL && strstr(body, "\"challenge\":{\"id\":\"") != NULL &&
        strstr(body, "\"city\":\"Montréal\"") != NULL);
  CHECK_RESULT(ZVR_OK, zvr_rewards_place_order(request, on_order, &placed));
  CHECK_RESULT(ZVR_OK, zvr_release(request));
  settle(&placed);
  CHECK(placed.error == NULL);
  const char *order_id = NULL, *ordered_offer = NULL, *city = NULL, *listed = NULL;
  int64_t available = -1;
  zvr_order_user user = NULL;
  zvr_address shipped = NULL;
  CHECK_RESULT(ZVR_OK, zvr_order_get_id(placed.result, &order_id));
  CHECK_RESULT(ZVR_OK, zvr_order_get_offer_id(placed.result, &ordered_offer));
  CHECK_TEXT("101", ordered_offer);
  CHECK_RESULT(ZVR_OK, zvr_order_get_user(placed.result, &user));
  CHECK_RESULT(ZVR_OK, zvr_order_user_get_available_points(user, &available));
  CHECK_RESULT(ZVR_OK, zvr_order_get_shipping_address(placed.result, &shipped));
  CHECK_RESULT(ZVR_OK, zvr_address_get_city(shipped, &city));
  CHECK_TEXT("Montréal", city);
  CHECK(available == 5000 - 150 && seen.placed == 1 && seen.available_points == available &&
        seen.test_points == 0);
  zvr_release(shipped);
  zvr_release(user);

  /* The orders list holds it. */
  CHECK_RESULT(ZVR_OK, zvr_rewards_fetch_orders(on_orders, &orders));
  settle(&orders);
  uint32_t order_count = 0;
  CHECK_RESULT(ZVR_OK, zvr_order_list_get_count(orders.result, &order_count));
  CHECK_RESULT(ZVR_OK, zvr_order_list_get_json(orders.result, &listed));
  CHECK(order_count == 1 && listed != NULL && order_id != NULL && strstr(listed, order_id));

  check_scope_cancel(&seen);

  CHECK_RESULT(ZVR_OK, zvr_notifications_unsubscribe(subscription));
  CHECK_RESULT(ZVR_OK, zvr_logger_set_sink(NULL, NULL));
  check_request_limit(configuration);
  check_shutdown_and_reuse();
  /* Clearing empties the state. */
  CHECK_RESULT(ZVR_OK, zvr_rewards_clear_user_state());
  zvr_offer_list state = NULL;
  uint32_t state_count = 1;
  CHECK_RESULT(ZVR_OK, zvr_rewards_get_offers(&state));
  CHECK_RESULT(ZVR_OK, zvr_offer_list_get_count(state, &state_count));
  CHECK(state_count == 0);
  zvr_release(state);
  outcome* all[] = {&fetched, &cached, &question, &challenge, &placed, &orders};
  for (size_t i = 0; i < sizeof all / sizeof all[0]; ++i) forget(all[i]);
  uint32_t handles_after = 0;
  CHECK_RESULT(ZVR_OK, zvr_handle_count(&handles_after));
  CHECK(handles_after == handles_before);

  zvr_test_stop_sandbox();
  if (zvr_test_failures) fprintf(stderr, "%d check(s) failed\n", zvr_test_failures);
  return zvr_test_failures ? 1 : 0;
}
