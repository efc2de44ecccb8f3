// Orders are never charged twice: a submission leaves the SDK once per call
// whatever the connection does, over HTTP/1.1 keep-alive and HTTP/2; with
// retries on, every attempt of a call carries the call's idempotency key,
// and a service that honours keys stores each order once. Also the retry
// policy itself, Retry-After, the request deadline and admission.
#include <fmt/format.h>

#include <algorithm>
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

enum class Protocol { HTTP1, HTTP2 };

// A fault a service's network can throw at a submission once the service
// has acted on it, or before.
enum class Fault { None, DropAfterCommit, ResetAfterCommit, RefuseAfterCommit, Unavailable };

// A loopback order service over one protocol: `plan` picks each
// submission's fault; `arrivals` counts the submissions that arrived whole,
// by idempotency key.
class OrderService {
 public:
  OrderService(Protocol protocol, std::function<Fault(size_t)> plan) : plan_(std::move(plan)) {
    if (protocol == Protocol::HTTP1) {
      raw_ = std::make_unique<ZVRawServer>([this](const std::string& request, int) {
        const Fault fault =
            next(ZVRawServer::header(request, "Idempotency-Key"), request.starts_with("POST"));
        if (fault == Fault::Unavailable)
          return RawScript{ZVRawServer::answer(503, "", ""), {}, RawScript::End::Close};
        if (fault != Fault::None) return RawScript{"", {}, RawScript::End::Close};
        return RawScript{ZVRawServer::answer(200, "application/json", kOrderAnswer, false),
                         {},
                         RawScript::End::Next};
      });
      host_ = raw_->baseURL();
    } else {
      h2_ = std::make_unique<ZVHTTP2Server>([this](const HTTP2Request& request) {
        using Lost = HTTP2Reply::Fault;
        const Fault fault = next(request.header("idempotency-key"), request.method == "POST");
        if (fault == Fault::None) return HTTP2Reply{200, kOrderAnswer};
        if (fault == Fault::Unavailable) return HTTP2Reply{503, ""};
        return HTTP2Reply{.fault = fault == Fault::RefuseAfterCommit  ? Lost::RefuseStream
                                   : fault == Fault::ResetAfterCommit ? Lost::ResetStream
                                                                      : Lost::DropConnection};
      });
      host_ = h2_->baseURL();
    }
  }

  // Configures the SDK for this service, with `attempts` per call.
  void configure(int attempts) const {
    configureService(host_, 60s);
    reconfigure([&](ZVConfiguration& config) {
      config.caFile = h2_ ? h2_->caFile() : "";
      config.maxRequestsInFlight = 256;
      config.retry = {.maxAttempts = attempts, .baseDelay = 2ms, .maxDelay = 20ms};
    });
  }
  std::map<std::string, int> arrivals() const {
    std::lock_guard lock(mutex_);
    return arrivals_;
  }

 private:
  Fault next(const std::string& key, bool submission) {
    const Fault fault = submission ? plan_(count_++) : Fault::None;
    std::lock_guard lock(mutex_);
    if (submission && fault != Fault::Unavailable) ++arrivals_[key];
    return fault;
  }

  std::function<Fault(size_t)> plan_;
  std::atomic<size_t> count_{0};
  mutable std::mutex mutex_;
  std::map<std::string, int> arrivals_;  // guarded by mutex_
  std::unique_ptr<ZVRawServer> raw_;
  std::unique_ptr<ZVHTTP2Server> h2_;
  std::string host_;
};

Completions placeOrders(size_t count) {
  Completions completions = startAll(std::vector(count, operation("placeOrder")));
  EXPECT_TRUE(waitForAll(completions));
  return completions;
}

