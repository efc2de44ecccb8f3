// The path of a request: admit it, resolve where it goes, encode it, hand it
// to the transport (again, when the host opted into retries and the attempt
// may be retried), and decode what comes back for the request's callback.
#include "http/ZVGenericRequestManager.h"

#include <ZorvaneCoreKit/ZVMainQueue.h>

#include <chrono>
#include <exception>
#include <thread>

#include "base/ZVStrings.h"
#include "http/ZVAnswerDecoding.h"
#include "http/ZVRequestURL.h"
#include "http/ZVRetries.h"
#include "runtime/ZVDeliveryBatch.h"
#include "runtime/ZVLifecycle.h"
#include "runtime/ZVReclaimer.h"
#include "runtime/ZVTimer.h"
#include "runtime/ZVWorker.h"

using namespace zv_detail;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

namespace {

constexpr const char* kUserAgent = "ZorvaneRewardsKit/3.0.0";

ZVOutcome failed(int64_t type, const char* code, std::string message) {
  return failedOutcome(std::make_shared<ZVError>(type, code, std::move(message)));
}

// Answers finished by the transports so far, all calls together.
std::atomic<uint64_t> answersArrived{0};

// Rounded up, so that a call's first attempt has the whole of requestTimeout.
int64_t millisecondsUntil(Clock::time_point when) {
  return std::chrono::ceil<milliseconds>(when - Clock::now()).count();
}

// Now plus `wait`, saturated: a host's "never" (a timeout or delay of
// centuries) must not overflow the clock's nanoseconds into the past.
Clock::time_point after(milliseconds wait) {
  const Clock::time_point now = Clock::now();
  if (wait >= std::chrono::duration_cast<milliseconds>(Clock::time_point::max() - now))
    return Clock::time_point::max();
  return now + wait;
}

// One call of `sendRequest`, from the call to its callback, every attempt
// of it included. Calls the callback once, whoever asks first, and keeps the
// in-flight count.
class Call : public std::enable_shared_from_this<Call> {
 public:
  Call(std::atomic<size_t>& inFlight, ZVRequestCallback callback,
       std::shared_ptr<ZVGenericRequest> request)
      : inFlight_(inFlight), callback_(std::move(callback)), request_(std::move(request)) {
    inFlight_.fetch_add(1);
  }
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;
  ~Call() {
    // Never called back (a transport that dropped its completion): stop counting it.
    if (!done_.load()) inFlight_.fetch_sub(1);
  }

  void finish(ZVOutcome outcome) {
    if (done_.exchange(true)) return;
    struct Decrement {
      std::atomic<size_t>& count;
      ~Decrement() { count.fetch_sub(1); }
    } decrement{inFlight_};
    if (outcome.error) {
      zv_detail::stampAttempts(*outcome.error, attempts_);
    } else if (outcome.response) {
      // An answer may still fail above this layer (a refusal, records that
      // cannot be built): its error must say how often the call was sent.
      outcome.response->setAttempts(attempts_);
      outcome.response->setArrival(arrival_);
    }
    static const std::string kNoKind;
    if (callback_)
      callback_(request_ ? request_->kind() : kNoKind, std::move(outcome.response),
                std::move(outcome.error), std::move(outcome.body));
  }

  // A call refused before it reached a transport is called back from the
  // main queue, like every failure, never from inside `sendRequest`.
  void refuse(ZVOutcome outcome) {
    try {
      ZVMainQueue::shared()->async(
          [self = shared_from_this(), outcome]() mutable { self->finish(std::move(outcome)); });
    } catch (...) {
      // No memory to queue it: calling back inline beats never calling back.
      finish(std::move(outcome));
    }
  }

  // Sends one attempt, now or when the service's Retry-After has passed.
  void start(Clock::time_point notBefore) {
    if (notBefore <= Clock::now()) {
      attempt();
      return;
    }
    ZVTimer::shared().at(notBefore, [self = shared_from_this()] { self->attempt(); });
  }

