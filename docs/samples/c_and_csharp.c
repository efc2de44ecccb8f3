/* Samples of docs/c-and-csharp.md: the C interface as a game written in C
 * uses it. Compiled (C99) with the other samples; not run. */
#include <stdio.h>

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

int main(void) {
  int64_t balance = 0;
  start_rewards("token");
  show_rewards(NULL);
  redeem("101", NULL);
  zvr_notifications_unsubscribe(watch_balance(&balance));
  game_frame();
  return 0;
}
