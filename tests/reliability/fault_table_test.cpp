// Every fault of the service and the network, delivered to every public
// operation through the real transport: one error to each completion handler,
// saying what went wrong, one failure notification each, and the manager's
// state left as the contract says for that kind of failure.
#include <fmt/format.h>

#include <algorithm>
#include <optional>

#include "ZVRawServer.h"
#include "ZVRewardsFixture.h"

using namespace zvtest;
using namespace std::chrono_literals;

namespace {

constexpr size_t kBodyCap = 4u << 20;  // the configured cap of the table
constexpr auto kTimeout = 1500ms;
// Rows that move megabytes get room for a slow (sanitized, busy) machine.
constexpr auto kBulkTimeout = 20s;

struct Fault {
  std::string name;
  std::optional<RawScript> script;  // none: nothing listens
  std::string code;                 // of the error; "": the service's own refusal
  std::string says;                 // what the message must name; "{host}" stands for the server's
  int httpStatus = 0;
  std::chrono::milliseconds timeout = kTimeout;
  size_t cap = kBodyCap;  // maxResponseBytes
};

// The type of every error of that code.
int64_t typeOf(const std::string& code) {
  if (code.empty()) return ZVErrorTypeService;
  if (code.starts_with("ZVErrorTransport")) return ZVErrorTypeTransport;
  return code.starts_with("ZVErrorHTTP") ? ZVErrorTypeHTTP : ZVErrorTypeInvalidAnswer;
}

RawScript answer(std::string_view body, int status = 200,
                 std::string_view contentType = "application/json") {
  return {.bytes = ZVRawServer::answer(status, contentType, body)};
}

std::string head(std::string_view extra) {
  return fmt::format("HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n{}\r\n", extra);
}

std::vector<Fault> faults() {
  std::vector<Fault> rows;
  rows.push_back({"connection refused", std::nullopt, ZVErrorTransportConnect,
                  "could not connect to {host}: connection refused"});
  rows.push_back({"reset halfway through the body",
                  RawScript{.bytes = head("Content-Length: 4000\r\n") +
                                     R"({"status":"ok","offers":[)" + std::string(1000, ' '),
                            .end = RawScript::End::Reset},
                  ZVErrorTransportReset, "closed before the answer was complete"});
  rows.push_back({"one byte a second",
                  RawScript{answer(R"({"status":"ok"})").bytes, 1000ms, RawScript::End::Hold},
                  ZVErrorTransportTimeout,
                  fmt::format("timed out after {} ms waiting for {{host}}", kTimeout.count())});
  for (int status : {401, 503}) {
    rows.push_back({fmt::format("HTTP {} with a JSON body", status),
                    answer(R"({"status":"error","message":"token expired"})", status),
                    ZVErrorHTTPStatus, "token expired", status});
    rows.push_back({fmt::format("HTTP {} without a body", status), answer("", status, ""),
                    ZVErrorHTTPStatus, fmt::format("HTTP {} from 127.0.0.1", status), status});
  }
  rows.push_back({"200 with an HTML page",
                  answer("<html><body><h1>Maintenance</h1></body></html>", 200, "text/html"),
                  ZVErrorAnswerNotJSON, "is not JSON"});
  rows.push_back({"top level is an array", answer(R"([{"status":"ok"}])"), ZVErrorAnswerNotObject,
                  "is a JSON array, not an object"});
  // Only "ok" itself is: not its other case, not a missing status.
  for (const char* status : {R"("status":"error",)", R"("status":"OK",)", ""})
    rows.push_back({fmt::format("answer with {}not ok", status),
                    answer(fmt::format(R"({{{}"message":"nope"}})", status)), "", "nope"});
  rows.push_back({"nesting a million levels deep",
                  answer(std::string(1'000'000, '[') + std::string(1'000'000, ']')),
                  ZVErrorAnswerNotJSON, "deeper than"});
  rows.push_back(
      {"302 to another host",
       RawScript{.bytes = "HTTP/1.1 302 Found\r\nLocation: https://elsewhere.example/steal\r\n"
                          "Content-Length: 2\r\n\r\n{}"},
       ZVErrorHTTPUnexpectedStatus, "redirect to https://elsewhere.example/steal, not followed",
       302});
  rows.push_back({"101 with a JSON body",
                  RawScript{.bytes = "HTTP/1.1 101 Switching Protocols\r\n\r\n{\"status\":\"ok\"}"},
                  ZVErrorHTTPUnexpectedStatus, "informational status", 101});
  // Header lines (trailers take the same path) count against maxHeaderBytes
  // (default 64 KiB).
  std::string padding;
  for (int i = 0; i < 10'000; ++i) padding += "X-Padding: 0123456789\r\n";
  rows.push_back({"headers that never end",
                  RawScript{.bytes = "HTTP/1.1 200 OK\r\n" + padding, .end = RawScript::End::Hold},
                  ZVErrorAnswerTooLarge, "headers from 127.0.0.1"});
  // libcurl refuses one line past 100 KB before the header callback counts it.
  rows.push_back({"one header line longer than the transport takes",
                  RawScript{.bytes = "HTTP/1.1 200 OK\r\nX-Long: " + std::string(200'000, 'a'),
                            .end = RawScript::End::Hold},
                  ZVErrorAnswerTooLarge, "headers from 127.0.0.1"});
  rows.push_back({"an answer that is not HTTP",
                  RawScript{.bytes = "garbage\r\n\r\n", .end = RawScript::End::Close},
                  ZVErrorTransportOther, "from {host} is not HTTP"});
  // Within the cap, but an empty array costs dozens of times its 3 bytes.
  constexpr size_t kSmallCap = 64u << 10;
  std::string tiny = R"({"status":"ok","x":[)";
  for (int i = 0; i < 20'000; ++i) tiny += "[],";
  tiny += "[]]}";
  rows.push_back({"tiny containers beyond the memory budget of the values", answer(tiny),
                  ZVErrorAnswerTooLarge,
                  fmt::format("too large to decode: JSON values need more than {} bytes of memory",
                              4 * kSmallCap)});
  rows.back().cap = kSmallCap;
  const std::string huge(2 * kBodyCap, ' ');
  rows.push_back({"body above the cap, announced", answer(huge), ZVErrorAnswerTooLarge,
                  fmt::format("larger than the limit of {} bytes", kBodyCap), 0, kBulkTimeout});
  rows.push_back({"body above the cap, until the connection closes",
                  RawScript{.bytes = head("Connection: close\r\n") + huge}, ZVErrorAnswerTooLarge,
                  fmt::format("larger than the limit of {} bytes", kBodyCap), 0, kBulkTimeout});
  return rows;
}

void PrintTo(const Fault& fault, std::ostream* out) {
  *out << fault.name;
}

class FaultTableTest : public ::testing::TestWithParam<Fault> {
 protected:
  void TearDown() override {
    drainUntil([] { return ZVGenericRequestManager::instance()->requestsInFlight() == 0; });
    ZVMainQueue::shared()->drain();
  }
};

TEST_P(FaultTableTest, EveryOperationFailsOnceWithAClearErrorAndTheStateItsContractNames) {
  const Fault& fault = GetParam();
  std::optional<ZVRawServer> server;
  if (fault.script) server.emplace(*fault.script);
  const std::string host =
      server ? server->baseURL() : fmt::format("http://127.0.0.1:{}", ZVRawServer::closedPort());
  configureService(host, fault.timeout);
  std::string says = fault.says;
  if (const size_t at = says.find("{host}"); at != std::string::npos)
    says.replace(at, 6, host.substr(host.find("//") + 2));
  reconfigure([&](ZVConfiguration& config) { config.maxResponseBytes = fault.cap; });

  ZVRewardsManager* manager = ZVRewardsManager::instance();
  manager->setRefreshInterval(ZVBaseManager::kDefaultRefreshInterval);
  seedState(1000.0);  // long stale: every offers fetch goes out
  const auto offersBefore = manager->offers();
  const auto ordersBefore = manager->orders();

  NotificationLog notifications;
  LogCapture log(2);
  const auto& operations = allOperations();
  Completions completions = startAll(operations);
  ASSERT_TRUE(waitForAll(completions));

  for (size_t i = 0; i < operations.size(); ++i) {
    SCOPED_TRACE(operations[i].name);
    const Completion& c = *completions[i];
    EXPECT_EQ(c.calls.load(), 1);
    EXPECT_FALSE(c.result);
    ASSERT_TRUE(c.error && c.error->message());
    EXPECT_EQ(c.error->type(), typeOf(fault.code));
    EXPECT_EQ(c.error->code(), fault.code);
    EXPECT_NE(c.error->message()->find(says), std::string::npos) << *c.error->message();
    EXPECT_EQ(c.error->description().find(kSecretToken), std::string::npos);
    EXPECT_EQ(c.error->httpStatus(), fault.httpStatus);
  }
  // One failure notification per operation, carrying the error it delivered.
  const auto notes = notifications.all();
  EXPECT_EQ(notes.size(), operations.size());
  for (const ZVNotification& note : notes) {
    EXPECT_EQ(note.name, ZV_REWARDS_MANAGER_REQUEST_DID_FAIL_NOTIFICATION);
    const auto carried = note.userInfo.find(ZV_MANAGER_NOTIFICATION_ERROR_KEY);
    ASSERT_NE(carried, note.userInfo.end());
    EXPECT_TRUE(std::ranges::any_of(
        completions, [&](const auto& c) { return c->error.get() == carried->second.get(); }));
  }
  for (const std::string& line : log.lines()) EXPECT_EQ(line.find(kSecretToken), std::string::npos);

  // A failure below the service leaves the state alone; an answer that is not
  // "ok" empties the offers (and forgets when they came) and the orders.
  const bool kept = !fault.code.empty();
  EXPECT_EQ(manager->offers() == offersBefore && manager->orders() == ordersBefore, kept);
  EXPECT_EQ(manager->offers()->size() + manager->orders()->size(), kept ? 2u : 0u);
  EXPECT_EQ(manager->lastRefreshTime(), kept ? 1000.0 : 0.0);
}

INSTANTIATE_TEST_SUITE_P(Faults, FaultTableTest, ::testing::ValuesIn(faults()), caseName<Fault>);

}  // namespace
