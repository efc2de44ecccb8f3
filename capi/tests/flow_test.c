/* The whole flow through the C interface against the sandbox service: offers
 * with their options tree, the skill question and its answer, an order with
 * the challenge id, the balance notification, the orders, and a refusal with
 * its error. Callbacks must come once each, on the draining thread. */
#include <ctype.h>
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
  CHECK(o->calls == 1);
  CHECK(o->on_main_thread);
}

/* ---- Notifications and log lines ------------------------------------------- */

typedef struct {
  int offers, orders, placed, question, answered, failed;
  uint32_t offers_notified; /* how many offers the last offers notification carried */
  int64_t available_points, test_points;
  zvr_error failure; /* retained */
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
  if (strcmp(name, ZVR_NOTIFICATION_DID_FETCH_ORDERS) == 0) ++seen->orders;
  if (strcmp(name, ZVR_NOTIFICATION_DID_PLACE_ORDER) == 0) ++seen->placed;
  if (strcmp(name, ZVR_NOTIFICATION_DID_FETCH_SKILL_QUESTION) == 0) ++seen->question;
  if (strcmp(name, ZVR_NOTIFICATION_DID_ANSWER_SKILL_QUESTION) == 0) ++seen->answered;
  if (strcmp(name, ZVR_NOTIFICATION_USER_DID_UPDATE) == 0)
    CHECK_RESULT(ZVR_OK,
                 zvr_notification_get_balances(n, &seen->available_points, &seen->test_points));
  if (strcmp(name, ZVR_NOTIFICATION_REQUEST_DID_FAIL) == 0) {
    ++seen->failed;
    CHECK_RESULT(ZVR_OK, zvr_notification_get_error(n, &seen->failure));
  }
}

static int fetched_lines = 0;
static void ZVR_CALL on_log_line(const char* line, uint32_t length, void* user) {
  CHECK(user == &fetched_lines);
  CHECK(strlen(line) == length);
  if (strstr(line, "Fetched offers: ") != NULL) ++fetched_lines;
}

/* ---- The skill question: "(a x b) + c - d" and its other shapes ------------ */

static long long parse_sum(const char** p);
static void skip_blanks(const char** p) {
  while (**p == ' ') ++*p;
}
static long long parse_factor(const char** p) {
  skip_blanks(p);
  if (**p == '(') {
    ++*p;
    long long value = parse_sum(p);
    skip_blanks(p);
    if (**p == ')') ++*p;
    return value;
  }
  long long value = 0;
  while (isdigit((unsigned char)**p)) value = value * 10 + (*(*p)++ - '0');
  return value;
}
static long long parse_product(const char** p) {
  long long value = parse_factor(p);
  for (skip_blanks(p); **p == 'x' || **p == '*'; skip_blanks(p)) {
    ++*p;
    value *= parse_factor(p);
  }
  return value;
}
static long long parse_sum(const char** p) {
  long long value = parse_product(p);
  for (skip_blanks(p); **p == '+' || **p == '-'; skip_blanks(p)) {
    const char sign = *(*p)++;
    const long long term = parse_product(p);
    value = sign == '+' ? value + term : value - term;
  }
  return value;
}

/* ---- Cancellation, keys and limits ------------------------------------------- */

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

/* Waits, without running the queue, until a task is queued on it. */
static void wait_for_queued_task(void) {
  uint32_t pending = 0;
  for (int i = 0; i < 20000 && pending == 0; ++i) {
    const struct timespec tick = {0, 1000 * 1000};
    nanosleep(&tick, NULL);
    zvr_main_queue_get_pending_count(&pending);
  }
  CHECK(pending > 0);
}

/* Cancelled with the request in flight, then with the outcome already
 * queued: either way the callback comes once, on the main queue, cancelled. */
static void check_scope_cancels(const notifications* seen) {
  zvr_cancel_scope scope = NULL;
  CHECK_RESULT(ZVR_OK, zvr_cancel_scope_create(&scope));
  const int notified = seen->orders;
  for (int queued = 0; queued < 2; ++queued) {
    outcome cancelled;
    memset(&cancelled, 0, sizeof cancelled);
    CHECK_RESULT(ZVR_OK, zvr_rewards_fetch_orders_in_scope(scope, on_orders, &cancelled));
    if (queued) wait_for_queued_task();
    CHECK_RESULT(ZVR_OK, zvr_cancel_scope_cancel(scope));
    CHECK(cancelled.calls == 0);
    settle(&cancelled);
    CHECK(cancelled.result == NULL);
    check_error(cancelled.error, ZVR_ERROR_TYPE_CANCELLED, "ZVErrorCancelled", 0);
    forget(&cancelled);
  }
  CHECK(seen->orders == notified); /* and no notification */
  zvr_release(scope);
}

