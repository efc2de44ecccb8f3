#include "http/ZVHTTPErrors.h"

#include <strings.h>

#include "base/ZVStrings.h"
#include "http/ZVGenericRequest.h"

namespace zv_detail {
namespace {

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

// A header's value as a message may quote it: control bytes escaped, cut short.
std::string quotable(std::string_view value) {
  static constexpr size_t kLongest = 300;
  std::string out;
  for (char c : value.substr(0, kLongest)) {
    const auto u = static_cast<unsigned char>(c);
    if (u < 0x20 || u == 0x7F) {
      static constexpr char kHex[] = "0123456789ABCDEF";
      out += '%';
      out += kHex[u >> 4];
      out += kHex[u & 15];
    } else {
      out += c;
    }
  }
  if (value.size() > kLongest) out += "...";
  return out;
}

}  // namespace

ZVErrorPtr unexpectedStatusError(const ZVHTTPResult& result, std::string_view where) {
  std::string message = strCat("HTTP ", result.status, " from ", where);
  if (result.status >= 300) {
    std::string_view location;
    for (const auto& [name, value] : result.headers)
      if (name.size() == 8 && strcasecmp(name.c_str(), "location") == 0) location = value;
    message += location.empty() ? std::string(" (a redirect, not followed)")
                                : strCat(" (a redirect to ", quotable(location), ", not followed)");
  } else {
    message += " (an informational status, not an answer)";
  }
  auto error =
      std::make_shared<ZVError>(ZVErrorTypeHTTP, ZVErrorHTTPUnexpectedStatus, std::move(message));
  error->setHTTPStatus(result.status);
  return error;
}

ZVErrorPtr transportError(const ZVHTTPResult& result) {
  if (result.failure == ZVTransportFailure::TooLarge)
    return std::make_shared<ZVError>(ZVErrorTypeInvalidAnswer, ZVErrorAnswerTooLarge,
                                     result.failureMessage);
  return std::make_shared<ZVError>(ZVErrorTypeTransport, transportCode(result.failure),
                                   result.failureMessage);
}

ZVErrorPtr httpStatusError(int status, const ZVDictionaryPtr& raw, const ZVGenericRequest& request,
                           std::string_view where) {
  std::string message;
  if (raw && request.errorMessageMaker()) {
    try {
      message = request.errorMessageMaker()(request, raw);
    } catch (...) {
      message.clear();  // fall back to the plain wording below
    }
  }
  if (message.empty()) {
    message = strCat("HTTP ", status, " from ", where);
    if (raw)
      if (const ZVJSONValue* text = raw->find("message"); text && text->string())
        message += strCat(": ", *text->string());
  }
  auto error = std::make_shared<ZVError>(ZVErrorTypeHTTP, ZVErrorHTTPStatus, std::move(message));
  error->setHTTPStatus(status);
  error->setRaw(raw);
  return error;
}

}  // namespace zv_detail
