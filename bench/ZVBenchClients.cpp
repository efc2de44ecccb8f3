#include "ZVBenchClients.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>

#include <fmt/format.h>

#include <ZorvaneCoreKit/ZVMainQueue.h>
#include <ZorvaneCoreKit/Zorvane.h>
#include <ZorvaneRewardsKit/ZVRewardsManager.h>
#include "http/ZVGenericRequest.h"
#include "http/ZVGenericRequestManager.h"

#include "ZVBenchSupport.h"

namespace zvbench {

namespace {

constexpr const char* kToken = "bench-token";
// Handlers hold references to the caller's stack: a batch that does not end
// cannot be abandoned, so the benchmark stops instead.
constexpr auto kBatchLimit = std::chrono::seconds(120);

[[noreturn]] void batchStuck(const char* what) {
  std::fprintf(stderr, "zv_bench: %s did not finish within %lld s\n", what,
               static_cast<long long>(kBatchLimit.count()));
  std::fflush(stderr);
  std::_Exit(3);
}

size_t keepBody(char* data, size_t size, size_t count, void* user) {
  static_cast<std::string*>(user)->append(data, size * count);
  return size * count;
}

// The request layer's offers request, built once and sent again and again.
std::shared_ptr<ZVGenericRequest> offersRequest(const Catalogue& catalogue) {
  auto builder =
      ZVGenericRequestBuilder::requestBuilderWithMethod(ZVRequestMethodRead, "kind.bench.offers");
  builder->setBaseURL("https://:host/api/v1/apps/:appid/offers");
  builder->params().setObject("locale", catalogue.webLocale);
  return builder->build();
}

// A batch whose completions run on the main queue, which this thread runs
// as a host's main thread would; each completion sends the next request
// until `total` are sent. Its counters are touched on this thread only.
struct MainQueueBatch {
  int total;
  int sent = 0;
  int done = 0;
  int64_t failures = 0;

  // Starts `width` requests with `sendOne`, then runs the main queue until
  // all are done. Returns the failures.
  int64_t run(int width, const std::function<void()>& sendOne, const char* what) {
    while (sent < std::min(width, total)) sendOne();
    if (!ZVMainQueue::shared()->runUntil(
            [&] { return done == total; },
            std::chrono::duration_cast<std::chrono::milliseconds>(kBatchLimit)))
      batchStuck(what);
    return failures;
  }
};

}  // namespace

std::string Endpoint::offersURL(const Catalogue& catalogue) const {
  return fmt::format("{}://127.0.0.1:{}/api/v1/apps/bench/offers?locale={}", scheme, port,
                     catalogue.webLocale);
}

std::string Endpoint::ordersURL() const {
  return fmt::format("{}://127.0.0.1:{}/api/v1/apps/bench/orders", scheme, port);
}

void configureSDK(const Endpoint& endpoint) {
  ZVConfiguration config;
  config.serviceHost = fmt::format("{}://127.0.0.1:{}", endpoint.scheme, endpoint.port);
  config.allowInsecureHTTP = true;
  config.appID = "bench";
  config.accessToken = kToken;
  config.caFile = endpoint.caFile;
  // The 10,000-offer catalogue (14.6 MB) is above the default answer limit,
  // as a host serving it would raise it; and the stall benchmark keeps more
  // small requests waiting than the default in-flight limit while a large
  // answer holds them up, which is what it measures.
  config.maxResponseBytes = size_t{1} << 30;
  config.maxRequestsInFlight = 4096;
  Zorvane::configure(config);
  quietSDK();
}

RawClient::RawClient(const Endpoint& endpoint, const std::string& url, int width) {
  // What the SDK's request manager and transport put on an offers request.
  for (const std::string& line :
       {std::string("Accept: application/json"), fmt::format("Authorization: Bearer {}", kToken),
        std::string("User-Agent: ZorvaneRewardsKit/3.0.0"), std::string("Expect:")})
    headers_ = curl_slist_append(headers_, line.c_str());
  multi_ = curl_multi_init();
  curl_multi_setopt(multi_, CURLMOPT_MAX_HOST_CONNECTIONS, static_cast<long>(width));
  // Keeps the connections while no handle is attached between batches.
  curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, static_cast<long>(2 * width));
  curl_multi_setopt(multi_, CURLMOPT_PIPELINING,
                    endpoint.http2 ? CURLPIPE_MULTIPLEX : CURLPIPE_NOTHING);
  handles_.resize(static_cast<size_t>(width) + 1);
  for (Handle& handle : handles_) setUp(handle, endpoint, url);
}

