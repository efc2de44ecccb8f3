// The default transport: libcurl's multi interface on an I/O thread, and a
// second one for the URLs that answer with large bodies.
#include <ZorvaneCoreKit/ZVTransport.h>

#include <curl/curl.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <string_view>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "base/ZVStrings.h"
#include "http/ZVCurlFailures.h"
#include "runtime/ZVDeliveryBatch.h"
#include "runtime/ZVReclaimer.h"
#include "runtime/ZVYieldPoint.h"

using namespace zv_detail;

namespace {

void initCurlOnce() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

// Idle easy handles kept for reuse; beyond this they are freed.
constexpr size_t kMaxIdleHandles = 16;

// One exchange while libcurl works on it, and the easy handle it runs on.
// Pooled with its handle: the options that do not change between exchanges
// are set once, and the header list is rebuilt only when the headers change.
// Owned by the I/O thread.
struct Transfer {
  // This exchange.
  ZVHTTPRequest request;
  ZVTransport::Completion done;
  ZVHTTPResult result;
  bool overCap = false;         // the write callback refused the body
  bool headersOverCap = false;  // the header callback refused a header line
  bool outOfMemory = false;
  size_t headerBytes = 0;  // header and trailer bytes received
  size_t bodySent = 0;     // bytes of the request body handed to libcurl
  size_t activeIndex = 0;  // position in the engine's list of exchanges under way

  // Kept with the handle from one exchange to the next.
  CURL* easy = nullptr;
  curl_slist* headers = nullptr;
  ZVHeaders headersSent;    // what `headers` was built from
  bool configured = false;  // the constant options are set
  std::string method;       // the method options set on the handle
  bool withBody = false;    // ... and whether a body was sent
  std::string caFile;       // the CA file set on the handle
  char errorBuffer[CURL_ERROR_SIZE] = {};
};

// A URL whose last answer was at least this large is fetched by the bulk
// lane: an I/O thread and connections of its own. Reading megabytes keeps
// an I/O thread busy for milliseconds at a time (decrypting TLS, copying),
// and a small answer that shares the thread or an HTTP/2 connection with
// them waits for all of it (bench's stall/*).
constexpr size_t kLargeAnswerBytes = size_t{256} << 10;
// URLs remembered as large; past this, the oldest is forgotten.
constexpr size_t kMaxLargeURLs = 16;

// The URLs whose last answer was large, oldest first: learnt by both lanes
// as answers complete, read by `send` on any thread.
class LargeURLs {
 public:
  bool contains(const std::string& url) const {
    if (count_.load(std::memory_order_acquire) == 0) return false;  // most hosts, always
    std::lock_guard lock(mutex_);
    return std::find(urls_.begin(), urls_.end(), url) != urls_.end();
  }

