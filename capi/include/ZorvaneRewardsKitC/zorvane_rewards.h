/* The C interface of ZorvaneRewardsKit: the rewards manager, its records and
 * the SDK's runtime (main queue, notifications, logger) for hosts that cannot
 * use the C++ API: C, C# through P/Invoke (Unity, IL2CPP included), Rust,
 * Swift, Python, and C++ built without exceptions or RTTI.
 *
 * C99, no C++ type anywhere; the same header compiles as C++.
 *
 * Library: libZorvaneRewardsKitC (CMake target ZorvaneRewardsKit::C,
 * pkg-config zorvane-rewards-kit-c). It exports only the zvr_ functions below.
 *
 * Rules that hold for every function
 * ----------------------------------
 * Results. Every function returns a zvr_result (ZVR_OK on success), except
 *   the version and name functions that cannot fail. Nothing throws or aborts
 *   across this interface. When a call fails and its output pointer is valid,
 *   the output is set to NULL / 0, so that a caller that ignores the result
 *   reads "absent" rather than garbage. New result codes may be added: treat
 *   any non-zero value as a failure.
 *
 * Handles. Records, lists, errors, notifications, order requests and
 *   cancel scopes are opaque handles. A handle is not an address: it names a slot of the
 *   library's handle table together with the slot's generation, so that every
 *   use can be checked. NULL gives ZVR_E_NULL_HANDLE; a handle whose last
 *   reference is gone (so also a second release), or any value the library
 *   never issued, gives ZVR_E_INVALID_HANDLE, never a crash; a live handle of
 *   another kind gives ZVR_E_WRONG_HANDLE_TYPE. A released slot comes back
 *   only with a new generation, so a stale handle never turns into another
 *   live object.
 *   (On 32-bit platforms a slot is retired for good after 4095 reuses, so the
 *   check stays exact there too.)
 *
 * Ownership. A handle returned through an output parameter (zvr_..._get_...,
 *   zvr_..._create, zvr_..._at) carries one reference, which the caller gives
 *   back with zvr_release. zvr_retain adds a reference. Handles passed to a
 *   callback are borrowed: valid until the callback returns; retain one to
 *   keep it. The library allocates and frees all of its memory: never free()
 *   anything it returns.
 *
 * Strings. Strings passed in are copied before the call returns (the caller
 *   may free them at once); NULL means "absent". Strings handed out are
 *   UTF-8, NUL-terminated, owned by the handle they were read from, and stay
 *   valid, unchanged, until that handle's last reference is released (asking
 *   a record twice gives the same pointer). NULL means absent.
 *
 * Threads. Every function may be called from any thread. Completion
 *   callbacks, and the callbacks of every notification the SDK posts, run on
 *   the main queue, that is on the thread that calls zvr_main_queue_drain /
 *   zvr_main_queue_run_until, or on the queue's dedicated thread once
 *   started; never inside the call that started the operation. (A
 *   notification that C++ code of the host posts itself arrives on the
 *   posting thread; the cancellations that zvr_shutdown delivers run on the
 *   thread that calls it.) The log sink runs on the thread that logs; the
 *   wake-up hook on the thread that queues a task.
 *
 * Callbacks. Every callback takes a `void* user`, passed back unchanged
 *   (NULL is fine). A function that takes a completion callback and returns
 *   ZVR_OK calls it exactly once, with either a result or an error, the other
 *   being NULL, also when the operation is cancelled (below): the callback is
 *   always the place to free per-call data. A function that returns an error
 *   never calls it. A NULL callback is allowed: the operation runs and its
 *   notification is posted. (Should the handle table be full or memory run
 *   out when the outcome is delivered, the callback still runs once, with
 *   both NULL.) Callbacks must return normally: no C++ exception, longjmp or
 *   panic may unwind through the library.
 *
 * Cancellation. An operation that has not called its callback yet is
 *   cancelled by its scope (zvr_cancel_scope_cancel, or the scope's last
 *   release), by zvr_rewards_cancel_all or by zvr_shutdown, whether its
 *   request is in flight or its outcome already queued. Nothing more comes of
 *   it: no notification, and an answer arriving later changes no state. Its
 *   callback is then called once, with a NULL result and an error of type
 *   ZVR_ERROR_TYPE_CANCELLED, later, on the main queue like any other
 *   callback (never inside the call that cancelled it), except that
 *   zvr_shutdown calls those still undelivered itself before it returns.
 *
 * Compatibility. Within a major version (ZVR_API_VERSION >> 16) the ABI never
 *   breaks: functions, callback types and struct fields are only added, never
 *   changed or removed. Structs passed in start with `struct_size`, set to
 *   sizeof the struct as the caller compiled it: a newer library reads an
 *   older struct (fields beyond it take their defaults), and an older library
 *   refuses a newer struct only when a byte it does not know is non-zero
 *   (zero the struct before filling it).
 */
#ifndef ZORVANE_REWARDS_KIT_C_H
#define ZORVANE_REWARDS_KIT_C_H

#include <stdint.h>

#if defined(_WIN32)
#define ZVR_CALL __cdecl
#if defined(ZVR_STATIC)
#define ZVR_API
#elif defined(ZVR_BUILDING)
#define ZVR_API __declspec(dllexport)
#else
#define ZVR_API __declspec(dllimport)
#endif
#else
#define ZVR_CALL
#define ZVR_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Versions and results ------------------------------------------------ */

/** Major version in the upper 16 bits, minor in the lower 16. Minor 1 added
 *  cancellation, zvr_shutdown, the wake-up hook, the request limits and
 *  retries of zvr_configuration, idempotency keys and error attempts. */
#define ZVR_API_VERSION ((1u << 16) | 1u)

/** The ZVR_API_VERSION the library was built with. A host may check at start
 *  that the major versions match and the library's minor is not older. */
ZVR_API uint32_t ZVR_CALL zvr_api_version(void);
/** The SDK's version number (ZorvaneRewardsKitVersionNumber), 3.0. */
ZVR_API double ZVR_CALL zvr_sdk_version_number(void);
/** The SDK's version string (ZorvaneRewardsKitVersionString), static. */
ZVR_API const char* ZVR_CALL zvr_sdk_version_string(void);

