/* What a careless or hostile host does to the C interface: null, released,
 * stale, made-up and mistyped handles, double releases, bad structs, NULL
 * user pointers, calls from inside callbacks, handles shared between
 * threads. Each must give an error result (or work), never a crash. Needs no
 * service: validation failures are delivered without sending anything. */
#define _POSIX_C_SOURCE 200809L /* nanosleep */
#include <pthread.h>
#include <sched.h>
#include <stdatomic.h>
#include <stddef.h>
#include <stdlib.h>
#include <time.h>

#include "zvr_test.h"

/* ---- Handles ----------------------------------------------------------------- */

static void check_null_and_made_up_handles(void) {
  /* One getter of each kind of record, with NULL, an even value and an index
   * past the table. */
  const void* bad[] = {NULL, (const void*)(uintptr_t)0x1000, (const void*)(uintptr_t)0xFFFFFFF1u};
  const zvr_result expected[] = {ZVR_E_NULL_HANDLE, ZVR_E_INVALID_HANDLE, ZVR_E_INVALID_HANDLE};
  for (size_t i = 0; i < 3; ++i) {
    const char* text = "not cleared";
    int64_t number = 7;
    uint32_t count = 7;
    zvr_offer_list options = (zvr_offer_list)1;
    CHECK_RESULT(expected[i], zvr_offer_get_name((zvr_offer)bad[i], &text));
    CHECK_RESULT(expected[i], zvr_offer_get_points((zvr_offer)bad[i], &number));
    CHECK_RESULT(expected[i], zvr_offer_get_options((zvr_offer)bad[i], &options));
    CHECK_RESULT(expected[i], zvr_offer_list_get_count((zvr_offer_list)bad[i], &count));
    CHECK(text == NULL && number == 0 && options == NULL && count == 0);
    CHECK_RESULT(expected[i], zvr_order_get_json((zvr_order)bad[i], &text));
    CHECK_RESULT(expected[i], zvr_error_get_message((zvr_error)bad[i], &text));
    CHECK_RESULT(expected[i], zvr_skill_challenge_get_id((zvr_skill_challenge)bad[i], &text));
    CHECK_RESULT(expected[i], zvr_notification_get_name((zvr_notification)bad[i], &text));
    CHECK_RESULT(expected[i], zvr_order_request_set_email((zvr_order_request)bad[i], "a@b.c"));
    CHECK_RESULT(expected[i], zvr_cancel_scope_cancel((zvr_cancel_scope)bad[i]));
    CHECK_RESULT(expected[i],
                 zvr_rewards_fetch_orders_in_scope((zvr_cancel_scope)bad[i], NULL, NULL));
    CHECK_RESULT(expected[i], zvr_retain(bad[i]));
    CHECK_RESULT(expected[i], zvr_release(bad[i]));
  }
}

static void check_released_and_mistyped_handles(void) {
  zvr_order_request request = NULL;
  const char *json = NULL, *kept = NULL;
  CHECK_RESULT(ZVR_OK, zvr_order_request_create("12", 1, &request));
  /* A handle of another kind is refused, not misread. */
  CHECK_RESULT(ZVR_E_WRONG_HANDLE_TYPE, zvr_offer_get_id((zvr_offer)request, &json));
  CHECK_RESULT(ZVR_E_WRONG_HANDLE_TYPE, zvr_cancel_scope_cancel((zvr_cancel_scope)request));
  CHECK_RESULT(ZVR_E_INVALID_ARGUMENT, zvr_order_request_get_json(request, NULL));

  /* A retained handle survives one release, and its texts with it. */
  CHECK_RESULT(ZVR_OK, zvr_order_request_get_json(request, &kept));
  CHECK_TEXT("{\"offer_id\":\"12\",\"quantity\":1,\"ip\":\"127.0.0.1\"}", kept);
  CHECK_RESULT(ZVR_OK, zvr_retain(request));
  CHECK_RESULT(ZVR_OK, zvr_release(request));
  CHECK_RESULT(ZVR_OK, zvr_order_request_set_ip(request, "10.0.0.5"));
  CHECK_TEXT("{\"offer_id\":\"12\",\"quantity\":1,\"ip\":\"127.0.0.1\"}", kept);
  CHECK_RESULT(ZVR_OK, zvr_release(request));

  /* Released: every use, a second release and a retain are errors. */
  CHECK_RESULT(ZVR_E_INVALID_HANDLE, zvr_order_request_get_json(request, &json));
  CHECK_RESULT(ZVR_E_INVALID_HANDLE, zvr_release(request));
  CHECK_RESULT(ZVR_E_INVALID_HANDLE, zvr_retain(request));
}

