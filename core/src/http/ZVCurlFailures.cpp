#include "http/ZVCurlFailures.h"

#include <cctype>
#include <system_error>

#include "base/ZVStrings.h"

namespace zv_detail {
namespace {

// The longest answer header line libcurl takes (its CURL_MAX_HTTP_HEADER).
constexpr size_t kCurlMaxHeaderLine = 100 * 1024;

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
        result.address = strCat(host, ":", port);
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

}  // namespace

// Every CURLcode becomes a failure kind and a sentence a person can act on.
// Request headers (the access token) are never part of it.
std::pair<ZVTransportFailure, std::string> describeCurlFailure(const ZVCurlFailureFacts& facts) {
  const ZVHTTPRequest& request = facts.request;
  const Endpoint where = endpointOf(request.url);
  const std::string detail = facts.errorBuffer != nullptr && facts.errorBuffer[0] != '\0'
                                 ? std::string(facts.errorBuffer)
                                 : curl_easy_strerror(facts.code);
  using F = ZVTransportFailure;
  switch (facts.code) {
    case CURLE_COULDNT_RESOLVE_HOST:
      return {F::Connect, strCat("could not resolve host ", where.host)};
    case CURLE_COULDNT_RESOLVE_PROXY:
      return {F::Connect, strCat("could not resolve the proxy: ", detail)};
    case CURLE_COULDNT_CONNECT: {
      const std::string reason =
          facts.osErrno != 0
              ? lowerFirst(std::error_code(static_cast<int>(facts.osErrno), std::generic_category())
                               .message())
              : detail;
      return {F::Connect, strCat("could not connect to ", where.address, ": ", reason)};
    }
    case CURLE_OPERATION_TIMEDOUT: {
      const auto connectMs = request.connectTimeout.count();
      const auto totalMs = request.totalTimeout.count();
      const bool connectLimit =
          !facts.connected && connectMs > 0 && (totalMs <= 0 || connectMs < totalMs);
      return {F::Timeout, strCat("timed out after ", connectLimit ? connectMs : totalMs,
                                 " ms waiting for ", where.address)};
    }
    case CURLE_PEER_FAILED_VERIFICATION:
      return {F::TLS,
              strCat("TLS certificate of ", where.host, " could not be verified: ", detail)};
    case CURLE_SSL_CACERT_BADFILE:
      return {F::TLS, strCat("could not load the certificate authorities in ", request.caFile, ": ",
                             detail)};
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
      return {F::TLS, strCat("TLS handshake with ", where.address, " failed: ", detail)};
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
    case CURLE_SEND_FAIL_REWIND:
      // A body that went out is never sent again: the service may have acted on it.
      return {F::Reset,
              strCat("connection to ", where.address, " closed before the answer was complete",
                     facts.bodySent ? " (the request went out; the transport did not send it again)"
                                    : "")};
    case CURLE_FILESIZE_EXCEEDED:
      return {F::TooLarge, strCat("answer from ", where.address, " is larger than the limit of ",
                                  request.maxBodyBytes, " bytes")};
    case CURLE_WRITE_ERROR:
      if (facts.headersOverCap)
        return {F::TooLarge,
                strCat("answer headers from ", where.address, " are larger than the limit of ",
                       request.maxHeaderBytes, " bytes")};
      if (facts.overCap)
        return {F::TooLarge, strCat("answer from ", where.address, " is larger than the limit of ",
                                    request.maxBodyBytes, " bytes")};
      if (facts.outOfMemory)
        return {F::Other, strCat("out of memory reading the answer from ", where.address)};
      break;
    case CURLE_OUT_OF_MEMORY:
      // libcurl refuses an answer's header line longer than its own limit
      // with this code, before the line reaches our header callback.
      if (facts.connected)
        return {F::TooLarge,
                strCat("answer headers from ", where.address, " hold a line longer than ",
                       kCurlMaxHeaderLine, " bytes, or memory ran out while reading the answer")};
      return {F::Other, strCat("out of memory talking to ", where.address)};
    case CURLE_UNSUPPORTED_PROTOCOL:
      // Connected, the URL was good: what came back is not HTTP (HTTP/0.9, noise).
      if (facts.connected)
        return {F::Other, strCat("answer from ", where.address, " is not HTTP (", detail, ")")};
      [[fallthrough]];
    case CURLE_URL_MALFORMAT:
      return {F::Other, strCat("cannot send to ", where.address,
                               ": not a valid http or https URL (", detail, ")")};
    default:
      break;
  }
  return {F::Other, strCat("request to ", where.address, " failed: ", detail)};
}

std::string endpointAddress(const std::string& url) {
  return endpointOf(url).address;
}

}  // namespace zv_detail