static int64_t available_after(outcome* placed) {
  zvr_order_user user = NULL;
  int64_t available = -1;
  CHECK(placed->error == NULL);
  CHECK_RESULT(ZVR_OK, zvr_order_get_user(placed->result, &user));
  CHECK_RESULT(ZVR_OK, zvr_order_user_get_available_points(user, &available));
  zvr_release(user);
  return available;
}

/* The same key twice: the service answers the first order again, and the
 * balance drops once, as the next order shows. */
static void check_idempotency_key(int64_t balance) {
  outcome first, again, next;
  memset(&first, 0, sizeof first);
  again = next = first;
  zvr_order_request request = NULL;
  CHECK_RESULT(ZVR_OK, zvr_order_request_create("101", 1, &request));
  CHECK_RESULT(ZVR_OK, zvr_order_request_set_idempotency_key(request, "flow-order-101"));
  CHECK_RESULT(ZVR_OK, zvr_rewards_place_order(request, on_order, &first));
  settle(&first);
  CHECK_RESULT(ZVR_OK, zvr_rewards_place_order(request, on_order, &again));
  settle(&again);
  const char *first_id = NULL, *again_id = NULL;
  CHECK_RESULT(ZVR_OK, zvr_order_get_id(first.result, &first_id));
  CHECK_RESULT(ZVR_OK, zvr_order_get_id(again.result, &again_id));
  CHECK(first_id != NULL && again_id != NULL && strcmp(first_id, again_id) == 0);
  CHECK(available_after(&first) == balance - 150 && available_after(&again) == balance - 150);
  CHECK_RESULT(ZVR_OK, zvr_order_request_set_offer_id(request, "110"));
  CHECK_RESULT(ZVR_OK, zvr_order_request_set_idempotency_key(request, NULL));
  CHECK_RESULT(ZVR_OK, zvr_rewards_place_order(request, on_order, &next));
  settle(&next);
  CHECK(available_after(&next) == balance - 150 - 30);
  zvr_release(request);
  forget(&first);
  forget(&again);
  forget(&next);
}

/* One request at a time: the calls made while one is in flight fail at once,
 * unsent (the first may be refused too: the previous call counts until just
 * after its outcome is queued). A header limit fails the answer. */