RawClient::~RawClient() {
  for (Handle& handle : handles_) curl_easy_cleanup(handle.easy);
  curl_multi_cleanup(multi_);
  curl_slist_free_all(headers_);
}

void RawClient::setUp(Handle& handle, const Endpoint& endpoint, const std::string& url) {
  CURL* easy = handle.easy = curl_easy_init();
  // Room for a 100-offer answer and simdjson's padding from the start, so
  // that the baseline never grows its buffer nor copies a body to parse it.
  handle.body.reserve(size_t{256} << 10);
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers_);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, keepBody);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &handle.body);
  curl_easy_setopt(easy, CURLOPT_PRIVATE, &handle);
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  if (endpoint.http2) {
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, CURL_HTTP_VERSION_2TLS);
    curl_easy_setopt(easy, CURLOPT_PIPEWAIT, 1L);
  } else {
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, CURL_HTTP_VERSION_1_1);
  }
  if (!endpoint.caFile.empty()) curl_easy_setopt(easy, CURLOPT_CAINFO, endpoint.caFile.c_str());
}

template <class Fn>
int RawClient::performAndTakeFinished(Fn&& finished) {
  int running = 0;
  curl_multi_perform(multi_, &running);
  int left = 0;
  while (CURLMsg* message = curl_multi_info_read(multi_, &left)) {
    if (message->msg != CURLMSG_DONE) continue;
    Handle* handle = nullptr;
    curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &handle);
    const bool ok = message->data.result == CURLE_OK;
    curl_multi_remove_handle(multi_, message->easy_handle);
    finished(handle, ok);
  }
  return running;
}

int64_t RawClient::multi(int total, bool parse) {
  const int width = static_cast<int>(handles_.size()) - 1;
  int64_t failures = 0;
  int started = 0;
  int finished = 0;
  for (int i = 0; i < width && started < total; ++i, ++started) {
    handles_[i].body.clear();
    curl_multi_add_handle(multi_, handles_[i].easy);
  }
  while (finished < total) {
    performAndTakeFinished([&](Handle* handle, bool ok) {
      if (!ok) ++failures;
      if (parse && simdjsonDOMParse(handle->body) == 0 && handle->body.size() > 64) ++failures;
      ++finished;
      if (started < total) {
        handle->body.clear();
        curl_multi_add_handle(multi_, handle->easy);
        ++started;
      }
    });
    if (finished < total) curl_multi_poll(multi_, nullptr, 0, 1000, nullptr);
  }
  return failures;
}

int64_t RawClient::sequential(int total, bool parse) {
  Handle& handle = handles_.back();
  int64_t failures = 0;
  for (int i = 0; i < total; ++i) {
    handle.body.clear();
    if (curl_easy_perform(handle.easy) != CURLE_OK) ++failures;
    if (parse) simdjsonDOMParse(handle.body);
  }
  return failures;
}

