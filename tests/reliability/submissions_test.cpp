// Orders are never charged twice: a submission leaves the SDK once per call
// whatever the connection does, over HTTP/1.1 keep-alive and HTTP/2; with
// retries on, every attempt of a call carries the call's idempotency key,
// and a service that honours keys stores each order once. Also the retry
// policy itself, Retry-After, the request deadline and admission.
#include <fmt/format.h>

#include <map>
#include <random>
#include <set>

#include "ZVHTTP2Server.h"
#include "ZVRawServer.h"
#include "ZVRewardsFixture.h"
#include "http/ZVRetries.h"

using namespace zvtest;
using namespace std::chrono_literals;

namespace {

constexpr const char* kOrderAnswer =
    R"({"status":"ok","order":{"id":"9","user":{"available_points":10}}})";

// What a service that honours idempotency keys keeps: each key's order once,
// and how many times each key's request arrived whole.
class OrderBook {
 public:
  // Records one arrival; the first for a key stores the order.
  void arrived(const std::string& key) {
    std::lock_guard lock(mutex_);
    ++arrivals_[key];
  }
  std::map<std::string, int> arrivals() const {
    std::lock_guard lock(mutex_);
    return arrivals_;
  }

 private:
  mutable std::mutex mutex_;
  std::map<std::string, int> arrivals_;  // guarded by mutex_
};

// The header's value in a raw HTTP/1.1 request, or "".
std::string headerOf(const std::string& request, std::string_view name) {
  size_t at = 0;
  while ((at = request.find("\r\n", at)) != std::string::npos) {
    at += 2;
    if (request.size() - at > name.size() &&
        ::strncasecmp(request.data() + at, name.data(), name.size()) == 0 &&
        request[at + name.size()] == ':') {
      const size_t start = request.find_first_not_of(' ', at + name.size() + 1);
      return request.substr(start, request.find("\r\n", start) - start);
    }
  }
  return "";
}

enum class Protocol { HTTP1, HTTP2 };

// A fault a service's network can throw at a submission once the service
// has acted on it, or before.
enum class Fault { None, DropAfterCommit, ResetAfterCommit, RefuseAfterCommit, Unavailable };

// A loopback order service over one protocol: `plan` picks each request's
// fault; the book records what arrived.
class OrderService {
 public:
  OrderService(Protocol protocol, std::function<Fault(size_t)> plan) : plan_(std::move(plan)) {
    if (protocol == Protocol::HTTP1) {
      raw_ = std::make_unique<ZVRawServer>([this](const std::string& request) {
        const Fault fault = next(headerOf(request, "Idempotency-Key"), request.starts_with("POST"));
        if (fault == Fault::Unavailable)
          return RawScript{ZVRawServer::answer(503, "", ""), {}, RawScript::End::Close};
        if (fault != Fault::None) return RawScript{"", {}, RawScript::End::Close};
        std::string answer = ZVRawServer::answer(200, "application/json", kOrderAnswer);
        answer.replace(answer.find("Connection: close"), 17, "Connection: keep-alive");
        return RawScript{answer, {}, RawScript::End::Next};
      });
      host_ = raw_->baseURL();
    } else {
      h2_ = std::make_unique<ZVHTTP2Server>([this](const HTTP2Request& request) {
        switch (next(request.header("idempotency-key"), request.method == "POST")) {
          case Fault::None:
            return HTTP2Reply{200, kOrderAnswer};
          case Fault::Unavailable:
            return HTTP2Reply{503, ""};
          case Fault::RefuseAfterCommit:
            return HTTP2Reply{.fault = HTTP2Reply::Fault::RefuseStream};
          case Fault::ResetAfterCommit:
            return HTTP2Reply{.fault = HTTP2Reply::Fault::ResetStream};
          case Fault::DropAfterCommit:
            break;
        }
        return HTTP2Reply{.fault = HTTP2Reply::Fault::DropConnection};
      });
      host_ = h2_->baseURL();
    }
  }