/* Slots are reused: a stale handle must never reach the object that now
 * holds its slot. */
static void check_stale_handles_never_alias(void) {
  enum { kRounds = 2000 };
  static zvr_order_request released[kRounds];
  for (int round = 0; round < kRounds; ++round) {
    zvr_order_request fresh = NULL;
    CHECK_RESULT(ZVR_OK, zvr_order_request_create("1", 1, &fresh));
    for (int old = 0; old < round; ++old) CHECK(released[old] != fresh);
    if (round > 0)
      CHECK_RESULT(ZVR_E_INVALID_HANDLE, zvr_order_request_set_ip(released[round - 1], "x"));
    CHECK_RESULT(ZVR_OK, zvr_release(fresh));
    released[round] = fresh;
  }
}

/* ---- Structs ------------------------------------------------------------------ */

static void check_versioned_structs(void) {
  CHECK_RESULT(ZVR_E_INVALID_ARGUMENT, zvr_configure(NULL));
  /* Older than the first version, then a field out of range. */
  zvr_configuration bad[] = {
      {.struct_size = 4},
      {.struct_size = sizeof(zvr_configuration), .connect_timeout_ms = -1},
      {.struct_size = sizeof(zvr_configuration), .retry_base_delay_ms = -1},
      {.struct_size = sizeof(zvr_configuration), .retry_max_attempts = (int64_t)INT32_MAX + 1}};
  CHECK_RESULT(ZVR_E_UNSUPPORTED_STRUCT, zvr_configure(&bad[0]));
  for (size_t i = 1; i < 4; ++i) CHECK_RESULT(ZVR_E_INVALID_ARGUMENT, zvr_configure(&bad[i]));

  /* A host built with a newer header: accepted while its newer field is unset. */
  struct {
    zvr_configuration known;
    uint64_t newer_field;
  } newer;
  memset(&newer, 0, sizeof newer);
  newer.known.struct_size = sizeof newer;
  newer.known.service_host = "rewards.example.com";
  CHECK_RESULT(ZVR_OK, zvr_configure(&newer.known));
  newer.newer_field = 1;
  CHECK_RESULT(ZVR_E_UNSUPPORTED_STRUCT, zvr_configure(&newer.known));

  zvr_order_request request = NULL;
  zvr_address_fields address = ZVR_ADDRESS_FIELDS_INIT;
  CHECK_RESULT(ZVR_OK, zvr_order_request_create(NULL, 1, &request));
  address.struct_size = 0;
  CHECK_RESULT(ZVR_E_UNSUPPORTED_STRUCT, zvr_order_request_set_shipping_address(request, &address));
  CHECK_RESULT(ZVR_OK, zvr_order_request_set_shipping_address(request, NULL));
  zvr_release(request);
}

/* ---- Callbacks ----------------------------------------------------------------- */

static atomic_int calls_with_null_user;
static pthread_t main_thread;
static char last_code[64];

static void ZVR_CALL on_challenge(zvr_skill_challenge challenge, zvr_error error, void* user) {
  CHECK(user == NULL && challenge == NULL && error != NULL);
  const char* code = NULL;
  CHECK_RESULT(ZVR_OK, zvr_error_get_code(error, &code));
  snprintf(last_code, sizeof last_code, "%s", code ? code : "(null)");
  atomic_fetch_add(&calls_with_null_user, 1);
}

static void ZVR_CALL on_order(zvr_order order, zvr_error error, void* user) {
  (void)order, (void)error, (void)user;
  atomic_fetch_add(&calls_with_null_user, 1);
}

static int32_t ZVR_CALL calls_reached(void* user) {
  return atomic_load(&calls_with_null_user) >= *(const int*)user;
}

