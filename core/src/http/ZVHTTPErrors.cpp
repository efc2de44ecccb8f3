#include "http/ZVHTTPErrors.h"

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

}  // namespace

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
