// The default transport: libcurl's multi interface on one I/O thread.
#include <ZorvaneCoreKit/ZVTransport.h>

#include <curl/curl.h>
#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <deque>
#include <memory>
#include <mutex>
#include <string_view>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

namespace {

void initCurlOnce() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

// Idle easy handles kept for reuse; beyond this they are freed.
constexpr size_t kMaxIdleHandles = 16;

struct Endpoint {
  std::string host;     // as in the URL ("[::1]" for IPv6)
  std::string address;  // "host:port", for messages
};

// Host and port of a URL: what error messages name, never the path or query.
Endpoint endpointOf(const std::string& url) {
  Endpoint result{"the service", "the service"};
  CURLU* handle = curl_url();
  if (handle == nullptr) return result;
  if (curl_url_set(handle, CURLUPART_URL, url.c_str(), 0) == CURLUE_OK) {
    char* host = nullptr;
    char* port = nullptr;
    if (curl_url_get(handle, CURLUPART_HOST, &host, 0) == CURLUE_OK) {
      result.host = host;
      result.address = host;
      if (curl_url_get(handle, CURLUPART_PORT, &port, CURLU_DEFAULT_PORT) == CURLUE_OK)
        result.address = fmt::format("{}:{}", host, port);
    }
    curl_free(host);
    curl_free(port);
  }
  curl_url_cleanup(handle);
  return result;
}

std::string lowerFirst(std::string text) {
  if (!text.empty()) text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
  return text;
}

// One exchange while libcurl works on it. Owned by the I/O thread.
struct Transfer {
  ZVHTTPRequest request;
  ZVTransport::Completion done;
  CURL* easy = nullptr;
  curl_slist* headers = nullptr;
  ZVHTTPResult result;
  bool overCap = false;  // the write callback refused the body
  bool outOfMemory = false;
  char errorBuffer[CURL_ERROR_SIZE] = {};
};

size_t onBody(char* data, size_t size, size_t count, void* user) {
  auto* transfer = static_cast<Transfer*>(user);
  const size_t length = size * count;
  std::string& body = transfer->result.body;
  const size_t cap = transfer->request.maxBodyBytes;
  if (cap != 0 && length > cap - std::min(cap, body.size())) {
    transfer->overCap = true;
    return 0;  // any short count makes libcurl abort the transfer
  }
  try {
    body.append(data, length);
  } catch (...) {
    transfer->outOfMemory = true;
    return 0;
  }
  return length;
}

size_t onHeader(char* data, size_t size, size_t count, void* user) {
  auto* transfer = static_cast<Transfer*>(user);
  const size_t length = size * count;
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
      transfer->result.headers.emplace_back(std::string(line.substr(0, colon)), std::string(value));
    }
  } catch (...) {
    transfer->outOfMemory = true;
    return 0;
  }
  return length;
}

struct FailureFacts {
  CURLcode code;
  const Transfer& transfer;
  long osErrno;
  bool connected;
};