  const std::string& host() const { return host_; }
  std::string caFile() const { return h2_ ? h2_->caFile() : ""; }
  OrderBook& book() { return book_; }

 private:
  Fault next(const std::string& key, bool submission) {
    const Fault fault = submission ? plan_(count_++) : Fault::None;
    if (submission && fault != Fault::Unavailable) book_.arrived(key);
    return fault;
  }

  std::function<Fault(size_t)> plan_;
  std::atomic<size_t> count_{0};
  OrderBook book_;
  std::unique_ptr<ZVRawServer> raw_;
  std::unique_ptr<ZVHTTP2Server> h2_;
  std::string host_;
};

void configureFor(const OrderService& service, int attempts) {
  configureService(service.host(), 60s);
  ZVConfiguration config = Zorvane::configuration();
  config.caFile = service.caFile();
  config.maxRequestsInFlight = 256;
  config.retry.maxAttempts = attempts;
  config.retry.baseDelay = 2ms;
  config.retry.maxDelay = 20ms;
  Zorvane::configure(config);
}

Completions placeOrders(size_t count) {
  Completions completions;
  for (size_t i = 0; i < count; ++i) {
    completions.push_back(std::make_unique<Completion>());
    ZVRewardsManager::instance()->placeOrder(ZVOrderRequest::initWithOfferID("101", 1),
                                             completions.back()->handler());
  }
  EXPECT_TRUE(waitForAll(completions));
  return completions;
}

struct OnceCase {
  Protocol protocol;
  Fault fault;
  const char* name;
};

void PrintTo(const OnceCase& c, std::ostream* out) {
  *out << c.name;
}

class SubmittedOnceTest : public ::testing::TestWithParam<OnceCase> {
 protected:
  CloseConnectionsFirst closeFirst_;
};

// Every other order's answer is lost after the service stored it, on a
// connection that carried an answer before (HTTP/1.1) or beside others
// (HTTP/2): with retries off, no order arrives twice, and each lost one is a
// transport error.
TEST_P(SubmittedOnceTest, LostAnswersAreNeverSentAgain) {
  const OnceCase& c = GetParam();
  OrderService service(c.protocol, [&](size_t n) { return n % 2 == 1 ? c.fault : Fault::None; });
  configureFor(service, 1);
  size_t succeeded = 0;
  for (size_t i = 0; i < 10; ++i) {  // one at a time, so that connections are reused
    Completions done = placeOrders(1);
    ASSERT_EQ(done[0]->calls.load(), 1);
    if (done[0]->error) {
      EXPECT_EQ(done[0]->error->type(), ZVErrorTypeTransport) << done[0]->error->description();
      EXPECT_EQ(done[0]->error->attempts(), 1);
    } else {
      ++succeeded;
    }
  }
  EXPECT_EQ(succeeded, 5u);
  const auto arrivals = service.book().arrivals();
  EXPECT_EQ(arrivals.size(), 10u);
  for (const auto& [key, times] : arrivals) EXPECT_EQ(times, 1) << key;
}

INSTANTIATE_TEST_SUITE_P(
    Faults, SubmittedOnceTest,
    ::testing::Values(OnceCase{Protocol::HTTP1, Fault::DropAfterCommit, "HTTP1Dropped"},
                      OnceCase{Protocol::HTTP2, Fault::DropAfterCommit, "HTTP2Dropped"},
                      OnceCase{Protocol::HTTP2, Fault::RefuseAfterCommit, "HTTP2Refused"},
                      OnceCase{Protocol::HTTP2, Fault::ResetAfterCommit, "HTTP2Reset"}),
    [](const auto& info) { return std::string(info.param.name); });

// With retries on, 200 orders under 20% faults (answers lost after the
// order was stored, streams reset or refused, 503s) are stored exactly once
// each, and at least 99% of the calls succeed.
TEST(RetriedOrdersTest, TwoHundredOrdersUnderFaultsAreStoredOnceEach) {
  CloseConnectionsFirst closeFirst;
  for (const Protocol protocol : {Protocol::HTTP1, Protocol::HTTP2}) {
    SCOPED_TRACE(protocol == Protocol::HTTP1 ? "HTTP/1.1" : "HTTP/2");
    std::mutex randomMutex;
    std::mt19937 random(7);
    OrderService service(protocol, [&](size_t) {
      std::lock_guard lock(randomMutex);
      const int draw = std::uniform_int_distribution<int>(0, 99)(random);
      if (draw >= 20) return Fault::None;
      if (draw < 8) return Fault::DropAfterCommit;
      if (draw < 12) return Fault::Unavailable;
      return protocol == Protocol::HTTP2 && draw < 16 ? Fault::RefuseAfterCommit
                                                      : Fault::ResetAfterCommit;
    });
    configureFor(service, 8);
    Completions done = placeOrders(200);
    size_t succeeded = 0;
    for (const auto& c : done) {
      EXPECT_EQ(c->calls.load(), 1);
      succeeded += c->error == nullptr;
    }
    EXPECT_GE(succeeded, 198u);
    // The keys that arrived are the calls' keys: one order each.
    const auto arrivals = service.book().arrivals();
    EXPECT_EQ(arrivals.size(), 200u);
    size_t retried = 0;
    for (const auto& [key, times] : arrivals) retried += times > 1;
    EXPECT_GT(retried, 0u) << "no attempt was retried: the faults did not bite";
  }
}

// One attempt's answer at a time, from a queue; the last one repeats.
struct Script {
  explicit Script(std::vector<std::string> answers) : answers(std::move(answers)) {}
  std::vector<std::string> answers;
  std::mutex mutex;
  std::vector<std::string> requests;  // guarded by mutex
  RawScript operator()(const std::string& request) {
    std::lock_guard lock(mutex);
    requests.push_back(request);
    const std::string& answer = answers[std::min(requests.size(), answers.size()) - 1];
    return {.bytes = answer, .end = answer.empty() ? RawScript::End::Reset : RawScript::End::Close};
  }
};

std::string status(int code, std::string_view extra = "") {
  return fmt::format("HTTP/1.1 {} S\r\n{}Content-Length: 2\r\nConnection: close\r\n\r\n{{}}", code,
                     extra);
}

TEST(RetryPolicyTest, RetriesTheFaultsItShouldAndNothingElse) {
  CloseConnectionsFirst closeFirst;
  const std::string ok = ZVRawServer::answer(200, "application/json", kOrderAnswer);
  const struct {
    const char* name;
    bool submission;
    std::vector<std::string> answers;  // "" resets the connection
    size_t requests;                   // how many reached the server
    bool succeeds;
  } cases[] = {
      {"a read through 408, 429, 500, 502, 503, 504 and a reset",
       false,
       {status(408), status(429), status(500), status(502), status(503), status(504), "", ok},
       8,
       true},
      {"a submission through 503 and a reset", true, {status(503), "", ok}, 3, true},
      {"404 is not retried", false, {status(404), ok}, 1, false},
      {"400 to a submission is not retried", true, {status(400), ok}, 1, false},
      {"a Retry-After above the cap is not retried",
       true,
       {status(503, "Retry-After: 3600\r\n"), ok},
       1,
       false},
      {"attempts run out", false, {status(503)}, 8, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Script script{c.answers};
    ZVRawServer server([&](const std::string& request) { return script(request); });
    configureService(server.baseURL(), 10s);
    ZVConfiguration config = Zorvane::configuration();
    config.retry = {.maxAttempts = 8, .baseDelay = 1ms, .maxDelay = 4ms};
    Zorvane::configure(config);
    Completion done;
    if (c.submission)
      ZVRewardsManager::instance()->placeOrder(ZVOrderRequest::initWithOfferID("101", 1),
                                               done.handler());
    else
      ZVRewardsManager::instance()->fetchOrdersWithCompletionHandler(done.handler());
    ASSERT_TRUE(done.wait());
    EXPECT_EQ(done.calls.load(), 1);
    EXPECT_EQ(done.error == nullptr, c.succeeds);
    std::lock_guard lock(script.mutex);
    EXPECT_EQ(script.requests.size(), c.requests);
    if (done.error) {
      EXPECT_EQ(done.error->attempts(), static_cast<int>(c.requests));
      if (c.requests > 1) {
        EXPECT_NE(done.error->message()->find(fmt::format("(after {} attempts)", c.requests)),
                  std::string::npos)
            << *done.error->message();
      }
    }
    // Every attempt of a submission carries the call's one key.
    std::set<std::string> keys;
    for (const std::string& request : script.requests)
      keys.insert(headerOf(request, "Idempotency-Key"));
    EXPECT_EQ(keys.size(), 1u);
    EXPECT_EQ(keys.begin()->size(), c.submission ? 32u : 0u);
  }
}

// A host-chosen key travels as the header, never in the body; a key that is
// not a header value is refused before anything is sent.
TEST(RetryPolicyTest, HostKeysTravelAsTheHeader) {
  CloseConnectionsFirst closeFirst;
  Script script{{ZVRawServer::answer(200, "application/json", kOrderAnswer)}};
  ZVRawServer server([&](const std::string& request) { return script(request); });
  configureService(server.baseURL());
  for (const std::string& key :
       std::vector<std::string>{"order-7f3a-restart-safe", "bad key", std::string(256, 'k')}) {
    auto order = ZVOrderRequest::initWithOfferID("101", 1);
    order->setIdempotencyKey(key);
    Completion done;
    ZVRewardsManager::instance()->placeOrder(order, done.handler());
    ASSERT_TRUE(done.wait());
    if (key == "order-7f3a-restart-safe") {
      ASSERT_FALSE(done.error);
      std::lock_guard lock(script.mutex);
      EXPECT_EQ(headerOf(script.requests.back(), "Idempotency-Key"), key);
      EXPECT_EQ(script.requests.back().find(key, script.requests.back().find("\r\n\r\n")),
                std::string::npos);
    } else {
      ASSERT_TRUE(done.error);
      EXPECT_EQ(done.error->code(), ZVErrorInvalidIdempotencyKey);
    }
  }
  std::lock_guard lock(script.mutex);
  EXPECT_EQ(script.requests.size(), 1u);
}

// After a 429 with Retry-After, later calls to the service wait until it has
// passed (retries on), or fail at once when it would pass their deadline.
TEST(RetryPolicyTest, RetryAfterHoldsLaterCallsToTheService) {
  CloseConnectionsFirst closeFirst;
  Script script{{status(429, "Retry-After: 1\r\n"),
                 ZVRawServer::answer(200, "application/json", R"({"status":"ok","orders":[]})")}};
  std::mutex timesMutex;
  std::vector<std::chrono::steady_clock::time_point> arrivals;
  ZVRawServer server([&](const std::string& request) {
    {
      std::lock_guard lock(timesMutex);
      arrivals.push_back(std::chrono::steady_clock::now());
    }
    return script(request);
  });
  configureService(server.baseURL(), 5s);
  ZVConfiguration config = Zorvane::configuration();
  config.retry.maxAttempts = 3;
  Zorvane::configure(config);
  Completion first;
  ZVRewardsManager::instance()->fetchOrdersWithCompletionHandler(first.handler());
  ASSERT_TRUE(drainUntil([&] { return server.connections() >= 1; }));
  std::this_thread::sleep_for(50ms);  // the 429 has arrived and set the hold
  Completion second;
  ZVRewardsManager::instance()->fetchOrdersWithCompletionHandler(second.handler());
  config.requestTimeout = 300ms;  // shorter than the hold: refused without a request
  Zorvane::configure(config);
  Completion third;
  ZVRewardsManager::instance()->fetchOrdersWithCompletionHandler(third.handler());
  ASSERT_TRUE(first.wait() && second.wait() && third.wait());
  EXPECT_FALSE(first.error);
  EXPECT_FALSE(second.error);
  ASSERT_TRUE(third.error);
  EXPECT_NE(third.error->message()->find("Retry-After"), std::string::npos);
  std::lock_guard lock(timesMutex);
  ASSERT_EQ(arrivals.size(), 3u);
  EXPECT_GE(arrivals[1] - arrivals[0], 950ms);
  EXPECT_GE(arrivals[2] - arrivals[0], 950ms);
}

TEST(RetryPolicyTest, RetryAfterReadsSecondsAndDates) {
  using std::chrono::milliseconds;
  const auto now = std::chrono::system_clock::from_time_t(784111777);  // 1994-11-06 08:49:37 UTC
  const struct {
    const char* value;
    std::optional<milliseconds> wait;
  } cases[] = {
      {"120", milliseconds(120'000)},
      {" 0 ", milliseconds(0)},
      {"Sun, 06 Nov 1994 08:49:47 GMT", milliseconds(10'000)},
      {"Sunday, 06-Nov-94 08:50:37 GMT", milliseconds(60'000)},
      {"Sun Nov  6 08:49:57 1994", milliseconds(20'000)},
      {"Sun, 06 Nov 1994 08:00:00 GMT", milliseconds(0)},  // in the past
      {"-5", std::nullopt},
      {"soon", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& c : cases)
    EXPECT_EQ(zv_detail::parseRetryAfter(c.value, now), c.wait) << c.value;
}

// Retries never outlive the call's requestTimeout; the handler comes once.
TEST(RetryPolicyTest, AttemptsAndWaitsFitTheRequestTimeout) {
  CloseConnectionsFirst closeFirst;
  Script script{{status(503)}};
  ZVRawServer server([&](const std::string& request) { return script(request); });
  configureService(server.baseURL(), 400ms);
  ZVConfiguration config = Zorvane::configuration();
  config.retry = {.maxAttempts = 1000, .baseDelay = 20ms, .maxDelay = 100ms};
  Zorvane::configure(config);
  const auto start = std::chrono::steady_clock::now();
  Completion done;
  ZVRewardsManager::instance()->fetchOrdersWithCompletionHandler(done.handler());
  ASSERT_TRUE(done.wait());
  // Bounded by the deadline, not by the attempts allowed (minutes of waits);
  // the slack leaves room for a sanitized build on a busy machine.
  EXPECT_LT(std::chrono::steady_clock::now() - start, 400ms + 1s);
  ASSERT_TRUE(done.error);
  EXPECT_EQ(done.error->httpStatus(), 503);
  EXPECT_GT(done.error->attempts(), 1);
}

// Past maxRequestsInFlight a call fails at once, on the main queue.
TEST(AdmissionTest, CallsPastTheLimitFailOnTheMainQueue) {
  ZVLoopbackServer server;
  CloseConnectionsFirst closeFirst;
  server.setHandler([](const LoopbackRequest& request) {
    LoopbackResponse answer = serviceAnswer(request);
    answer.delay = 300ms;
    return answer;
  });
  configureService(server.baseURL());
  ZVConfiguration config = Zorvane::configuration();
  config.maxRequestsInFlight = 2;
  Zorvane::configure(config);
  Completions done;
  for (int i = 0; i < 4; ++i) {
    done.push_back(std::make_unique<Completion>());
    ZVRewardsManager::instance()->fetchOrdersWithCompletionHandler(done.back()->handler());
  }
  for (const auto& c : done) EXPECT_EQ(c->calls.load(), 0) << "called inside the call";
  ASSERT_TRUE(waitForAll(done));
  size_t refused = 0;
  for (const auto& c : done)
    refused += c->error && c->error->code() == std::string(ZVErrorTooManyRequests);
  EXPECT_EQ(refused, 2u);
  EXPECT_EQ(server.requestCount(), 2u);
}

}  // namespace