  const std::shared_ptr<ZVGenericRequest>& request() const { return request_; }

  // Parses the answer and calls back, on this thread.
  void decode(ZVHTTPResult result) {
    try {
      finish(decodeAnswer(std::move(result), *request_, where, service->config->maxResponseBytes));
    } catch (const std::exception& e) {
      finish(failed(ZVErrorTypeTransport, ZVErrorTransportOther,
                    strCat("could not read the answer: ", e.what())));
    }
  }

  // A read whose deadline passed while answers ahead of it decoded fails
  // (true), so that the deadline's slack stays one decode, not a queue of
  // them. A submission's answer is never thrown away: its outcome is the user's.
  bool expiredWhileQueued() {
    if (request_->method() == ZVRequestMethodSubmit || deadline == Clock::time_point::max() ||
        Clock::now() < deadline)
      return false;
    finish(failed(ZVErrorTypeTransport, ZVErrorTransportTimeout, timedOutWaiting()));
    return true;
  }

  // Set before the first attempt, then read by the attempts alone.
  std::shared_ptr<const ZVService> service;
  ZVResolvedURL where;
  ZVHTTPRequest http;
  Clock::time_point deadline;
  ZVRetryPolicy policy;

 private:
  bool mayRetry() const { return attempts_ < policy.maxAttempts; }

  void attempt() {
    // The attempt's time: what is left before the deadline, and no more than
    // `attemptTimeout`; 0 leaves it unbounded (no deadline configured).
    int64_t budget = 0;
    if (deadline != Clock::time_point::max()) {
      budget = millisecondsUntil(deadline);
      if (budget <= 0) {
        finish(failed(ZVErrorTypeTransport, ZVErrorTransportTimeout,
                      strCat("timed out after ", service->config->requestTimeout.count(),
                             " ms before ", endpoint(), " could be asked")));
        return;
      }
    }
    if (const int64_t perAttempt = policy.attemptTimeout.count(); perAttempt > 0)
      budget = budget > 0 ? std::min(budget, perAttempt) : perAttempt;
    ZVHTTPRequest exchange;
    if (attempts_ + 1 < policy.maxAttempts)
      exchange = http;  // kept for the attempts that may follow
    else
      exchange = std::move(http);
    exchange.totalTimeout = milliseconds(budget);
    if (budget > 0)
      exchange.connectTimeout = std::min(exchange.connectTimeout, milliseconds(budget));
    ++attempts_;
    // Only the call is captured, so the completion fits in the function's own storage.
    if (!ZVGenericRequestManager::instance()->sendOnTransport(
            std::move(exchange), [self = shared_from_this()](ZVHTTPResult result) {
              self->answered(std::move(result));
            }))
      finish(failed(ZVErrorTypeTransport, ZVErrorTransportOther,
                    "could not start the HTTP transport (or the SDK is shutting down)"));
  }

  void answered(ZVHTTPResult result);

  // Schedules the next attempt when this one may be retried and the wait
  // fits before the deadline; says whether it did.
  bool retryLater(const ZVHTTPResult& result) {
    const ZVRetryVerdict verdict = judgeAttempt(result);
    if (verdict.retryAfter) {
      // Later calls to the service wait too, however this one ends.
      const milliseconds wait = std::min(*verdict.retryAfter, policy.maxRetryAfter);
      holdService(service->origin, after(wait));
    }
    if (!verdict.retryable || !mayRetry()) return false;
    if (verdict.retryAfter && *verdict.retryAfter > policy.maxRetryAfter) return false;
    const milliseconds wait = verdict.retryAfter ? *verdict.retryAfter : backoff(policy, attempts_);
    const Clock::time_point next = after(wait);
    if (next >= deadline) return false;  // also when the wait is longer than what is left
    ZVTimer::shared().at(next, [self = shared_from_this()] { self->attempt(); });
    return true;
  }

