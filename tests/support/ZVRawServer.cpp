#include "ZVRawServer.h"

#include <strings.h>

#include <algorithm>
#include <cstdlib>

namespace zvtest {

namespace {

constexpr auto kPoll = std::chrono::milliseconds(LoopbackListener::kPollMs);

// The length of the first request in `data` once it has all arrived, else 0.
size_t requestLength(const std::string& data) {
  const size_t headEnd = data.find("\r\n\r\n");
  if (headEnd == std::string::npos) return 0;
  const std::string length =
      ZVRawServer::header(std::string_view(data).substr(0, headEnd + 2), "content-length");
  const size_t end = headEnd + 4 + std::strtoul(length.c_str(), nullptr, 10);
  return data.size() >= end ? end : 0;
}

}  // namespace

ZVRawServer::ZVRawServer(Scripter scripter) : scripter_(std::move(scripter)) {
  listener_.start([this](int socket) { serve(socket); });
}

std::string ZVRawServer::baseURL() const {
  return "http://127.0.0.1:" + std::to_string(port());
}

std::string ZVRawServer::answer(int status, std::string_view contentType, std::string_view body,
                                bool close) {
  const std::string code = std::to_string(status);
  std::string head = "HTTP/1.1 " + code + " Status " + code + "\r\n";
  if (!contentType.empty()) head += "Content-Type: " + std::string(contentType) + "\r\n";
  head += "Content-Length: " + std::to_string(body.size()) + "\r\n";
  return head + (close ? "Connection: close\r\n\r\n" : "\r\n") + std::string(body);
}

std::string ZVRawServer::header(std::string_view raw, std::string_view name) {
  for (size_t at = raw.find("\r\n"); at != std::string_view::npos; at = raw.find("\r\n", at)) {
    at += 2;
    if (raw.size() - at > name.size() && raw[at + name.size()] == ':' &&
        ::strncasecmp(raw.data() + at, name.data(), name.size()) == 0) {
      const size_t start = raw.find_first_not_of(' ', at + name.size() + 1);
      return std::string(raw.substr(start, raw.find("\r\n", start) - start));
    }
  }
  return "";
}

int ZVRawServer::closedPort() {
  int port = 0;
  ::close(listenOnLoopback(port, "raw server"));
  return port;
}

void ZVRawServer::serve(int socket) {
  sockaddr_in client{};
  socklen_t clientLength = sizeof client;
  ::getpeername(socket, reinterpret_cast<sockaddr*>(&client), &clientLength);
  std::string received;
  char buffer[4096];
  RawScript::End end = RawScript::End::Next;
  bool peerGone = false;
  while (end == RawScript::End::Next && !peerGone && !listener_.stopping()) {
    size_t length = 0;
    while ((length = requestLength(received)) == 0) {
      if (!listener_.waitReadable(socket)) break;
      const ssize_t got = ::recv(socket, buffer, sizeof buffer, 0);
      if (got <= 0) break;
      received.append(buffer, static_cast<size_t>(got));
    }
    if (length == 0) {
      peerGone = true;
      break;
    }
    const RawScript script = scripter_(received.substr(0, length), ntohs(client.sin_port));
    received.erase(0, length);
    for (auto waited = 0 * kPoll; !listener_.stopping() && waited < script.delay; waited += kPoll)
      std::this_thread::sleep_for(kPoll);
    end = script.end;
    const std::string& bytes = script.bytes;
    const size_t step = script.byteInterval.count() > 0 ? 1 : bytes.size();
    for (size_t at = 0; !peerGone && at < bytes.size() && !listener_.stopping(); at += step) {
      const size_t chunk = std::min(step, bytes.size() - at);
      if (::send(socket, bytes.data() + at, chunk, MSG_NOSIGNAL) != static_cast<ssize_t>(chunk))
        peerGone = true;
      // Sleep in short steps so that a stop or a vanished client ends it promptly.
      for (auto waited = 0 * kPoll;
           !peerGone && !listener_.stopping() && waited < script.byteInterval; waited += kPoll) {
        pollfd entry{socket, POLLIN, 0};
        if (::poll(&entry, 1, LoopbackListener::kPollMs) > 0 &&
            ::recv(socket, buffer, sizeof buffer, 0) <= 0)
          peerGone = true;
      }
    }
  }

  if (end == RawScript::End::Reset) {
    const linger abort{1, 0};
    ::setsockopt(socket, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
  } else if (end == RawScript::End::Hold) {
    while (!peerGone && listener_.waitReadable(socket))
      if (::recv(socket, buffer, sizeof buffer, 0) <= 0) peerGone = true;
  }
}

}  // namespace zvtest
