#include "ZVLoopbackServer.h"

#include <httplib.h>

#include <algorithm>
#include <cctype>
#include <stdexcept>

namespace zvtest {

namespace {

bool sameName(std::string_view a, std::string_view b) {
  return std::ranges::equal(a, b, [](char x, char y) {
    return std::tolower(static_cast<unsigned char>(x)) ==
           std::tolower(static_cast<unsigned char>(y));
  });
}

constexpr size_t kWorkers = 32;

}  // namespace

std::string LoopbackRequest::header(std::string_view name) const {
  for (const auto& [key, value] : headers)
    if (sameName(key, name)) return value;
  return "";
}

ZVLoopbackServer::ZVLoopbackServer() : server_(std::make_unique<httplib::Server>()) {
  auto handle = [this](const httplib::Request& in, httplib::Response& out) {
    LoopbackRequest request;
    request.method = in.method;
    request.target = in.target;
    const size_t question = in.target.find('?');
    request.path = in.target.substr(0, question);
    if (question != std::string::npos) request.query = in.target.substr(question + 1);
    for (const auto& [key, value] : in.headers) request.headers.emplace_back(key, value);
    request.body = in.body;
    request.remotePort = in.remote_port;

    LoopbackResponse response = answer(request);
    pause(response.delay);
    out.status = response.status;
    out.set_content(response.body, "application/json");
  };
  // Every path, even one that decodes to a line break ('.' would stop there).
  const std::string anyPath = R"([\s\S]*)";
  server_->Get(anyPath, handle);
  server_->Post(anyPath, handle);
  // Without it, a header written apart from its body waits for a delayed ACK.
  server_->set_tcp_nodelay(true);
  // Keep connections for as long as a client wants them (the default is 5 requests).
  server_->set_keep_alive_max_count(1'000'000);
  // Enough workers for every connection a client keeps alive at once.
  server_->new_task_queue = [] { return new httplib::ThreadPool(kWorkers); };

  port_ = server_->bind_to_any_port("127.0.0.1");
  if (port_ <= 0) throw std::runtime_error("loopback server: no free port on 127.0.0.1");
  thread_ = std::thread([this] { server_->listen_after_bind(); });
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!server_->is_running()) {
    if (std::chrono::steady_clock::now() > deadline) {
      server_->stop();
      thread_.join();
      throw std::runtime_error("loopback server did not start");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

ZVLoopbackServer::~ZVLoopbackServer() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();  // cuts delays short
  server_->stop();
  thread_.join();
}

std::string ZVLoopbackServer::hostAndPort() const {
  return "127.0.0.1:" + std::to_string(port_);
}

std::string ZVLoopbackServer::baseURL() const {
  return "http://" + hostAndPort();
}

void ZVLoopbackServer::setHandler(Handler handler) {
  std::lock_guard lock(mutex_);
  handler_ = std::move(handler);
}

void ZVLoopbackServer::enqueue(LoopbackResponse response) {
  std::lock_guard lock(mutex_);
  canned_.push_back(std::move(response));
}

std::vector<LoopbackRequest> ZVLoopbackServer::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

size_t ZVLoopbackServer::requestCount() const {
  std::lock_guard lock(mutex_);
  return requests_.size();
}

bool ZVLoopbackServer::waitForRequests(size_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return requests_.size() >= count; });
}

LoopbackResponse ZVLoopbackServer::answer(const LoopbackRequest& request) {
  Handler handler;
  {
    std::lock_guard lock(mutex_);
    requests_.push_back(request);
    changed_.notify_all();
    if (!canned_.empty()) {
      LoopbackResponse next = std::move(canned_.front());
      canned_.pop_front();
      return next;
    }
    handler = handler_;
  }
  // The handler runs unlocked so that it may call back into the server.
  return handler ? handler(request) : LoopbackResponse{};
}

void ZVLoopbackServer::pause(std::chrono::milliseconds delay) {
  if (delay <= std::chrono::milliseconds(0)) return;
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, delay, [&] { return stopping_; });
}

}  // namespace zvtest
