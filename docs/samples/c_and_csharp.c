/* Samples of docs/c-and-csharp.md: the C interface as a game written in C
 * uses it. Compiled (C99) with the other samples; not run. */
#define _POSIX_C_SOURCE 200809L
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <ZorvaneRewardsKitC/zorvane_rewards.h>

static void add_row(const char* id, const char* name, long long points) {
  printf("%s %s %lld\n", id, name ? name : "", points);
}
static void show_error(const char* text) {
  printf("%s\n", text);
}

//! [c_configure]
void start_rewards(const char* user_token) {
  zvr_configuration configuration = ZVR_CONFIGURATION_INIT; /* sets struct_size */
  configuration.service_host = "rewards.example.com";
  configuration.app_id = "my-game";
  configuration.access_token = user_token; /* copied: may be freed after the call */
  if (zvr_configure(&configuration) != ZVR_OK) show_error("bad configuration");
}
//! [c_configure]

//! [c_fetch_offers]
/* Static, with the game's state coming back through `user`. Runs on the
 * thread that drains the main queue; `offers` and `error` are borrowed. */
static void on_offers(zvr_offer_list offers, zvr_error error, void* user) {
  (void)user;
  if (error != NULL) {
    const char* message = NULL;
    zvr_error_get_message(error, &message);
    show_error(message ? message : "Could not load rewards");
    return;
  }
  uint32_t count = 0;
  zvr_offer_list_get_count(offers, &count);
  for (uint32_t i = 0; i < count; ++i) {
    zvr_offer offer = NULL;
    const char *id = NULL, *name = NULL;
    int64_t points = 0;
    zvr_offer_list_get_at(offers, i, &offer); /* a reference of our own */
    zvr_offer_get_id(offer, &id);             /* owned by `offer` */
    zvr_offer_get_name(offer, &name);
    zvr_offer_get_points(offer, &points);
    add_row(id, name, (long long)points);
    zvr_release(offer); /* frees `id` and `name` too */
  }
}

void show_rewards(void* screen) {
  zvr_result started = zvr_rewards_fetch_offers(on_offers, screen);
  if (started != ZVR_OK) show_error(zvr_result_name(started)); /* no callback comes */
}

/* Once a frame: callbacks and notifications run here, on this thread. */
void game_frame(void) {
  zvr_main_queue_drain(NULL);
}
//! [c_fetch_offers]

//! [c_order]
static void on_order(zvr_order order, zvr_error error, void* user) {
  (void)user;
  const char* id = NULL;
  if (order != NULL && zvr_order_get_id(order, &id) == ZVR_OK) printf("order %s\n", id);
  if (error != NULL) show_error("The reward could not be redeemed");
}

void redeem(const char* offer_id, const char* challenge_id) {
  zvr_order_request request = NULL;
  if (zvr_order_request_create(offer_id, 1, &request) != ZVR_OK) return;
  zvr_order_request_set_challenge_id(request, challenge_id); /* NULL: none */
  zvr_rewards_place_order(request, on_order, NULL);          /* reads the request now */
  zvr_release(request);
}
//! [c_order]

//! [c_notifications]
static void on_balance(zvr_notification notification, void* user) {
  int64_t available = 0, test = 0;
  if (zvr_notification_get_balances(notification, &available, &test) == ZVR_OK)
    *(int64_t*)user = available;
}

uint64_t watch_balance(int64_t* balance) {
  uint64_t subscription = 0;
  zvr_notifications_subscribe(ZVR_NOTIFICATION_USER_DID_UPDATE, on_balance, balance, &subscription);
  return subscription; /* zvr_notifications_unsubscribe(subscription) before freeing `balance` */
}
//! [c_notifications]

//! [c_screen_scope]
/* A screen owns a scope: closing it cancels what the screen started. Each
 * call carries data of its own, freed in the callback, which comes exactly
 * once: with a result, an error, or the cancellation. */
typedef struct {
  zvr_cancel_scope scope;
  int rows;
} rewards_screen;

typedef struct {
  rewards_screen* screen;
} offers_call;