static void check_callbacks(void) {
  /* Validation failures: delivered later, once, with the NULL user; each NULL
   * argument stands for the missing one, so a swapped argument shows. */
  const char* calls[][4] = {{NULL, NULL, "3", "ZVErrorValidationNoOfferID"},
                            {"1", "q", NULL, "ZVErrorValidationNoAnswer"},
                            {"1", NULL, "3", "ZVErrorValidationNoQuestionID"}};
  for (int i = 0; i < 3; ++i) {
    const int want = i + 1;
    CHECK_RESULT(ZVR_OK, zvr_rewards_answer_skill_question(calls[i][0], calls[i][1], calls[i][2],
                                                           on_challenge, NULL));
    CHECK(atomic_load(&calls_with_null_user) == i); /* not inside the call */
    zvr_main_queue_run_until(calls_reached, (void*)&want, 5000, NULL);
    CHECK_TEXT(calls[i][3], last_code);
  }

  /* A request handle that is not live: refused at once, the callback never runs. */
  zvr_order_request gone = NULL;
  CHECK_RESULT(ZVR_OK, zvr_order_request_create("1", 1, &gone));
  zvr_release(gone);
  CHECK_RESULT(ZVR_E_INVALID_HANDLE, zvr_rewards_place_order(gone, on_order, NULL));
  CHECK_RESULT(ZVR_OK, zvr_rewards_place_order(NULL, NULL, NULL)); /* no callback is fine too */
  zvr_test_drain();
  CHECK(atomic_load(&calls_with_null_user) == 3);
}

/* Unsubscribing from inside the callback, then again. */
static int validation_notifications = 0;
static uint64_t self_removing = 0;
static void ZVR_CALL on_validation_failure(zvr_notification n, void* user) {
  CHECK(user == NULL);
  zvr_error error = NULL;
  CHECK_RESULT(ZVR_OK, zvr_notification_get_error(n, &error));
  CHECK_RESULT(ZVR_OK, zvr_release(error)); /* fails for a NULL error too */
  ++validation_notifications;
  CHECK_RESULT(ZVR_OK, zvr_notifications_unsubscribe(self_removing));
}

static void check_subscriptions(void) {
  CHECK_RESULT(ZVR_E_INVALID_ARGUMENT,
               zvr_notifications_subscribe(NULL, NULL, NULL, &self_removing));
  CHECK_RESULT(ZVR_OK, zvr_notifications_subscribe(ZVR_NOTIFICATION_VALIDATION_DID_FAIL,
                                                   on_validation_failure, NULL, &self_removing));
  zvr_rewards_place_order(NULL, NULL, NULL);
  zvr_rewards_place_order(NULL, NULL, NULL);
  zvr_test_drain();
  CHECK(validation_notifications == 1);
  CHECK_RESULT(ZVR_E_INVALID_ARGUMENT, zvr_notifications_unsubscribe(self_removing));
}

/* The line and its length cross whole. A sink may not replace itself or
 * drive the queue: both would wait for the logger's own lock. */
static int sink_lines = 0;
static void ZVR_CALL reentrant_sink(const char* line, uint32_t length, void* user) {
  CHECK(user == &sink_lines && strlen(line) == length && strstr(line, "Missing 'order'"));
  ++sink_lines;
  CHECK_RESULT(ZVR_E_BUSY, zvr_logger_set_sink(NULL, NULL));
  CHECK_RESULT(ZVR_E_BUSY, zvr_main_queue_drain(NULL));
  CHECK_RESULT(ZVR_E_BUSY, zvr_rewards_place_order(NULL, NULL, NULL));
  /* They would wait for a thread that may be waiting to log. */
  CHECK_RESULT(ZVR_E_BUSY, zvr_main_queue_stop_dedicated_thread());
  CHECK_RESULT(ZVR_E_BUSY, zvr_notifications_unsubscribe(1));
}

static void check_log_sink(void) {
  CHECK_RESULT(ZVR_OK, zvr_logger_set_sink(reentrant_sink, &sink_lines));
  CHECK_RESULT(ZVR_OK, zvr_logger_set_categories(ZVR_LOG_CATEGORY_REWARDS));
  CHECK_RESULT(ZVR_OK, zvr_logger_set_level(ZVR_LOG_LEVEL_LOCATED));
  zvr_rewards_place_order(NULL, NULL, NULL);
  CHECK(sink_lines == 1);
  zvr_logger_set_level(ZVR_LOG_LEVEL_OFF);
  CHECK_RESULT(ZVR_OK, zvr_logger_set_sink(NULL, NULL));
  zvr_test_drain();
}

