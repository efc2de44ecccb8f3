#include "SandboxServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <openssl/err.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>

#include <fmt/core.h>
#include <nlohmann/json.hpp>

#include "SandboxFraming.h"

namespace zvsandbox {
namespace {

using Clock = std::chrono::steady_clock;

// After an error answer the connection is drained this long, so that a
// client still sending reads the answer instead of a reset.
constexpr auto kLinger = std::chrono::milliseconds(2000);
constexpr size_t kReadChunk = 16 * 1024;
constexpr size_t kReadPerTurn = 64 * 1024;  // then other connections get their turn
constexpr size_t kRequestsPerConnection = 10000;

// What a read or write on a connection did, besides moving bytes.
constexpr ssize_t kWouldBlock = -1;
constexpr ssize_t kFailed = -2;

const char* reasonPhrase(int status) {
  switch (status) {
    case 100:
      return "Continue";
    case 400:
      return "Bad Request";
    case 408:
      return "Request Timeout";
    case 413:
      return "Payload Too Large";
    case 415:
      return "Unsupported Media Type";
    case 431:
      return "Request Header Fields Too Large";
    case 501:
      return "Not Implemented";
    case 503:
      return "Service Unavailable";
    default:
      return "Error";
  }
}

// A whole answer with a JSON error body, after which the connection closes.
std::string errorAnswer(int status, const std::string& message) {
  const std::string body = nlohmann::json{{"status", "error"}, {"message", message}}.dump();
  return fmt::format(
      "HTTP/1.1 {} {}\r\nContent-Type: application/json; charset=utf-8\r\n"
      "Content-Length: {}\r\nConnection: close\r\n\r\n{}",
      status, reasonPhrase(status), body.size(), body);
}

void endpointOf(const sockaddr_storage& address, std::string& ip, int& port) {
  char text[INET6_ADDRSTRLEN] = {};
  if (address.ss_family == AF_INET) {
    const auto& v4 = reinterpret_cast<const sockaddr_in&>(address);
    inet_ntop(AF_INET, &v4.sin_addr, text, sizeof text);
    port = ntohs(v4.sin_port);
  } else if (address.ss_family == AF_INET6) {
    const auto& v6 = reinterpret_cast<const sockaddr_in6&>(address);
    inet_ntop(AF_INET6, &v6.sin6_addr, text, sizeof text);
    port = ntohs(v6.sin6_port);
  }
  ip = text;
}

// Writes to a socket whose peer has gone must fail with EPIPE, not kill the
// process: OpenSSL writes without MSG_NOSIGNAL.
void blockSigpipe() {
  sigset_t pipe;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
}

}  // namespace

// One client connection, non-blocking. Owned by the poll thread while it
// waits for a request, by one worker while that request is handled.
struct Connection {
  // Counted in `open` while it lives; its buffer counts in `buffered`.
  Connection(int socket, SSL* session, const ZVSandboxLimits& limits, std::atomic<size_t>& open,
             std::atomic<size_t>& buffered)
      : fd(socket), ssl(session), framer(limits), open_(open), buffered_(buffered) {
    ++open_;
  }
  ~Connection() {
    buffered_ -= buffer.size();
    --open_;
    if (ssl) SSL_free(ssl);
    ::close(fd);
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Bytes moved, 0 at the end of the peer's data, kWouldBlock or kFailed.
  ssize_t receive(char* data, size_t size) {
    if (!ssl) return plainOutcome(::recv(fd, data, size, 0));
    ERR_clear_error();
    return tlsOutcome(SSL_read(ssl, data, static_cast<int>(size)));
  }
  ssize_t send(const char* data, size_t size) {
    if (size == 0) return 0;
    if (!ssl) return plainOutcome(::send(fd, data, size, MSG_NOSIGNAL));
    ERR_clear_error();
    return tlsOutcome(SSL_write(ssl, data, static_cast<int>(std::min<size_t>(size, 1 << 30))));
  }
  // What to wait for before the next try of an operation that would block.
  short waitEvents(bool writing) const {
    if (ssl) return wantWrite ? POLLOUT : POLLIN;
    return writing ? POLLOUT : POLLIN;
  }
  // Sends the end of the connection's output: TLS close_notify, then FIN.
  void shutDownOutput() {
    if (ssl) SSL_shutdown(ssl);
    ::shutdown(fd, SHUT_WR);
  }

  const int fd;
  SSL* const ssl;
  std::string remoteIP, localIP;
  int remotePort = 0, localPort = 0;

  std::string buffer;  // received, not yet handled
  RequestFramer framer;
  size_t requestEnd = 0;  // of the request in `buffer`, once whole

  // The poll thread's state.
  enum class Phase { reading, closing } phase = Phase::reading;
  Clock::time_point deadline;
  bool started = false;       // bytes of the next request arrived
  bool continueSent = false;  // "100 Continue" for the current request
  bool readAgain = false;     // stopped reading for fairness, more may wait
  std::string out;            // the poll thread's own answers
  size_t outSent = 0;
  bool outputShut = false;
  bool wantWrite = false;  // TLS cannot go on until the socket is writable

  bool drop = false;   // the handler asked to close without an answer
  size_t handled = 0;  // requests answered on this connection

  // Reads what is there into `buffer`, up to `limit` bytes: bytes read, 0 at
  // the end of the peer's data, kWouldBlock or kFailed.
  ssize_t fill(size_t limit) {
    const size_t old = buffer.size();
    buffer.resize(old + limit);
    const ssize_t n = receive(buffer.data() + old, limit);
    buffer.resize(old + static_cast<size_t>(std::max<ssize_t>(n, 0)));
    if (n > 0) buffered_ += static_cast<size_t>(n);
    return n;
  }
  // Forgets the handled request; what followed it stays.
  void consumeRequest() {
    buffer.erase(0, requestEnd);
    buffered_ -= requestEnd;
    requestEnd = 0;
    framer.reset();
  }

 private:
  std::atomic<size_t>& open_;
  std::atomic<size_t>& buffered_;

  static ssize_t plainOutcome(ssize_t n) {
    if (n >= 0) return n;
    return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR ? kWouldBlock : kFailed;
  }
  ssize_t tlsOutcome(int n) {
    if (n > 0) return n;
    wantWrite = false;
    switch (SSL_get_error(ssl, n)) {
      case SSL_ERROR_WANT_READ:
        return kWouldBlock;
      case SSL_ERROR_WANT_WRITE:
        wantWrite = true;
        return kWouldBlock;
      case SSL_ERROR_ZERO_RETURN:
        return 0;
      default:
        ERR_clear_error();
        return kFailed;
    }
  }
};

namespace {

thread_local Connection* tCurrentConnection = nullptr;

// Runs each task at once on the listening thread: accepted sockets go
// straight to the poll thread.
class InlineTaskQueue : public httplib::TaskQueue {
 public:
  void enqueue(std::function<void()> fn) override { fn(); }
  void shutdown() override {}
};

// The request httplib reads is the framed one, from memory; its answer goes
// to the socket, waiting for it at most the write timeout per write.
class RequestStream : public httplib::Stream {
 public:
  RequestStream(Connection& connection, std::chrono::milliseconds writeTimeout)
      : connection_(connection), writeTimeout_(writeTimeout) {}

