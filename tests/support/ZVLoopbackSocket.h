// The listening side shared by the test servers that speak HTTP themselves:
// a socket on 127.0.0.1, and a thread per connection until the server stops.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace zvtest {

/// Listens on an ephemeral port of 127.0.0.1 and returns the socket; sets
/// `port`. Throws, naming `server`, when it cannot.
inline int listenOnLoopback(int& port, const std::string& server) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) throw std::runtime_error(server + ": no socket");
  const int one = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(fd, 128) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    ::close(fd);
    throw std::runtime_error(server + ": cannot listen on 127.0.0.1");
  }
  port = ntohs(address.sin_port);
  return fd;
}

/// Serves each connection to a port of 127.0.0.1 on a thread of its own,
/// from `start` until `stop` (or destruction), which shuts every open
/// connection down, so that blocked reads and writes return, and joins.
class LoopbackListener {
 public:
  /// How often blocked loops look at the stop flag.
  static constexpr int kPollMs = 20;

  explicit LoopbackListener(const std::string& server)
      : listener_(listenOnLoopback(port_, server)) {}
  ~LoopbackListener() { stop(); }

  int port() const { return port_; }
  bool stopping() const { return stopping_; }
  /// Connections accepted so far.
  size_t connections() const { return connections_; }

  /// `serve` runs on each connection's thread (the socket sends without
  /// delay, and closes once it returns).
  void start(std::function<void(int socket)> serve) {
    serve_ = std::move(serve);
    acceptor_ = std::thread([this] {
      while (waitReadable(listener_)) {
        const int socket = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (socket < 0) continue;
        std::lock_guard lock(mutex_);
        // Checked under the lock `stop` shuts sockets down with, so that no
        // connection escapes it.
        if (stopping_) {
          ::close(socket);
          break;
        }
        ++connections_;
        const int one = 1;
        ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        open_.insert(socket);
        workers_.emplace_back([this, socket] {
          serve_(socket);
          std::lock_guard lock(mutex_);
          open_.erase(socket);
          ::close(socket);
        });
      }
    });
  }

  void stop() {
    {
      std::lock_guard lock(mutex_);
      if (stopping_.exchange(true)) return;
      for (const int socket : open_) ::shutdown(socket, SHUT_RDWR);
    }
    if (acceptor_.joinable()) acceptor_.join();
    // No worker starts once the acceptor is gone.
    for (std::thread& worker : workers_) worker.join();
    ::close(listener_);
  }

  /// Whether `socket` has something to read; false once the server stops.
  bool waitReadable(int socket) const {
    pollfd entry{socket, POLLIN, 0};
    while (!stopping_) {
      const int ready = ::poll(&entry, 1, kPollMs);
      if (ready > 0) return true;
      if (ready < 0 && errno != EINTR) return false;
    }
    return false;
  }

 private:
  int port_ = 0;
  const int listener_;
  std::atomic<bool> stopping_{false};
  std::atomic<size_t> connections_{0};
  std::function<void(int)> serve_;
  std::thread acceptor_;
  std::mutex mutex_;
  std::set<int> open_;                // guarded by mutex_: sockets the workers still use
  std::vector<std::thread> workers_;  // guarded by mutex_ until the acceptor is joined
};

}  // namespace zvtest
