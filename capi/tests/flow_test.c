/* The flow through the C interface against the sandbox service, for what the
 * C layer adds to the SDK (whose behaviour the C++ tests cover) and that the
 * C# test, which reads every field through this layer, does not reach or
 * cannot check under the sanitizers: one getter of each kind and the
 * lifetime of its texts, notification payloads, callbacks once each on the
 * draining thread, and no handle left behind. (Cancellation, shutdown and
 * the log sink: misuse_test.c and the C# test; bad keys: misuse_test.c; the
 * question, its challenge and an order's challenge id: the C# test.) */
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

/* A callback of each result type, all keeping their outcome. */
#define KEEPING(name, type)                                             \
  static void ZVR_CALL name(type result, zvr_error error, void* user) { \
    keep(user, result, error);                                          \
  }
KEEPING(on_offers, zvr_offer_list)
KEEPING(on_orders, zvr_order_list)
KEEPING(on_order, zvr_order)

static void forget(outcome* o) {
  if (o->result) CHECK_RESULT(ZVR_OK, zvr_release(o->result));
  if (o->error) CHECK_RESULT(ZVR_OK, zvr_release(o->error));
  memset(o, 0, sizeof *o);
}

/* Waits for the outcome, then lets the queue run dry so that a second call
 * of the callback would show. */
static void settle(outcome* o) {
  CHECK(zvr_test_wait_for(&o->calls));
  zvr_test_drain();
  CHECK(o->calls == 1 && o->on_main_thread);
}

/* Starts an operation whose outcome goes to `o`: never called back inside the
 * call, then settled. */
#define AWAIT(start, o)            \
  do {                             \
    CHECK_RESULT(ZVR_OK, (start)); \
    CHECK((o)->calls == 0);        \
    settle(o);                     \
  } while (0)

/* ---- Notifications --------------------------------------------------------- */

typedef struct {
  int offers, placed;
  uint32_t offers_notified; /* how many offers the last offers notification carried */
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
  seen->placed += strcmp(name, ZVR_NOTIFICATION_DID_PLACE_ORDER) == 0;
}

/* ---- Records ----------------------------------------------------------------- */

/* One getter of each kind (the C# test reads the other fields through the
 * same ones, but only this test runs under the sanitizers). */
static void check_offers(zvr_offer_list offers) {
  zvr_offer mug = NULL, past = NULL;
  const char *name = NULL, *again = NULL, *status = NULL, *data = NULL, *json = NULL;
  int32_t needs_question = 1;
  zvr_offer_list none = NULL;
  uint32_t count = 0, none_count = 1;
  CHECK_RESULT(ZVR_OK, zvr_offer_list_get_at(offers, 0, &mug)); /* the catalogue's first */
  CHECK_RESULT(ZVR_OK, zvr_offer_get_name(mug, &name));
  CHECK_RESULT(ZVR_OK, zvr_offer_get_name(mug, &again));
  CHECK_TEXT("Coffee mug", name);
  CHECK(again == name); /* asking again gives the very same text */
  CHECK_RESULT(ZVR_OK, zvr_offer_get_is_skill_challenge_required(mug, &needs_question));
  CHECK_RESULT(ZVR_OK, zvr_offer_get_status_text(mug, &status));
  CHECK_TEXT("available", status);
  CHECK_RESULT(ZVR_OK, zvr_offer_get_field_json(mug, ZVR_OFFER_FIELD_DATA, &data));
  CHECK(needs_question == 0 && data != NULL && strstr(data, "\"sku\":\"MUG-01\"") != NULL);
  CHECK_RESULT(ZVR_OK, zvr_offer_get_json(mug, &json));
  CHECK(json != NULL && strstr(json, "\"id\":\"101\"") != NULL);
  CHECK_RESULT(ZVR_OK, zvr_offer_get_options(mug, &none));
  CHECK_RESULT(ZVR_OK, zvr_offer_list_get_count(none, &none_count));
  CHECK_RESULT(ZVR_OK, zvr_offer_list_get_count(offers, &count));
  CHECK_RESULT(ZVR_E_OUT_OF_RANGE, zvr_offer_list_get_at(offers, count, &past));
  CHECK(none_count == 0 && past == NULL);
  zvr_release(none);
  zvr_release(mug);
}