  bool failed() const { return failed_; }

  bool is_readable() const override { return true; }
  bool is_writable() const override { return !failed_; }
  ssize_t read(char* ptr, size_t size) override {
    const size_t take = std::min(size, connection_.requestEnd - readPos_);
    std::copy_n(connection_.buffer.data() + readPos_, take, ptr);
    readPos_ += take;
    return static_cast<ssize_t>(take);
  }
  ssize_t write(const char* ptr, size_t size) override {
    if (connection_.drop) failed_ = true;
    const auto deadline = Clock::now() + writeTimeout_;
    size_t sent = 0;
    while (!failed_ && sent < size) {
      const ssize_t n = connection_.send(ptr + sent, size - sent);
      if (n > 0) {
        sent += static_cast<size_t>(n);
        continue;
      }
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      pollfd entry{connection_.fd, connection_.waitEvents(true), 0};
      if (n != kWouldBlock || left <= 0 || ::poll(&entry, 1, static_cast<int>(left)) < 0)
        failed_ = true;
    }
    return failed_ ? -1 : static_cast<ssize_t>(size);
  }
  void get_remote_ip_and_port(std::string& ip, int& port) const override {
    ip = connection_.remoteIP;
    port = connection_.remotePort;
  }
  void get_local_ip_and_port(std::string& ip, int& port) const override {
    ip = connection_.localIP;
    port = connection_.localPort;
  }
  socket_t socket() const override { return connection_.fd; }