/* ---- Requests: retries and idempotency keys ------------------------------------ */

static int orders_ended = 0;
static int32_t orders_attempts = -1;
static void ZVR_CALL on_orders_failed(zvr_order_list orders, zvr_error error, void* user) {
  int64_t type = 0;
  CHECK(orders == NULL && user == NULL);
  CHECK_RESULT(ZVR_OK, zvr_error_get_type(error, &type));
  CHECK_RESULT(ZVR_OK, zvr_error_get_attempts(error, &orders_attempts));
  orders_ended += type == ZVR_ERROR_TYPE_TRANSPORT;
}

/* Nothing listens on port 1: each attempt is refused at once. A struct of the
 * first version is read without the retry fields that lie past its size
 * (that the fields of a whole one reach the library: the C# test). */
static void check_retries(void) {
  zvr_configuration configuration = ZVR_CONFIGURATION_INIT;
  configuration.struct_size = offsetof(zvr_configuration, max_header_bytes);
  configuration.service_host = "http://127.0.0.1:1";
  configuration.app_id = "app";
  configuration.allow_insecure_http = 1;
  configuration.retry_max_attempts = 3;
  CHECK_RESULT(ZVR_OK, zvr_configure(&configuration));
  CHECK_RESULT(ZVR_OK, zvr_rewards_fetch_orders(on_orders_failed, NULL));
  CHECK(zvr_test_wait_for(&orders_ended));
  zvr_test_drain();
  CHECK(orders_ended == 1 && orders_attempts == 1);
}

static void ZVR_CALL on_long_wait(zvr_order_list orders, zvr_error error, void* user) {
  const char* code = NULL;
  CHECK(orders == NULL);
  CHECK_RESULT(ZVR_OK, zvr_error_get_code(error, &code));
  CHECK_TEXT("ZVErrorTransportConnect", code); /* refused, not timed out */
  CHECK_RESULT(ZVR_OK, zvr_error_get_attempts(error, &orders_attempts));
  *(int*)user = 1;
}

/* Any positive time is accepted, up to centuries (a host's "never"): it
 * must not wrap into the past, which would time out at once or retry
 * without waiting. */
static void check_long_waits(void) {
  const struct {
    int64_t timeout_ms, attempts, delay_ms;
  } cases[] = {
      {INT64_MAX, 1, 0},
      {(int64_t)1 << 50, 1, 0},
      {2000, 3, INT64_MAX}, /* the wait does not fit before the deadline: no retry */
      {2000, 3, (int64_t)1 << 52},
  };
  for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i) {
    zvr_configuration configuration = ZVR_CONFIGURATION_INIT;
    configuration.service_host = "http://127.0.0.1:1";
    configuration.app_id = "app";
    configuration.allow_insecure_http = 1;
    configuration.request_timeout_ms = cases[i].timeout_ms;
    configuration.retry_max_attempts = cases[i].attempts;
    configuration.retry_base_delay_ms = configuration.retry_max_delay_ms = cases[i].delay_ms;
    CHECK_RESULT(ZVR_OK, zvr_configure(&configuration));
    int ended = 0;
    CHECK_RESULT(ZVR_OK, zvr_rewards_fetch_orders(on_long_wait, &ended));
    CHECK(zvr_test_wait_for(&ended));
    CHECK(orders_attempts == 1);
  }
}