static void check_limits(zvr_configuration configuration) {
  configuration.max_requests_in_flight = 1;
  CHECK_RESULT(ZVR_OK, zvr_configure(&configuration));
  outcome calls[3];
  memset(calls, 0, sizeof calls);
  for (int i = 0; i < 3; ++i) CHECK_RESULT(ZVR_OK, zvr_rewards_fetch_orders(on_orders, &calls[i]));
  int refused = 0;
  for (int i = 0; i < 3; ++i) {
    settle(&calls[i]);
    if (calls[i].error == NULL) continue;
    check_error(calls[i].error, ZVR_ERROR_TYPE_TRANSPORT, "ZVErrorTooManyRequests", 0);
    ++refused;
  }
  CHECK(refused >= 2);
  for (int i = 0; i < 3; ++i) forget(&calls[i]);

  configuration.max_requests_in_flight = 0;
  configuration.max_header_bytes = 64;
  CHECK_RESULT(ZVR_OK, zvr_configure(&configuration));
  outcome cut;
  memset(&cut, 0, sizeof cut);
  CHECK_RESULT(ZVR_OK, zvr_rewards_fetch_orders(on_orders, &cut));
  settle(&cut);
  check_error(cut.error, ZVR_ERROR_TYPE_INVALID_ANSWER, "ZVErrorAnswerTooLarge", 1);
  forget(&cut);
  configuration.max_header_bytes = 0;
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

/* ---- The flow --------------------------------------------------------------- */

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
  const char *name = NULL, *status = NULL, *data = NULL, *json = NULL;
  int64_t points = 0;
  int32_t featured = 0, needs_question = 1;
  CHECK_RESULT(ZVR_OK, zvr_offer_get_name(mug, &name));
  CHECK_TEXT("Coffee mug", name);
  CHECK_RESULT(ZVR_OK, zvr_offer_get_points(mug, &points));
  CHECK(points == 150); /* "150" as text in the catalogue */
  CHECK_RESULT(ZVR_OK, zvr_offer_get_is_featured(mug, &featured));
  CHECK(featured == 1);
  CHECK_RESULT(ZVR_OK, zvr_offer_get_is_skill_challenge_required(mug, &needs_question));
  CHECK(needs_question == 0);
  CHECK_RESULT(ZVR_OK, zvr_offer_get_status_text(mug, &status));
  CHECK_TEXT("available", status);
  CHECK_RESULT(ZVR_OK, zvr_offer_get_field_json(mug, ZVR_OFFER_FIELD_DATA, &data));
  CHECK(data != NULL && strstr(data, "\"sku\":\"MUG-01\"") != NULL && data[0] == '{');
  CHECK_RESULT(ZVR_OK, zvr_offer_get_json(mug, &json));
  CHECK(json != NULL && strstr(json, "\"id\":\"101\"") != NULL);
  /* Asking again gives the very same text. */
  const char* again = NULL;
  CHECK_RESULT(ZVR_OK, zvr_offer_get_name(mug, &again));
  CHECK(again == name);
  zvr_release(mug);

  /* The T-shirt: options, and options of an option. */
  zvr_offer shirt = find_offer(offers, "106");
  zvr_offer_list colours = NULL, sizes = NULL;
  uint32_t colour_count = 0, size_count = 0;
  CHECK_RESULT(ZVR_OK, zvr_offer_get_options(shirt, &colours));
  CHECK_RESULT(ZVR_OK, zvr_offer_list_get_count(colours, &colour_count));
  CHECK(colour_count == 2);
  zvr_offer black = find_offer(colours, "106-black");
  CHECK(black != NULL);
  CHECK_RESULT(ZVR_OK, zvr_offer_get_options(black, &sizes));
  CHECK_RESULT(ZVR_OK, zvr_offer_list_get_count(sizes, &size_count));
  CHECK(size_count > 0);
  zvr_offer leaf = NULL;
  CHECK_RESULT(ZVR_OK, zvr_offer_list_get_at(sizes, 0, &leaf));
  zvr_offer_list none = NULL;
  uint32_t none_count = 1;
  CHECK_RESULT(ZVR_OK, zvr_offer_get_options(leaf, &none));
  CHECK_RESULT(ZVR_OK, zvr_offer_list_get_count(none, &none_count));
  CHECK(none_count == 0);
  zvr_release(leaf);
  CHECK_RESULT(ZVR_E_OUT_OF_RANGE, zvr_offer_list_get_at(sizes, size_count, &leaf));
  CHECK(leaf == NULL);
  const char* tree = NULL;
  CHECK_RESULT(ZVR_OK, zvr_offer_get_json(shirt, &tree));
  CHECK(tree != NULL && strstr(tree, "\"options\":[{\"id\":\"106-black\"") != NULL);
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
  outcome fetched, cached, question, challenge, placed, orders, refused;
  memset(&fetched, 0, sizeof fetched);
  cached = question = challenge = placed = orders = refused = fetched;
  CHECK_RESULT(ZVR_OK, zvr_rewards_fetch_offers(on_offers, &fetched));
  CHECK(fetched.calls == 0);
  settle(&fetched);
  CHECK(fetched.error == NULL && fetched.result != NULL);
  check_offers(fetched.result);
  CHECK_RESULT(ZVR_OK, zvr_rewards_fetch_offers_with_locale("fr_CA", on_offers, &cached));
  CHECK(cached.calls == 0);
  settle(&cached);
  CHECK(seen.offers == 2 && fetched_lines == 2);
  uint32_t fetched_count = 0;
  CHECK_RESULT(ZVR_OK, zvr_offer_list_get_count(fetched.result, &fetched_count));
  CHECK(fetched_count > 0 && seen.offers_notified == fetched_count);
  double refreshed = 0;
  CHECK_RESULT(ZVR_OK, zvr_rewards_get_last_refresh_time(&refreshed));
  CHECK(refreshed > (double)time(NULL) - 60);

  /* The question, answered right, for the draw that requires it. */
  CHECK_RESULT(ZVR_OK, zvr_rewards_fetch_skill_question(on_question, &question));
  settle(&question);
  const char *question_id = NULL, *text = NULL;
  CHECK_RESULT(ZVR_OK, zvr_skill_question_get_id(question.result, &question_id));
  CHECK_RESULT(ZVR_OK, zvr_skill_question_get_question(question.result, &text));
  CHECK(question_id != NULL && text != NULL);
  char answer[32];
  const char* cursor = text ? text : "0";
  snprintf(answer, sizeof answer, "%lld", parse_sum(&cursor));
  CHECK_RESULT(ZVR_OK, zvr_rewards_answer_skill_question("103", question_id, answer, on_challenge,
                                                         &challenge));
  settle(&challenge);
  const char *verdict = NULL, *challenge_id = NULL;
  CHECK_RESULT(ZVR_OK, zvr_skill_challenge_get_status(challenge.result, &verdict));
  CHECK_TEXT("passed", verdict);
  CHECK_RESULT(ZVR_OK, zvr_skill_challenge_get_id(challenge.result, &challenge_id));

  /* The order, with the challenge id and an address; the request may go at once. */
  zvr_order_request request = NULL;
  CHECK_RESULT(ZVR_OK, zvr_order_request_create("103", 1, &request));
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
  const char *order_id = NULL, *ordered_offer = NULL, *city = NULL;
  int64_t available = -1;
  zvr_order_user user = NULL;
  zvr_address shipped = NULL;
  CHECK_RESULT(ZVR_OK, zvr_order_get_id(placed.result, &order_id));
  CHECK_RESULT(ZVR_OK, zvr_order_get_offer_id(placed.result, &ordered_offer));
  CHECK_TEXT("103", ordered_offer);
  CHECK_RESULT(ZVR_OK, zvr_order_get_user(placed.result, &user));
  CHECK_RESULT(ZVR_OK, zvr_order_user_get_available_points(user, &available));
  CHECK(available == 5000 - 50);
  CHECK_RESULT(ZVR_OK, zvr_order_get_shipping_address(placed.result, &shipped));
  CHECK_RESULT(ZVR_OK, zvr_address_get_city(shipped, &city));
  CHECK_TEXT("Montréal", city);
  CHECK(seen.placed == 1 && seen.available_points == available && seen.test_points == 0);
  zvr_release(shipped);
  zvr_release(user);

  /* The orders list holds it. */
  CHECK_RESULT(ZVR_OK, zvr_rewards_fetch_orders(on_orders, &orders));
  settle(&orders);
  uint32_t order_count = 0;
  CHECK_RESULT(ZVR_OK, zvr_order_list_get_count(orders.result, &order_count));
  CHECK(order_count == 1);
  const char* listed = NULL;
  CHECK_RESULT(ZVR_OK, zvr_order_list_get_json(orders.result, &listed));
  CHECK(listed != NULL && order_id != NULL && strstr(listed, order_id) != NULL);

  check_scope_cancels(&seen);
  check_idempotency_key(available);

  /* A refusal: more points than the balance. Failure notification, then callback. */
  zvr_order_request too_dear = NULL;
  CHECK_RESULT(ZVR_OK, zvr_order_request_create("111", 1, &too_dear));
  CHECK_RESULT(ZVR_OK, zvr_rewards_place_order(too_dear, on_order, &refused));
  zvr_release(too_dear);
  settle(&refused);
  CHECK(refused.result == NULL && refused.error != NULL && seen.failed == 1);
  int64_t type = 0;
  const char* message = NULL;
  CHECK_RESULT(ZVR_OK, zvr_error_get_type(refused.error, &type));
  CHECK(type == ZVR_ERROR_TYPE_SERVICE);
  CHECK_RESULT(ZVR_OK, zvr_error_get_message(refused.error, &message));
  CHECK(message != NULL && strncmp(message, "Reward: Insufficient points", 27) == 0);
  const char* notified = NULL;
  CHECK_RESULT(ZVR_OK, zvr_error_get_message(seen.failure, &notified));
  CHECK(notified != NULL && message != NULL && strcmp(notified, message) == 0);

  /* After unsubscribing, nothing more arrives; clearing empties the state. */
  CHECK_RESULT(ZVR_OK, zvr_notifications_unsubscribe(subscription));
  CHECK_RESULT(ZVR_OK, zvr_logger_set_sink(NULL, NULL));
  check_limits(configuration);
  check_shutdown_and_reuse();
  CHECK_RESULT(ZVR_OK, zvr_rewards_clear_user_state());
  zvr_offer_list state = NULL;
  uint32_t state_count = 1;
  CHECK_RESULT(ZVR_OK, zvr_rewards_get_offers(&state));
  CHECK_RESULT(ZVR_OK, zvr_offer_list_get_count(state, &state_count));
  CHECK(state_count == 0);
  zvr_release(state);

  forget(&fetched);
  forget(&cached);
  forget(&question);
  forget(&challenge);
  forget(&placed);
  forget(&orders);
  forget(&refused);
  zvr_release(seen.failure);
  uint32_t handles_after = 0;
  CHECK_RESULT(ZVR_OK, zvr_handle_count(&handles_after));
  CHECK(handles_after == handles_before);

  zvr_test_stop_sandbox();
  if (zvr_test_failures) fprintf(stderr, "%d check(s) failed\n", zvr_test_failures);
  return zvr_test_failures ? 1 : 0;
}