 private:
  Connection& connection_;
  const std::chrono::milliseconds writeTimeout_;
  size_t readPos_ = 0;
  bool failed_ = false;
};

}  // namespace

GuardedServer::GuardedServer(const ZVSandboxLimits& limits, SSL_CTX* tls)
    : limits_(limits), tls_(tls) {
  new_task_queue = [] { return new InlineTaskQueue; };
  set_socket_options([this](socket_t sock) {
    httplib::default_socket_options(sock);
    listenFd_ = sock;
  });
  set_payload_max_length(limits_.maxBodyBytes);
  // What the Keep-Alive header of each answer announces.
  set_keep_alive_max_count(kRequestsPerConnection);
  set_keep_alive_timeout(std::max<time_t>(
      1, std::chrono::duration_cast<std::chrono::seconds>(limits_.idleTimeout).count()));
  wakeFd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (wakeFd_ < 0) throw std::runtime_error("the sandbox server could not create an eventfd");
  poller_ = std::thread([this] { pollLoop(); });
  for (size_t i = 0; i < std::max<size_t>(limits_.workers, 1); ++i)
    workers_.emplace_back([this] { workLoop(); });
}

GuardedServer::~GuardedServer() {
  shutdown();
  ::close(wakeFd_);
  if (tls_) SSL_CTX_free(tls_);
}

void GuardedServer::shutdown() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  readyChanged_.notify_all();
  wakePoller();
  if (poller_.joinable()) poller_.join();
  for (auto& worker : workers_)
    if (worker.joinable()) worker.join();
  std::lock_guard lock(mutex_);
  arrivals_.clear();
  ready_.clear();
}

bool GuardedServer::dropConnection() {
  if (!tCurrentConnection) return false;
  tCurrentConnection->drop = true;
  return true;
}

SSL_CTX* GuardedServer::makeTLSContext(const std::string& certificate, const std::string& key,
                                       std::string& error) {
  SSL_CTX* context = SSL_CTX_new(TLS_server_method());
  const bool ok = context && SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION) == 1 &&
                  SSL_CTX_use_certificate_chain_file(context, certificate.c_str()) == 1 &&
                  SSL_CTX_use_PrivateKey_file(context, key.c_str(), SSL_FILETYPE_PEM) == 1 &&
                  SSL_CTX_check_private_key(context) == 1;
  if (!ok) {
    char text[256] = "unknown error";
    if (const unsigned long code = ERR_get_error()) ERR_error_string_n(code, text, sizeof text);
    ERR_clear_error();
    error = fmt::format("could not load the sandbox certificate: {}", text);
    SSL_CTX_free(context);
    return nullptr;
  }
  SSL_CTX_set_options(context, SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION);
  // Writes behave like send(2): part of the bytes may go, and a retry may
  // come from the same bytes at another address.
  SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  return context;
}

void GuardedServer::widenBacklog() const {
  // Listening again on a listening socket only changes its backlog.
  if (listenFd_ >= 0) ::listen(listenFd_, 1024);
}

void GuardedServer::wakePoller() {
  const uint64_t one = 1;
  [[maybe_unused]] const auto written = ::write(wakeFd_, &one, sizeof one);
}

