// Inside the SDK: the one place where a failed exchange becomes an SDK error
// a person can act on.
#pragma once

#include <string_view>

#include <ZorvaneCoreKit/ZVError.h>
#include <ZorvaneCoreKit/ZVTransport.h>

class ZVGenericRequest;

namespace zv_detail {

// A failure of the exchange itself (`result.failure` is not None): a
// transport error, or an invalid answer for a body over the size limit.
ZVErrorPtr transportError(const ZVHTTPResult& result);

// An HTTP status of 400 or above. The message is the request's error message
// maker's wording of `raw` when it has one, else "HTTP <status> from
// <where>" and the service's own "message" when it sent one.
ZVErrorPtr httpStatusError(int status, const ZVDictionaryPtr& raw, const ZVGenericRequest& request,
                           std::string_view where);

// A final answer with a status of 1xx or 3xx: redirects are never followed,
// and an informational status cannot end an exchange. Names the status and,
// for a redirect, where it pointed.
ZVErrorPtr unexpectedStatusError(const ZVHTTPResult& result, std::string_view where);

}  // namespace zv_detail