  void note(const std::string& url, size_t bytes) {
    const bool large = bytes >= kLargeAnswerBytes;
    if (!large && count_.load(std::memory_order_acquire) == 0) return;
    std::lock_guard lock(mutex_);
    const auto known = std::find(urls_.begin(), urls_.end(), url);
    if (!large) {
      if (known != urls_.end()) urls_.erase(known);
    } else if (known == urls_.end()) {
      try {
        if (urls_.size() == kMaxLargeURLs) urls_.erase(urls_.begin());
        urls_.push_back(url);
      } catch (...) {
        // Not remembered: the next fetch takes the main lane, as any would.
      }
    }
    count_.store(urls_.size(), std::memory_order_release);
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> urls_;  // guarded by mutex_
  std::atomic<size_t> count_{0};
};

// The JSON parser reads a body in place when at least this many bytes of
// capacity follow its last byte, and copies it otherwise.
constexpr size_t kBodySlack = 64;
// The most reserved up front from an announced Content-Length; past it the
// body grows as it arrives, so a length that lies cannot claim memory.
constexpr curl_off_t kMaxReserveFromLength = curl_off_t{16} << 20;

size_t onBody(char* data, size_t size, size_t count, void* user) {
  // On the bulk lane, reading a large answer is long work like its decode.
  zv_detail::yieldPoint();
  auto* transfer = static_cast<Transfer*>(user);
  const size_t length = size * count;
  std::string& body = transfer->result.body;
  const size_t cap = transfer->request.maxBodyBytes;
  if (cap != 0 && length > cap - std::min(cap, body.size())) {
    transfer->overCap = true;
    return 0;  // any short count makes libcurl abort the transfer
  }
  try {
    const size_t needed = body.size() + length + kBodySlack;
    if (body.capacity() < needed) {
      size_t reserve = std::max(needed, body.capacity() * 2);
      if (body.empty()) {
        curl_off_t announced = -1;
        curl_easy_getinfo(transfer->easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &announced);
        if (announced > 0)
          reserve =
              std::max(reserve, static_cast<size_t>(std::min(announced, kMaxReserveFromLength)) +
                                    kBodySlack);
      }
      body.reserve(reserve);
    }
    body.append(data, length);
  } catch (...) {
    transfer->outOfMemory = true;
    return 0;
  }
  return length;
}

// The request body, read once. libcurl resends a request by itself when a
// reused connection closes before any answer byte, or an HTTP/2 stream is
// refused; to send a body again it must rewind it, which this reader (with
// no seek function) refuses: the exchange then fails instead of the body
// leaving twice. (Before any body byte left, the resend is harmless.)
size_t onBodyRead(char* buffer, size_t size, size_t count, void* user) {
  auto* transfer = static_cast<Transfer*>(user);
  const std::string& body = transfer->request.body;
  const size_t n = std::min(size * count, body.size() - transfer->bodySent);
  std::memcpy(buffer, body.data() + transfer->bodySent, n);
  transfer->bodySent += n;
  return n;
}

int refuseRewind(void*, curl_off_t, int) {
  return CURL_SEEKFUNC_CANTSEEK;
}

size_t onHeader(char* data, size_t size, size_t count, void* user) {
  auto* transfer = static_cast<Transfer*>(user);
  const size_t length = size * count;
  // Status lines, headers and trailers all count, over HTTP/1.1 and HTTP/2:
  // an answer that never ends its headers must not grow without bound.
  const size_t cap = transfer->request.maxHeaderBytes;
  transfer->headerBytes += length;
  if (cap != 0 && transfer->headerBytes > cap) {
    transfer->headersOverCap = true;
    return 0;
  }
  std::string_view line(data, length);
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
  try {
    // A status line starts a new header block (after "100 Continue", say).
    if (line.starts_with("HTTP/")) {
      transfer->result.headers.clear();
    } else if (const size_t colon = line.find(':'); colon != std::string_view::npos) {
      std::string_view value = line.substr(colon + 1);
      while (!value.empty() && (value.front() == ' ' || value.front() == '\t'))
        value.remove_prefix(1);
      while (!value.empty() && (value.back() == ' ' || value.back() == '\t'))
        value.remove_suffix(1);
      ZVHeaders& headers = transfer->result.headers;
      if (headers.capacity() == 0) headers.reserve(8);  // one allocation for a usual answer
      // Built in place: no temporaries to move and free, a dozen times an answer.
      headers.emplace_back(std::piecewise_construct, std::forward_as_tuple(line.data(), colon),
                           std::forward_as_tuple(value.data(), value.size()));
    }
  } catch (...) {
    transfer->outOfMemory = true;
    return 0;
  }
  return length;
}

std::string httpVersionText(long version) {
  switch (version) {
    case CURL_HTTP_VERSION_1_0:
      return "1.0";
    case CURL_HTTP_VERSION_1_1:
      return "1.1";
    case CURL_HTTP_VERSION_2_0:
      return "2";
    case CURL_HTTP_VERSION_3:
      return "3";
    default:
      return "";
  }
}

bool hasLineBreakOrNul(std::string_view text) {
  return text.find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos;
}

// The state shared by the transport object and its I/O thread. It outlives the
// transport object when the last reference is dropped on the I/O thread itself.
class CurlEngine {
 public:
  CurlEngine(const ZVCurlTransportOptions& options, std::shared_ptr<LargeURLs> largeURLs)
      : options_(options), largeURLs_(std::move(largeURLs)) {
    initCurlOnce();
    multi_ = curl_multi_init();
    if (multi_ == nullptr) throw std::bad_alloc();
    curl_multi_setopt(multi_, CURLMOPT_MAX_HOST_CONNECTIONS, options_.maxHostConnections);
    // libcurl's default cache follows the number of transfers under way, so a
    // lull closes connections that the next burst must open again.
    curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, std::max(options_.maxHostConnections, 16L) * 2);
    curl_multi_setopt(multi_, CURLMOPT_PIPELINING,
                      options_.enableHTTP2 ? CURLPIPE_MULTIPLEX : CURLPIPE_NOTHING);
  }

