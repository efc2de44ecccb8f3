#include "http/ZVRequestURL.h"

#include <algorithm>
#include <cctype>
#include <mutex>

#include <curl/curl.h>

#include "base/ZVStrings.h"
#include "http/ZVGenericRequest.h"
#include "runtime/ZorvaneSettings.h"

namespace zv_detail {
namespace {

constexpr std::string_view kHostPlaceholder = "https://:host";
constexpr std::string_view kAppIDSegment = ":appid";

// ---------------------------------------------------------------------------
// Percent-encoding.
//
// The template's segments are ours; each path value (an offer id, a question
// id) and the app id go in as exactly one segment: every byte that is not an
// RFC 3986 unreserved character or one of ":@!$&'()*+,;=" is encoded, so
// '/', '?', '#', '%' (nothing arrives pre-encoded), space, control
// characters and every non-ASCII byte are, and a value can neither reach
// another endpoint, start a query or fragment, nor break the request line.
// A value that is "." or ".." would be a dot segment, which URL normalisers
// (in proxies too) fold away even when encoded: it is refused instead.

constexpr std::string_view kSegmentKeeps = ":@!$&'()*+,;=";
constexpr std::string_view kValuePlaceholder = "%@";

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

bool isDotSegment(std::string_view segment) {
  return segment == "." || segment == "..";
}

// Appends the template's path to `out` with the app id and the path values
// in their places; says in `resolved` why it cannot, when it cannot.
void appendPath(std::string& out, std::string_view path, std::string_view encodedAppID,
                const std::vector<std::string>& values, ZVResolvedURL& resolved) {
  size_t start = 0;
  size_t next = 0;
  // Only the template's own ":appid" is a placeholder: it precedes every path
  // value, and an id that reads ":appid" must reach the service as it is.
  bool appIDFilled = false;
  while (true) {
    const size_t slash = path.find('/', start);
    const std::string_view segment = path.substr(start, slash - start);
    if (segment == kAppIDSegment && !appIDFilled) {
      out += encodedAppID;
      appIDFilled = true;
    } else if (segment == kValuePlaceholder) {
      if (next == values.size()) {
        resolved.error = "the request URL has more \"%@\" segments than path values";
        return;
      }
      const std::string& value = values[next++];
      if (isDotSegment(value)) {
        resolved.error =
            strCat("the path value \"", value, "\" is a dot segment and cannot be sent as an id");
        resolved.badValue = true;
        return;
      }
      appendPercentEncoded(out, value, kSegmentKeeps);
    } else {
      appendPercentEncoded(out, segment, kSegmentKeeps);
    }
    if (slash == std::string_view::npos) break;
    out += '/';
    start = slash + 1;
  }
  if (next != values.size())
    resolved.error = "the request has more path values than \"%@\" segments";
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

// Whether libcurl reads `host` as a host with an optional port of 1 to
// 65535. Checked here so that a bad port is a configuration error, not a
// transport fault counted as an attempt. libcurl takes port 0, where nothing
// can be reached: refused too.
bool isHostWithPort(std::string_view scheme, std::string_view host) {
  CURLU* url = curl_url();
  if (url == nullptr) return false;
  bool ok = curl_url_set(url, CURLUPART_URL, strCat(scheme, "://", host).c_str(), 0) == CURLUE_OK;
  char* port = nullptr;
  if (ok) {
    const CURLUcode found = curl_url_get(url, CURLUPART_PORT, &port, 0);
    ok = found == CURLUE_NO_PORT || (found == CURLUE_OK && std::string_view(port) != "0");
  }
  curl_free(port);
  curl_url_cleanup(url);
  return ok;
}

// ---------------------------------------------------------------------------
// Resolution.

bool hasControlChar(std::string_view text) {
  return std::ranges::any_of(text, [](char c) {
    const auto u = static_cast<unsigned char>(c);
    return u < 0x20 || u == 0x7F;
  });
}

// The service host as a message shows it: credentials put in front of the
// host (user:password@) are never repeated.
std::string shownHost(std::string_view host) {
  const size_t scheme = host.find("://");
  const size_t start = scheme == std::string_view::npos ? 0 : scheme + 3;
  const size_t end = host.find_first_of("/?#", start);
  const size_t at = host.substr(0, end).rfind('@');
  if (at == std::string_view::npos || at < start) return std::string(host);
  return strCat(host.substr(0, start), "***", host.substr(at));
}

ZVService prepareService(std::shared_ptr<const ZVConfiguration> shared) {
  ZVService service;
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
    service.error = strCat("service host ", shownHost(config.serviceHost), " has the scheme \"",
                           scheme, "\": only https (or http) is supported");
    return service;
  }
  if (host.empty() ||
      !std::ranges::all_of(host,
                           [](char c) { return isSafeHostChar(static_cast<unsigned char>(c)); }) ||
      !isHostWithPort(scheme, host)) {
    service.error =
        strCat("service host \"", percentEncode(shownHost(config.serviceHost), "/:@[]*"),
               "\" is not a host name with an optional port");
    return service;
  }
  if (scheme == "http" && !config.allowInsecureHTTP) {
    service.error =
        strCat("plain http to ", host, " is refused: set allowInsecureHTTP to allow it");
    return service;
  }
  service.origin = scheme + "://";
  service.hostStart = service.origin.size();
  service.origin.append(host);
  if (isDotSegment(config.appID)) {
    service.error = strCat("app id \"", config.appID, "\" is a dot segment and cannot be sent");
    return service;
  }
  service.appID = percentEncode(config.appID, kSegmentKeeps);
  // Checked here, said at each send: the token itself never reaches a message.
  service.tokenHasControlChars = hasControlChar(config.accessToken);
  if (!config.accessToken.empty()) service.bearer = "Bearer " + config.accessToken;
  return service;
}

}  // namespace

std::string percentEncode(std::string_view text, std::string_view keep) {
  std::string out;
  out.reserve(text.size());
  appendPercentEncoded(out, text, keep);
  return out;
}

// The service of the current configuration. Worked out again only when the
// configuration was replaced since the last send.
std::shared_ptr<const ZVService> currentService() {
  std::shared_ptr<const ZVConfiguration> config = currentConfiguration();
  struct Cache {
    std::mutex mutex;
    std::shared_ptr<const ZVService> last;  // guarded by mutex
  };
  // Leaked, like the settings: requests may be sent while statics are destroyed.
  static Cache* const cache = new Cache();
  {
    std::lock_guard lock(cache->mutex);
    if (cache->last && cache->last->config == config) return cache->last;
  }
  auto made = std::make_shared<const ZVService>(prepareService(std::move(config)));
  std::lock_guard lock(cache->mutex);
  cache->last = made;
  return made;
}

ZVResolvedURL resolve(const ZVService& service, const ZVGenericRequest& request) {
  ZVResolvedURL resolved;
  if (!service.error.empty()) {
    resolved.error = service.error;
    return resolved;
  }
  const std::string& base = request.baseURL();
  const std::string_view rest = std::string_view(base).substr(
      base.starts_with(kHostPlaceholder) ? kHostPlaceholder.size() : 0);
  // Only the template reaches the service: anything else could name another host.
  if (!base.starts_with(kHostPlaceholder) || !(rest.empty() || rest.front() == '/')) {
    resolved.error =
        strCat("request URL of ", request.kind(), " does not start with \"https://:host/\"");
    return resolved;
  }
  if (service.config->appID.empty() && hasAppIDSegment(rest)) {
    resolved.error = "no app id configured";
    return resolved;
  }

  std::string& url = resolved.url;
  url.reserve(service.origin.size() + rest.size() + service.appID.size() + 32);
  url.append(service.origin);
  resolved.hostStart = service.hostStart;
  appendPath(url, rest, service.appID, request.pathValues(), resolved);
  if (!resolved.error.empty()) {
    resolved.url.clear();
    return resolved;
  }
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

}  // namespace zv_detail