int64_t RawClient::paced(double seconds, std::chrono::microseconds pace,
                         std::vector<double>& latencies) {
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                      std::chrono::duration<double>(seconds));
  std::vector<Handle*> idle;
  for (size_t i = 0; i + 1 < handles_.size(); ++i) idle.push_back(&handles_[i]);
  const size_t width = idle.size();
  int64_t failures = 0;
  auto next = Clock::now();
  while (true) {
    auto now = Clock::now();
    if (now >= end && idle.size() == width) return failures;
    if (now >= end + kBatchLimit) batchStuck("paced requests");
    if (now < end && now >= next && !idle.empty()) {
      Handle* handle = idle.back();
      idle.pop_back();
      handle->body.clear();
      handle->sent = now;
      curl_multi_add_handle(multi_, handle->easy);
      next += pace;
    }
    const int running = performAndTakeFinished([&](Handle* handle, bool ok) {
      if (!ok) ++failures;
      latencies.push_back(
          std::chrono::duration<double, std::milli>(Clock::now() - handle->sent).count());
      idle.push_back(handle);
    });
    now = Clock::now();
    const auto wait = now < end && !idle.empty() ? std::max(next - now, Clock::duration{})
                                                 : std::chrono::milliseconds(2);
    const int ms = static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(wait).count());
    if (ms > 0 || running > 0) curl_multi_poll(multi_, nullptr, 0, ms, nullptr);
  }
}

int64_t hostFetches(const Catalogue& catalogue, int width, int total) {
  ZVRewardsManager* manager = ZVRewardsManager::instance();
  const ZVLocale locale(catalogue.locale);
  MainQueueBatch batch{total};
  std::function<void()> sendOne = [&] {
    ++batch.sent;
    manager->forceFetchOffersWithLocale(locale, [&](ZVOfferArrayPtr offers, ZVErrorPtr error) {
      if (error || !offers || offers->size() != catalogue.offers) ++batch.failures;
      ++batch.done;
      if (batch.sent < total) sendOne();
    });
  };
  return batch.run(width, sendOne, "a batch of offers fetches");
}

int64_t coreFetches(const Catalogue& catalogue, int width, int total) {
  ZVGenericRequestManager* manager = ZVGenericRequestManager::instance();
  const std::shared_ptr<ZVGenericRequest> request = offersRequest(catalogue);

  std::mutex mutex;
  std::condition_variable cv;
  int done = 0;          // guarded by mutex
  int64_t failures = 0;  // guarded by mutex
  std::atomic<int> sent{0};
  std::function<void()> sendOne = [&] {
    manager->sendRequest(request, [&](const std::string&, std::shared_ptr<ZVGenericResponse>,
                                      ZVErrorPtr error, ZVDictionaryPtr body) {
      if (sent.fetch_add(1) + width < total) sendOne();
      std::lock_guard lock(mutex);
      if (error || !body) ++failures;
      if (++done == total) cv.notify_one();
    });
  };
  for (int i = 0; i < std::min(width, total); ++i) sendOne();
  std::unique_lock lock(mutex);
  if (!cv.wait_for(lock, kBatchLimit, [&] { return done == total; }))
    batchStuck("a batch of requests");
  return failures;
}

int64_t hopFetches(const Catalogue& catalogue, int width, int total) {
  ZVGenericRequestManager* manager = ZVGenericRequestManager::instance();
  const std::shared_ptr<ZVGenericRequest> request = offersRequest(catalogue);
  MainQueueBatch batch{total};
  std::function<void()> sendOne = [&] {
    ++batch.sent;
    manager->sendRequest(request, [&](const std::string&, std::shared_ptr<ZVGenericResponse>,
                                      ZVErrorPtr error, ZVDictionaryPtr body) {
      const bool bad = error || !body;
      ZVMainQueue::shared()->async([&, bad] {
        if (bad) ++batch.failures;
        ++batch.done;
        if (batch.sent < total) sendOne();
      });
    });
  };
  return batch.run(width, sendOne, "a batch of requests handed to the main queue");
}

double percentile(std::vector<double>& values, double p) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const auto rank = static_cast<size_t>(std::ceil(p / 100.0 * static_cast<double>(values.size())));
  return values[std::clamp<size_t>(rank, 1, values.size()) - 1];
}

}  // namespace zvbench
