// A scripted HTTP server on 127.0.0.1 for tests that use the real transport.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "ZVRawServer.h"

namespace zvtest {

/// What arrived at the server, as the client sent it.
struct LoopbackRequest {
  std::string method;
  std::string target;  ///< path and query exactly as sent (still percent-encoded)
  std::string path;    ///< `target` up to the '?', still percent-encoded
  std::string query;   ///< after the '?', or empty
  std::string head;    ///< the request line and header lines, as sent
  std::string body;
  int remotePort = 0;  ///< the client's port: equal ports mean a reused connection

  /// The first header of that name (case-insensitive), or "".
  std::string header(std::string_view name) const;
};

/// One scripted answer.
struct LoopbackResponse {
  int status = 200;
  std::string body = "{}";
  /// Wait this long before answering (cut short when the server stops).
  std::chrono::milliseconds delay{0};
};

/// An HTTP/1.1 server (keep-alive, bodies by Content-Length) on 127.0.0.1 and
/// a free port, a ZVRawServer that reads requests and writes answers, running on its own
/// threads from construction (which returns once it accepts connections) to
/// destruction (which stops it and joins its threads).
///
/// Each request takes the next canned answer queued with `enqueue`; when none
/// is left, the handler set with `setHandler` answers; without a handler, the
/// answer is 200 "{}". Every request is recorded before it is answered.
///
/// @par Thread safety
/// Every member is safe from any thread. The handler runs on the server's
/// threads, possibly several at once.
class ZVLoopbackServer {
 public:
  using Handler = std::function<LoopbackResponse(const LoopbackRequest&)>;

  ZVLoopbackServer();
  ~ZVLoopbackServer();
  ZVLoopbackServer(const ZVLoopbackServer&) = delete;
  ZVLoopbackServer& operator=(const ZVLoopbackServer&) = delete;

  int port() const { return server_->port(); }
  /// "http://127.0.0.1:<port>".
  std::string baseURL() const { return server_->baseURL(); }

  void setHandler(Handler handler);
  void enqueue(LoopbackResponse response);

  /// The requests received so far, in arrival order.
  std::vector<LoopbackRequest> requests() const;
  size_t requestCount() const { return requests().size(); }
  /// Waits until at least `count` requests arrived; false on timeout.
  bool waitForRequests(size_t count,
                       std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

 private:
  LoopbackResponse answer(const LoopbackRequest& request);

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  Handler handler_;                        // guarded by mutex_
  std::deque<LoopbackResponse> canned_;    // guarded by mutex_
  std::vector<LoopbackRequest> requests_;  // guarded by mutex_
  // Last, so that it stops (joining its threads, which use the above) first.
  std::unique_ptr<ZVRawServer> server_;
};

}  // namespace zvtest
