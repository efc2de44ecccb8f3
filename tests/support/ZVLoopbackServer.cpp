#include "ZVLoopbackServer.h"

namespace zvtest {

namespace {

// A whole request as it arrived: the request line, header lines, the body.
LoopbackRequest parse(const std::string& raw, int clientPort) {
  LoopbackRequest request;
  const size_t headEnd = raw.find("\r\n\r\n");
  const size_t space = raw.find(' ');
  request.method = raw.substr(0, space);
  request.target = raw.substr(space + 1, raw.rfind(' ', raw.find("\r\n")) - space - 1);
  const size_t question = request.target.find('?');
  request.path = request.target.substr(0, question);
  if (question != std::string::npos) request.query = request.target.substr(question + 1);
  request.head = raw.substr(0, headEnd + 2);
  request.body = raw.substr(headEnd + 4);
  request.remotePort = clientPort;
  return request;
}

}  // namespace

std::string LoopbackRequest::header(std::string_view name) const {
  return ZVRawServer::header(head, name);
}

ZVLoopbackServer::ZVLoopbackServer()
    : server_(std::make_unique<ZVRawServer>([this](const std::string& raw, int clientPort) {
        const LoopbackResponse response = answer(parse(raw, clientPort));
        return RawScript{
            .bytes = ZVRawServer::answer(response.status, "application/json", response.body, false),
            .end = RawScript::End::Next,
            .delay = response.delay};
      })) {}

ZVLoopbackServer::~ZVLoopbackServer() = default;

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

}  // namespace zvtest