static void check_idempotency_keys(void) {
  char longest[256] = {0}, too_long[257] = {0};
  memset(longest, 'k', 255);
  memset(too_long, 'k', 256);
  /* Visible ASCII (0x21 to 0x7E), 1 to 255 bytes: each bound from both sides;
   * a UTF-8 byte is negative as a char. */
  const char* good[] = {"!~", longest};
  const char* bad[] = {"", too_long, "two words", "del\x7f", "caf\xc3\xa9"};
  zvr_order_request request = NULL;
  const char* key = NULL;
  CHECK_RESULT(ZVR_OK, zvr_order_request_create("101", 1, &request));
  for (size_t i = 0; i < 2; ++i) {
    CHECK_RESULT(ZVR_OK, zvr_order_request_set_idempotency_key(request, good[i]));
    for (size_t j = 0; j < 5; ++j)
      CHECK_RESULT(ZVR_E_INVALID_ARGUMENT, zvr_order_request_set_idempotency_key(request, bad[j]));
    CHECK_RESULT(ZVR_OK, zvr_order_request_get_idempotency_key(request, &key));
    CHECK_TEXT(good[i], key); /* a refused key leaves the request as it was */
  }
  CHECK_RESULT(ZVR_OK, zvr_order_request_set_idempotency_key(request, NULL));
  CHECK_RESULT(ZVR_OK, zvr_order_request_get_idempotency_key(request, &key));
  CHECK(key == NULL);
  zvr_release(request);
}

/* ---- Cancellation, the wake-up hook and shutdown --------------------------------- */

typedef struct {
  atomic_int calls, cancelled;
  pthread_t thread;
} ended;

static void ZVR_CALL on_ended(zvr_skill_challenge challenge, zvr_error error, void* user) {
  ended* e = user;
  int64_t type = 0;
  const char* code = NULL;
  CHECK(challenge == NULL);
  CHECK_RESULT(ZVR_OK, zvr_error_get_type(error, &type));
  if (type == ZVR_ERROR_TYPE_CANCELLED) {
    CHECK_RESULT(ZVR_OK, zvr_error_get_code(error, &code));
    CHECK_TEXT("ZVErrorCancelled", code);
    atomic_fetch_add(&e->cancelled, 1);
  }
  e->thread = pthread_self();
  atomic_fetch_add(&e->calls, 1);
}

/* A validation failure (no offer id) is queued before its call returns: a
 * delivery already waiting when the cancellation comes. */
static zvr_result fail_in(zvr_cancel_scope scope, ended* e) {
  return scope ? zvr_rewards_answer_skill_question_in_scope(scope, NULL, "q", "3", on_ended, e)
               : zvr_rewards_answer_skill_question(NULL, "q", "3", on_ended, e);
}

static void check_cancellation(void) {
  zvr_cancel_scope scope = NULL, other = NULL;
  ended a = {0}, b = {0}, c = {0};
  CHECK_RESULT(ZVR_OK, zvr_cancel_scope_create(&scope));
  CHECK_RESULT(ZVR_OK, zvr_cancel_scope_create(&other));
  CHECK_RESULT(ZVR_OK, fail_in(scope, &a));
  CHECK_RESULT(ZVR_OK, fail_in(other, &b));
  CHECK_RESULT(ZVR_OK, fail_in(NULL, &c));
  uint32_t pending = 0, queued = 0;
  CHECK_RESULT(ZVR_OK, zvr_cancel_scope_get_pending_count(scope, &pending));
  CHECK_RESULT(ZVR_OK, zvr_main_queue_get_pending_count(&queued));
  CHECK(pending == 1 && queued == 3);
  /* Cancelled by the scope and by the last release; never inside those calls. */
  CHECK_RESULT(ZVR_OK, zvr_cancel_scope_cancel(scope));
  CHECK_RESULT(ZVR_OK, zvr_release(other));
  CHECK_RESULT(ZVR_OK, zvr_cancel_scope_get_pending_count(scope, &pending));
  CHECK(pending == 0 && a.calls == 0 && b.calls == 0);
  zvr_test_drain();
  CHECK(a.calls == 1 && a.cancelled == 1 && b.calls == 1 && b.cancelled == 1 && c.calls == 1 &&
        c.cancelled == 0);

  /* A released scope starts nothing, and no callback comes. */
  CHECK_RESULT(ZVR_OK, zvr_release(scope));
  CHECK_RESULT(ZVR_E_INVALID_HANDLE, fail_in(scope, &a));
  zvr_test_drain();
  CHECK(a.calls == 1);
}

/* Cancelling on one thread while another drains: each callback once. */
static zvr_cancel_scope raced_scope;
static ended raced;
static void* start_and_cancel(void* unused) {
  (void)unused;
  for (int i = 0; i < 300; ++i) {
    CHECK_RESULT(ZVR_OK, fail_in(raced_scope, &raced));
    if (i % 3 != 2) CHECK_RESULT(ZVR_OK, zvr_cancel_scope_cancel(raced_scope));
  }
  return NULL;
}

