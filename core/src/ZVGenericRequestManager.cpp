#include <ZorvaneCoreKit/ZVGenericRequestManager.h>

#include <ZorvaneCoreKit/Zorvane.h>

#include <fmt/format.h>

#include "ZorvaneSettings.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <string_view>
#include <thread>
#include <tuple>

namespace {

constexpr std::string_view kHostPlaceholder = "https://:host";
constexpr std::string_view kAppIDSegment = ":appid";
constexpr const char* kUserAgent = "ZorvaneRewardsKit/3.0.0";

// ---------------------------------------------------------------------------
// Percent-encoding.
//
// Path values are formatted into the URL template unencoded (an offer id goes
// in as it stands), so every byte of the path is encoded here unless it is an
// RFC 3986 unreserved character or one of "/:@!$&'()*+,;=". In particular
// control characters, space, '%' (always: nothing arrives pre-encoded), '?',
// '#' and every non-ASCII byte are encoded, so a value can neither end the
// path, start a query or fragment, nor break the request line into a header.
// '/' stays a separator: an id holding '/' changes the path on the same host,
// which the service does not accept as an id anyway. Segments "." and ".."
// are encoded too, so that no one normalises them into another endpoint.

bool isUnreserved(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '.' || c == '_' || c == '~';
}

void appendEscaped(std::string& out, unsigned char c) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  out += '%';
  out += kHex[c >> 4];
  out += kHex[c & 15];
}

// Appends `text` with everything but the unreserved characters and `keep`
// escaped; runs that need no escape are appended whole.
void appendPercentEncoded(std::string& out, std::string_view text, std::string_view keep = {}) {
  size_t run = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (isUnreserved(c) || (c != 0 && keep.find(text[i]) != std::string_view::npos)) continue;
    out.append(text.substr(run, i - run));
    appendEscaped(out, c);
    run = i + 1;
  }
  out.append(text.substr(run));
}

std::string percentEncode(std::string_view text, std::string_view keep = {}) {
  std::string out;
  out.reserve(text.size());
  appendPercentEncoded(out, text, keep);
  return out;
}

// application/x-www-form-urlencoded: space as '+', the rest as in percentEncode.
void appendFormEncoded(std::string& out, std::string_view text) {
  size_t run = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (isUnreserved(c)) continue;
    out.append(text.substr(run, i - run));
    if (c == ' ')
      out += '+';
    else
      appendEscaped(out, c);
    run = i + 1;
  }
  out.append(text.substr(run));
}

// Appends the encoded path to `out`.
void appendEncodedPath(std::string& out, std::string_view path, std::string_view encodedAppID) {
  size_t start = 0;
  // Only the template's own ":appid" is a placeholder: it precedes every path
  // value, and an id that reads ":appid" must reach the service as it is.
  bool appIDFilled = false;
  while (true) {
    const size_t slash = path.find('/', start);
    const std::string_view segment = path.substr(start, slash - start);
    if (segment == "." || segment == "..") {
      for (size_t i = 0; i < segment.size(); ++i) out += "%2E";
    } else if (segment == kAppIDSegment && !appIDFilled) {
      out += encodedAppID;
      appIDFilled = true;
    } else {
      appendPercentEncoded(out, segment, ":@!$&'()*+,;=");
    }
    if (slash == std::string_view::npos) break;
    out += '/';
    start = slash + 1;
  }
}

bool hasAppIDSegment(std::string_view path) {
  size_t start = 0;
  while (true) {
    const size_t slash = path.find('/', start);
    if (path.substr(start, slash - start) == kAppIDSegment) return true;
    if (slash == std::string_view::npos) return false;
    start = slash + 1;
  }
}

bool isSafeHostChar(unsigned char c) {
  // Letters, digits and what host names, IP literals and ports use.
  return isUnreserved(c) || c == ':' || c == '[' || c == ']';
}

// ---------------------------------------------------------------------------
// Resolution.

struct ResolvedURL {
  std::string url;  // what is sent, with the query
  // Where "host:port/path" lies in `url`, for messages.
  size_t hostStart = 0;
  size_t pathEnd = 0;
  std::string_view hostAndPath() const {
    return std::string_view(url).substr(hostStart, pathEnd - hostStart);
  }
};

