// The two clients the network benchmarks compare: the SDK, through its public
// API, and raw libcurl sending the same requests.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include <curl/curl.h>

#include <ZorvaneCoreKit/ZVLocale.h>

namespace zvbench {

/// The catalogues the local nginx serves, by the locale a fetch asks for: the
/// SDK sends "?locale=en-CA" for ZVLocale("en_CA"), and nginx answers with
/// the file "offers-en-CA.json".
struct Catalogue {
  const char* locale;     ///< for ZVLocale
  const char* webLocale;  ///< as the SDK sends it
  size_t offers;
  std::string fileName() const { return std::string("offers-") + webLocale + ".json"; }
};
inline constexpr Catalogue kEmptyCatalogue{"en_CA", "en-CA", 0};  // {"status":"ok","offers":[]}
inline constexpr Catalogue kCatalogue100{"fr_CA", "fr-CA", 100};
inline constexpr Catalogue kCatalogue10k{"de_DE", "de-DE", 10000};

/// The small answer of an orders fetch.
inline constexpr const char* kEmptyOrders = R"({"status":"ok","orders":[]})";

/// One server address as both clients reach it.
struct Endpoint {
  std::string name;    ///< "http1" or "h2"
  std::string scheme;  ///< "http" or "https"
  int port = 0;
  std::string caFile;  ///< trusted by both clients
  bool http2 = false;  ///< HTTP/2 over TLS, requests multiplexed on one connection

  std::string offersURL(const Catalogue& catalogue) const;
  std::string ordersURL() const;
};

/// Points the SDK at `endpoint` (app "bench", a bearer token, `caFile`,
/// plain http allowed) and silences its logger.
void configureSDK(const Endpoint& endpoint);

/// Raw libcurl: `width` easy handles on one multi handle, each sending what
/// the SDK sends for the same URL (its request headers, HTTP/1.1 on plain
/// http, HTTP/2 by ALPN over TLS with multiplexing) and keeping the body in a
/// std::string, as a client must before it can read it. Connections stay
/// open from one call to the next.
class RawClient {
 public:
  RawClient(const Endpoint& endpoint, const std::string& url, int width);
  ~RawClient();
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  /// Runs `total` requests with `width` in flight, re-adding each handle as
  /// soon as it finishes; with `parse`, a simdjson DOM parse of each body as
  /// it completes. Returns the failures.
  int64_t multi(int total, bool parse);
  /// Runs `total` requests one after the other on one reused easy handle
  /// (outside the multi). Returns the failures.
  int64_t sequential(int total, bool parse);
  /// Sends one request every `pace` until `seconds` have passed, on the
  /// multi handle with up to `width` in flight (a request due while all are
  /// busy waits for one), and appends each one's time from when it was sent
  /// to its completion, in ms, to `latencies`: the SDK's stall phases time
  /// theirs from the call in the same way. Returns the failures.
  int64_t paced(double seconds, std::chrono::microseconds pace, std::vector<double>& latencies);

 private:
  struct Handle {
    CURL* easy = nullptr;
    std::string body;
    std::chrono::steady_clock::time_point sent;  // of a paced request
  };
  void setUp(Handle& handle, const Endpoint& endpoint, const std::string& url);
  // One curl_multi_perform, then `finished(handle, ok)` for each transfer
  // that ended, already removed from the multi handle. Returns the running count.
  template <class Fn>
  int performAndTakeFinished(Fn&& finished);
  CURLM* multi_ = nullptr;
  curl_slist* headers_ = nullptr;
  std::vector<Handle> handles_;  // handles_.back() runs the sequential requests
};

/// `total` forced offers fetches of `catalogue` through ZVRewardsManager with
/// `width` in flight; each completion handler runs on the main queue, which
/// this thread runs (ZVMainQueue::runUntil) as a host's main thread would,
/// and sends the next fetch. Returns the failures.
int64_t hostFetches(const Catalogue& catalogue, int width, int total);

/// The same through ZVGenericRequestManager alone: the transport and the
/// JSON parse, each callback on the transport's thread sending the next
/// request; no records and no main queue. Returns the failures.
int64_t coreFetches(const Catalogue& catalogue, int width, int total);

/// coreFetches with each callback handed to the main queue, which this
/// thread runs and where the next request is sent: the hand-off to the
/// host's thread without the rewards layer. Returns the failures.
int64_t hopFetches(const Catalogue& catalogue, int width, int total);

/// Nearest-rank percentile of `values` (sorted in place); 0 when empty.
double percentile(std::vector<double>& values, double p);

}  // namespace zvbench