static void check_cancellation_race(void) {
  CHECK_RESULT(ZVR_OK, zvr_cancel_scope_create(&raced_scope));
  pthread_t thread;
  pthread_create(&thread, NULL, start_and_cancel, NULL);
  while (atomic_load(&raced.calls) < 300) zvr_main_queue_drain(NULL);
  pthread_join(thread, NULL);
  zvr_test_drain();
  CHECK(raced.calls == 300 && raced.cancelled >= 100);
  zvr_release(raced_scope);
}

typedef struct {
  atomic_int calls, off_main;
} wakeups;

static void ZVR_CALL on_wakeup(void* user) {
  wakeups* w = user;
  atomic_fetch_add(&w->calls, 1);
  if (!pthread_equal(pthread_self(), main_thread)) atomic_fetch_add(&w->off_main, 1);
  /* It may be inside the call that started an operation. */
  CHECK_RESULT(ZVR_E_BUSY, zvr_main_queue_drain(NULL));
  CHECK_RESULT(ZVR_E_BUSY, zvr_rewards_cancel_all());
  CHECK_RESULT(ZVR_E_BUSY, zvr_shutdown());
}

static ended from_thread;
static void* fail_from_thread(void* unused) {
  (void)unused;
  CHECK_RESULT(ZVR_OK, fail_in(NULL, &from_thread));
  return NULL;
}

static void check_wakeup_and_shutdown(void) {
  wakeups w = {0};
  CHECK_RESULT(ZVR_OK, zvr_main_queue_set_wakeup(on_wakeup, &w));
  pthread_t thread;
  pthread_create(&thread, NULL, fail_from_thread, NULL);
  pthread_join(thread, NULL);
  CHECK(w.calls == 1 && w.off_main == 1); /* on the thread that queued */
  zvr_test_drain();
  CHECK(from_thread.calls == 1);

  /* Shutdown: the queued delivery is cancelled and called back before it
   * returns, on this thread; the hook is gone; the SDK works again. */
  ended e = {0};
  CHECK_RESULT(ZVR_OK, fail_in(NULL, &e));
  CHECK(w.calls == 2 && e.calls == 0);
  CHECK_RESULT(ZVR_OK, zvr_shutdown());
  CHECK(e.calls == 1 && e.cancelled == 1 && pthread_equal(e.thread, main_thread));
  uint32_t ran = 1;
  CHECK_RESULT(ZVR_OK, zvr_main_queue_drain(&ran));
  CHECK(ran == 0);
  CHECK_RESULT(ZVR_OK, fail_in(NULL, &e));
  zvr_test_drain();
  CHECK(w.calls == 2 && e.calls == 2 && e.cancelled == 1);
}

/* A hook may start an operation. One refused at once queues its outcome
 * inside the hook: on the I/O thread, while it hands over the answers of a
 * pass (nothing listens on port 1). */
static atomic_int hook_starts;
static void ZVR_CALL starting_wakeup(void* user) {
  static _Thread_local int inside = 0;
  if (inside) return; /* its own outcome wakes it again */
  inside = 1;
  CHECK_RESULT(ZVR_OK, fail_in(NULL, user));
  atomic_fetch_add(&hook_starts, 1);
  inside = 0;
}

static void check_wakeup_starting_operations(void) {
  zvr_configuration configuration = ZVR_CONFIGURATION_INIT;
  configuration.service_host = "http://127.0.0.1:1";
  configuration.app_id = "app";
  configuration.allow_insecure_http = 1;
  CHECK_RESULT(ZVR_OK, zvr_configure(&configuration));
  ended started = {0};
  CHECK_RESULT(ZVR_OK, zvr_main_queue_set_wakeup(starting_wakeup, &started));
  for (int round = 0; round < 5; ++round) {
    orders_ended = 0;
    CHECK_RESULT(ZVR_OK, zvr_rewards_fetch_orders(on_orders_failed, NULL));
    CHECK(zvr_test_wait_for(&orders_ended));
  }
  CHECK_RESULT(ZVR_OK, zvr_main_queue_set_wakeup(NULL, NULL));
  zvr_test_drain();
  /* The last hook may have been removed before it ran. */
  CHECK(hook_starts >= 4 && started.calls == hook_starts && started.cancelled == 0);
}

