// Inside the SDK: building requests and reading answers.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <ZorvaneCoreKit/ZVError.h>
#include <ZorvaneCoreKit/ZVJSON.h>
#include <ZorvaneCoreKit/ZVObject.h>

class ZVGenericRequest;

/// Words the error of a failed answer: (request, parsed body) -> message.
using ZVErrorMessageMaker =
    std::function<std::string(const ZVGenericRequest& request, const ZVDictionaryPtr& result)>;

/// Request methods.
enum : int {
  ZVRequestMethodRead = 0,    ///< GET, `params` as the query
  ZVRequestMethodSubmit = 1,  ///< POST, `body` as JSON
};

/// A built request; immutable.
class ZV_CORE_EXPORT ZVGenericRequest final : public ZVObject {
 public:
  int method() const { return method_; }
  const std::string& kind() const { return kind_; }
  /// The URL template, e.g. "https://:host/api/v1/apps/:appid/offers/%@/orders".
  const std::string& baseURL() const { return baseURL_; }
  /// The values of the template's "%@" segments, in order.
  const std::vector<std::string>& pathValues() const { return pathValues_; }
  /// The submission's idempotency key chosen by the host, or empty (the
  /// request layer then makes one per call).
  const std::string& idempotencyKey() const { return idempotencyKey_; }
  /// Query parameters in insertion order (values in their text form).
  const std::vector<std::pair<std::string, std::string>>& params() const { return params_; }
  /// The JSON body, or an empty pointer.
  const ZVDictionaryPtr& body() const { return body_; }
  const ZVErrorMessageMaker& errorMessageMaker() const { return errorMessageMaker_; }
  std::string description() const override;

 private:
  friend class ZVGenericRequestBuilder;
  ZVGenericRequest() = default;
  int method_ = 0;
  std::string kind_;
  std::string baseURL_;
  std::vector<std::string> pathValues_;
  std::string idempotencyKey_;
  std::vector<std::pair<std::string, std::string>> params_;
  ZVDictionaryPtr body_;
  ZVErrorMessageMaker errorMessageMaker_;
};

/// Builds one request.
///
/// @par Thread safety
/// A builder is used by one thread at a time.
class ZV_CORE_EXPORT ZVGenericRequestBuilder {
 public:
  /// `+requestBuilderWithMethod:kind:`. `method` is `ZVRequestMethodRead` (0)
  /// or `ZVRequestMethodSubmit` (1); any other number is sent as GET.
  static std::shared_ptr<ZVGenericRequestBuilder> requestBuilderWithMethod(int method,
                                                                           std::string kind);

  /// The URL template: "https://:host/...", where each segment "%@" stands
  /// for the next of `setPathValues`.
  void setBaseURL(std::string url) { baseURL_ = std::move(url); }
  /// The values of the template's "%@" segments, in order. The request layer
  /// puts each in as exactly one path segment, percent-encoded ("/", "?",
  /// "#", "%", control characters and non-ASCII bytes included); a value of
  /// "." or ".." is refused before anything is sent.
  void setPathValues(std::vector<std::string> values) { pathValues_ = std::move(values); }
  /// The `Idempotency-Key` of a submission; empty: one made per call.
  void setIdempotencyKey(std::string key) { idempotencyKey_ = std::move(key); }
  /// Query parameters: string keys, values sent in their text form.
  ZVMutableDictionary& params() { return *params_; }
  /// The JSON object sent as the body (method 1).
  void setBody(ZVDictionaryPtr body) { body_ = std::move(body); }
  void setErrorMessageMaker(ZVErrorMessageMaker maker) { errorMessageMaker_ = std::move(maker); }
  std::shared_ptr<ZVGenericRequest> build() const;

  ZVGenericRequestBuilder(int method, std::string kind);

 private:
  int method_;
  std::string kind_;
  std::string baseURL_;
  std::vector<std::string> pathValues_;
  std::string idempotencyKey_;
  ZVDictionaryPtr params_ = ZVMutableDictionary::make();
  ZVDictionaryPtr body_;
  ZVErrorMessageMaker errorMessageMaker_;
};

/// An answer of the service.
class ZV_CORE_EXPORT ZVGenericResponse final : public ZVObject {
 public:
  ZVGenericResponse(int statusCode, std::string url, ZVDictionaryPtr body)
      : statusCode_(statusCode), url_(std::move(url)), body_(std::move(body)) {}
  int statusCode() const { return statusCode_; }
  /// The URL that was requested (never holds the access token).
  const std::string& url() const { return url_; }
  /// The answer's top-level JSON object, or an empty pointer.
  const ZVDictionaryPtr& body() const { return body_; }
  /// How many times the request was sent before this answer (1 without retries).
  int attempts() const { return attempts_; }
  void setAttempts(int attempts) { attempts_ = attempts; }
  /// The answer size limit the request was sent under (0: none), which
  /// bounds what the answer may become: a newer configuration does not.
  size_t maxResponseBytes() const { return maxResponseBytes_; }
  void setMaxResponseBytes(size_t bytes) { maxResponseBytes_ = bytes; }
  /// The order answers arrived in, process-wide: an answer the transport
  /// finished reading later has a larger number, however long each took to
  /// decode (a large one decodes on another thread). 0: not numbered.
  uint64_t arrival() const { return arrival_; }
  void setArrival(uint64_t arrival) { arrival_ = arrival; }
  std::string description() const override;

 private:
  int statusCode_;
  int attempts_ = 1;
  size_t maxResponseBytes_ = 0;
  uint64_t arrival_ = 0;
  std::string url_;
  ZVDictionaryPtr body_;
};

namespace zv_detail {

/// Stamps on `error` how often its call was sent and, after retries, ends
/// its message with "(after N attempts)": for the request layer's errors and
/// for those made above it from an answer.
ZV_CORE_EXPORT void stampAttempts(ZVError& error, int attempts);

}  // namespace zv_detail
