// An HTTP/2 server over TLS on 127.0.0.1, for tests and benchmarks of the
// transport's multiplexing: cpp-httplib speaks HTTP/1.1 only.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

struct ssl_ctx_st;

namespace zvtest {

/// A request as the HTTP/2 server received it.
struct HTTP2Request {
  std::string method;
  std::string path;
  std::vector<std::pair<std::string, std::string>> headers;  ///< names in lower case
  std::string body;
  /// The first header of that (lower-case) name, or "".
  std::string header(const std::string& name) const;
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

/// Answers every request with status 200, "content-type: application/json"
/// and the body set with `setBody`, over HTTP/2 only (ALPN "h2"), from
/// construction (which returns once it accepts connections) until
/// destruction (which closes every connection and joins its threads).
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
  explicit ZVHTTP2Server(std::string body = "{}");
  /// Answers each request with what `handler` makes of it, called on the
  /// connections' threads once the request's stream has ended.
  explicit ZVHTTP2Server(std::function<HTTP2Reply(const HTTP2Request&)> handler);
  ~ZVHTTP2Server();
  ZVHTTP2Server(const ZVHTTP2Server&) = delete;
  ZVHTTP2Server& operator=(const ZVHTTP2Server&) = delete;

  int port() const { return port_; }
  /// "https://127.0.0.1:<port>".
  std::string baseURL() const;
  /// The certificate to trust (`ZVHTTPRequest::caFile`, `ZVConfiguration::caFile`).
  const std::string& caFile() const { return caFile_; }

  /// The body of every answer from now on.
  void setBody(std::string body);

  /// TCP connections accepted so far.
  size_t connections() const { return connections_.load(); }
  /// Requests answered so far (one stream each).
  size_t streams() const { return streams_.load(); }
  /// How many distinct connections answered a request since the last call.
  size_t takeServingConnections();

 private:
  ZVHTTP2Server(std::string body, std::function<HTTP2Reply(const HTTP2Request&)> handler);
  void acceptLoop();
  void serve(int socket, size_t id);
  void forget(int socket);

  friend struct HTTP2Session;
  std::string bodySnapshot();
  void noteServed(size_t connection);

  std::string directory_;
  std::string caFile_;
  ssl_ctx_st* context_ = nullptr;
  int listener_ = -1;
  int port_ = 0;
  std::atomic<bool> stopping_{false};
  std::atomic<size_t> connections_{0};
  std::atomic<size_t> streams_{0};
  std::thread acceptor_;

  std::mutex mutex_;
  std::string body_;                                        // guarded by mutex_
  std::function<HTTP2Reply(const HTTP2Request&)> handler_;  // set once, before serving
  std::set<int> open_;                // guarded by mutex_: sockets the workers still use
  std::set<size_t> serving_;          // guarded by mutex_
  std::vector<std::thread> workers_;  // guarded by mutex_
};

}  // namespace zvtest
