// A local nginx that serves answer bodies as static files at the rewards
// service's URL paths, and the CPU placement of the client and the server.
#pragma once

#include <map>
#include <memory>
#include <string>

#include <sys/types.h>

namespace zvbench {

/// Where the client and the server run. With two CPUs or more, the client
/// process on one and nginx on another; with one CPU, both on it.
struct Placement {
  int clientCPU = -1;  ///< -1: not pinned
  int serverCPU = -1;
  /// "client on CPU 0, nginx on CPU 1", or what was done instead.
  std::string describe() const;
};

/// Pins this process to one CPU and picks another for the server. Call before
/// any thread starts: threads inherit the mask of the thread that creates them.
Placement pinClientAndPickServerCPU();

/// One nginx master with `workers` workers (all on the server's CPU), run under its own prefix in
/// `dir` (its configuration, pid file, error log, temp paths and certificate), never the system's.
/// Serves, for app "bench":
/// - GET /api/v1/apps/bench/offers?locale=L: the file "offers-L.json";
/// - GET /api/v1/apps/bench/orders: the file "orders.json";
/// - GET /status: nginx's counters (connections accepted, requests).
/// Plain HTTP/1.1 on `httpPort()`, HTTP/2 over TLS (ALPN, HTTP/1.1 too) on
/// `httpsPort()` with a self-signed certificate for 127.0.0.1 (`caFile()`).
/// Keep-alive connections stay open for the whole run. Stopped, and waited
/// for, by the destructor.
class Nginx {
 public:
  /// Writes `files` (name -> body) and starts nginx pinned to `cpu` (-1: not
  /// pinned). Throws std::runtime_error with nginx's error log when it does
  /// not come up.
  Nginx(const std::string& dir, const std::map<std::string, std::string>& files, int cpu,
        int workers = 1);
  ~Nginx();
  Nginx(const Nginx&) = delete;
  Nginx& operator=(const Nginx&) = delete;

  int httpPort() const { return httpPort_; }
  int httpsPort() const { return httpsPort_; }
  const std::string& caFile() const { return caFile_; }
  /// "nginx/1.22.1".
  const std::string& version() const { return version_; }
  /// Connections nginx has accepted so far (from /status over plain HTTP);
  /// -1 when it cannot be read.
  long acceptedConnections() const;

 private:
  std::string dir_;
  std::string caFile_;
  std::string version_;
  int httpPort_ = 0;
  int httpsPort_ = 0;
  pid_t pid_ = -1;
  mutable void* status_ = nullptr;  // a kept-alive libcurl handle for /status
  mutable std::string statusText_;
};

/// The server of a benchmark program, or null after `program` said on stderr
/// why it did not come up.
std::unique_ptr<Nginx> startNginx(const char* program, const std::string& dir,
                                  const std::map<std::string, std::string>& files, int cpu,
                                  int workers = 1);

}  // namespace zvbench