  ~CurlEngine() {
    for (auto& transfer : idle_) release(*transfer);
    curl_multi_cleanup(multi_);
  }

  CurlEngine(const CurlEngine&) = delete;
  CurlEngine& operator=(const CurlEngine&) = delete;

  void submit(ZVHTTPRequest request, ZVTransport::Completion done) {
    bool wake = false;
    {
      std::lock_guard lock(mutex_);
      queue_.push_back({std::move(request), std::move(done)});
      // While the loop is awake (this is one of its completions, or it has
      // not yet decided to wait) it looks at the queue before it waits
      // again; otherwise one wakeup until the loop takes the queue is enough.
      if (!awake_ && !wakeRequested_) wake = wakeRequested_ = true;
    }
    if (wake) curl_multi_wakeup(multi_);
  }

  void stop() {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    curl_multi_wakeup(multi_);
  }

  // The I/O loop. Runs until `stop`, then fails whatever is left with Shutdown.
  void run() {
    std::vector<Pending> incoming;
    while (true) {
      {
        std::lock_guard lock(mutex_);
        if (stopping_) break;
        incoming.swap(queue_);
        wakeRequested_ = false;
        awake_ = true;
      }
      {
        // The answers of one pass reach the host's thread with one wakeup,
        // and what they let go of leaves this thread with one hand-off.
        zv_detail::ZVReclaimBatch reclaims;
        ZVDeliveryBatch deliveries;
        for (Pending& pending : incoming) start(std::move(pending));
        incoming.clear();
        int running = 0;
        curl_multi_perform(multi_, &running);
        int left = 0;
        while (CURLMsg* message = curl_multi_info_read(multi_, &left)) {
          if (message->msg == CURLMSG_DONE) finish(message->easy_handle, message->data.result);
        }
      }
      zv_detail::helpReclaimer();
      {
        // Sent meanwhile, from a completion or from the host's handlers
        // just woken: start those before waiting.
        std::lock_guard lock(mutex_);
        if (!queue_.empty() || stopping_) continue;
        awake_ = false;
      }
      curl_multi_poll(multi_, nullptr, 0, 1000, nullptr);
    }
    ZVDeliveryBatch deliveries;
    shutDown();
  }

 private:
  struct Pending {
    ZVHTTPRequest request;
    ZVTransport::Completion done;
  };

  static ZVHTTPResult failure(ZVTransportFailure kind, std::string message) {
    ZVHTTPResult result;
    result.failure = kind;
    result.failureMessage = std::move(message);
    return result;
  }

  // A transfer with its easy handle, from the pool when one is idle; null
  // when libcurl has no memory for a handle.
  std::unique_ptr<Transfer> takeTransfer() {
    if (!idle_.empty()) {
      std::unique_ptr<Transfer> transfer = std::move(idle_.back());
      idle_.pop_back();
      return transfer;
    }
    auto transfer = std::make_unique<Transfer>();
    transfer->easy = curl_easy_init();
    if (transfer->easy == nullptr) return nullptr;
    return transfer;
  }

  static void release(Transfer& t) {
    if (t.easy != nullptr) curl_easy_cleanup(t.easy);
    t.easy = nullptr;
    curl_slist_free_all(t.headers);
    t.headers = nullptr;
  }

  // Back to the pool once its completion has what it needs.
  void recycle(std::unique_ptr<Transfer> transfer, bool inMulti) {
    if (inMulti) curl_multi_remove_handle(multi_, transfer->easy);
    transfer->request = {};
    transfer->done = nullptr;
    transfer->result = {};
    if (idle_.size() < kMaxIdleHandles) {
      try {
        idle_.push_back(std::move(transfer));
        return;
      } catch (...) {
        // No room to keep it: free it below.
      }
    }
    release(*transfer);
  }

  // Runs one completion; no lock is held, so it may send again or even drop
  // the transport.
  static void complete(ZVTransport::Completion& done, ZVHTTPResult result) {
    if (!done) return;
    try {
      done(std::move(result));
    } catch (...) {
      // A throwing completion must not take the I/O thread down with it.
    }
  }