/* A hook replacing itself on the I/O thread while the host's thread replaces
 * it too: the host's call waits for the hook's, which must not wait for the
 * host's in turn. */
static atomic_int replace_step;
static void ZVR_CALL quiet_wakeup(void* user) {
  (void)user;
}
static void ZVR_CALL replacing_wakeup(void* user) {
  (void)user;
  int entered = 0;
  if (!atomic_compare_exchange_strong(&replace_step, &entered, 1)) return;
  while (atomic_load(&replace_step) != 2) sched_yield();
  const struct timespec pause = {0, 50 * 1000 * 1000};
  nanosleep(&pause, NULL); /* the host's thread is now waiting for this call */
  CHECK_RESULT(ZVR_OK, zvr_main_queue_set_wakeup(quiet_wakeup, NULL));
}

static void check_wakeup_replaced_from_both_sides(void) {
  CHECK_RESULT(ZVR_OK, zvr_main_queue_set_wakeup(replacing_wakeup, NULL));
  orders_ended = 0;
  CHECK_RESULT(ZVR_OK, zvr_rewards_fetch_orders(on_orders_failed, NULL)); /* port 1 */
  while (atomic_load(&replace_step) != 1) sched_yield();
  atomic_store(&replace_step, 2);
  CHECK_RESULT(ZVR_OK, zvr_main_queue_set_wakeup(NULL, NULL));
  CHECK(zvr_test_wait_for(&orders_ended));
  CHECK_RESULT(ZVR_OK, zvr_main_queue_set_wakeup(NULL, NULL));
}

/* ---- Threads ------------------------------------------------------------------ */

static zvr_order_request shared_request;

static void* hammer(void* unused) {
  (void)unused;
  for (int i = 0; i < 2000; ++i) {
    const char* json = NULL;
    if (zvr_retain(shared_request) != ZVR_OK) continue;
    zvr_order_request_set_email(shared_request, (i & 1) ? "odd@example.com" : "even@example.com");
    CHECK_RESULT(ZVR_OK, zvr_order_request_get_json(shared_request, &json));
    CHECK(json != NULL && strstr(json, "@example.com") != NULL);
    zvr_order_request mine = NULL;
    CHECK_RESULT(ZVR_OK, zvr_order_request_create("7", i, &mine));
    CHECK_RESULT(ZVR_OK, zvr_release(mine));
    CHECK_RESULT(ZVR_E_INVALID_HANDLE, zvr_release(mine));
    CHECK_RESULT(ZVR_OK, zvr_release(shared_request));
  }
  return NULL;
}

static void check_threads(void) {
  CHECK_RESULT(ZVR_OK, zvr_order_request_create("7", 1, &shared_request));
  pthread_t threads[4];
  for (int i = 0; i < 4; ++i) pthread_create(&threads[i], NULL, hammer, NULL);
  for (int i = 0; i < 4; ++i) pthread_join(threads[i], NULL);
  CHECK_RESULT(ZVR_OK, zvr_release(shared_request));
}

int main(void) {
  main_thread = pthread_self();
  uint32_t before = 0, after = 0;
  CHECK_RESULT(ZVR_OK, zvr_handle_count(&before));
  CHECK(zvr_api_version() >> 16 == ZVR_API_VERSION >> 16);

  check_null_and_made_up_handles();
  check_released_and_mistyped_handles();
  check_stale_handles_never_alias();
  check_versioned_structs();
  check_callbacks();
  check_subscriptions();
  check_log_sink();
  check_threads();
  check_idempotency_keys();
  check_cancellation();
  check_cancellation_race();
  check_wakeup_and_shutdown();
  check_retries();
  check_long_waits();
  check_wakeup_starting_operations();
  check_wakeup_replaced_from_both_sides();

  CHECK_RESULT(ZVR_OK, zvr_handle_count(&after));
  CHECK(after == before);
  if (zvr_test_failures) fprintf(stderr, "%d check(s) failed\n", zvr_test_failures);
  return zvr_test_failures ? 1 : 0;
}
