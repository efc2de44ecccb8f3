// An HTTP/2 server over TLS on 127.0.0.1, for tests of the transport's
// multiplexing and of what lost streams do to submissions.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <map>
#include <string>

#include "ZVLoopbackSocket.h"

struct ssl_ctx_st;

namespace zvtest {

/// A request as the HTTP/2 server received it.
struct HTTP2Request {
  std::string method;
  std::string path;
  std::map<std::string, std::string> headers;  ///< names in lower case; the first of each
  /// The header of that (lower-case) name, or "".
  std::string header(const std::string& name) const {
    const auto found = headers.find(name);
    return found == headers.end() ? "" : found->second;
  }
};

/// What the HTTP/2 server does with one request.
struct HTTP2Reply {
  enum class Fault {
    None,           ///< answers with `status` and `body`
    RefuseStream,   ///< RST_STREAM REFUSED_STREAM: "not processed, safe to retry"
    ResetStream,    ///< RST_STREAM INTERNAL_ERROR, after the request was read
    DropConnection  ///< closes the connection without an answer
  };
  int status = 200;
  std::string body = "{}";
  Fault fault = Fault::None;
};

/// Answers every request with what its handler makes of it, over HTTP/2 only
/// (ALPN "h2"), from construction (which returns once it accepts
/// connections) until destruction (which closes every connection and joins
/// its threads).
///
/// Its certificate is the sandbox's kind (self-signed for localhost and
/// 127.0.0.1), made afresh for each server; `caFile` names it as a PEM file
/// in a temporary folder that the destructor removes.
///
/// Throws std::runtime_error when it cannot start.
///
/// @par Thread safety
/// Every member is safe from any thread.
class ZVHTTP2Server {
 public:
  /// `handler` is called on the connections' threads once a request's stream has ended.
  explicit ZVHTTP2Server(std::function<HTTP2Reply(const HTTP2Request&)> handler);
  ~ZVHTTP2Server();

  int port() const { return listener_.port(); }
  /// "https://127.0.0.1:<port>".
  std::string baseURL() const;
  /// The certificate to trust (`ZVHTTPRequest::caFile`, `ZVConfiguration::caFile`).
  const std::string& caFile() const { return caFile_; }

  /// TCP connections accepted so far.
  size_t connections() const { return listener_.connections(); }
  /// Requests answered so far (one stream each).
  size_t streams() const { return streams_.load(); }

 private:
  void serve(int socket);

  friend struct HTTP2Session;

  std::string directory_;
  std::string caFile_;
  ssl_ctx_st* context_ = nullptr;
  std::atomic<size_t> streams_{0};
  const std::function<HTTP2Reply(const HTTP2Request&)> handler_;
  LoopbackListener listener_{"HTTP/2 server"};
};

}  // namespace zvtest
