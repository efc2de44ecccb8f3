// The path of a request: resolve where it goes, encode it, hand it to the
// transport, and decode what comes back for the request's callback.
#include "http/ZVGenericRequestManager.h"

#include <ZorvaneCoreKit/ZVMainQueue.h>

#include <chrono>
#include <exception>
#include <thread>

#include "base/ZVStrings.h"
#include "http/ZVAnswerDecoding.h"
#include "http/ZVRequestURL.h"
#include "runtime/ZVLifecycle.h"

using namespace zv_detail;

namespace {

constexpr const char* kUserAgent = "ZorvaneRewardsKit/3.0.0";

ZVOutcome failed(int64_t type, const char* code, std::string message) {
  return failedOutcome(std::make_shared<ZVError>(type, code, std::move(message)));
}

// Calls the callback once, whoever asks first, and keeps the in-flight count.
class Delivery {
 public:
  Delivery(std::atomic<size_t>& inFlight, ZVRequestCallback callback,
           std::shared_ptr<ZVGenericRequest> request)
      : inFlight_(inFlight), callback_(std::move(callback)), request_(std::move(request)) {
    inFlight_.fetch_add(1);
  }
  Delivery(const Delivery&) = delete;
  Delivery& operator=(const Delivery&) = delete;
  ~Delivery() {
    // Never called back (a transport that dropped its completion): stop counting it.
    if (!done_.load()) inFlight_.fetch_sub(1);
  }

  void operator()(ZVOutcome outcome) {
    if (done_.exchange(true)) return;
    struct Decrement {
      std::atomic<size_t>& count;
      ~Decrement() { count.fetch_sub(1); }
    } decrement{inFlight_};
    if (callback_)
      callback_(request_ ? request_->kind() : std::string(), std::move(outcome.response),
                std::move(outcome.error), std::move(outcome.body));
  }

  const std::shared_ptr<ZVGenericRequest>& request() const { return request_; }
  // Where the request went; the response takes the URL.
  ZVResolvedURL& where() { return where_; }

 private:
  std::atomic<size_t>& inFlight_;
  ZVRequestCallback callback_;
  std::shared_ptr<ZVGenericRequest> request_;
  ZVResolvedURL where_;  // set before the send; the transport's completion alone uses it then
  std::atomic<bool> done_{false};
};

// Transports this thread holds in a send (see closeTransport).
thread_local size_t tHeld = 0;

// A request refused before it reached a transport is called back from the
// main queue, like every failure, never from inside `sendRequest`.
void refuse(const std::shared_ptr<Delivery>& delivery, ZVOutcome outcome) {
  try {
    ZVMainQueue::shared()->async([delivery, outcome] { (*delivery)(outcome); });
  } catch (...) {
    // No memory to queue it: calling back inline beats never calling back.
    (*delivery)(std::move(outcome));
  }
}

}  // namespace

ZVGenericRequestManager* ZVGenericRequestManager::instance() {
  // Leaked on purpose: callbacks on transport threads may still reach it
  // while static objects are destroyed at exit.
  static ZVGenericRequestManager* const manager = new ZVGenericRequestManager();
  return manager;
}

std::string ZVGenericRequestManager::resolveURL(const ZVGenericRequest& request,
                                                std::string& error) {
  error.clear();
  return resolve(*currentService(), request, error).url;
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

void ZVGenericRequestManager::closeTransport(bool reopen) {
  std::shared_ptr<ZVTransport> dropped;
  {
    std::lock_guard lock(mutex_);
    closed_ = true;
    exited_ = exited_ || !reopen;
    dropped = std::move(transport_);
  }
  // A send under way may hold the transport for a moment; the last reference
  // must be ours, so that its end (joining its thread) happens here.
  // (One held by this very thread, a transport's send that shuts down, is not waited for.)
  while (sending_.load() > tHeld) std::this_thread::sleep_for(std::chrono::microseconds(50));
  dropped.reset();
  if (reopen) {
    std::lock_guard lock(mutex_);
    closed_ = exited_;  // a shutdown that overlaps the exit does not reopen
  }
}

void ZVGenericRequestManager::sendRequest(std::shared_ptr<ZVGenericRequest> request,
                                          ZVRequestCallback callback) {
  zv_detail::armExitHook();
  std::shared_ptr<Delivery> delivery;
  try {
    delivery = std::make_shared<Delivery>(inFlight_, std::move(callback), request);
  } catch (...) {
    return;  // out of memory before anything could be recorded
  }
  try {
    if (!request) {
      refuse(delivery, failed(ZVErrorTypeValidation, "", "no request to send"));
      return;
    }
    const std::shared_ptr<const ZVService> service = currentService();
    const ZVConfiguration& config = *service->config;
    std::string error;
    ZVResolvedURL where = resolve(*service, *request, error);
    if (!error.empty()) {
      refuse(delivery, failed(ZVErrorTypeConfiguration, ZVErrorNotConfigured, std::move(error)));
      return;
    }
    if (service->tokenHasControlChars) {
      // Said without the token itself, which must never reach a message.
      refuse(delivery, failed(ZVErrorTypeConfiguration, ZVErrorNotConfigured,
                              "the access token holds control characters"));
      return;
    }

    ZVHTTPRequest http;
    http.url = where.url;
    http.headers.reserve(4);
    http.headers.emplace_back("Accept", "application/json");
    if (!service->bearer.empty()) http.headers.emplace_back("Authorization", service->bearer);
    http.headers.emplace_back("User-Agent", kUserAgent);
    if (request->method() == ZVRequestMethodSubmit) {
      http.method = "POST";
      if (request->body()) {
        if (!ZVJSONSerialize(ZVJSONValue(request->body()), false, http.body)) {
          refuse(delivery, failed(ZVErrorTypeValidation, "",
                                  strCat("the body of the ", request->kind(),
                                         " request cannot be written as JSON (a NaN or infinite "
                                         "number, or text that is not UTF-8)")));
          return;
        }
        http.headers.emplace_back("Content-Type", "application/json");
      }
    } else {
      http.method = "GET";
    }
    http.connectTimeout = config.connectTimeout;
    http.totalTimeout = config.requestTimeout;
    http.caFile = config.caFile;
    http.maxBodyBytes = config.maxResponseBytes;

    // Counted while held, so that closing the transport can wait until the
    // last reference is its own. Declared in this order so that the
    // reference goes before the count.
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
    if (!sender) {
      refuse(delivery, failed(ZVErrorTypeTransport, ZVErrorTransportOther,
                              "could not start the HTTP transport (or the SDK is shutting down)"));
      return;
    }
    delivery->where() = std::move(where);
    // Only the delivery is captured, so the completion fits in the function's
    // own storage.
    sender->send(std::move(http), [delivery](ZVHTTPResult result) {
      ZVOutcome outcome;
      try {
        outcome = decodeAnswer(std::move(result), *delivery->request(), delivery->where());
      } catch (const std::exception& e) {
        outcome = failed(ZVErrorTypeTransport, ZVErrorTransportOther,
                         strCat("could not read the answer: ", e.what()));
      }
      (*delivery)(std::move(outcome));
    });
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
      refuse(delivery, failed(ZVErrorTypeTransport, ZVErrorTransportOther,
                              strCat("could not send the ", request ? request->kind() : "",
                                     " request: ", reason)));
    } catch (...) {
      // Not even the error fits in memory; the in-flight count still drops.
    }
  }
}
