// A misbehaving HTTP server on 127.0.0.1 that writes raw bytes: for faults an
// HTTP library will not produce (a reset halfway through a body, one byte a
// second, a head that lies about its length).
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>

#include "ZVLoopbackSocket.h"

namespace zvtest {

/// What the server does with every connection once it has read one request.
struct RawScript {
  /// How the connection ends after the bytes are written.
  enum class End {
    Close,  ///< an orderly close (FIN)
    Reset,  ///< an abortive close (RST)
    Hold,   ///< stays open until the client gives up or the server stops
    Next,   ///< stays open for the next request (keep-alive)
  };
  std::string bytes;  ///< written as they stand
  /// Above zero: the bytes go out one at a time, this far apart.
  std::chrono::milliseconds byteInterval{0};
  End end = End::Close;
  /// Wait this long before writing (cut short when the server stops).
  std::chrono::milliseconds delay{0};
};

/// Serves `script` to every connection, each on a thread of its own, from
/// construction until destruction (which closes every connection and joins).
///
/// @par Thread safety
/// Every member is safe from any thread.
class ZVRawServer {
 public:
  /// What to write for a request (head and body, as received) that came
  /// from the client's port `clientPort`.
  using Scripter = std::function<RawScript(const std::string& request, int clientPort)>;

  explicit ZVRawServer(RawScript script)
      : ZVRawServer([script](const std::string&, int) { return script; }) {}
  /// Answers each request (head and body, as received) with the script that
  /// `scripter` makes of it; a script ending in `Next` keeps the connection
  /// for the next request. Called on the connections' threads.
  explicit ZVRawServer(Scripter scripter);

  int port() const { return listener_.port(); }
  /// "http://127.0.0.1:<port>".
  std::string baseURL() const;

  /// A complete HTTP/1.1 answer with a Content-Length and, when `close`,
  /// "Connection: close"; an empty `contentType` sends none.
  static std::string answer(int status, std::string_view contentType, std::string_view body,
                            bool close = true);
  /// A port on 127.0.0.1 on which nothing listens (bound, then released).
  static int closedPort();
  /// The value of the first header of that name (case-insensitive) in a raw
  /// request or answer, or "".
  static std::string header(std::string_view raw, std::string_view name);

 private:
  void serve(int socket);

  const Scripter scripter_;
  // Last, so that it stops (joining the workers, which use the above) first.
  LoopbackListener listener_{"raw server"};
};

}  // namespace zvtest
