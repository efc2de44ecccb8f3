// The sandbox's HTTP server: cpp-httplib parses and routes each request, but
// the connections are accepted, read and limited here.
#pragma once

#include <openssl/ssl.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <httplib.h>

#include "ZVSandbox.h"

namespace zvsandbox {

struct Connection;

/// An httplib server whose connections wait for their requests in one poll
/// thread: a request reaches a worker, and httplib, only once it has arrived
/// whole and within `limits`, so a client that sends slowly or idles between
/// requests holds no worker. Excesses are answered by the poll thread with a
/// JSON error (see `RequestFramer`; 408 for a request not whole within the
/// request timeout, 503 past the connection or memory limits), then the
/// connection is closed after a short drain so that the client reads the
/// answer.
///
/// @par Thread safety
/// Construct, `listen_after_bind` (on a thread of its own), httplib's `stop`,
/// then `shutdown`, the way `ZVSandbox` does. `dropConnection` from a route
/// handler.
class GuardedServer : public httplib::Server {
 public:
  /// Serves HTTPS with `tls` when it is not null (the server takes it over).
  GuardedServer(const ZVSandboxLimits& limits, SSL_CTX* tls);
  ~GuardedServer() override;

  /// After `stop`: closes every connection and joins the threads; a request
  /// being handled is finished first.
  void shutdown();

  /// From a route handler: the connection of the request being handled
  /// closes without an answer. False when called from elsewhere.
  static bool dropConnection();

  /// After a successful bind: lets up to 1,024 connections wait for accept
  /// instead of httplib's 5, past which a burst of clients (and any client
  /// behind it) waits a second or more for its SYN to be sent again.
  void widenBacklog() const;

  /// A server context for the certificate and key files, or null with a
  /// message in `error`.
  static SSL_CTX* makeTLSContext(const std::string& certificate, const std::string& key,
                                 std::string& error);

 private:
  bool process_and_close_socket(socket_t sock) override;
  void pollLoop();
  void workLoop();
  void handle(std::unique_ptr<Connection> connection);
  void wakePoller();

  const ZVSandboxLimits limits_;
  SSL_CTX* tls_;
  int listenFd_ = -1;                // the socket httplib last bound
  int wakeFd_ = -1;                  // eventfd that breaks the poll thread's wait
  std::atomic<size_t> open_{0};      // connections, wherever they are
  std::atomic<size_t> buffered_{0};  // request bytes held for all connections

  std::mutex mutex_;
  std::condition_variable readyChanged_;
  bool stopping_ = false;                              // guarded by mutex_
  std::vector<std::unique_ptr<Connection>> arrivals_;  // guarded by mutex_: for the poll thread
  std::deque<std::unique_ptr<Connection>> ready_;      // guarded by mutex_: for the workers
  std::thread poller_;
  std::vector<std::thread> workers_;
};

}  // namespace zvsandbox