// Every other order's answer is lost after the service stored it, on a
// connection that carried an answer before (HTTP/1.1) or beside others
// (HTTP/2): with retries off, no order arrives twice, and each lost one is a
// transport error.
TEST(SubmittedOnceTest, LostAnswersAreNeverSentAgain) {
  CloseConnectionsFirst closeFirst;
  for (const auto& [protocol, fault, name] :
       {std::tuple{Protocol::HTTP1, Fault::DropAfterCommit, "HTTP/1.1, dropped"},
        std::tuple{Protocol::HTTP2, Fault::DropAfterCommit, "HTTP/2, dropped"},
        std::tuple{Protocol::HTTP2, Fault::RefuseAfterCommit, "HTTP/2, refused"},
        std::tuple{Protocol::HTTP2, Fault::ResetAfterCommit, "HTTP/2, reset"}}) {
    SCOPED_TRACE(name);
    OrderService service(protocol, [&](size_t n) { return n % 2 == 1 ? fault : Fault::None; });
    service.configure(1);
    size_t succeeded = 0;
    for (size_t i = 0; i < 10; ++i) {  // one at a time, so that connections are reused
      Completions done = placeOrders(1);
      ASSERT_EQ(done[0]->calls.load(), 1);
      succeeded += !done[0]->error;
      if (done[0]->error) {
        EXPECT_EQ(done[0]->error->type(), ZVErrorTypeTransport) << done[0]->error->description();
        EXPECT_EQ(done[0]->error->attempts(), 1);
      }
    }
    EXPECT_EQ(succeeded, 5u);
    const auto arrivals = service.arrivals();
    EXPECT_EQ(arrivals.size(), 10u);
    for (const auto& [key, times] : arrivals) EXPECT_EQ(times, 1) << key;
  }
}

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
    service.configure(8);
    size_t succeeded = 0;
    for (const auto& c : placeOrders(200)) {
      EXPECT_EQ(c->calls.load(), 1);
      succeeded += c->error == nullptr;
    }
    EXPECT_GE(succeeded, 198u);
    // The keys that arrived are the calls' keys: one order each.
    const auto arrivals = service.arrivals();
    EXPECT_EQ(arrivals.size(), 200u);
    EXPECT_TRUE(std::ranges::any_of(arrivals, [](const auto& a) { return a.second > 1; }))
        << "no attempt was retried: the faults did not bite";
  }
}

// A raw server that answers each attempt with the next of `answers` (the
// last one repeats; "" resets the connection) and keeps the requests.
struct ScriptedServer {
  explicit ScriptedServer(std::vector<std::string> answers) : answers(std::move(answers)) {}
  const std::vector<std::string> answers;
  std::mutex mutex;
  std::vector<std::string> requests;                            // guarded by mutex
  std::vector<std::chrono::steady_clock::time_point> arrivals;  // guarded by mutex
  ZVRawServer server{[this](const std::string& request, int) {
    std::lock_guard lock(mutex);
    requests.push_back(request);
    arrivals.push_back(std::chrono::steady_clock::now());
    const std::string& answer = answers[std::min(requests.size(), answers.size()) - 1];
    return RawScript{.bytes = answer,
                     .end = answer.empty() ? RawScript::End::Reset : RawScript::End::Close};
  }};
  CloseConnectionsFirst closeFirst;

  // Points the SDK at the server with this retry policy.
  void configure(std::chrono::milliseconds timeout, ZVRetryPolicy retry) {
    configureService(server.baseURL(), timeout);
    reconfigure([&](ZVConfiguration& config) { config.retry = retry; });
  }
};

std::string status(int code, std::string_view extra = "") {
  return fmt::format("HTTP/1.1 {} S\r\n{}Content-Length: 2\r\nConnection: close\r\n\r\n{{}}", code,
                     extra);
}

const std::string kOK = ZVRawServer::answer(200, "application/json", kOrderAnswer);

