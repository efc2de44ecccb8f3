// Inside the SDK: sends built requests and turns answers into JSON objects or errors.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include <ZorvaneCoreKit/ZVError.h>
#include <ZorvaneCoreKit/ZVTransport.h>

#include "http/ZVGenericRequest.h"

/// The callback of one request: (kind, response, error, body).
using ZVRequestCallback =
    std::function<void(const std::string& kind, std::shared_ptr<ZVGenericResponse> response,
                       ZVErrorPtr error, ZVDictionaryPtr body)>;

/// Sends requests through the installed transport (libcurl by default).
///
/// For each request it fills ":host" and ":appid" from `Zorvane::configuration()`,
/// percent-encodes what is not valid in a URL path, encodes `params` as the
/// query (method 0) or serialises `body` as compact JSON (method 1), adds the
/// access token header, and sends. The callback then runs exactly once, never
/// inside `sendRequest`: on the transport's thread, or on the main queue for
/// a request refused before it reached the transport, with the request's kind
/// and either:
/// - a response whose `body` is the answer's top-level JSON object, and no error; or
/// - an error and no response: a transport failure (`ZVErrorTypeTransport`), an
///   HTTP status of 400 or above (`ZVErrorTypeHTTP`, worded by the request's
///   error message maker when it has one and the body is a JSON object), a body
///   that is not JSON, not an object or too large (`ZVErrorTypeInvalidAnswer`),
///   or a configuration that refuses the request (`ZVErrorTypeConfiguration`).
/// The fourth argument repeats the body (or the error's `raw`).
///
/// @par Thread safety
/// Every operation is safe from any thread.
class ZV_CORE_EXPORT ZVGenericRequestManager {
 public:
  static ZVGenericRequestManager* instance();

  /// `sendRequest:completionHandler:`. Returns at once.
  void sendRequest(std::shared_ptr<ZVGenericRequest> request, ZVRequestCallback callback);

  /// Installs a transport for the requests sent from now on; an empty pointer
  /// restores the default libcurl transport.
  void setTransport(std::shared_ptr<ZVTransport> transport);
  std::shared_ptr<ZVTransport> transport();

  /// Requests sent and not yet called back.
  size_t requestsInFlight() const { return inFlight_.load(); }

  /// Hands one exchange to the transport (made if need be), held while it
  /// does so that `closeTransport` can wait for it. False, and `done` not
  /// called, when there is no transport (none could start, or it is closed).
  bool sendOnTransport(ZVHTTPRequest request, ZVTransport::Completion done);

  /// Drops the transport once the sends under way have handed their requests
  /// to it; the default transport's end joins its I/O thread and fails the
  /// exchanges in flight. With `reopen`, later sends start the default
  /// transport afresh (`Zorvane::shutdown`); without, they are refused
  /// (process exit).
  void closeTransport(bool reopen);

  /// The URL a request is sent to, under the current configuration, or an
  /// error message in `error`. For tests and diagnostics.
  static std::string resolveURL(const ZVGenericRequest& request, std::string& error);

 private:
  ZVGenericRequestManager() = default;
  /// The transport (made if need be), counted in `sending_` when returned.
  std::shared_ptr<ZVTransport> holdTransport(bool& counted);
  std::mutex mutex_;
  std::shared_ptr<ZVTransport> transport_;  // guarded by mutex_
  bool closed_ = false;                     // guarded by mutex_
  bool exited_ = false;                     // guarded by mutex_: closed for good
  std::atomic<size_t> inFlight_{0};
  std::atomic<size_t> sending_{0};  // sends holding the transport
};