// Every CURLcode becomes a failure kind and a sentence a person can act on.
// Request headers (the access token) are never part of it.
std::pair<ZVTransportFailure, std::string> describeFailure(const FailureFacts& facts) {
  const Transfer& t = facts.transfer;
  const Endpoint where = endpointOf(t.request.url);
  const std::string detail =
      t.errorBuffer[0] != '\0' ? std::string(t.errorBuffer) : curl_easy_strerror(facts.code);
  using F = ZVTransportFailure;
  switch (facts.code) {
    case CURLE_COULDNT_RESOLVE_HOST:
      return {F::Connect, fmt::format("could not resolve host {}", where.host)};
    case CURLE_COULDNT_RESOLVE_PROXY:
      return {F::Connect, fmt::format("could not resolve the proxy: {}", detail)};
    case CURLE_COULDNT_CONNECT: {
      const std::string reason =
          facts.osErrno != 0
              ? lowerFirst(std::error_code(static_cast<int>(facts.osErrno), std::generic_category())
                               .message())
              : detail;
      return {F::Connect, fmt::format("could not connect to {}: {}", where.address, reason)};
    }
    case CURLE_OPERATION_TIMEDOUT: {
      const auto connectMs = t.request.connectTimeout.count();
      const auto totalMs = t.request.totalTimeout.count();
      const bool connectLimit =
          !facts.connected && connectMs > 0 && (totalMs <= 0 || connectMs < totalMs);
      return {F::Timeout, fmt::format("timed out after {} ms waiting for {}",
                                      connectLimit ? connectMs : totalMs, where.address)};
    }
    case CURLE_PEER_FAILED_VERIFICATION:
      return {F::TLS,
              fmt::format("TLS certificate of {} could not be verified: {}", where.host, detail)};
    case CURLE_SSL_CACERT_BADFILE:
      return {F::TLS, fmt::format("could not load the certificate authorities in {}: {}",
                                  t.request.caFile, detail)};
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_ENGINE_INITFAILED:
    case CURLE_SSL_SHUTDOWN_FAILED:
    case CURLE_SSL_CLIENTCERT:
      return {F::TLS, fmt::format("TLS handshake with {} failed: {}", where.address, detail)};
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
      return {F::Reset,
              fmt::format("connection to {} closed before the answer was complete", where.address)};
    case CURLE_FILESIZE_EXCEEDED:
      return {F::TooLarge, fmt::format("answer from {} is larger than the limit of {} bytes",
                                       where.address, t.request.maxBodyBytes)};
    case CURLE_WRITE_ERROR:
      if (t.overCap)
        return {F::TooLarge, fmt::format("answer from {} is larger than the limit of {} bytes",
                                         where.address, t.request.maxBodyBytes)};
      if (t.outOfMemory)
        return {F::Other, fmt::format("out of memory reading the answer from {}", where.address)};
      break;
    case CURLE_OUT_OF_MEMORY:
      return {F::Other, fmt::format("out of memory talking to {}", where.address)};
    case CURLE_UNSUPPORTED_PROTOCOL:
    case CURLE_URL_MALFORMAT:
      return {F::Other, fmt::format("cannot send to {}: not a valid http or https URL ({})",
                                    where.address, detail)};
    default:
      break;
  }
  return {F::Other, fmt::format("request to {} failed: {}", where.address, detail)};
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
  explicit CurlEngine(const ZVCurlTransportOptions& options) : options_(options) {
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
    for (CURL* easy : idle_) curl_easy_cleanup(easy);
    curl_multi_cleanup(multi_);
  }

  CurlEngine(const CurlEngine&) = delete;
  CurlEngine& operator=(const CurlEngine&) = delete;

  void submit(ZVHTTPRequest request, ZVTransport::Completion done) {
    {
      std::lock_guard lock(mutex_);
      queue_.push_back({std::move(request), std::move(done)});
    }
    curl_multi_wakeup(multi_);
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
    std::deque<Pending> incoming;
    while (true) {
      {
        std::lock_guard lock(mutex_);
        if (stopping_) break;
        incoming.swap(queue_);
      }
      for (Pending& pending : incoming) start(std::move(pending));
      incoming.clear();
      int running = 0;
      curl_multi_perform(multi_, &running);
      int left = 0;
      while (CURLMsg* message = curl_multi_info_read(multi_, &left)) {
        if (message->msg == CURLMSG_DONE) finish(message->easy_handle, message->data.result);
      }
      curl_multi_poll(multi_, nullptr, 0, 1000, nullptr);
    }
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

  CURL* takeEasy() {
    if (idle_.empty()) return curl_easy_init();
    CURL* easy = idle_.back();
    idle_.pop_back();
    return easy;
  }

  void recycle(CURL* easy) {
    if (idle_.size() < kMaxIdleHandles) {
      curl_easy_reset(easy);
      idle_.push_back(easy);
    } else {
      curl_easy_cleanup(easy);
    }
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
    bool added = false;
    try {
      transfer = std::make_unique<Transfer>();
      transfer->request = std::move(pending.request);
      transfer->done = std::move(pending.done);
      std::string problem = configure(*transfer);
      active_.reserve(active_.size() + 1);
      if (problem.empty() && curl_multi_add_handle(multi_, transfer->easy) != CURLM_OK)
        problem = "could not start the request: out of memory";
      if (!problem.empty()) {
        cleanUp(*transfer, false);
        complete(transfer->done, failure(ZVTransportFailure::Other, std::move(problem)));
        return;
      }
      added = true;
      CURL* easy = transfer->easy;
      active_.emplace(easy, std::move(transfer));
    } catch (...) {
      // Only allocation fails here; the completion must still run, once.
      ZVTransport::Completion done = transfer ? std::move(transfer->done) : std::move(pending.done);
      if (transfer) cleanUp(*transfer, added);
      complete(done, failure(ZVTransportFailure::Other, "out of memory"));
    }
  }

  // Sets up the easy handle; returns why the request cannot be sent, or "".
  std::string configure(Transfer& t) {
    const ZVHTTPRequest& r = t.request;
    t.easy = takeEasy();
    if (t.easy == nullptr) return "could not start the request: out of memory";
    for (const auto& [name, value] : r.headers) {
      // A line break in a header would let one header smuggle in others.
      if (hasLineBreakOrNul(name) || hasLineBreakOrNul(value) || name.empty() ||
          name.find(':') != std::string::npos)
        return fmt::format("request header \"{}\" is not a valid header", name);
      const std::string line = value.empty() ? name + ";" : name + ": " + value;
      curl_slist* grown = curl_slist_append(t.headers, line.c_str());
      if (grown == nullptr) return "could not start the request: out of memory";
      t.headers = grown;
    }
    // No "Expect: 100-continue" round trip before a large body.
    if (curl_slist* grown = curl_slist_append(t.headers, "Expect:")) t.headers = grown;

    CURL* e = t.easy;
    curl_easy_setopt(e, CURLOPT_PRIVATE, &t);
    curl_easy_setopt(e, CURLOPT_URL, r.url.c_str());
    curl_easy_setopt(e, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(e, CURLOPT_ERRORBUFFER, t.errorBuffer);
    curl_easy_setopt(e, CURLOPT_HTTPHEADER, t.headers);
    curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, onBody);
    curl_easy_setopt(e, CURLOPT_WRITEDATA, &t);
    curl_easy_setopt(e, CURLOPT_HEADERFUNCTION, onHeader);
    curl_easy_setopt(e, CURLOPT_HEADERDATA, &t);
    curl_easy_setopt(e, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(e, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(e, CURLOPT_SSL_VERIFYHOST, 2L);
    if (!r.caFile.empty()) curl_easy_setopt(e, CURLOPT_CAINFO, r.caFile.c_str());
    // CURL_HTTP_VERSION_2TLS keeps plain http on HTTP/1.1.
    curl_easy_setopt(e, CURLOPT_HTTP_VERSION,
                     options_.enableHTTP2 ? CURL_HTTP_VERSION_2TLS : CURL_HTTP_VERSION_1_1);
    if (options_.enableHTTP2) curl_easy_setopt(e, CURLOPT_PIPEWAIT, 1L);
    curl_easy_setopt(e, CURLOPT_CONNECTTIMEOUT_MS,
                     static_cast<long>(std::max<int64_t>(0, r.connectTimeout.count())));
    curl_easy_setopt(e, CURLOPT_TIMEOUT_MS,
                     static_cast<long>(std::max<int64_t>(0, r.totalTimeout.count())));
    if (r.maxBodyBytes != 0) {
      // Refuses an announced Content-Length above the cap before reading it.
      curl_easy_setopt(e, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(r.maxBodyBytes));
    }
    if (r.method == "GET" && r.body.empty()) {
      curl_easy_setopt(e, CURLOPT_HTTPGET, 1L);
    } else {
      if (r.method == "POST")
        curl_easy_setopt(e, CURLOPT_POST, 1L);
      else
        curl_easy_setopt(e, CURLOPT_CUSTOMREQUEST, r.method.c_str());
      if (!r.body.empty() || r.method == "POST") {
        curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(r.body.size()));
        curl_easy_setopt(e, CURLOPT_POSTFIELDS, r.body.data());
      }
    }
    return "";
  }

  void cleanUp(Transfer& t, bool inMulti) {
    if (t.easy != nullptr) {
      if (inMulti) curl_multi_remove_handle(multi_, t.easy);
      recycle(t.easy);
      t.easy = nullptr;
    }
    curl_slist_free_all(t.headers);
    t.headers = nullptr;
  }

  void finish(CURL* easy, CURLcode code) {
    auto found = active_.find(easy);
    if (found == active_.end()) return;
    std::unique_ptr<Transfer> transfer = std::move(found->second);
    active_.erase(found);
    Transfer& t = *transfer;
    if (code == CURLE_OK) {
      long status = 0;
      long version = 0;
      curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
      curl_easy_getinfo(easy, CURLINFO_HTTP_VERSION, &version);
      t.result.status = static_cast<int>(status);
      t.result.httpVersion = httpVersionText(version);
    } else {
      long osErrno = 0;
      curl_off_t connectTime = 0;
      curl_easy_getinfo(easy, CURLINFO_OS_ERRNO, &osErrno);
      curl_easy_getinfo(easy, CURLINFO_CONNECT_TIME_T, &connectTime);
      try {
        auto [kind, message] = describeFailure({code, t, osErrno, connectTime > 0});
        t.result = failure(kind, std::move(message));
      } catch (...) {
        t.result = failure(ZVTransportFailure::Other, "out of memory");
      }
    }
    cleanUp(t, true);
    complete(t.done, std::move(t.result));
  }

  static ZVHTTPResult shutdownFailure(const ZVHTTPRequest& request) {
    try {
      return failure(ZVTransportFailure::Shutdown,
                     fmt::format("the transport shut down before {} answered",
                                 endpointOf(request.url).address));
    } catch (...) {
      return failure(ZVTransportFailure::Shutdown, "shut down");
    }
  }

  void shutDown() {
    auto active = std::move(active_);
    active_.clear();
    for (auto& [easy, transfer] : active) {
      cleanUp(*transfer, true);
      complete(transfer->done, shutdownFailure(transfer->request));
    }
    // Completions may send again while we fail the last requests: drain until
    // nothing is left.
    while (true) {
      std::deque<Pending> left;
      {
        std::lock_guard lock(mutex_);
        if (queue_.empty()) break;
        left.swap(queue_);
      }
      for (Pending& pending : left) complete(pending.done, shutdownFailure(pending.request));
    }
  }

  const ZVCurlTransportOptions options_;
  CURLM* multi_ = nullptr;

  std::mutex mutex_;
  std::deque<Pending> queue_;  // guarded by mutex_
  bool stopping_ = false;      // guarded by mutex_

  // Touched by the I/O thread only.
  std::unordered_map<CURL*, std::unique_ptr<Transfer>> active_;
  std::vector<CURL*> idle_;
};

class CurlTransport final : public ZVTransport {
 public:
  explicit CurlTransport(const ZVCurlTransportOptions& options)
      : engine_(std::make_shared<CurlEngine>(options)) {
    thread_ = std::thread([engine = engine_] { engine->run(); });
  }

  ~CurlTransport() override {
    engine_->stop();
    // Dropped from one of our own completions: the thread cannot join itself;
    // it finishes the shutdown on its own and frees the engine.
    if (thread_.get_id() == std::this_thread::get_id())
      thread_.detach();
    else
      thread_.join();
  }

  void send(ZVHTTPRequest request, Completion done) override {
    engine_->submit(std::move(request), std::move(done));
  }

 private:
  std::shared_ptr<CurlEngine> engine_;
  std::thread thread_;
};

}  // namespace

std::shared_ptr<ZVTransport> ZVMakeCurlTransport(ZVCurlTransportOptions options) {
  return std::make_shared<CurlTransport>(options);
}