typedef int32_t zvr_result;
enum zvr_result_code {
  ZVR_OK = 0,
  ZVR_E_NULL_HANDLE = 1,        /**< a NULL handle where one is required */
  ZVR_E_INVALID_HANDLE = 2,     /**< released (or released twice), stale, or never issued */
  ZVR_E_WRONG_HANDLE_TYPE = 3,  /**< a live handle of another kind */
  ZVR_E_INVALID_ARGUMENT = 4,   /**< NULL output pointer, unknown field, NULL callback... */
  ZVR_E_UNSUPPORTED_STRUCT = 5, /**< struct_size too small, or a newer field is set */
  ZVR_E_NOT_TEXT = 6,           /**< the field holds a JSON value that is not a string */
  ZVR_E_OUT_OF_RANGE = 7,       /**< an index past the end of a list */
  ZVR_E_NO_VALUE = 8,           /**< the notification carries no such value */
  ZVR_E_BUSY = 9,               /**< not allowed from inside this callback */
  ZVR_E_OUT_OF_MEMORY = 10,
  ZVR_E_TOO_MANY_HANDLES = 11, /**< the handle table is full */
  ZVR_E_INTERNAL = 99          /**< an unexpected failure inside the SDK */
};
/** The code's name ("ZVR_OK", "ZVR_E_INVALID_HANDLE"...), or "ZVR_E_UNKNOWN". Static. */
ZVR_API const char* ZVR_CALL zvr_result_name(zvr_result result);

/* ---- Handles ------------------------------------------------------------- */

typedef struct zvr_offer_t* zvr_offer;
typedef struct zvr_offer_list_t* zvr_offer_list;
typedef struct zvr_order_t* zvr_order;
typedef struct zvr_order_list_t* zvr_order_list;
typedef struct zvr_order_user_t* zvr_order_user;
typedef struct zvr_address_t* zvr_address;
typedef struct zvr_skill_question_t* zvr_skill_question;
typedef struct zvr_skill_challenge_t* zvr_skill_challenge;
typedef struct zvr_error_t* zvr_error;
typedef struct zvr_notification_t* zvr_notification;
typedef struct zvr_order_request_t* zvr_order_request;
typedef struct zvr_cancel_scope_t* zvr_cancel_scope;

/** Adds a reference to any handle. */
ZVR_API zvr_result ZVR_CALL zvr_retain(const void* handle);
/** Gives back one reference to any handle; the last one frees it and the
 *  strings read from it. A second release of a freed handle gives
 *  ZVR_E_INVALID_HANDLE. */
ZVR_API zvr_result ZVR_CALL zvr_release(const void* handle);
/** How many handles are live: for leak checks in a host's tests. */
ZVR_API zvr_result ZVR_CALL zvr_handle_count(uint32_t* out_count);

/* ---- Configuration ------------------------------------------------------- */

/** Everything a host configures. Zero (NULL) in a field means its default.
 *  Start from ZVR_CONFIGURATION_INIT, or zero the struct and set struct_size. */
typedef struct zvr_configuration {
  uint32_t struct_size;         /**< sizeof(zvr_configuration) as the caller compiled it */
  uint32_t allow_insecure_http; /**< non-zero: allow "http://" (a local sandbox). Default 0 */
  /** The rewards service: "rewards.example.com", "host:8443" or with a scheme,
   *  "http://127.0.0.1:8080". REQUIRED before the first request. */
  const char* service_host;
  const char* app_id;       /**< fills ":appid" of the service's URLs */
  const char* access_token; /**< sent as a Bearer token; never logged */
  const char* ca_file;      /**< PEM file of extra CAs to trust. Default: system store */
  /** The locale of the SDK's requests ("fr_CA"). Default: the device's. */
  const char* locale;
  int64_t connect_timeout_ms; /**< Default 10000 */
  int64_t request_timeout_ms; /**< whole exchange. Default 30000 */
  /** Larger answer bodies fail (ZVErrorAnswerTooLarge). Default: the C++
   *  SDK's, ZVConfiguration::maxResponseBytes (docs/configuration.md). */
  uint64_t max_response_bytes;

  /* Added in version 1.1 (zero: the default, as above). A negative value
   * gives ZVR_E_INVALID_ARGUMENT. */

  /** An answer's header and trailer lines past this size fail
   *  (ZVErrorAnswerTooLarge). Default: ZVConfiguration::maxHeaderBytes. */
  uint64_t max_header_bytes;
  /** Calls under way at once, all operations together; one more fails at
   *  once, unsent (ZVErrorTooManyRequests). Default:
   *  ZVConfiguration::maxRequestsInFlight. */
  uint64_t max_requests_in_flight;
  /** Retries (docs/retries.md), off by default: attempts per call, the first
   *  included (at most INT32_MAX). Default: ZVRetryPolicy::maxAttempts, 1,
   *  which never retries. */
  int64_t retry_max_attempts;
  /** The wait before attempt n+1 is drawn from [0, min(max delay, base delay
   *  * 2^(n-1))]. Defaults: ZVRetryPolicy::baseDelay and maxDelay. */
  int64_t retry_base_delay_ms;
  int64_t retry_max_delay_ms;
  /** The longest Retry-After honoured. Default: ZVRetryPolicy::maxRetryAfter. */
  int64_t retry_max_retry_after_ms;
  /** Time allowed to one attempt. Default (0): what is left of the request
   *  timeout. */
  int64_t retry_attempt_timeout_ms;
} zvr_configuration;

#define ZVR_CONFIGURATION_INIT \
  { sizeof(zvr_configuration), 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0 }

/** Replaces the whole configuration (and the custom locale); applies to the
 *  requests sent after the call. ZVR_E_UNSUPPORTED_STRUCT when struct_size is
 *  smaller than the first version of the struct, or larger than this
 *  library's and a field it does not know is non-zero. */
ZVR_API zvr_result ZVR_CALL zvr_configure(const zvr_configuration* configuration);

