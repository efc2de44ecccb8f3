// Builds requests from arbitrary ids, app id, query parameters and bodies, and
// checks what the request manager would send: the URL keeps the configured
// host and the endpoint's path, every id stays inside its own slot (no query,
// fragment, dot segment or raw control byte can come out of one), and a body
// that can be written as JSON reads back unchanged.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include <ZorvaneCoreKit/ZorvaneCoreKit.h>

#include "http/ZVGenericRequestManager.h"

namespace {

constexpr std::string_view kHost = "https://rewards.example.com:8443";

[[noreturn]] void fail(const char* what, const std::string& url) {
  std::fprintf(stderr, "%s: %s\n", what, url.c_str());
  std::abort();
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Percent-decodes one path segment; aborts on a malformed escape.
std::string decodeSegment(std::string_view text, const std::string& url) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out += text[i];
      continue;
    }
    if (i + 2 >= text.size()) fail("cut escape", url);
    const int high = hexValue(text[i + 1]);
    const int low = hexValue(text[i + 2]);
    if (high < 0 || low < 0) fail("bad escape", url);
    out += static_cast<char>(high * 16 + low);
    i += 2;
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider input(data, size);
  const std::string appID = input.ConsumeRandomLengthString(32);
  const std::string offerID = input.ConsumeRandomLengthString(64);
  const std::string questionID = input.ConsumeRandomLengthString(64);
  const int method = input.ConsumeIntegralInRange(0, 2);

  // The five endpoint shapes: ids go in as path values, one "%@" segment
  // each, as the manager sends them.
  const std::string prefix = "https://:host/api/v1/apps/:appid/";
  struct Shape {
    std::string tail;
    std::vector<std::string> ids;
    std::string expected;  // the tail with the ids in their places
  };
  const Shape shapes[] = {
      {"offers", {}, "offers"},
      {"orders", {}, "orders"},
      {"challenges/skills_test_question", {}, "challenges/skills_test_question"},
      {"offers/%@/orders", {offerID}, "offers/" + offerID + "/orders"},
      {"offers/%@/challenges/skills_test_questions/%@",
       {offerID, questionID},
       "offers/" + offerID + "/challenges/skills_test_questions/" + questionID},
  };
  const Shape& shape = shapes[input.ConsumeIntegralInRange<size_t>(0, 4)];

  auto builder = ZVGenericRequestBuilder::requestBuilderWithMethod(method, "kind.fuzz");
  builder->setBaseURL(prefix + shape.tail);
  builder->setPathValues(shape.ids);
  const size_t paramCount = input.ConsumeIntegralInRange<size_t>(0, 4);
  for (size_t i = 0; i < paramCount; ++i) {
    const std::string key = input.ConsumeRandomLengthString(16);
    builder->params().setObject(key, input.ConsumeRandomLengthString(32));
  }
  const ZVJSONParseResult body = ZVJSONParse(input.ConsumeRemainingBytesAsString());
  if (body.value.dictionary()) builder->setBody(body.value.dictionary());
  const auto request = builder->build();

  ZVConfiguration configuration;
  configuration.serviceHost = std::string(kHost);
  configuration.appID = appID;
  Zorvane::configure(configuration);
  std::string error;
  const std::string url = ZVGenericRequestManager::resolveURL(*request, error);

  if (error.empty()) {
    for (const char c : url)
      if (static_cast<unsigned char>(c) <= 0x20 || static_cast<unsigned char>(c) >= 0x7F ||
          c == '#')
        fail("raw byte in the URL", url);
    const std::string root = std::string(kHost) + "/api/v1/apps/";
    if (!url.starts_with(root)) fail("host or prefix lost", url);
    const size_t question = url.find('?');
    const std::string path = url.substr(root.size(), question - root.size());
    const bool withQuery = question != std::string::npos;
    if (withQuery != (method != ZVRequestMethodSubmit && !request->params().empty()))
      fail("query where none belongs, or none where one does", url);

    // Split the path into segments; the app id is the first and must decode
    // to exactly the configured one.
    std::vector<std::string> segments;
    for (size_t start = 0;;) {
      const size_t slash = path.find('/', start);
      const std::string segment = path.substr(start, slash - start);
      if (segment == "." || segment == "..") fail("dot segment", url);
      segments.push_back(decodeSegment(segment, url));
      if (slash == std::string::npos) break;
      start = slash + 1;
    }
    if (segments.front() != appID) fail("app id changed", url);
    // Rebuilt from the decoded segments, the path is the template's tail with
    // the ids in place: nothing moved between slots.
    std::string rebuilt;
    for (size_t i = 1; i < segments.size(); ++i) rebuilt += (i > 1 ? "/" : "") + segments[i];
    if (rebuilt != shape.expected) fail("path differs from the template", url);
  } else {
    // Refused only for an app id or an id that cannot be one segment.
    const auto isDots = [](const std::string& id) { return id == "." || id == ".."; };
    if (!appID.empty() && !isDots(appID) &&
        std::none_of(shape.ids.begin(), shape.ids.end(), isDots))
      fail("a well-formed request was refused", error);
  }

  // The body goes out as compact JSON and must read back as it was.
  if (request->body()) {
    std::string text;
    if (ZVJSONSerialize(ZVJSONValue(request->body()), false, text)) {
      const ZVJSONParseResult back = ZVJSONParse(text);
      if (!back.ok() || !(back.value == ZVJSONValue(request->body()))) fail("body changed", text);
    }
  }
  return 0;
}
