// Inside the SDK: where a request goes. The service's origin, app id and
// token are worked out once per configuration; each request's URL template
// is filled in and percent-encoded here.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <ZorvaneCoreKit/Zorvane.h>

class ZVGenericRequest;

namespace zv_detail {

// What every request sent under one configuration shares.
struct ZVService {
  std::shared_ptr<const ZVConfiguration> config;
  std::string error;     // why no request can be sent under it, or ""
  std::string origin;    // "scheme://host", host as configured
  size_t hostStart = 0;  // where the host starts in `origin`
  std::string appID;     // percent-encoded, dot segments included
  std::string bearer;    // the Authorization header's value, or "" without a token
  bool tokenHasControlChars = false;
};

// The service of the current configuration, worked out again only when the
// configuration was replaced since the last call.
std::shared_ptr<const ZVService> currentService();

struct ZVResolvedURL {
  std::string url;        // what is sent, with the query; empty when it cannot be sent
  std::string error;      // why the request cannot be sent, or ""
  bool badValue = false;  // ... because of a path value (else the configuration)
  // Where "host:port/path" lies in `url`, for messages.
  size_t hostStart = 0;
  size_t pathEnd = 0;
  std::string_view hostAndPath() const {
    return std::string_view(url).substr(hostStart, pathEnd - hostStart);
  }
};

// The URL `request` is sent to, or why it cannot be sent.
ZVResolvedURL resolve(const ZVService& service, const ZVGenericRequest& request);

// `text` with everything but RFC 3986's unreserved characters and `keep`
// percent-encoded.
std::string percentEncode(std::string_view text, std::string_view keep = {});

}  // namespace zv_detail