/* ---- Errors -------------------------------------------------------------- */

/** Error types (zvr_error_get_type). New types may be added. */
enum zvr_error_type {
  /** No HTTP answer: DNS, refused, reset, TLS, timeout; or not sent because
   *  max_requests_in_flight calls were under way (ZVErrorTooManyRequests). */
  ZVR_ERROR_TYPE_TRANSPORT = 1,
  /** An argument was missing or cannot be sent (an offer or question id
   *  that is "." or "..": ZVErrorInvalidPathValue); nothing was sent. */
  ZVR_ERROR_TYPE_VALIDATION = 2,
  ZVR_ERROR_TYPE_SERVICE = 3, /**< the service answered "status" other than "ok" */
  /** The final answer's status was not 2xx: 400 or above (ZVErrorHTTPStatus),
   *  or 1xx or 3xx (ZVErrorHTTPUnexpectedStatus; redirects are not followed). */
  ZVR_ERROR_TYPE_HTTP = 4,
  /** Not JSON, not an object, larger than max_response_bytes,
   *  max_header_bytes or the decoding limits max_response_bytes sets
   *  (ZVErrorAnswerTooLarge), or no memory for its records
   *  (ZVErrorAnswerNotDecoded). */
  ZVR_ERROR_TYPE_INVALID_ANSWER = 5,
  ZVR_ERROR_TYPE_CONFIGURATION = 6, /**< not configured to send the request */
  /** This interface's own: the operation was cancelled (see Cancellation at
   *  the top), code "ZVErrorCancelled". Never in a notification. */
  ZVR_ERROR_TYPE_CANCELLED = 100
};

ZVR_API zvr_result ZVR_CALL zvr_error_get_type(zvr_error error, int64_t* out_type);
/** The code constant, or NULL when none. The codes are those of the C++
 *  SDK's ZVError.h (new ones may be added), among them: transport
 *  "ZVErrorTransportConnect", "...Timeout", "...TLS", "...Reset", "...Other",
 *  "ZVErrorTooManyRequests"; validation "ZVErrorServerNoRequest",
 *  "ZVErrorValidationNoOfferID", "...NoQuestionID", "...NoAnswer",
 *  "ZVErrorInvalidPathValue", "ZVErrorInvalidIdempotencyKey",
 *  "ZVErrorInvalidBody"; HTTP
 *  "ZVErrorHTTPStatus", "ZVErrorHTTPUnexpectedStatus"; invalid answer
 *  "ZVErrorAnswerNotJSON", "ZVErrorAnswerNotObject", "ZVErrorAnswerTooLarge",
 *  "ZVErrorAnswerNotDecoded"; configuration "ZVErrorNotConfigured"; and
 *  "ZVErrorCancelled", this interface's own. */
ZVR_API zvr_result ZVR_CALL zvr_error_get_code(zvr_error error, const char** out_code);
/** A human-readable text, or NULL. */
ZVR_API zvr_result ZVR_CALL zvr_error_get_message(zvr_error error, const char** out_message);
/** The HTTP status behind the error, or 0. */
ZVR_API zvr_result ZVR_CALL zvr_error_get_http_status(zvr_error error, int32_t* out_status);
/** The service's answer body as JSON text, or NULL when the error has none. */
ZVR_API zvr_result ZVR_CALL zvr_error_get_raw_json(zvr_error error, const char** out_json);
/** Type, code and message on one line, for logs (never the access token). */
ZVR_API zvr_result ZVR_CALL zvr_error_get_description(zvr_error error, const char** out_text);
/** How many times the request was sent: more than 1 only with retries on
 *  (the message then ends with "(after N attempts)"); 0 when it never was
 *  (validation, too many requests, cancellation). */
ZVR_API zvr_result ZVR_CALL zvr_error_get_attempts(zvr_error error, int32_t* out_attempts);

/* ---- Records --------------------------------------------------------------
 * Read-only views of the records the SDK built from the service's answers.
 *
 * Fields marked "text" hold whatever JSON value stood under their key. Their
 * getter gives the text when the value is a string, NULL when it is absent or
 * the JSON null, and ZVR_E_NOT_TEXT (with NULL) for any other JSON value;
 * zvr_*_get_field_json gives any of them as raw JSON text (NULL when absent,
 * "null" for the JSON null). Identifiers are always text or NULL.
 * zvr_*_get_json gives the whole record as a JSON object whose members are
 * named after the getters (absent fields left out, nested records nested). */

/** Offer status values (zvr_offer_get_status). */
enum zvr_offer_status {
  ZVR_OFFER_STATUS_UNKNOWN = 0,
  ZVR_OFFER_STATUS_AVAILABLE = 1,
  ZVR_OFFER_STATUS_VERIFICATION_REQUIRED = 2,
  ZVR_OFFER_STATUS_NOT_QUALIFIED = 3,
  ZVR_OFFER_STATUS_INSUFFICIENT_POINTS = 4,
  ZVR_OFFER_STATUS_USER_REQUIRED = 5,
  ZVR_OFFER_STATUS_REGISTRATION_REQUIRED = 6
};

/** Fields readable as raw JSON with zvr_offer_get_field_json. */
enum zvr_offer_field {
  ZVR_OFFER_FIELD_NAME = 1,
  ZVR_OFFER_FIELD_TYPE = 2,
  ZVR_OFFER_FIELD_DETAILS = 3,
  ZVR_OFFER_FIELD_DESCRIPTION_TEXT = 4,
  ZVR_OFFER_FIELD_START_TIME = 5,
  ZVR_OFFER_FIELD_END_TIME = 6,
  ZVR_OFFER_FIELD_TIER = 7,
  ZVR_OFFER_FIELD_LOGO_URL = 8,
  ZVR_OFFER_FIELD_DATA = 9,   /**< the service's "data" object */
  ZVR_OFFER_FIELD_EXTRAS = 10 /**< the keys the record did not consume */
};