static void on_screen_offers(zvr_offer_list offers, zvr_error error, void* user) {
  offers_call* call = user;
  int64_t type = 0;
  if (error != NULL) zvr_error_get_type(error, &type);
  if (type != ZVR_ERROR_TYPE_CANCELLED) { /* not cancelled: the screen is still open */
    uint32_t count = 0;
    zvr_offer_list_get_count(offers, &count); /* 0 on an error: `offers` is NULL */
    call->screen->rows = (int)count;
  }
  free(call);
}

void screen_open(rewards_screen* screen) {
  offers_call* call = malloc(sizeof *call);
  if (call == NULL || zvr_cancel_scope_create(&screen->scope) != ZVR_OK) {
    free(call);
    return;
  }
  call->screen = screen;
  if (zvr_rewards_fetch_offers_in_scope(screen->scope, NULL, 0, on_screen_offers, call) != ZVR_OK)
    free(call); /* refused: no callback comes */
}

/* After this, no callback touches `screen`: those still owed come cancelled. */
void screen_close(rewards_screen* screen) {
  zvr_release(screen->scope); /* the last reference: cancels the scope */
  screen->scope = NULL;
}
//! [c_screen_scope]

//! [c_wakeup]
/* A loop that sleeps until there is work. The hook runs on whichever thread
 * queues a task: it only writes a byte to a pipe that the loop polls. */
static int wake_pipe[2];

static void on_wakeup(void* user) {
  (void)user;
  const char byte = 1;
  if (write(wake_pipe[1], &byte, 1) < 0) { /* full: the loop wakes anyway */
  }
}

void run_event_loop(volatile int* running) {
  if (pipe(wake_pipe) != 0) return;
  fcntl(wake_pipe[0], F_SETFL, O_NONBLOCK);
  fcntl(wake_pipe[1], F_SETFL, O_NONBLOCK);
  zvr_main_queue_set_wakeup(on_wakeup, NULL);
  while (*running) {
    zvr_main_queue_drain(NULL); /* first: tasks queued before the hook was set */
    struct pollfd woken = {wake_pipe[0], POLLIN, 0};
    poll(&woken, 1, 1000); /* and the game's own events... */
    char bytes[64];
    while (read(wake_pipe[0], bytes, sizeof bytes) > 0) {
    }
  }
  zvr_main_queue_set_wakeup(NULL, NULL); /* once it returns, the hook is not running */
  close(wake_pipe[0]);
  close(wake_pipe[1]);
}
//! [c_wakeup]

//! [c_order_key]
/* Retries are off by default. With them on, an order goes again after a
 * lost answer, always with its idempotency key, so it is charged once. */
void enable_retries(zvr_configuration* configuration) {
  configuration->retry_max_attempts = 4; /* the first attempt and up to three retries */
  configuration->retry_base_delay_ms = 250;
  zvr_configure(configuration);
}

/* Across a restart: the game saved the key with the order before placing it,
 * and places it again with the same key until its outcome is known. */
void place_saved_order(const char* offer_id, const char* saved_key) {
  zvr_order_request request = NULL;
  if (zvr_order_request_create(offer_id, 1, &request) != ZVR_OK) return;
  if (zvr_order_request_set_idempotency_key(request, saved_key) == ZVR_OK)
    zvr_rewards_place_order(request, on_order, NULL);
  zvr_release(request);
}
//! [c_order_key]

//! [c_shutdown]
/* The game quits, or unloads the plugin: from the game's thread, not from a
 * callback. Every callback still owed has run (cancelled) when it returns,
 * and the wake-up hook and log sink are gone; subscriptions stay. */
void quit_rewards(uint64_t balance_subscription) {
  zvr_notifications_unsubscribe(balance_subscription);
  zvr_shutdown();
}
//! [c_shutdown]

int main(void) {
  int64_t balance = 0;
  start_rewards("token");
  show_rewards(NULL);
  redeem("101", NULL);
  rewards_screen screen = {NULL, 0};
  volatile int running = 0;
  zvr_configuration configuration = ZVR_CONFIGURATION_INIT;
  configuration.service_host = "rewards.example.com";
  screen_open(&screen);
  screen_close(&screen);
  run_event_loop(&running);
  enable_retries(&configuration);
  place_saved_order("101", "order-2f9c81e0-user-42-offer-101");
  game_frame();
  quit_rewards(watch_balance(&balance));
  return 0;
}
