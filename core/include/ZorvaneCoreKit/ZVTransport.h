// The transport seam: the request manager speaks to this interface. The
// libcurl transport is the default; tests and hosts may install their own.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <ZorvaneCoreKit/ZVExport.h>

// X11's headers define `None` as a macro, and a host may include them
// before ours: it is set aside here and restored at the end of this header.
#pragma push_macro("None")
#undef None

using ZVHeaders = std::vector<std::pair<std::string, std::string>>;

/// One HTTP exchange as the transport sees it: everything already encoded.
struct ZVHTTPRequest {
  std::string method;  ///< "GET" or "POST"
  std::string url;     ///< absolute, percent-encoded
  ZVHeaders headers;
  std::string body;  ///< sent when non-empty
  std::chrono::milliseconds connectTimeout{10000};
  std::chrono::milliseconds totalTimeout{30000};
  std::string caFile;         ///< extra certificate authorities (PEM), or empty
  size_t maxBodyBytes = 0;    ///< 0: unlimited
  size_t maxHeaderBytes = 0;  ///< header and trailer lines of the answer; 0: unlimited
};

/// Why an exchange produced no HTTP answer.
enum class ZVTransportFailure {
  None,
  Connect,   ///< DNS, refused, unreachable
  Timeout,   ///< connect or total timeout
  TLS,       ///< handshake or certificate verification
  Reset,     ///< connection lost before the answer was complete
  TooLarge,  ///< the body exceeded `maxBodyBytes`, or the headers `maxHeaderBytes`
  Shutdown,  ///< the transport was shut down with the request in flight
  Other,
};

/// The outcome of one exchange: an HTTP answer (any status), or a failure.
struct ZVHTTPResult {
  ZVTransportFailure failure = ZVTransportFailure::None;
  std::string failureMessage;  ///< for a failure: what went wrong, for a person
  int status = 0;
  ZVHeaders headers;
  std::string body;
  std::string httpVersion;  ///< "1.1", "2", ... when known
};

/// Sends HTTP requests.
///
/// @par Contract
/// `send` returns at once and calls `done` exactly once, later, on a thread
/// of the transport's choosing (never inline from `send`). A request with a
/// body leaves the transport at most once per `send`: the transport never
/// sends it again on its own, whatever the connection does (the SDK retries
/// only when the host opted in, and then with an idempotency key). A request
/// without a body may be sent again on a fresh connection when a reused one
/// closed before any answer byte arrived.
///
/// @par Thread safety
/// `send` is safe from any thread.
class ZV_CORE_EXPORT ZVTransport {
 public:
  using Completion = std::function<void(ZVHTTPResult)>;
  virtual ~ZVTransport();
  virtual void send(ZVHTTPRequest request, Completion done) = 0;
};

/// Forwards every call to another transport; override `send` to drop, delay or
/// corrupt one kind of exchange in a test.
class ZV_CORE_EXPORT ZVTransportWrapper : public ZVTransport {
 public:
  explicit ZVTransportWrapper(std::shared_ptr<ZVTransport> inner) : inner_(std::move(inner)) {}
  void send(ZVHTTPRequest request, Completion done) override {
    inner_->send(std::move(request), std::move(done));
  }

 protected:
  const std::shared_ptr<ZVTransport>& inner() const { return inner_; }

 private:
  std::shared_ptr<ZVTransport> inner_;
};

/// Options of the libcurl transport.
struct ZVCurlTransportOptions {
  /// Largest number of connections kept open per host. Default: 16.
  long maxHostConnections = 16;
  /// Offer HTTP/2 (over TLS, by ALPN) when the server supports it. Default: true.
  bool enableHTTP2 = true;
};

/// The default transport: libcurl's multi interface driven by I/O threads
/// that the transport owns, with connection reuse and keep-alive, HTTP/2 over
/// TLS when offered, TLS peer and host verification always on (add a
/// certificate authority with `ZVHTTPRequest::caFile`), redirects never
/// followed. A request with a body goes out on a fresh connection, through a
/// reader that cannot rewind, so libcurl cannot resend it (when the
/// connection dies or an HTTP/2 stream is refused after the body went out,
/// the exchange fails instead).
///
/// Two lanes, each an I/O thread with connections of its own: `zv-io`, started
/// with the transport, and `zv-io-bulk`, started by the first request for a
/// URL whose last answer had a body of 256 KB or more (up to 16 such URLs are
/// remembered; a smaller answer forgets one). Requests for those URLs take
/// the bulk lane, so that small exchanges do not queue behind the reading and
/// decrypting of megabytes of another answer (a URL's first fetch, before
/// its size is known, takes `zv-io`). Limits such as
/// `maxHostConnections` apply per lane. Completions run on the lane's thread.
/// Destroying the transport fails the requests in flight with
/// `ZVTransportFailure::Shutdown` and joins both threads.
ZV_CORE_EXPORT std::shared_ptr<ZVTransport> ZVMakeCurlTransport(
    ZVCurlTransportOptions options = {});

#pragma pop_macro("None")