ZVR_API zvr_result ZVR_CALL zvr_offer_get_id(zvr_offer offer, const char** out);
ZVR_API zvr_result ZVR_CALL zvr_offer_get_name(zvr_offer offer, const char** out);    /**< text */
ZVR_API zvr_result ZVR_CALL zvr_offer_get_type(zvr_offer offer, const char** out);    /**< text */
ZVR_API zvr_result ZVR_CALL zvr_offer_get_details(zvr_offer offer, const char** out); /**< text */
ZVR_API zvr_result ZVR_CALL zvr_offer_get_description_text(zvr_offer offer, const char** out);
ZVR_API zvr_result ZVR_CALL zvr_offer_get_points(zvr_offer offer, int64_t* out);
ZVR_API zvr_result ZVR_CALL zvr_offer_get_start_time(zvr_offer offer, const char** out);
ZVR_API zvr_result ZVR_CALL zvr_offer_get_end_time(zvr_offer offer, const char** out);
ZVR_API zvr_result ZVR_CALL zvr_offer_get_weight(zvr_offer offer, int64_t* out);
/** 1 or 0. */
ZVR_API zvr_result ZVR_CALL zvr_offer_get_is_featured(zvr_offer offer, int32_t* out);
/** 1 when the skill-testing question must be answered before ordering. */
ZVR_API zvr_result ZVR_CALL zvr_offer_get_is_skill_challenge_required(zvr_offer offer,
                                                                      int32_t* out);
ZVR_API zvr_result ZVR_CALL zvr_offer_get_tier(zvr_offer offer, const char** out); /**< text */
ZVR_API zvr_result ZVR_CALL zvr_offer_get_logo_url(zvr_offer offer, const char** out);
/** A zvr_offer_status value. */
ZVR_API zvr_result ZVR_CALL zvr_offer_get_status(zvr_offer offer, int64_t* out);
/** The status word: "available"..., "unknown" outside the table. */
ZVR_API zvr_result ZVR_CALL zvr_offer_get_status_text(zvr_offer offer, const char** out);
/** The offer's options, themselves offers (with options of their own, to any
 *  depth). NULL only for an empty record. */
ZVR_API zvr_result ZVR_CALL zvr_offer_get_options(zvr_offer offer, zvr_offer_list* out);
/** A field (enum zvr_offer_field) as raw JSON text. */
ZVR_API zvr_result ZVR_CALL zvr_offer_get_field_json(zvr_offer offer, int32_t field,
                                                     const char** out);
ZVR_API zvr_result ZVR_CALL zvr_offer_get_json(zvr_offer offer, const char** out);
/** The debugging text, lines separated by carriage returns. */
ZVR_API zvr_result ZVR_CALL zvr_offer_get_description(zvr_offer offer, const char** out);

ZVR_API zvr_result ZVR_CALL zvr_offer_list_get_count(zvr_offer_list list, uint32_t* out);
/** The offer at `index` (a new reference). */
ZVR_API zvr_result ZVR_CALL zvr_offer_list_get_at(zvr_offer_list list, uint32_t index,
                                                  zvr_offer* out);
/** The list as a JSON array of zvr_offer_get_json objects. */
ZVR_API zvr_result ZVR_CALL zvr_offer_list_get_json(zvr_offer_list list, const char** out);

/** Order status values (zvr_order_get_status). */
enum zvr_order_status {
  ZVR_ORDER_STATUS_UNKNOWN = 0,
  ZVR_ORDER_STATUS_APPROVED = 1,
  ZVR_ORDER_STATUS_REJECTED = 2,
  ZVR_ORDER_STATUS_PENDING_APPROVAL = 3,
  ZVR_ORDER_STATUS_REDEMPTION_ERROR = 4
};

/** Fields readable as raw JSON with zvr_order_get_field_json. */
enum zvr_order_field {
  ZVR_ORDER_FIELD_CREATED_TIME = 1,
  ZVR_ORDER_FIELD_NAME = 2,
  ZVR_ORDER_FIELD_LOGO_URL = 3,
  ZVR_ORDER_FIELD_DETAILS = 4,
  ZVR_ORDER_FIELD_DESCRIPTION_TEXT = 5,
  ZVR_ORDER_FIELD_DATA = 6,
  ZVR_ORDER_FIELD_EXTRAS = 7
};

ZVR_API zvr_result ZVR_CALL zvr_order_get_id(zvr_order order, const char** out);
ZVR_API zvr_result ZVR_CALL zvr_order_get_offer_type(zvr_order order, const char** out);
ZVR_API zvr_result ZVR_CALL zvr_order_get_user_id(zvr_order order, const char** out);
ZVR_API zvr_result ZVR_CALL zvr_order_get_external_id(zvr_order order, const char** out);
ZVR_API zvr_result ZVR_CALL zvr_order_get_offer_id(zvr_order order, const char** out);
/** The user summary with the balances after the order; NULL only for an empty record. */
ZVR_API zvr_result ZVR_CALL zvr_order_get_user(zvr_order order, zvr_order_user* out);
ZVR_API zvr_result ZVR_CALL zvr_order_get_quantity(zvr_order order, int64_t* out);
ZVR_API zvr_result ZVR_CALL zvr_order_get_points(zvr_order order, int64_t* out);
ZVR_API zvr_result ZVR_CALL zvr_order_get_created_time(zvr_order order, const char** out);
ZVR_API zvr_result ZVR_CALL zvr_order_get_name(zvr_order order, const char** out); /**< text */
ZVR_API zvr_result ZVR_CALL zvr_order_get_logo_url(zvr_order order, const char** out);
ZVR_API zvr_result ZVR_CALL zvr_order_get_details(zvr_order order, const char** out);
ZVR_API zvr_result ZVR_CALL zvr_order_get_description_text(zvr_order order, const char** out);
/** NULL when the order has no shipping address. */
ZVR_API zvr_result ZVR_CALL zvr_order_get_shipping_address(zvr_order order, zvr_address* out);
/** A zvr_order_status value. */
ZVR_API zvr_result ZVR_CALL zvr_order_get_status(zvr_order order, int64_t* out);
/** "approved"..., "unknown" outside the table. */
ZVR_API zvr_result ZVR_CALL zvr_order_get_status_text(zvr_order order, const char** out);
ZVR_API zvr_result ZVR_CALL zvr_order_get_field_json(zvr_order order, int32_t field,
                                                     const char** out);
