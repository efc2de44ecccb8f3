// Decoding any answer within maxResponseBytes stays under a bound, whatever
// the answer holds: the costliest answers we could construct at the default
// limit, for each part of the decoder, are served on loopback to a child
// process (host_child.cpp), whose peak resident memory must stay under the
// bound docs/reliability.md states. Set ZV_MEMORY_REPORT=1 to print the figures as the table there,
// and ZV_MEMORY_LIMIT_MB to try another limit. Plain build only: the
// sanitizers multiply memory.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include <ZorvaneCoreKit/ZVError.h>
#include <ZorvaneCoreKit/ZVJSON.h>
#include <ZorvaneCoreKit/Zorvane.h>

#include "ZVProcess.h"
#include "ZVRawServer.h"
#include "ZVTestSupport.h"

using namespace zvtest;

namespace {

const size_t kLimit = envOr("ZV_MEMORY_LIMIT_MB", ZVConfiguration{}.maxResponseBytes >> 20) << 20;
// What the decoding of one answer may add to a host's resident memory, in
// times the limit (docs/reliability.md).
constexpr double kBoundTimesLimit = 13;

// `unit` repeated, joined by commas, in at most `size` bytes.
std::string repeat(const std::string& unit, size_t size) {
  std::string out = unit;
  while (out.size() + unit.size() + 1 <= size) out += "," + unit;
  return unit.size() <= size ? out : "";
}

// An answer whose offers are `unit` repeated up to the limit.
std::string offersOf(const std::string& unit) {
  const std::string head = R"({"status":"ok","offers":[)";
  return head + repeat(unit, kLimit - head.size() - 2) + "]}";
}

// The body made by `build(n)` for the largest n, within 3%, whose JSON
// values fit the budget of an answer at the limit, less 1 MiB (how much of
// the scratch space a parse charges depends a little on what the thread
// parsed before): what a hostile service would tune.
std::string largestAccepted(const std::function<std::string(size_t)>& build, size_t high) {
  const size_t budget = ZVJSONMemoryForAnswer(kLimit) - (size_t{1} << 20);
  size_t low = 0;
  while (high - low > high / 32) {
    const size_t mid = (low + high + 1) / 2;
    std::string body = build(mid);
    const bool fits = body.size() <= kLimit && ZVJSONParse(body, {.maxValueBytes = budget}).ok();
    if (fits)
      low = mid;
    else
      high = mid - 1;
  }
  return build(low);
}

// Pads `body` (which ends in "}") with a string member up to the limit.
std::string padded(std::string body) {
  body.pop_back();
  return body + R"(,"pad":")" + std::string(kLimit - body.size() - 12, 'p') + "\"}";
}

// Chains of arrays at the depth limit, below an object and an array.
const std::string kDeep = std::string(510, '[') + std::string(510, ']');

struct Shape {
  std::string name;
  std::function<std::string()> body;
  const char* operation = "offers";
  std::string outcome;  // what the outcome must start with
  int status = 200;
};

std::vector<Shape> shapes() {
  const std::string tooLarge = ZVErrorAnswerTooLarge;
  const size_t records = kLimit / 128;
  return {
      {"tiny arrays", [] { return offersOf("[]"); }, "offers", tooLarge},
      {"zeros", [] { return offersOf("0"); }, "offers", tooLarge},
      {"nesting at the depth limit", [] { return offersOf(kDeep); }, "offers", tooLarge},
      {"distinct short keys, one repeated",
       [] {
         // Members "0":0,"1":0,... of which the first n are taken.
         std::string members;
         std::vector<size_t> ends;
         for (size_t i = 0; members.size() < kLimit; ++i) {
           members += fmt::format(R"("{}":0,)", i);
           ends.push_back(members.size());
         }
         return largestAccepted(
             [&](size_t n) {
               return padded(R"({"status":"ok","x":{)" + members.substr(0, ends[n]) + R"("0":1}})");
             },
             ends.size() - 1);
       },
       "offers", "0 records"},
      // An order is three records in one: the order, its user and its address.
      {"orders at the record limit, values at the budget",
       [records] {
         return largestAccepted(
             [records](size_t n) {
               const std::string order = R"({"user":{},"shipping_address":{}})";
               return padded(R"({"status":"ok","orders":[)" +
                             repeat(order, (order.size() + 1) * records - 1) + R"(],"x":[)" +
                             repeat("[]", 3 * n) + "]}");
             },
             kLimit / 3);
       },
       "orders", fmt::format("{} records", records)},
      {"HTTP 500 to an order, quoting nested containers",
       [] {
         return largestAccepted(
             [](size_t n) { return padded(R"({"x":[)" + repeat(kDeep, 1021 * n) + "]}"); },
             kLimit / 1021);
       },
       "order", std::string(ZVErrorHTTPStatus) + ": {", 500},
  };
}

void PrintTo(const Shape& shape, std::ostream* out) {
  *out << shape.name;
}

class MemoryTest : public ::testing::TestWithParam<Shape> {};

TEST_P(MemoryTest, DecodingTheAnswerStaysUnderTheBound) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizers multiply memory";
#endif
  const Shape& shape = GetParam();
  const std::string body = shape.body();
  ASSERT_LE(body.size(), kLimit);
  ZVRawServer warmup(
      {.bytes = ZVRawServer::answer(
           200, "application/json",
           R"({"status":"ok","offers":[{"id":"1"}],"orders":[{"id":"1"}],"order":{}})")});
  // No Content-Length: the body grows as it arrives, its costliest way in.
  ZVRawServer server({.bytes = fmt::format("HTTP/1.1 {} X\r\nContent-Type: application/json\r\n"
                                           "Connection: close\r\n\r\n",
                                           shape.status) +
                               body});
  const ProcessResult child =
      runProcess({ZV_HOST_CHILD, "decode", warmup.baseURL(), server.baseURL(),
                  std::to_string(kLimit), shape.operation},
                 std::chrono::minutes(2));
  ASSERT_EQ(child.exitCode(), 0) << child.err;
  size_t rssKB = 0, peakKB = 0, afterKB = 0;
  double ms = 0;
  char outcome[256] = {};
  ASSERT_EQ(
      std::sscanf(child.out.c_str(), "rss_kb=%zu peak_kb=%zu after_kb=%zu ms=%lf outcome=%255[^\n]",
                  &rssKB, &peakKB, &afterKB, &ms, outcome),
      5)
      << child.out;
  const double increaseMB = static_cast<double>(peakKB - rssKB) / 1024.0;
  if (std::getenv("ZV_MEMORY_REPORT") != nullptr)
    std::printf("| %s | %.2f | %.1f | %.1f | %.1f | %.0f | %s |\n", shape.name.c_str(),
                static_cast<double>(body.size()) / (1 << 20), increaseMB,
                static_cast<double>(peakKB) / 1024.0,
                (static_cast<double>(afterKB) - static_cast<double>(rssKB)) / 1024.0, ms, outcome);
  EXPECT_TRUE(std::string(outcome).starts_with(shape.outcome)) << outcome;
  EXPECT_LE(increaseMB, kBoundTimesLimit * static_cast<double>(kLimit >> 20)) << outcome;
}

INSTANTIATE_TEST_SUITE_P(WorstAnswers, MemoryTest, ::testing::ValuesIn(shapes()), caseName<Shape>);

}  // namespace