  void start(Pending pending) {
    std::unique_ptr<Transfer> transfer;
    try {
      transfer = takeTransfer();
      if (!transfer) {
        complete(pending.done,
                 failure(ZVTransportFailure::Other, "could not start the request: out of memory"));
        return;
      }
      transfer->request = std::move(pending.request);
      transfer->done = std::move(pending.done);
      std::string problem = configure(*transfer);
      active_.reserve(active_.size() + 1);
      if (problem.empty() && curl_multi_add_handle(multi_, transfer->easy) != CURLM_OK)
        problem = "could not start the request: out of memory";
      if (!problem.empty()) {
        ZVTransport::Completion done = std::move(transfer->done);
        recycle(std::move(transfer), false);
        complete(done, failure(ZVTransportFailure::Other, std::move(problem)));
        return;
      }
      transfer->activeIndex = active_.size();
      active_.push_back(std::move(transfer));
    } catch (...) {
      // Only allocation fails here, before the handle joined the multi; the
      // completion must still run, once.
      ZVTransport::Completion done = transfer ? std::move(transfer->done) : std::move(pending.done);
      if (transfer) recycle(std::move(transfer), false);
      complete(done, failure(ZVTransportFailure::Other, "out of memory"));
    }
  }

  // The options every exchange shares; set on a fresh or reset handle.
  void setConstantOptions(Transfer& t) {
    CURL* e = t.easy;
    curl_easy_setopt(e, CURLOPT_PRIVATE, &t);
    curl_easy_setopt(e, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(e, CURLOPT_ERRORBUFFER, t.errorBuffer);
    curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, onBody);
    curl_easy_setopt(e, CURLOPT_WRITEDATA, &t);
    curl_easy_setopt(e, CURLOPT_HEADERFUNCTION, onHeader);
    curl_easy_setopt(e, CURLOPT_HEADERDATA, &t);
    curl_easy_setopt(e, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(e, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(e, CURLOPT_SSL_VERIFYHOST, 2L);
    // CURL_HTTP_VERSION_2TLS keeps plain http on HTTP/1.1.
    curl_easy_setopt(e, CURLOPT_HTTP_VERSION,
                     options_.enableHTTP2 ? CURL_HTTP_VERSION_2TLS : CURL_HTTP_VERSION_1_1);
    if (options_.enableHTTP2) curl_easy_setopt(e, CURLOPT_PIPEWAIT, 1L);
  }

  // Builds the header list; returns why the headers cannot be sent, or "".
  // On failure the handle is left with no list, so none is reused.
  static std::string buildHeaders(Transfer& t) {
    curl_slist_free_all(t.headers);
    t.headers = nullptr;
    t.headersSent.clear();
    std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> list(nullptr, curl_slist_free_all);
    auto append = [&](const char* line) {
      curl_slist* grown = curl_slist_append(list.get(), line);
      if (grown == nullptr) return false;
      list.release();
      list.reset(grown);
      return true;
    };
    for (const auto& [name, value] : t.request.headers) {
      // A line break in a header would let one header smuggle in others.
      if (hasLineBreakOrNul(name) || hasLineBreakOrNul(value) || name.empty() ||
          name.find(':') != std::string::npos)
        return strCat("request header \"", name, "\" is not a valid header");
      const std::string line = value.empty() ? name + ";" : name + ": " + value;
      if (!append(line.c_str())) return "could not start the request: out of memory";
    }
    // No "Expect: 100-continue" round trip before a large body.
    append("Expect:");
    t.headersSent = t.request.headers;
    t.headers = list.release();
    return "";
  }

  // Sets up the easy handle; returns why the request cannot be sent, or "".
  std::string configure(Transfer& t) {
    const ZVHTTPRequest& r = t.request;
    CURL* e = t.easy;
    t.overCap = false;
    t.headersOverCap = false;
    t.outOfMemory = false;
    t.headerBytes = 0;
    t.bodySent = 0;
    t.errorBuffer[0] = '\0';  // libcurl writes it only on some failures

    // A handle keeps its options from one exchange to the next; one set up
    // for another method or CA file starts again from libcurl's defaults.
    const bool withBody = !r.body.empty();
    if (!t.configured || t.method != r.method || t.withBody != withBody || t.caFile != r.caFile) {
      if (t.configured) curl_easy_reset(e);
      t.configured = false;
      setConstantOptions(t);
      if (!r.caFile.empty()) curl_easy_setopt(e, CURLOPT_CAINFO, r.caFile.c_str());
      if (r.method == "GET" && !withBody) {
        curl_easy_setopt(e, CURLOPT_HTTPGET, 1L);
      } else if (r.method == "POST") {
        curl_easy_setopt(e, CURLOPT_POST, 1L);
      } else {
        curl_easy_setopt(e, CURLOPT_CUSTOMREQUEST, r.method.c_str());
      }
      t.method = r.method;
      t.withBody = withBody;
      t.caFile = r.caFile;
      t.headersSent.clear();
      curl_slist_free_all(t.headers);
      t.headers = nullptr;
      t.configured = true;
    }
    if (t.headers == nullptr || t.headersSent != r.headers) {
      std::string problem = buildHeaders(t);
      curl_easy_setopt(e, CURLOPT_HTTPHEADER, t.headers);
      if (!problem.empty()) return problem;
    }

    curl_easy_setopt(e, CURLOPT_URL, r.url.c_str());
    curl_easy_setopt(e, CURLOPT_CONNECTTIMEOUT_MS,
                     static_cast<long>(std::max<int64_t>(0, r.connectTimeout.count())));
    curl_easy_setopt(e, CURLOPT_TIMEOUT_MS,
                     static_cast<long>(std::max<int64_t>(0, r.totalTimeout.count())));
    // Refuses an announced Content-Length above the cap before reading it; 0
    // lifts the limit.
    curl_easy_setopt(e, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(r.maxBodyBytes));
    if (withBody || r.method == "POST") {
      curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(r.body.size()));
      // A kept-alive connection may be half closed by the server already;
      // libcurl would then resend, which a body must not be: submissions
      // (rare, and each worth a handshake) take a fresh connection.
      curl_easy_setopt(e, CURLOPT_FRESH_CONNECT, 1L);
      curl_easy_setopt(e, CURLOPT_READFUNCTION, onBodyRead);
      curl_easy_setopt(e, CURLOPT_READDATA, &t);
      curl_easy_setopt(e, CURLOPT_SEEKFUNCTION, refuseRewind);
      curl_easy_setopt(e, CURLOPT_SEEKDATA, &t);
    }
    return "";
  }

  void finish(CURL* easy, CURLcode code) {
    Transfer* found = nullptr;
    curl_easy_getinfo(easy, CURLINFO_PRIVATE, &found);
    if (found == nullptr || found->activeIndex >= active_.size() ||
        active_[found->activeIndex].get() != found)
      return;
    std::unique_ptr<Transfer> transfer = takeActive(found->activeIndex);
    Transfer& t = *transfer;
    if (code == CURLE_OK) {
      long status = 0;
      long version = 0;
      curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
      curl_easy_getinfo(easy, CURLINFO_HTTP_VERSION, &version);
      t.result.status = static_cast<int>(status);
      t.result.httpVersion = httpVersionText(version);
      largeURLs_->note(t.request.url, t.result.body.size());
    } else {
      long osErrno = 0;
      curl_off_t connectTime = 0;
      curl_easy_getinfo(easy, CURLINFO_OS_ERRNO, &osErrno);
      curl_easy_getinfo(easy, CURLINFO_CONNECT_TIME_T, &connectTime);
      try {
        auto [kind, message] =
            describeCurlFailure({code, t.request, t.errorBuffer, t.overCap, t.headersOverCap,
                                 t.outOfMemory, osErrno, connectTime > 0, t.bodySent > 0});
        t.result = failure(kind, std::move(message));
      } catch (...) {
        t.result = failure(ZVTransportFailure::Other, "out of memory");
      }
    }
    ZVTransport::Completion done = std::move(t.done);
    ZVHTTPResult result = std::move(t.result);
    recycle(std::move(transfer), true);
    complete(done, std::move(result));
  }

  // Removes the exchange at `index` from the list under way; the last one
  // takes its place.
  std::unique_ptr<Transfer> takeActive(size_t index) {
    std::unique_ptr<Transfer> transfer = std::move(active_[index]);
    if (index + 1 != active_.size()) {
      active_[index] = std::move(active_.back());
      active_[index]->activeIndex = index;
    }
    active_.pop_back();
    return transfer;
  }

  static ZVHTTPResult shutdownFailure(const ZVHTTPRequest& request) {
    try {
      return failure(
          ZVTransportFailure::Shutdown,
          strCat("the transport shut down before ", endpointAddress(request.url), " answered"));
    } catch (...) {
      return failure(ZVTransportFailure::Shutdown, "shut down");
    }
  }

  void shutDown() {
    auto active = std::move(active_);
    active_.clear();
    for (auto& transfer : active) {
      ZVTransport::Completion done = std::move(transfer->done);
      ZVHTTPResult result = shutdownFailure(transfer->request);
      recycle(std::move(transfer), true);
      complete(done, std::move(result));
    }
    // Completions may send again while we fail the last requests: drain until
    // nothing is left.
    while (true) {
      std::vector<Pending> left;
      {
        std::lock_guard lock(mutex_);
        if (queue_.empty()) break;
        left.swap(queue_);
      }
      for (Pending& pending : left) complete(pending.done, shutdownFailure(pending.request));
    }
  }

  const ZVCurlTransportOptions options_;
  const std::shared_ptr<LargeURLs> largeURLs_;
  CURLM* multi_ = nullptr;

  std::mutex mutex_;
  std::vector<Pending> queue_;  // guarded by mutex_
  bool wakeRequested_ = false;  // guarded by mutex_: a wakeup is on its way to the loop
  bool awake_ = false;          // guarded by mutex_: the loop looks at the queue before it waits
  bool stopping_ = false;       // guarded by mutex_

  // Touched by the I/O thread only.
  std::vector<std::unique_ptr<Transfer>> active_;
  std::vector<std::unique_ptr<Transfer>> idle_;
};

// An engine and the thread that runs its loop.
struct Lane {
  std::shared_ptr<CurlEngine> engine;
  std::thread thread;