int main(void) {
  const char* host = getenv("ZVR_SANDBOX_HOST"); /* run by with_sandbox */
  main_thread = pthread_self();
  if (host == NULL) return 1;
  uint32_t handles_before = 0, handles_after = 0, count = 1;
  CHECK_RESULT(ZVR_OK, zvr_handle_count(&handles_before));

  zvr_configuration configuration = ZVR_CONFIGURATION_INIT;
  configuration.service_host = host;
  configuration.app_id = "sandbox-app";
  configuration.access_token = "sandbox-token";
  configuration.allow_insecure_http = 1;
  configuration.locale = "en_US";
  CHECK_RESULT(ZVR_OK, zvr_configure(&configuration));

  notifications seen = {0};
  uint64_t subscription = 0;
  CHECK_RESULT(ZVR_OK, zvr_notifications_subscribe(NULL, on_notification, &seen, &subscription));

  /* Offers, delivered later, on this thread. */
  outcome fetched = {0}, placed = {0}, orders = {0};
  AWAIT(zvr_rewards_fetch_offers(on_offers, &fetched), &fetched);
  CHECK(fetched.error == NULL && fetched.result != NULL);
  check_offers(fetched.result);
  CHECK_RESULT(ZVR_OK, zvr_offer_list_get_count(fetched.result, &count));
  CHECK(seen.offers == 1 && seen.offers_notified == count);
  double refreshed = 0;
  CHECK_RESULT(ZVR_OK, zvr_rewards_get_last_refresh_time(&refreshed));
  CHECK(refreshed > (double)time(NULL) - 60);

  /* An order with an address, released as soon as it is placed; the orders
   * list holds it. */
  zvr_order_request request = NULL;
  CHECK_RESULT(ZVR_OK, zvr_order_request_create("999", 1, &request));
  CHECK_RESULT(ZVR_OK, zvr_order_request_set_offer_id(request, "101"));
  zvr_address_fields address = ZVR_ADDRESS_FIELDS_INIT;
  address.city = "Montréal";
  CHECK_RESULT(ZVR_OK, zvr_order_request_set_shipping_address(request, &address));
  const char* body = NULL;
  CHECK_RESULT(ZVR_OK, zvr_order_request_get_json(request, &body));
  CHECK(body != NULL && strstr(body, "\"city\":\"Montréal\"") != NULL);
  CHECK_RESULT(ZVR_OK, zvr_rewards_place_order(request, on_order, &placed));
  CHECK_RESULT(ZVR_OK, zvr_release(request));
  settle(&placed);
  const char *order_id = NULL, *listed = NULL;
  CHECK_RESULT(ZVR_OK, zvr_order_get_id(placed.result, &order_id));
  CHECK(seen.placed == 1);
  AWAIT(zvr_rewards_fetch_orders(on_orders, &orders), &orders);
  CHECK_RESULT(ZVR_OK, zvr_order_list_get_json(orders.result, &listed));
  CHECK(listed != NULL && order_id != NULL && strstr(listed, order_id));
  /* Signing out empties the state that the C calls read. */
  CHECK_RESULT(ZVR_OK, zvr_rewards_clear_user_state());
  CHECK_RESULT(ZVR_OK, zvr_rewards_get_last_refresh_time(&refreshed));
  CHECK(refreshed == 0);

  CHECK_RESULT(ZVR_OK, zvr_notifications_unsubscribe(subscription));
  outcome* all[] = {&fetched, &placed, &orders};
  for (size_t i = 0; i < sizeof all / sizeof all[0]; ++i) forget(all[i]);
  CHECK_RESULT(ZVR_OK, zvr_handle_count(&handles_after));
  CHECK(handles_after == handles_before);

  if (zvr_test_failures) fprintf(stderr, "%d check(s) failed\n", zvr_test_failures);
  return zvr_test_failures ? 1 : 0;
}