ZVR_API zvr_result ZVR_CALL zvr_order_get_json(zvr_order order, const char** out);
ZVR_API zvr_result ZVR_CALL zvr_order_get_description(zvr_order order, const char** out);

ZVR_API zvr_result ZVR_CALL zvr_order_list_get_count(zvr_order_list list, uint32_t* out);
ZVR_API zvr_result ZVR_CALL zvr_order_list_get_at(zvr_order_list list, uint32_t index,
                                                  zvr_order* out);
ZVR_API zvr_result ZVR_CALL zvr_order_list_get_json(zvr_order_list list, const char** out);

ZVR_API zvr_result ZVR_CALL zvr_order_user_get_id(zvr_order_user user, const char** out);
ZVR_API zvr_result ZVR_CALL zvr_order_user_get_available_points(zvr_order_user user, int64_t* out);
ZVR_API zvr_result ZVR_CALL zvr_order_user_get_test_points(zvr_order_user user, int64_t* out);
ZVR_API zvr_result ZVR_CALL zvr_order_user_get_json(zvr_order_user user, const char** out);

ZVR_API zvr_result ZVR_CALL zvr_address_get_name(zvr_address address, const char** out);
ZVR_API zvr_result ZVR_CALL zvr_address_get_street1(zvr_address address, const char** out);
ZVR_API zvr_result ZVR_CALL zvr_address_get_street2(zvr_address address, const char** out);
ZVR_API zvr_result ZVR_CALL zvr_address_get_city(zvr_address address, const char** out);
/** State or province. */
ZVR_API zvr_result ZVR_CALL zvr_address_get_region(zvr_address address, const char** out);
ZVR_API zvr_result ZVR_CALL zvr_address_get_postal_code(zvr_address address, const char** out);
ZVR_API zvr_result ZVR_CALL zvr_address_get_country(zvr_address address, const char** out);
ZVR_API zvr_result ZVR_CALL zvr_address_get_phone(zvr_address address, const char** out);
/** The keys the record did not consume, as a JSON object, or NULL. */
ZVR_API zvr_result ZVR_CALL zvr_address_get_extras_json(zvr_address address, const char** out);
ZVR_API zvr_result ZVR_CALL zvr_address_get_json(zvr_address address, const char** out);

/** Fields readable as raw JSON with zvr_skill_question_get_field_json. */
enum zvr_skill_question_field {
  ZVR_SKILL_QUESTION_FIELD_QUESTION = 1,
  ZVR_SKILL_QUESTION_FIELD_EXTRAS = 2
};
ZVR_API zvr_result ZVR_CALL zvr_skill_question_get_id(zvr_skill_question question,
                                                      const char** out);
/** text */
ZVR_API zvr_result ZVR_CALL zvr_skill_question_get_question(zvr_skill_question question,
                                                            const char** out);
ZVR_API zvr_result ZVR_CALL zvr_skill_question_get_field_json(zvr_skill_question question,
                                                              int32_t field, const char** out);
ZVR_API zvr_result ZVR_CALL zvr_skill_question_get_json(zvr_skill_question question,
                                                        const char** out);
ZVR_API zvr_result ZVR_CALL zvr_skill_question_get_description(zvr_skill_question question,
                                                               const char** out);

/** Fields readable as raw JSON with zvr_skill_challenge_get_field_json. */
enum zvr_skill_challenge_field {
  ZVR_SKILL_CHALLENGE_FIELD_STATUS = 1,
  ZVR_SKILL_CHALLENGE_FIELD_EXTRAS = 2
};
/** The id to put into the order request (zvr_order_request_set_challenge_id). */
ZVR_API zvr_result ZVR_CALL zvr_skill_challenge_get_id(zvr_skill_challenge challenge,
                                                       const char** out);
/** The service's verdict word, as it wrote it ("passed", "failed"). text */
ZVR_API zvr_result ZVR_CALL zvr_skill_challenge_get_status(zvr_skill_challenge challenge,
                                                           const char** out);
ZVR_API zvr_result ZVR_CALL zvr_skill_challenge_get_field_json(zvr_skill_challenge challenge,
                                                               int32_t field, const char** out);
ZVR_API zvr_result ZVR_CALL zvr_skill_challenge_get_json(zvr_skill_challenge challenge,
                                                         const char** out);
ZVR_API zvr_result ZVR_CALL zvr_skill_challenge_get_description(zvr_skill_challenge challenge,
                                                                const char** out);

/* ---- Order request --------------------------------------------------------
 * What the host fills in to redeem an offer. Setters copy their arguments; a
 * NULL string unsets the field. A request may be changed and placed again:
 * zvr_rewards_place_order reads it before returning. */

/** A postal address to ship to. Zero (NULL) fields are left out. */
typedef struct zvr_address_fields {
  uint32_t struct_size; /**< sizeof(zvr_address_fields) as the caller compiled it */
  const char* name;
  const char* street1;
  const char* street2;
  const char* city;
  const char* region; /**< state or province */
  const char* postal_code;
  const char* country; /**< ISO 3166 code or name */
  const char* phone;
} zvr_address_fields;

#define ZVR_ADDRESS_FIELDS_INIT \
  { sizeof(zvr_address_fields), 0, 0, 0, 0, 0, 0, 0, 0 }

/** A new request for `quantity` of the offer `offer_id` (NULL: unset). */
ZVR_API zvr_result ZVR_CALL zvr_order_request_create(const char* offer_id, int64_t quantity,
                                                     zvr_order_request* out);
ZVR_API zvr_result ZVR_CALL zvr_order_request_set_offer_id(zvr_order_request request,
                                                           const char* offer_id);
ZVR_API zvr_result ZVR_CALL zvr_order_request_set_quantity(zvr_order_request request,
                                                           int64_t quantity);
/** Leaves the quantity out of the order. */
ZVR_API zvr_result ZVR_CALL zvr_order_request_unset_quantity(zvr_order_request request);
ZVR_API zvr_result ZVR_CALL zvr_order_request_set_email(zvr_order_request request,
                                                        const char* email);