TEST(RetryPolicyTest, RetriesTheFaultsItShouldAndNothingElse) {
  using Answers = std::vector<std::string>;
  const struct {
    const char* name;
    bool submission;
    size_t requests;  // how many reached the server
    bool succeeds;
    Answers answers;  // "" resets the connection
  } cases[] = {
      {"a read through 408, 429, 500, 502, 503, 504 and a reset", false, 8, true,
       Answers{status(408), status(429), status(500), status(502), status(503), status(504), "",
               kOK}},
      {"a submission through 503 and a reset", true, 3, true, {status(503), "", kOK}},
      {"400 to a submission is not retried", true, 1, false, {status(400), kOK}},
      {"a Retry-After above the cap is not retried", true, 1, false,
       Answers{status(503, "Retry-After: 3600\r\n"), kOK}},
      {"nor one dated centuries ahead", true, 1, false,
       Answers{status(503, "Retry-After: Fri, 31 Dec 9999 23:59:59 GMT\r\n"), kOK}},
      {"a refusal after a 503 counts both attempts", true, 2, false,
       Answers{status(503), ZVRawServer::answer(200, "application/json",
                                                R"({"status":"error","message":"no points"})")}},
      {"attempts run out", false, 8, false, {status(503)}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ScriptedServer script{c.answers};
    script.configure(10s, {.maxAttempts = 8, .baseDelay = 1ms, .maxDelay = 4ms});
    const auto done = run(c.submission ? "placeOrder" : "fetchOrders");
    EXPECT_EQ(done->calls.load(), 1);
    const ZVErrorPtr& error = done->error;
    EXPECT_EQ(error == nullptr, c.succeeds);
    std::lock_guard lock(script.mutex);
    EXPECT_EQ(script.requests.size(), c.requests);
    if (error) {
      EXPECT_EQ(error->attempts(), static_cast<int>(c.requests));
      EXPECT_EQ(error->message()->ends_with(fmt::format("(after {} attempts)", c.requests)),
                c.requests > 1)
          << *error->message();
    }
    // Every attempt of a submission carries the call's one key.
    std::set<std::string> keys;
    for (const std::string& request : script.requests)
      keys.insert(ZVRawServer::header(request, "Idempotency-Key"));
    EXPECT_EQ(keys.size(), 1u);
    EXPECT_EQ(keys.begin()->size(), c.submission ? 32u : 0u);
  }
}

// A host-chosen key travels as the header, never in the body; a key that is
// not a header value is refused before anything is sent.
TEST(RetryPolicyTest, HostKeysTravelAsTheHeader) {
  ScriptedServer script{{kOK}};
  configureService(script.server.baseURL());
  const std::string good = "order-7f3a-restart-safe";
  for (const std::string& key : {good, std::string("bad key"), std::string(256, 'k')}) {
    auto order = ZVOrderRequest::initWithOfferID("101", 1);
    order->setIdempotencyKey(key);
    const auto done = await([&](auto h) { ZVRewardsManager::instance()->placeOrder(order, h); });
    EXPECT_EQ(done->error ? done->error->code() : "",
              key == good ? "" : ZVErrorInvalidIdempotencyKey);
  }
  std::lock_guard lock(script.mutex);
  ASSERT_EQ(script.requests.size(), 1u);
  const std::string& sent = script.requests[0];
  EXPECT_EQ(ZVRawServer::header(sent, "Idempotency-Key"), good);
  EXPECT_EQ(sent.find(good, sent.find("\r\n\r\n")), std::string::npos);
}

// After a 429 with Retry-After, later calls to the service wait until it has
// passed (retries on), or fail at once, unsent, when it would pass their
// deadline.
TEST(RetryPolicyTest, RetryAfterHoldsLaterCallsToTheService) {
  ScriptedServer script{
      {status(429, "Retry-After: 1\r\n"),
       ZVRawServer::answer(200, "application/json", R"({"status":"ok","orders":[]})")}};
  script.configure(5s, {.maxAttempts = 3});
  const auto sent = [&](std::string_view path) {
    std::lock_guard lock(script.mutex);
    return std::ranges::count_if(script.requests,
                                 [&](const auto& r) { return r.find(path) != std::string::npos; });
  };
  ZVRewardsManager* manager = ZVRewardsManager::instance();
  Completion first, second;
  manager->fetchOrdersWithCompletionHandler(first.handler());
  ASSERT_TRUE(drainUntil([&] { return sent("/orders ") > 0; }));
  // Probes too short to wait out the hold: once one is refused, the 429 has
  // set the hold (a probe sent before that gets an answer of no use to it).
  reconfigure([&](ZVConfiguration& config) { config.requestTimeout = 300ms; });
  int probes = 0;
  for (bool held = false; !held && probes < 100; ++probes) {
    Completion probe;
    manager->fetchSkillQuestionWithCompletionHandler(probe.handler());
    ASSERT_TRUE(probe.wait());
    held = probe.error && probe.error->message()->find("Retry-After") != std::string::npos;
  }
  ASSERT_LT(probes, 100) << "no call was held";
  reconfigure([](ZVConfiguration& config) { config.requestTimeout = 5s; });
  manager->fetchOrdersWithCompletionHandler(second.handler());
  ASSERT_TRUE(first.wait() && second.wait());
  EXPECT_FALSE(first.error);
  EXPECT_FALSE(second.error);
  EXPECT_LT(sent("/skills_test_question "), probes) << "the refused probe was sent";
  // The first call's retry and the second call came once the hold had passed.
  std::lock_guard lock(script.mutex);
  std::vector<std::chrono::steady_clock::time_point> orders;
  for (size_t i = 0; i < script.requests.size(); ++i)
    if (script.requests[i].find("/orders ") != std::string::npos)
      orders.push_back(script.arrivals[i]);
  ASSERT_EQ(orders.size(), 3u);
  EXPECT_GE(orders[1] - orders[0], 950ms);
  EXPECT_GE(orders[2] - orders[0], 950ms);
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
      {"Sun, 06 Nov 1994 08:00:00 GMT", milliseconds(0)},  // in the past
      // Centuries ahead: past what the clock's nanoseconds hold, still a long wait.
      {"Fri, 31 Dec 9999 23:59:59 GMT", milliseconds(int64_t{UINT32_MAX} * 1000)},
      {"Sat, 01 Jan 2300 00:00:00 GMT", milliseconds(int64_t{UINT32_MAX} * 1000)},
      {"Fri, 01 Jan 2100 00:00:00 GMT", milliseconds(int64_t{4102444800 - 784111777} * 1000)},
      {"-5", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& c : cases)
    EXPECT_EQ(zv_detail::parseRetryAfter(c.value, now), c.wait) << c.value;
}

// Retries never outlive the call's requestTimeout; the handler comes once.
TEST(RetryPolicyTest, AttemptsAndWaitsFitTheRequestTimeout) {
  ScriptedServer script{{status(503)}};
  script.configure(400ms, {.maxAttempts = 1000, .baseDelay = 20ms, .maxDelay = 100ms});
  const auto start = std::chrono::steady_clock::now();
  const ZVErrorPtr error = run("fetchOrders")->error;
  // Bounded by the deadline, not by the attempts allowed (minutes of waits);
  // the slack leaves room for a sanitized build on a busy machine.
  EXPECT_LT(std::chrono::steady_clock::now() - start, 400ms + 4s);
  ASSERT_TRUE(error);
  // The last attempt either got its 503 or was cut by the deadline (a busy
  // machine leaves it only a few milliseconds).
  EXPECT_TRUE(error->httpStatus() == 503 || error->code() == std::string(ZVErrorTransportTimeout))
      << error->description();
  EXPECT_GT(error->attempts(), 1);
}

// Past maxRequestsInFlight a call fails at once, on the main queue.
TEST(AdmissionTest, CallsPastTheLimitFailOnTheMainQueue) {
  ServiceServer server([](const LoopbackRequest& request) {
    LoopbackResponse answer = serviceAnswer(request);
    answer.delay = 300ms;
    return answer;
  });
  reconfigure([&](ZVConfiguration& config) { config.maxRequestsInFlight = 2; });
  Completions done = startAll(std::vector(4, operation("fetchOrders")));
  for (const auto& c : done) EXPECT_EQ(c->calls.load(), 0) << "called inside the call";
  ASSERT_TRUE(waitForAll(done));
  const auto refused = [](const auto& c) {
    return c->error && c->error->code() == std::string(ZVErrorTooManyRequests);
  };
  EXPECT_EQ(std::ranges::count_if(done, refused), 2);
  EXPECT_EQ(server.requestCount(), 2u);
}

}  // namespace