// Called by httplib's listening loop for each accepted socket.
bool GuardedServer::process_and_close_socket(socket_t sock) {
  ::fcntl(sock, F_SETFD, FD_CLOEXEC);
  ::fcntl(sock, F_SETFL, ::fcntl(sock, F_GETFL) | O_NONBLOCK);
  if (open_.load() >= limits_.maxConnections) {
    // Over TLS nothing can be said before a handshake; plain HTTP hears why.
    if (!tls_) {
      const auto answer = errorAnswer(503, "the sandbox has too many open connections");
      [[maybe_unused]] const auto sent =
          ::send(sock, answer.data(), answer.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      ::shutdown(sock, SHUT_WR);
    }
    ::close(sock);
    return false;
  }
  SSL* ssl = nullptr;
  if (tls_) {
    ssl = SSL_new(tls_);
    if (!ssl || SSL_set_fd(ssl, sock) != 1) {
      SSL_free(ssl);
      ::close(sock);
      return false;
    }
    SSL_set_accept_state(ssl);
  }
  auto connection = std::make_unique<Connection>(sock, ssl, limits_, open_, buffered_);
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  if (::getpeername(sock, reinterpret_cast<sockaddr*>(&address), &size) == 0)
    endpointOf(address, connection->remoteIP, connection->remotePort);
  size = sizeof address;
  if (::getsockname(sock, reinterpret_cast<sockaddr*>(&address), &size) == 0)
    endpointOf(address, connection->localIP, connection->localPort);
  connection->deadline = Clock::now() + limits_.idleTimeout;
  {
    std::lock_guard lock(mutex_);
    arrivals_.push_back(std::move(connection));
  }
  wakePoller();
  return true;
}

void GuardedServer::pollLoop() {
  blockSigpipe();
  std::vector<std::unique_ptr<Connection>> connections;
  std::vector<pollfd> entries;
  std::vector<bool> fresh;  // arrived this turn: look at their buffer before waiting

  // Answers `status` and closes after the drain.
  const auto refuse = [](Connection& c, int status, const std::string& message) {
    c.out = errorAnswer(status, message);
    c.outSent = 0;
    c.phase = Connection::Phase::closing;
    c.deadline = Clock::now() + kLinger;
  };

  // One turn of a connection; false when it is to be closed (or was handed
  // to a worker, then `c` is null).
  const auto step = [&](std::unique_ptr<Connection>& c, short revents) -> bool {
    const auto now = Clock::now();
    if (c->phase == Connection::Phase::reading) {
      if (revents != 0 || c->readAgain) {
        c->readAgain = false;
        for (size_t got = 0;;) {
          if (got >= kReadPerTurn) {
            c->readAgain = true;
            break;
          }
          if (buffered_.load() + kReadChunk > limits_.maxBufferedBytes) {
            refuse(*c, 503, "the sandbox holds too many request bytes; try again later");
            break;
          }
          const ssize_t n = c->fill(kReadChunk);
          if (n == 0 || n == kFailed) return false;  // gone before a whole request
          if (n == kWouldBlock) break;
          got += static_cast<size_t>(n);
        }
      }
      if (c->phase == Connection::Phase::reading) {
        const Framing framing = c->framer.advance(c->buffer);
        if (framing.started && !c->started) {
          c->started = true;
          c->deadline = now + limits_.requestTimeout;
        }
        if (framing.state == Framing::State::complete) {
          c->requestEnd = framing.end;
          {
            std::lock_guard lock(mutex_);
            ready_.push_back(std::move(c));
          }
          readyChanged_.notify_one();
          return false;
        }
        if (framing.state == Framing::State::refused) {
          refuse(*c, framing.status, framing.message);
        } else if (now >= c->deadline) {
          if (!c->started) return false;  // idle: nothing to answer
          refuse(*c, 408,
                 fmt::format("the request did not arrive whole within {} ms",
                             limits_.requestTimeout.count()));
        } else if (framing.expectsContinue && !c->continueSent) {
          c->continueSent = true;
          const std::string interim = "HTTP/1.1 100 Continue\r\n\r\n";
          // Small enough for any socket buffer; without it the client waits a while.
          if (c->send(interim.data(), interim.size()) != static_cast<ssize_t>(interim.size()))
            return false;
        }
      }
    }
    if (c->phase == Connection::Phase::closing) {
      while (c->outSent < c->out.size()) {
        const ssize_t n = c->send(c->out.data() + c->outSent, c->out.size() - c->outSent);
        if (n == kWouldBlock) return now < c->deadline;
        if (n <= 0) return false;
        c->outSent += static_cast<size_t>(n);
      }
      if (!c->outputShut) {
        c->outputShut = true;
        c->shutDownOutput();
      }
      char sink[kReadChunk];
      for (;;) {
        const ssize_t n = c->receive(sink, sizeof sink);
        if (n == kWouldBlock) return now < c->deadline;
        if (n <= 0) return false;
      }
    }
    return true;
  };

  // Forgets the connections closed or handed over.
  const auto release = [&] {
    for (size_t i = connections.size(); i-- > 0;) {
      if (connections[i]) continue;
      connections[i] = std::move(connections.back());
      fresh[i] = fresh.back();
      connections.pop_back();
      fresh.pop_back();
    }
  };

  for (;;) {
    {
      std::lock_guard lock(mutex_);
      if (stopping_) break;
      for (auto& c : arrivals_) {
        connections.push_back(std::move(c));
        fresh.push_back(true);
      }
      arrivals_.clear();
    }
    // Arrivals may hold a whole request already (pipelined behind the last).
    for (size_t i = 0; i < connections.size(); ++i) {
      if (!fresh[i]) continue;
      fresh[i] = false;
      if (!step(connections[i], 0)) connections[i].reset();
    }
    release();

    entries.assign(1, pollfd{wakeFd_, POLLIN, 0});
    auto wake = Clock::time_point::max();
    for (const auto& c : connections) {
      const bool writing = c->phase == Connection::Phase::closing && c->outSent < c->out.size();
      entries.push_back({c->fd, c->waitEvents(writing), 0});
      wake = std::min(wake, c->readAgain ? Clock::now() : c->deadline);
    }
    int timeout = -1;
    if (wake != Clock::time_point::max()) {
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(wake - Clock::now()).count();
      timeout = static_cast<int>(std::clamp<int64_t>(left + 1, 0, 60000));
    }
    if (::poll(entries.data(), entries.size(), timeout) < 0 && errno != EINTR) break;
    if (entries[0].revents != 0) {
      uint64_t count = 0;
      [[maybe_unused]] const auto got = ::read(wakeFd_, &count, sizeof count);
    }
    for (size_t i = 0; i < connections.size(); ++i) {
      const short revents = entries[i + 1].revents;
      if (revents == 0 && !connections[i]->readAgain && Clock::now() < connections[i]->deadline)
        continue;
      if (!step(connections[i], revents)) connections[i].reset();
    }
    release();
  }
}

void GuardedServer::workLoop() {
  blockSigpipe();
  for (;;) {
    std::unique_ptr<Connection> connection;
    {
      std::unique_lock lock(mutex_);
      readyChanged_.wait(lock, [&] { return stopping_ || !ready_.empty(); });
      if (stopping_) return;
      connection = std::move(ready_.front());
      ready_.pop_front();
    }
    handle(std::move(connection));
  }
}

void GuardedServer::handle(std::unique_ptr<Connection> connection) {
  Connection& c = *connection;
  bool clientCloses = false;
  bool answered = false;
  {
    RequestStream stream(c, limits_.writeTimeout);
    tCurrentConnection = &c;
    bool last = ++c.handled >= kRequestsPerConnection;
    {
      std::lock_guard lock(mutex_);
      last = last || stopping_;
    }
    answered = process_request(stream, last, clientCloses, nullptr) && !stream.failed();
    clientCloses = clientCloses || last;
    tCurrentConnection = nullptr;
  }
  if (!answered || c.drop) return;  // closed at once
  if (clientCloses) {
    c.shutDownOutput();
    return;
  }
  c.consumeRequest();
  c.continueSent = false;
  c.started = false;
  c.deadline = Clock::now() + limits_.idleTimeout;
  {
    std::lock_guard lock(mutex_);
    if (stopping_) return;
    arrivals_.push_back(std::move(connection));
  }
  wakePoller();
}

}  // namespace zvsandbox