/** The device's IP address; "127.0.0.1" is sent when unset. */
ZVR_API zvr_result ZVR_CALL zvr_order_request_set_ip(zvr_order_request request, const char* ip);
/** Copies `address`; NULL unsets the shipping address. */
ZVR_API zvr_result ZVR_CALL zvr_order_request_set_shipping_address(
    zvr_order_request request, const zvr_address_fields* address);
/** The id of a passed skill challenge (zvr_skill_challenge_get_id). */
ZVR_API zvr_result ZVR_CALL zvr_order_request_set_challenge_id(zvr_order_request request,
                                                               const char* challenge_id);
/** The order's idempotency key, sent as the Idempotency-Key header (never in
 *  the body). A service that honours keys stores one order per key, so an
 *  order whose outcome was lost (a timeout, then a restart) can be placed
 *  again with the same key and be charged once: keep the key with the order
 *  until its outcome is known. 1 to 255 visible ASCII characters (0x21 to
 *  0x7E); another key gives ZVR_E_INVALID_ARGUMENT and leaves the request as
 *  it was. NULL unsets it: each placement then sends a random key of its
 *  own, the same for all of its attempts. */
ZVR_API zvr_result ZVR_CALL zvr_order_request_set_idempotency_key(zvr_order_request request,
                                                                  const char* key);
/** The key set, or NULL when unset (the random keys are never visible). Each
 *  text stays valid until the request's last release. */
ZVR_API zvr_result ZVR_CALL zvr_order_request_get_idempotency_key(zvr_order_request request,
                                                                  const char** out);
/** The JSON object sent under "order", as the request stands now. Each text
 *  stays valid until the request's last release, also after later changes. */
ZVR_API zvr_result ZVR_CALL zvr_order_request_get_json(zvr_order_request request, const char** out);

/* ---- The rewards manager --------------------------------------------------
 * Each operation returns at once; its callback runs later on the main queue,
 * then its notification is posted (failure notification first, then the
 * callback, on failure). Result and error handles are borrowed. */

typedef void(ZVR_CALL* zvr_offers_callback)(zvr_offer_list offers, zvr_error error, void* user);
typedef void(ZVR_CALL* zvr_orders_callback)(zvr_order_list orders, zvr_error error, void* user);
typedef void(ZVR_CALL* zvr_order_callback)(zvr_order order, zvr_error error, void* user);
typedef void(ZVR_CALL* zvr_skill_question_callback)(zvr_skill_question question, zvr_error error,
                                                    void* user);
typedef void(ZVR_CALL* zvr_skill_challenge_callback)(zvr_skill_challenge challenge, zvr_error error,
                                                     void* user);

/** The offers in the configured locale (else the device's), from the cache
 *  while it is fresh (refresh interval, 300 s by default). */
ZVR_API zvr_result ZVR_CALL zvr_rewards_fetch_offers(zvr_offers_callback callback, void* user);
/** The same in `locale` ("fr_CA"; NULL: as zvr_rewards_fetch_offers). A fresh
 *  cache is served whatever its locale. */
ZVR_API zvr_result ZVR_CALL zvr_rewards_fetch_offers_with_locale(const char* locale,
                                                                 zvr_offers_callback callback,
                                                                 void* user);
/** Bypasses the cache. */
ZVR_API zvr_result ZVR_CALL zvr_rewards_force_fetch_offers_with_locale(const char* locale,
                                                                       zvr_offers_callback callback,
                                                                       void* user);
/** Bypasses the cache when `force_fetch` is non-zero. */
ZVR_API zvr_result ZVR_CALL zvr_rewards_fetch_offers_with_locale_force_fetch(
    const char* locale, int32_t force_fetch, zvr_offers_callback callback, void* user);
/** The user's past orders (no cache). */
ZVR_API zvr_result ZVR_CALL zvr_rewards_fetch_orders(zvr_orders_callback callback, void* user);
/** Places `request` (read before the call returns). A NULL request fails
 *  validation through the callback (code "ZVErrorServerNoRequest"); a request
 *  handle that is not live gives ZVR_E_INVALID_HANDLE and no callback. */
ZVR_API zvr_result ZVR_CALL zvr_rewards_place_order(zvr_order_request request,
                                                    zvr_order_callback callback, void* user);
ZVR_API zvr_result ZVR_CALL zvr_rewards_fetch_skill_question(zvr_skill_question_callback callback,
                                                             void* user);
/** Submits `answer` to the question `question_id` for the offer `offer_id`.
 *  A NULL argument fails validation through the callback (checked in that
 *  order; an empty string passes). */
ZVR_API zvr_result ZVR_CALL zvr_rewards_answer_skill_question(const char* offer_id,
                                                              const char* question_id,
                                                              const char* answer,
                                                              zvr_skill_challenge_callback callback,
                                                              void* user);

/** The catalogue of the last accepted offers answer (empty, never NULL). */
ZVR_API zvr_result ZVR_CALL zvr_rewards_get_offers(zvr_offer_list* out);
/** The history of the last accepted orders answer (empty, never NULL). */
ZVR_API zvr_result ZVR_CALL zvr_rewards_get_orders(zvr_order_list* out);
/** When the last offers answer arrived, in seconds since 1970; 0: never. */
ZVR_API zvr_result ZVR_CALL zvr_rewards_get_last_refresh_time(double* out);
/** Empties the offers and orders and zeroes the refresh time (the signed-in
 *  user changed). Requests in flight are not cancelled. */
ZVR_API zvr_result ZVR_CALL zvr_rewards_clear_user_state(void);
/** How long fetched offers stay fresh, in seconds. Default 300. */
ZVR_API zvr_result ZVR_CALL zvr_rewards_get_refresh_interval(double* out);
ZVR_API zvr_result ZVR_CALL zvr_rewards_set_refresh_interval(double seconds);