  void start(const ZVCurlTransportOptions& options, std::shared_ptr<LargeURLs> largeURLs,
             const char* name, bool background) {
    engine = std::make_shared<CurlEngine>(options, std::move(largeURLs));
    thread = std::thread([engine = engine, background] {
      if (background) {
        zv_detail::runAsBackground(SCHED_OTHER);
        // Without it, the kernel may let this lane read on for a whole tick
        // (up to 4 ms at 250 Hz) while the I/O thread or the host's thread,
        // woken meanwhile, waits for the CPU.
        zv_detail::yieldFromHere();
      }
      engine->run();
    });
    // Named before it runs: a host's debugger, and our tests, tell it by name.
    pthread_setname_np(thread.native_handle(), name);
  }

  void stop() {
    if (!engine) return;
    engine->stop();
    // Dropped from one of this lane's own completions: the thread cannot join
    // itself; it finishes the shutdown on its own and frees the engine.
    if (thread.get_id() == std::this_thread::get_id())
      thread.detach();
    else
      thread.join();
  }
};

class CurlTransport final : public ZVTransport {
 public:
  explicit CurlTransport(const ZVCurlTransportOptions& options)
      : options_(options), largeURLs_(std::make_shared<LargeURLs>()) {
    main_.start(options_, largeURLs_, "zv-io", false);
  }

