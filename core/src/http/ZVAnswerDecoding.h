// Inside the SDK: what an exchange's result becomes for the request's
// callback: the answer's JSON object, or an error.
#pragma once

#include <memory>
#include <string>

#include <ZorvaneCoreKit/ZVError.h>
#include <ZorvaneCoreKit/ZVTransport.h>

#include "http/ZVGenericRequest.h"
#include "http/ZVRequestURL.h"

namespace zv_detail {

struct ZVOutcome {
  std::shared_ptr<ZVGenericResponse> response;
  ZVErrorPtr error;
  ZVDictionaryPtr body;
};

ZVOutcome failedOutcome(ZVErrorPtr error);

// Parses the body of an answer with a status below 400 into the response's
// top-level JSON object; a transport failure, a status of 400 or above, or a
// body that is not a JSON object gives an error instead. The response takes
// the URL out of `where`. `maxResponseBytes` is the limit the request was
// sent under, which bounds the values' memory and rides on the response.
ZVOutcome decodeAnswer(ZVHTTPResult result, const ZVGenericRequest& request, ZVResolvedURL& where,
                       size_t maxResponseBytes);

}  // namespace zv_detail