// What every request sent under one configuration shares, worked out once
// per configuration rather than at every send.
struct Service {
  std::shared_ptr<const ZVConfiguration> config;
  std::string error;     // why no request can be sent under it, or ""
  std::string origin;    // "scheme://host", host as configured
  size_t hostStart = 0;  // where the host starts in `origin`
  std::string appID;     // percent-encoded, dot segments included
  std::string bearer;    // the Authorization header's value, or "" without a token
  bool tokenHasControlChars = false;
};

bool hasControlChar(std::string_view text) {
  return std::ranges::any_of(text, [](char c) {
    const auto u = static_cast<unsigned char>(c);
    return u < 0x20 || u == 0x7F;
  });
}

Service prepareService(std::shared_ptr<const ZVConfiguration> shared) {
  Service service;
  service.config = std::move(shared);
  const ZVConfiguration& config = *service.config;
  std::string_view host = config.serviceHost;
  if (host.empty()) {
    service.error = "no service host configured";
    return service;
  }
  std::string scheme = "https";
  if (const size_t sep = host.find("://"); sep != std::string_view::npos) {
    scheme.assign(host.substr(0, sep));
    std::ranges::transform(scheme, scheme.begin(),
                           [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    host.remove_prefix(sep + 3);
  }
  while (host.ends_with('/')) host.remove_suffix(1);
  if (scheme != "http" && scheme != "https") {
    service.error =
        fmt::format("service host {} has the scheme \"{}\": only https (or http) is supported",
                    config.serviceHost, scheme);
    return service;
  }
  if (host.empty() || !std::ranges::all_of(host, [](char c) {
        return isSafeHostChar(static_cast<unsigned char>(c));
      })) {
    service.error = fmt::format("service host \"{}\" is not a host name with an optional port",
                                percentEncode(config.serviceHost, "/:@[]"));
    return service;
  }
  if (scheme == "http" && !config.allowInsecureHTTP) {
    service.error =
        fmt::format("plain http to {} is refused: set allowInsecureHTTP to allow it", host);
    return service;
  }
  service.origin = scheme + "://";
  service.hostStart = service.origin.size();
  service.origin.append(host);
  // An app id of "." or ".." would be a dot segment: encode it like one.
  service.appID = percentEncode(config.appID);
  if (service.appID == "." || service.appID == "..") {
    std::string dots;
    appendEncodedPath(dots, service.appID, "");
    service.appID = std::move(dots);
  }
  // Checked here, said at each send: the token itself never reaches a message.
  service.tokenHasControlChars = hasControlChar(config.accessToken);
  if (!config.accessToken.empty()) service.bearer = "Bearer " + config.accessToken;
  return service;
}

// The service of the current configuration. Worked out again only when the
// configuration was replaced since the last send.
std::shared_ptr<const Service> currentService() {
  std::shared_ptr<const ZVConfiguration> config = zv_detail::currentConfiguration();
  struct Cache {
    std::mutex mutex;
    std::shared_ptr<const Service> last;  // guarded by mutex
  };
  // Leaked, like the settings: requests may be sent while statics are destroyed.
  static Cache* const cache = new Cache();
  {
    std::lock_guard lock(cache->mutex);
    if (cache->last && cache->last->config == config) return cache->last;
  }
  auto made = std::make_shared<const Service>(prepareService(std::move(config)));
  std::lock_guard lock(cache->mutex);
  cache->last = made;
  return made;
}

ResolvedURL resolve(const Service& service, const ZVGenericRequest& request, std::string& error) {
  if (!service.error.empty()) {
    error = service.error;
    return {};
  }
  const std::string& base = request.baseURL();
  const std::string_view rest = std::string_view(base).substr(
      base.starts_with(kHostPlaceholder) ? kHostPlaceholder.size() : 0);
  // Only the template reaches the service: anything else could name another host.
  if (!base.starts_with(kHostPlaceholder) || !(rest.empty() || rest.front() == '/')) {
    error = fmt::format("request URL of {} does not start with \"https://:host/\"", request.kind());
    return {};
  }
  if (service.config->appID.empty() && hasAppIDSegment(rest)) {
    error = "no app id configured";
    return {};
  }

  ResolvedURL resolved;
  std::string& url = resolved.url;
  url.reserve(service.origin.size() + rest.size() + service.appID.size() + 32);
  url.append(service.origin);
  resolved.hostStart = service.hostStart;
  appendEncodedPath(url, rest, service.appID);
  resolved.pathEnd = url.size();
  if (request.method() != ZVRequestMethodSubmit && !request.params().empty()) {
    char separator = '?';
    for (const auto& [key, value] : request.params()) {
      url += separator;
      appendFormEncoded(url, key);
      url += '=';
      appendFormEncoded(url, value);
      separator = '&';
    }
  }
  return resolved;
}

// ---------------------------------------------------------------------------
// Answers.

std::string jsonTypeName(ZVJSONValue::Type type) {
  using T = ZVJSONValue::Type;
  switch (type) {
    case T::Null:
      return "null";
    case T::Bool:
      return "boolean";
    case T::Integer:
    case T::Double:
      return "number";
    case T::String:
      return "string";
    case T::Array:
      return "array";
    case T::Dictionary:
      return "object";
    case T::Nil:
      break;
  }
  return "nothing";
}

const char* transportCode(ZVTransportFailure failure) {
  switch (failure) {
    case ZVTransportFailure::Connect:
      return ZVErrorTransportConnect;
    case ZVTransportFailure::Timeout:
      return ZVErrorTransportTimeout;
    case ZVTransportFailure::TLS:
      return ZVErrorTransportTLS;
    case ZVTransportFailure::Reset:
      return ZVErrorTransportReset;
    case ZVTransportFailure::Shutdown:
      return ZVErrorShutdown;
    default:
      return ZVErrorTransportOther;
  }
}

struct Outcome {
  std::shared_ptr<ZVGenericResponse> response;
  ZVErrorPtr error;
  ZVDictionaryPtr body;
};

Outcome failed(int64_t type, const char* code, std::string message, ZVDictionaryPtr raw = {}) {
  return {nullptr, std::make_shared<ZVError>(type, code, std::move(message)), std::move(raw)};
}

// Turns what the transport brought back into a response or an error; the
// response takes the URL.
Outcome interpret(ZVHTTPResult result, const ZVGenericRequest& request, ResolvedURL& where) {
  if (result.failure == ZVTransportFailure::TooLarge)
    return failed(ZVErrorTypeInvalidAnswer, ZVErrorAnswerTooLarge, result.failureMessage);
  if (result.failure != ZVTransportFailure::None)
    return failed(ZVErrorTypeTransport, transportCode(result.failure), result.failureMessage);

  const int status = result.status;
  ZVJSONParseResult parsed;
  if (result.body.empty())
    parsed.error = "the body is empty";
  else
    parsed = ZVJSONParse(result.body);

  if (status >= 400) {
    ZVDictionaryPtr raw = parsed.ok() ? parsed.value.dictionary() : nullptr;
    std::string message;
    if (raw && request.errorMessageMaker()) {
      try {
        message = request.errorMessageMaker()(request, raw);
      } catch (...) {
        message.clear();  // fall back to the plain wording below
      }
    }
    if (message.empty()) {
      message = fmt::format("HTTP {} from {}", status, where.hostAndPath());
      if (raw)
        if (const ZVJSONValue* text = raw->find("message"); text && text->string())
          message += ": " + std::string(*text->string());
    }
    Outcome outcome = failed(ZVErrorTypeHTTP, ZVErrorHTTPStatus, std::move(message), raw);
    outcome.error->setHTTPStatus(status);
    outcome.error->setRaw(raw);
    return outcome;
  }
  if (!parsed.ok())
    return failed(ZVErrorTypeInvalidAnswer, ZVErrorAnswerNotJSON,
                  fmt::format("answer from {} is not JSON: {}", where.url, parsed.error));
  ZVDictionaryPtr body = parsed.value.dictionary();
  if (!body)
    return failed(ZVErrorTypeInvalidAnswer, ZVErrorAnswerNotObject,
                  fmt::format("answer from {} is a JSON {}, not an object", where.url,
                              jsonTypeName(parsed.value.type())));
  return {std::make_shared<ZVGenericResponse>(status, std::move(where.url), body), nullptr, body};
}

// ---------------------------------------------------------------------------
// Delivery.

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

  void operator()(Outcome outcome) {
    if (done_.exchange(true)) return;
    struct Decrement {
      std::atomic<size_t>& count;
      ~Decrement() { count.fetch_sub(1); }
    } decrement{inFlight_};
    static const std::string noKind;
    if (callback_)
      callback_(request_ ? request_->kind() : noKind, std::move(outcome.response),
                std::move(outcome.error), std::move(outcome.body));
  }

  const std::shared_ptr<ZVGenericRequest>& request() const { return request_; }
  // Where the request went; the response takes the URL.
  ResolvedURL& where() { return where_; }

 private:
  std::atomic<size_t>& inFlight_;
  ZVRequestCallback callback_;
  std::shared_ptr<ZVGenericRequest> request_;
  ResolvedURL where_;  // set before the send; the transport's completion alone uses it then
  std::atomic<bool> done_{false};
};

// Requests refused before reaching a transport are called back from here, so
// that no callback ever runs inline from `sendRequest`.
class RefusalQueue {
 public:
  static RefusalQueue& shared() {
    // Leaked with its thread: refusals may still be delivered during exit.
    static RefusalQueue* const queue = new RefusalQueue();
    return *queue;
  }

  void post(std::function<void()> task) {
    {
      std::lock_guard lock(mutex_);
      if (!started_) {
        std::thread([this] { run(); }).detach();
        started_ = true;
      }
      tasks_.push_back(std::move(task));
    }
    wake_.notify_one();
  }

 private:
  void run() {
    while (true) {
      std::function<void()> task;
      {
        std::unique_lock lock(mutex_);
        wake_.wait(lock, [&] { return !tasks_.empty(); });
        task = std::move(tasks_.front());
        tasks_.pop_front();
      }
      try {
        task();
      } catch (...) {
        // A throwing callback must not end refusal delivery for everyone.
      }
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> tasks_;  // guarded by mutex_
  bool started_ = false;                     // guarded by mutex_
};

void refuse(const std::shared_ptr<Delivery>& delivery, Outcome outcome) {
  try {
    RefusalQueue::shared().post([delivery, outcome] { (*delivery)(outcome); });
  } catch (...) {
    // No thread to defer to: calling back inline beats never calling back.
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
  std::lock_guard lock(mutex_);
  if (!transport_) {
    try {
      transport_ = ZVMakeCurlTransport();
    } catch (...) {
      return nullptr;  // no thread or memory for it; the caller reports the failure
    }
  }
  return transport_;
}

void ZVGenericRequestManager::sendRequest(std::shared_ptr<ZVGenericRequest> request,
                                          ZVRequestCallback callback) {
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
    const std::shared_ptr<const Service> service = currentService();
    const ZVConfiguration& config = *service->config;
    std::string error;
    ResolvedURL where = resolve(*service, *request, error);
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
          refuse(delivery,
                 failed(ZVErrorTypeValidation, "",
                        fmt::format("the body of the {} request cannot be written as JSON (a NaN "
                                    "or infinite number, or text that is not UTF-8)",
                                    request->kind())));
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

    std::shared_ptr<ZVTransport> sender = transport();
    if (!sender) {
      refuse(delivery, failed(ZVErrorTypeTransport, ZVErrorTransportOther,
                              "could not start the HTTP transport"));
      return;
    }
    delivery->where() = std::move(where);
    // Only the delivery is captured, so the completion fits in the function's
    // own storage.
    sender->send(std::move(http), [delivery](ZVHTTPResult result) {
      Outcome outcome;
      try {
        outcome = interpret(std::move(result), *delivery->request(), delivery->where());
      } catch (const std::exception& e) {
        outcome = failed(ZVErrorTypeTransport, ZVErrorTransportOther,
                         fmt::format("could not read the answer: {}", e.what()));
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
                              fmt::format("could not send the {} request: {}",
                                          request ? request->kind() : "", reason)));
    } catch (...) {
      // Not even the error fits in memory; the in-flight count still drops.
    }
  }
}
