// Inside the libcurl transport: every CURLcode becomes a failure kind and a
// sentence a person can act on. Request headers (the access token) are never
// part of it.
#pragma once

#include <string>
#include <utility>

#include <curl/curl.h>

#include <ZorvaneCoreKit/ZVTransport.h>

namespace zv_detail {

struct ZVCurlFailureFacts {
  CURLcode code;
  const ZVHTTPRequest& request;
  const char* errorBuffer;  // libcurl's own detail, or empty
  bool overCap;             // the body passed `maxBodyBytes`
  bool headersOverCap;      // the header lines passed `maxHeaderBytes`
  bool outOfMemory;         // a callback could not keep what arrived
  long osErrno;
  bool connected;
  bool bodySent;  // some of the request's body went out
};

std::pair<ZVTransportFailure, std::string> describeCurlFailure(const ZVCurlFailureFacts& facts);

// "host:port" of a URL, for messages; never its path or query.
std::string endpointAddress(const std::string& url);

}  // namespace zv_detail
