// The SDK's error value. Failures are never thrown: they arrive as a
// `std::shared_ptr<ZVError>` through a completion handler.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <ZorvaneCoreKit/ZVJSON.h>
#include <ZorvaneCoreKit/ZVObject.h>

/// Error types (the first argument of the initialisers).
enum ZVErrorType : int64_t {
  /// The request never got an HTTP answer: DNS, connection refused or reset,
  /// TLS failure, timeout, or too many requests already under way. `code`
  /// says which.
  ZVErrorTypeTransport = 1,
  /// An argument was missing or cannot be sent (an id that is a dot
  /// segment, an idempotency key that is not a header value); nothing was sent.
  ZVErrorTypeValidation = 2,
  /// The service answered, but its "status" was not "ok". `raw` is the body.
  ZVErrorTypeService = 3,
  /// The service's final answer had a status other than 2xx: 400 or above,
  /// or 1xx or 3xx (redirects are never followed). `raw` is the body when it
  /// was a JSON object.
  ZVErrorTypeHTTP = 4,
  /// The answer could not be used: not JSON, not a JSON object, larger than
  /// a configured limit (body, headers, JSON values, records), or it could
  /// not be turned into records.
  ZVErrorTypeInvalidAnswer = 5,
  /// The SDK is not configured to send the request (no service host, or plain
  /// http without `allowInsecureHTTP`).
  ZVErrorTypeConfiguration = 6,
};

// Error codes (the `code` of an error).
extern ZV_CORE_EXPORT const char* const ZVErrorServerNoRequest;  ///< placeOrder without an order
extern ZV_CORE_EXPORT const char* const ZVErrorValidationNoOfferID;     ///< offer id missing
extern ZV_CORE_EXPORT const char* const ZVErrorValidationNoQuestionID;  ///< question id missing
extern ZV_CORE_EXPORT const char* const ZVErrorValidationNoAnswer;      ///< answer missing
extern ZV_CORE_EXPORT const char* const ZVErrorTransportConnect;  ///< could not connect / resolve
extern ZV_CORE_EXPORT const char* const ZVErrorTransportTimeout;  ///< a timeout expired
extern ZV_CORE_EXPORT const char* const ZVErrorTransportTLS;      ///< TLS handshake or verification
extern ZV_CORE_EXPORT const char* const ZVErrorTransportReset;    ///< connection lost mid-answer
extern ZV_CORE_EXPORT const char* const ZVErrorTransportOther;    ///< any other transport failure
extern ZV_CORE_EXPORT const char* const ZVErrorHTTPStatus;        ///< HTTP status >= 400
extern ZV_CORE_EXPORT const char* const ZVErrorHTTPUnexpectedStatus;  ///< a final 1xx or 3xx
extern ZV_CORE_EXPORT const char* const ZVErrorAnswerNotJSON;         ///< body is not valid JSON
extern ZV_CORE_EXPORT const char* const ZVErrorAnswerNotObject;  ///< top level is not an object
/// Body, headers, JSON values or records above their limits.
extern ZV_CORE_EXPORT const char* const ZVErrorAnswerTooLarge;
/// Records could not be built (memory ran out).
extern ZV_CORE_EXPORT const char* const ZVErrorAnswerNotDecoded;
extern ZV_CORE_EXPORT const char* const
    ZVErrorNotConfigured;                                 ///< configuration refuses the request
extern ZV_CORE_EXPORT const char* const ZVErrorShutdown;  ///< the SDK was shut down
/// `maxRequestsInFlight` requests were already under way; this one was not sent.
extern ZV_CORE_EXPORT const char* const ZVErrorTooManyRequests;
/// A path value (an offer or question id) is "." or "..": it cannot be one
/// path segment, so nothing was sent.
extern ZV_CORE_EXPORT const char* const ZVErrorInvalidPathValue;
/// An order request's idempotency key is not 1 to 255 visible ASCII characters.
extern ZV_CORE_EXPORT const char* const ZVErrorInvalidIdempotencyKey;
/// A submission's body cannot be written as JSON (a NaN or infinite number,
/// or text that is not UTF-8, in what the host passed), so nothing was sent.
extern ZV_CORE_EXPORT const char* const ZVErrorInvalidBody;

/// An error: a type, an optional code, an optional message and, for errors
/// made from an answer, the answer's body (`raw`).
///
/// @par Thread safety
/// Not synchronised. The SDK does not change an error after handing it out.
class ZV_CORE_EXPORT ZVError : public ZVObject {
 public:
  /// `initWithType:result:`: keeps `result` as `raw`; no code, no message.
  ZVError(int64_t type, ZVDictionaryPtr result);
  /// `initWithType:code:message:`.
  ZVError(int64_t type, std::string code, std::string message);
  ~ZVError() override;

  int64_t type() const { return type_; }
  /// The code constant, or empty when the error has none.
  const std::string& code() const { return code_; }
  /// A human-readable text, or nullopt.
  const std::optional<std::string>& message() const { return message_; }
  void setMessage(std::optional<std::string> message) { message_ = std::move(message); }
  /// The dictionary given as `result` (or, for an HTTP error, the answer's
  /// JSON object), or an empty pointer.
  const ZVDictionaryPtr& raw() const { return raw_; }
  void setRaw(ZVDictionaryPtr raw) { raw_ = std::move(raw); }
  /// The HTTP status of the answer behind the error, or 0.
  int httpStatus() const { return httpStatus_; }
  void setHTTPStatus(int status) { httpStatus_ = status; }
  /// How many times the request was sent (more than 1 only with retries on;
  /// 0 when it never was).
  int attempts() const { return attempts_; }
  void setAttempts(int attempts) { attempts_ = attempts; }

  /// "Error Domain=ZVError Type=<type> Code=<code or (null)> \"<message or (null)>\"".
  std::string description() const override;

 private:
  int64_t type_;
  std::string code_;
  std::optional<std::string> message_;
  ZVDictionaryPtr raw_;
  int httpStatus_ = 0;
  int attempts_ = 0;
};

using ZVErrorPtr = std::shared_ptr<ZVError>;