  std::string endpoint() const { return std::string(where.hostAndPath()); }
  // The call's timeout, worded for the whole call rather than one attempt.
  std::string timedOutWaiting() const {
    return strCat("timed out after ", service->config->requestTimeout.count(), " ms waiting for ",
                  authority());
  }
  // "host:port" of the URL, the port named even when it is the scheme's.
  std::string authority() const {
    const std::string_view hostAndPath = where.hostAndPath();
    std::string out(hostAndPath.substr(0, hostAndPath.find('/')));
    if (out.find(':', out.rfind(']') == std::string::npos ? 0 : out.rfind(']')) ==
        std::string::npos)
      out += where.url.starts_with("https:") ? ":443" : ":80";
    return out;
  }

  std::atomic<size_t>& inFlight_;
  ZVRequestCallback callback_;
  std::shared_ptr<ZVGenericRequest> request_;
  int attempts_ = 0;      // touched by one attempt at a time
  uint64_t arrival_ = 0;  // set by the answer's transport thread, before its decode
  std::atomic<bool> done_{false};
};

// An answer handed to the decode thread.
struct DecodeJob {
  std::shared_ptr<Call> call;
  ZVHTTPResult result;
};

// Answers from this size up are parsed, and their records built, on the
// decode thread: at about 5 ns a byte, a 256 KB answer holds its thread up
// for a millisecond or so, about what a small request's round trip costs.
// Smaller answers decode where they arrive, which spares them a hand-off.
constexpr size_t kDecodeAsideBytes = size_t{256} << 10;

void runDecode(DecodeJob& job, bool abandoned) {
  std::shared_ptr<Call> call = std::move(job.call);
  if (abandoned) {
    call->finish(failed(ZVErrorTypeTransport, ZVErrorTransportOther,
                        "the SDK shut down before the answer was read"));
    return;
  }
  if (call->expiredWhileQueued()) return;
  {
    // What the handlers queue and let go of leaves with one hand-off each.
    zv_detail::ZVReclaimBatch reclaims;
    ZVDeliveryBatch deliveries;
    call->decode(std::move(job.result));
  }
  zv_detail::helpReclaimer();
}

zv_detail::ZVWorker<DecodeJob>& decoder() {
  // Leaked: answers may arrive on other threads while the process exits.
  static auto* const worker = new zv_detail::ZVWorker<DecodeJob>("zv-decode", runDecode);
  return *worker;
}

void Call::answered(ZVHTTPResult result) {
  try {
    if (policy.maxAttempts > 1 && retryLater(result)) return;
    // Numbered before any decode: a large answer decodes on another thread,
    // and may be ready after a small one that arrived after it.
    arrival_ = answersArrived.fetch_add(1, std::memory_order_relaxed) + 1;
    // The attempt had what was left of the call's time: say the call's.
    if (result.failure == ZVTransportFailure::Timeout && deadline != Clock::time_point::max() &&
        Clock::now() + milliseconds(5) >= deadline)
      result.failureMessage = timedOutWaiting();
  } catch (const std::exception& e) {
    finish(failed(ZVErrorTypeTransport, ZVErrorTransportOther,
                  strCat("could not read the answer: ", e.what())));
    return;
  }
  // A large answer decodes where it cannot hold up the transport's other
  // exchanges; when the decode thread refuses it (the process exits), here.
  if (result.failure == ZVTransportFailure::None && result.body.size() >= kDecodeAsideBytes &&
      !decoder().onWorkerThread()) {
    try {
      std::vector<DecodeJob> job;
      job.reserve(1);  // throws, if at all, before the result moves
      job.push_back({shared_from_this(), std::move(result)});
      if (decoder().post(job)) return;
      result = std::move(job.front().result);
    } catch (const std::bad_alloc&) {
      // No memory for the hand-off: decoded here.
    }
  }
  decode(std::move(result));
}

}  // namespace

void zv_detail::stampAttempts(ZVError& error, int attempts) {
  error.setAttempts(attempts);
  if (attempts > 1 && error.message())
    error.setMessage(strCat(*error.message(), " (after ", attempts, " attempts)"));
}