/* ---- Cancellation ---------------------------------------------------------
 * A scope owns the operations started with it, through the _in_scope
 * variants below: a screen of the host keeps one, and cancels or releases it
 * when it closes, so that no outcome reaches the closed screen with a result.
 * Each cancelled operation's callback still comes once, later, with the
 * cancellation error (see Cancellation at the top): free per-call data there.
 *
 * Cancelling (a scope, its last release, zvr_rewards_cancel_all) waits for a
 * callback of the cancelled operations that is running on another thread at
 * that moment; called from inside one of those callbacks, it does not wait
 * for that one. So do not cancel while holding a lock that such a callback
 * waits for, nor from inside the log sink or the wake-up hook (there these
 * functions give ZVR_E_BUSY; release no scope's last reference there). */

/** A new scope, with one reference; zvr_release of the last one cancels. */
ZVR_API zvr_result ZVR_CALL zvr_cancel_scope_create(zvr_cancel_scope* out);
/** Cancels the scope's operations that have not called their callback yet.
 *  When it returns, none of them is running on another thread or will ever
 *  be called with a result; their cancellation callbacks are queued. The
 *  scope stays usable: operations started with it later belong to it. */
ZVR_API zvr_result ZVR_CALL zvr_cancel_scope_cancel(zvr_cancel_scope scope);
/** The scope's operations that have neither called their callback nor been
 *  cancelled. */
ZVR_API zvr_result ZVR_CALL zvr_cancel_scope_get_pending_count(zvr_cancel_scope scope,
                                                               uint32_t* out_count);

/** The operations above, owned by `scope` (required: NULL gives
 *  ZVR_E_NULL_HANDLE, a released scope ZVR_E_INVALID_HANDLE, and then no
 *  callback comes). The offers: in `locale` (NULL: the configured one), from
 *  the cache while it is fresh unless `force_fetch` is non-zero. */
ZVR_API zvr_result ZVR_CALL zvr_rewards_fetch_offers_in_scope(zvr_cancel_scope scope,
                                                              const char* locale,
                                                              int32_t force_fetch,
                                                              zvr_offers_callback callback,
                                                              void* user);
ZVR_API zvr_result ZVR_CALL zvr_rewards_fetch_orders_in_scope(zvr_cancel_scope scope,
                                                              zvr_orders_callback callback,
                                                              void* user);
/** A cancelled order may still have been placed: its request may have reached
 *  the service. Place it again with the same idempotency key to find out. */
ZVR_API zvr_result ZVR_CALL zvr_rewards_place_order_in_scope(zvr_cancel_scope scope,
                                                             zvr_order_request request,
                                                             zvr_order_callback callback,
                                                             void* user);
ZVR_API zvr_result ZVR_CALL zvr_rewards_fetch_skill_question_in_scope(
    zvr_cancel_scope scope, zvr_skill_question_callback callback, void* user);
ZVR_API zvr_result ZVR_CALL zvr_rewards_answer_skill_question_in_scope(
    zvr_cancel_scope scope, const char* offer_id, const char* question_id, const char* answer,
    zvr_skill_challenge_callback callback, void* user);

/** Cancels every operation of the process not yet delivered, in a scope or
 *  not. When the user signs out, call it before zvr_rewards_clear_user_state,
 *  so that no answer to their requests reaches the next user. */
ZVR_API zvr_result ZVR_CALL zvr_rewards_cancel_all(void);

/* ---- Notifications --------------------------------------------------------
 * Posted on the main queue after each outcome. Names: */

#define ZVR_NOTIFICATION_REQUEST_DID_FAIL "com.zorvane.rewards.manager.request.did.fail"
#define ZVR_NOTIFICATION_VALIDATION_DID_FAIL "com.zorvane.rewards.manager.validation.did.fail"
#define ZVR_NOTIFICATION_DID_FETCH_OFFERS "com.zorvane.rewards.manager.did.fetch.offers"
#define ZVR_NOTIFICATION_DID_FETCH_ORDERS "com.zorvane.rewards.manager.did.fetch.orders"
#define ZVR_NOTIFICATION_DID_PLACE_ORDER "com.zorvane.rewards.manager.did.place.order"
#define ZVR_NOTIFICATION_DID_FETCH_SKILL_QUESTION \
  "com.zorvane.rewards.manager.did.fetch.skill.question"
#define ZVR_NOTIFICATION_DID_ANSWER_SKILL_QUESTION \
  "com.zorvane.rewards.manager.did.answer.skill.question"
/** After an accepted order: the user's new balances (zvr_notification_get_balances). */
#define ZVR_NOTIFICATION_USER_DID_UPDATE "com.zorvane.user.manager.did.update.user.internal"

/** `notification` is borrowed. */
typedef void(ZVR_CALL* zvr_notification_callback)(zvr_notification notification, void* user);

/** Calls `callback` for every notification named `name` (every name when
 *  NULL) until unsubscribed. Gives a subscription id, never 0 and never reused. */
ZVR_API zvr_result ZVR_CALL zvr_notifications_subscribe(const char* name,
                                                        zvr_notification_callback callback,
                                                        void* user, uint64_t* out_subscription);
/** Once this returns, the callback is not running on another thread and is
 *  never called again, so `user` may be freed (from inside the callback
 *  itself, the call under way finishes normally). An unknown or already
 *  removed id gives ZVR_E_INVALID_ARGUMENT; ZVR_E_BUSY from inside the log
 *  sink (the callback may be waiting to log on another thread). */
ZVR_API zvr_result ZVR_CALL zvr_notifications_unsubscribe(uint64_t subscription);

ZVR_API zvr_result ZVR_CALL zvr_notification_get_name(zvr_notification notification,
                                                      const char** out);
/** The payload, each a new reference, NULL when the notification carries none
 *  of that kind: the offers of DID_FETCH_OFFERS, the orders of
 *  DID_FETCH_ORDERS, the order of DID_PLACE_ORDER, the question and the
 *  challenge of the skill notifications, the error of the two failures. */
ZVR_API zvr_result ZVR_CALL zvr_notification_get_offers(zvr_notification notification,
                                                        zvr_offer_list* out);