  ~CurlTransport() override {
    // The bulk lane's engine is set only under the lock, and never after
    // this: no send can race the destructor.
    bulk_.stop();
    main_.stop();
  }

  void send(ZVHTTPRequest request, Completion done) override {
    if (largeURLs_->contains(request.url)) {
      if (CurlEngine* bulk = bulkEngine()) {
        bulk->submit(std::move(request), std::move(done));
        return;
      }
    }
    main_.engine->submit(std::move(request), std::move(done));
  }

 private:
  // The bulk lane, started by its first request; null when no thread or
  // memory could be had for it (the main lane then takes the request).
  CurlEngine* bulkEngine() {
    std::lock_guard lock(bulkMutex_);
    if (!bulk_.engine) {
      try {
        // Reading megabytes is long work: the lane gives way to the threads
        // that wake for small answers.
        bulk_.start(options_, largeURLs_, "zv-io-bulk", true);
      } catch (...) {
        bulk_.engine.reset();  // no thread runs it: the throw came before one started
        return nullptr;
      }
    }
    return bulk_.engine.get();
  }

  const ZVCurlTransportOptions options_;
  const std::shared_ptr<LargeURLs> largeURLs_;
  Lane main_;
  std::mutex bulkMutex_;
  Lane bulk_;  // engine set under bulkMutex_
};

}  // namespace

std::shared_ptr<ZVTransport> ZVMakeCurlTransport(ZVCurlTransportOptions options) {
  return std::make_shared<CurlTransport>(options);
}