ZVGenericRequestManager* ZVGenericRequestManager::instance() {
  // Leaked on purpose: callbacks on transport threads may still reach it
  // while static objects are destroyed at exit.
  static ZVGenericRequestManager* const manager = new ZVGenericRequestManager();
  return manager;
}

std::string ZVGenericRequestManager::resolveURL(const ZVGenericRequest& request,
                                                std::string& error) {
  ZVResolvedURL resolved = resolve(*currentService(), request);
  error = std::move(resolved.error);
  return std::move(resolved.url);
}

void ZVGenericRequestManager::setTransport(std::shared_ptr<ZVTransport> transport) {
  std::shared_ptr<ZVTransport> previous;
  {
    std::lock_guard lock(mutex_);
    previous = std::exchange(transport_, std::move(transport));
  }
  // Released unlocked: destroying a transport runs its pending completions.
  previous.reset();
}

// Transports this thread holds in a send (see closeTransport).
thread_local size_t tHeld = 0;

std::shared_ptr<ZVTransport> ZVGenericRequestManager::transport() {
  bool counted = false;
  std::shared_ptr<ZVTransport> held = holdTransport(counted);
  if (counted) {
    sending_.fetch_sub(1);
    --tHeld;
  }
  return held;
}

std::shared_ptr<ZVTransport> ZVGenericRequestManager::holdTransport(bool& counted) {
  std::lock_guard lock(mutex_);
  if (closed_) return nullptr;
  if (!transport_) {
    try {
      transport_ = ZVMakeCurlTransport();
    } catch (...) {
      return nullptr;  // no thread or memory for it; the caller reports the failure
    }
  }
  sending_.fetch_add(1);
  ++tHeld;
  counted = true;
  return transport_;
}

bool ZVGenericRequestManager::sendOnTransport(ZVHTTPRequest request, ZVTransport::Completion done) {
  // Counted while held, so that closing the transport can wait until the
  // last reference is its own. Declared in this order so that the reference
  // goes before the count.
  struct Held {
    std::atomic<size_t>& count;
    bool counted = false;
    ~Held() {
      if (!counted) return;
      count.fetch_sub(1);
      --tHeld;
    }
  } held{sending_};
  std::shared_ptr<ZVTransport> sender = holdTransport(held.counted);
  if (!sender) return false;
  sender->send(std::move(request), std::move(done));
  return true;
}

void ZVGenericRequestManager::closeTransport(bool reopen) {
  std::shared_ptr<ZVTransport> dropped;
  {
    std::lock_guard lock(mutex_);
    closed_ = true;
    exited_ = exited_ || !reopen;
    dropped = std::move(transport_);
  }
  // A send under way may hold the transport for a moment; the last reference
  // must be ours, so that its end (joining its thread) happens here. (One
  // held by this very thread, a transport's send that shuts down, is not
  // waited for.)
  while (sending_.load() > tHeld) std::this_thread::sleep_for(std::chrono::microseconds(50));
  dropped.reset();
  // Answers still waiting to be decoded fail now, as those in flight did.
  decoder().stop(reopen);
  // Retries waiting for their time run now and find no transport.
  ZVTimer::shared().stop();
  if (reopen) {
    std::lock_guard lock(mutex_);
    closed_ = exited_;  // a shutdown that overlaps the exit does not reopen
  }
}

