// A listening TCP socket on 127.0.0.1, shared by the test servers that speak
// HTTP themselves.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

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

}  // namespace zvtest