ZVR_API zvr_result ZVR_CALL zvr_notification_get_orders(zvr_notification notification,
                                                        zvr_order_list* out);
ZVR_API zvr_result ZVR_CALL zvr_notification_get_order(zvr_notification notification,
                                                       zvr_order* out);
ZVR_API zvr_result ZVR_CALL zvr_notification_get_skill_question(zvr_notification notification,
                                                                zvr_skill_question* out);
ZVR_API zvr_result ZVR_CALL zvr_notification_get_skill_challenge(zvr_notification notification,
                                                                 zvr_skill_challenge* out);
ZVR_API zvr_result ZVR_CALL zvr_notification_get_error(zvr_notification notification,
                                                       zvr_error* out);
/** The balances of USER_DID_UPDATE; ZVR_E_NO_VALUE for other notifications. */
ZVR_API zvr_result ZVR_CALL zvr_notification_get_balances(zvr_notification notification,
                                                          int64_t* out_available_points,
                                                          int64_t* out_test_points);

/* ---- Main queue -----------------------------------------------------------
 * Where callbacks and notifications run. Drive it from the host's loop (once
 * a frame), or start its dedicated thread. */

/** Runs the tasks queued before the call; gives how many ran (out may be
 *  NULL). Runs nothing (0) while another thread drains or the dedicated
 *  thread runs, or when called from inside a task. */
ZVR_API zvr_result ZVR_CALL zvr_main_queue_drain(uint32_t* out_ran);

/** Returns non-zero when the wait is over. */
typedef int32_t(ZVR_CALL* zvr_predicate)(void* user);
/** Runs tasks, waiting for new ones, until `done(user)` returns non-zero or
 *  `timeout_ms` has passed; `*out_done` (may be NULL) tells which. For tests
 *  and command-line hosts. */
ZVR_API zvr_result ZVR_CALL zvr_main_queue_run_until(zvr_predicate done, void* user,
                                                     int64_t timeout_ms, int32_t* out_done);
/** Runs the tasks on a thread of the SDK's own as they come. Idempotent. */
ZVR_API zvr_result ZVR_CALL zvr_main_queue_start_dedicated_thread(void);
/** Stops that thread after the task under way; queued tasks stay queued.
 *  ZVR_E_BUSY from inside the log sink (the thread may be waiting to log). */
ZVR_API zvr_result ZVR_CALL zvr_main_queue_stop_dedicated_thread(void);
ZVR_API zvr_result ZVR_CALL zvr_main_queue_get_pending_count(uint32_t* out_count);

typedef void(ZVR_CALL* zvr_wakeup_callback)(void* user);
/** Installs `callback`, called once for each task queued on the main queue
 *  from now on (a completion, a notification, a cancellation), on the thread
 *  that queued it, after the task is in the queue: the SDK's I/O thread, or
 *  the host's own (inside the call that started an operation, say). A loop
 *  that sleeps posts itself an event there and drains when it gets it. It
 *  must return promptly, without waiting for the loop; draining, running
 *  the queue, cancelling and zvr_shutdown give ZVR_E_BUSY from inside it.
 *  NULL removes it. Once this returns, the previous hook is not running on
 *  another thread and is never called again, so its `user` may be freed
 *  (from inside the hook itself, the call under way goes on to its end).
 *  zvr_shutdown removes it too. */
ZVR_API zvr_result ZVR_CALL zvr_main_queue_set_wakeup(zvr_wakeup_callback callback, void* user);

/* ---- Logger -------------------------------------------------------------- */

#define ZVR_LOG_CATEGORY_REWARDS 1 /**< bit 0: the rewards module */
#define ZVR_LOG_LEVEL_OFF 0
#define ZVR_LOG_LEVEL_COMPACT 1
#define ZVR_LOG_LEVEL_LOCATED 2 /**< lines with their source location */

/** One finished line (NUL-terminated, without a newline), valid for the call.
 *  Runs on the logging thread, one line at a time. */
typedef void(ZVR_CALL* zvr_log_sink)(const char* line, uint32_t length, void* user);
/** Replaces the sink; NULL restores the default (standard error). Once this
 *  returns, the previous sink is not running and is never called again.
 *  ZVR_E_BUSY from inside a sink. */
ZVR_API zvr_result ZVR_CALL zvr_logger_set_sink(zvr_log_sink sink, void* user);
ZVR_API zvr_result ZVR_CALL zvr_logger_set_level(int64_t level);
ZVR_API zvr_result ZVR_CALL zvr_logger_get_level(int64_t* out);
ZVR_API zvr_result ZVR_CALL zvr_logger_set_categories(int64_t categories);
ZVR_API zvr_result ZVR_CALL zvr_logger_get_categories(int64_t* out);

/* ---- Shutdown ------------------------------------------------------------ */

/** Ends the SDK's activity, so that the host may stop, unload the library or
 *  start again. In order:
 *  - every pending operation is cancelled (as zvr_rewards_cancel_all; those
 *    started on other threads while it runs are cancelled at once), the
 *    transport stops and joins its thread, the main queue's dedicated thread,
 *    if started, is stopped and joined, and the tasks still queued
 *    (notifications included) are dropped unrun;
 *  - the wake-up hook and the log sink are removed: once it returns, neither
 *    is running nor will be called, so their `user` may be freed;
 *  - the callbacks of the cancelled operations not yet called back (by this
 *    shutdown, or earlier and still queued) are called here, on this thread,
 *    each once with the cancellation error.
 *  When it returns, the callback of every operation whose starting call had
 *  returned before zvr_shutdown was called has run and is not running on
 *  another thread: the host may free all of its per-call data.
 *  The configuration, locale, log level, subscriptions, refresh interval and
 *  the manager's offers and orders are kept. The SDK may be used again at
 *  once; start the dedicated thread and set the hooks again as needed.
 *  Called from inside a callback, it does not wait for that callback. From
 *  inside the log sink or the wake-up hook: ZVR_E_BUSY. */
ZVR_API zvr_result ZVR_CALL zvr_shutdown(void);

#ifdef __cplusplus
}
#endif

#endif /* ZORVANE_REWARDS_KIT_C_H */