void ZVGenericRequestManager::sendRequest(std::shared_ptr<ZVGenericRequest> request,
                                          ZVRequestCallback callback) {
  zv_detail::armExitHook();
  std::shared_ptr<Call> call;
  try {
    call = std::make_shared<Call>(inFlight_, std::move(callback), request);
  } catch (...) {
    return;  // out of memory before anything could be recorded
  }
  try {
    if (!request) {
      call->refuse(failed(ZVErrorTypeValidation, "", "no request to send"));
      return;
    }
    call->service = currentService();
    const ZVConfiguration& config = *call->service->config;
    // A request timeout of 0 (or less) sets no deadline.
    call->deadline =
        config.requestTimeout.count() > 0 ? after(config.requestTimeout) : Clock::time_point::max();
    // This call is counted already: past the limit, it is the one too many.
    if (inFlight_.load() > config.maxRequestsInFlight) {
      call->refuse(failed(ZVErrorTypeTransport, ZVErrorTooManyRequests,
                          strCat("not sent: ", config.maxRequestsInFlight,
                                 " requests are already under way (maxRequestsInFlight)")));
      return;
    }
    call->where = resolve(*call->service, *request);
    if (!call->where.error.empty()) {
      if (call->where.badValue)
        call->refuse(failed(ZVErrorTypeValidation, ZVErrorInvalidPathValue,
                            strCat(request->kind(), ": ", call->where.error)));
      else
        call->refuse(
            failed(ZVErrorTypeConfiguration, ZVErrorNotConfigured, std::move(call->where.error)));
      return;
    }
    if (call->service->tokenHasControlChars) {
      // Said without the token itself, which must never reach a message.
      call->refuse(failed(ZVErrorTypeConfiguration, ZVErrorNotConfigured,
                          "the access token holds control characters"));
      return;
    }

    ZVHTTPRequest& http = call->http;
    http.url = call->where.url;
    http.headers.reserve(5);
    http.headers.emplace_back("Accept", "application/json");
    if (!call->service->bearer.empty())
      http.headers.emplace_back("Authorization", call->service->bearer);
    http.headers.emplace_back("User-Agent", kUserAgent);
    if (request->method() == ZVRequestMethodSubmit) {
      http.method = "POST";
      if (request->body()) {
        if (!ZVJSONSerialize(ZVJSONValue(request->body()), false, http.body)) {
          call->refuse(failed(ZVErrorTypeValidation, ZVErrorInvalidBody,
                              strCat("the body of the ", request->kind(),
                                     " request cannot be written as JSON (a NaN or infinite "
                                     "number, or text that is not UTF-8)")));
          return;
        }
        http.headers.emplace_back("Content-Type", "application/json");
      }
      // One key per call, the same for each of its attempts: a service that
      // honours it acts on the call once.
      std::string key = request->idempotencyKey();
      if (key.empty()) {
        key = makeIdempotencyKey();
      } else if (!isValidIdempotencyKey(key)) {
        call->refuse(failed(ZVErrorTypeValidation, ZVErrorInvalidIdempotencyKey,
                            "the idempotency key must be 1 to 255 visible ASCII characters"));
        return;
      }
      http.headers.emplace_back("Idempotency-Key", std::move(key));
    } else {
      http.method = "GET";
    }
    http.connectTimeout = config.connectTimeout;
    http.caFile = config.caFile;
    http.maxBodyBytes = config.maxResponseBytes;
    http.maxHeaderBytes = config.maxHeaderBytes;
    call->policy = config.retry;

    Clock::time_point notBefore = Clock::now();
    if (call->policy.maxAttempts > 1) {
      if (const auto held = serviceHeldUntil(call->service->origin)) {
        if (*held >= call->deadline) {
          call->refuse(failed(ZVErrorTypeTransport, ZVErrorTransportOther,
                              strCat("not sent: ", call->where.hostAndPath(), " asked to wait ",
                                     millisecondsUntil(*held),
                                     " ms more (Retry-After), past this call's deadline")));
          return;
        }
        notBefore = *held;
      }
    }
    call->start(notBefore);
  } catch (...) {
    // Most likely bad_alloc while building the request; the callback still runs.
    std::string reason = "unknown error";
    try {
      throw;
    } catch (const std::exception& e) {
      reason = e.what();
    } catch (...) {
    }
    try {
      call->refuse(failed(
          ZVErrorTypeTransport, ZVErrorTransportOther,
          strCat("could not send the ", request ? request->kind() : "", " request: ", reason)));
    } catch (...) {
      // Not even the error fits in memory; the in-flight count still drops.
    }
  }
}
