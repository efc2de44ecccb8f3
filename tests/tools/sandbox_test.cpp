// The sandbox service, driven over loopback HTTP with a plain client and
// with raw sockets: what the client's tests (zvrewards_test) do not reach
// through the client.
#include <ZVSandbox.h>

#include <netinet/in.h>
#include <poll.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <fmt/core.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <nlohmann/json.hpp>

#include "SandboxFraming.h"
#include "ZVCliArithmetic.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr const char* kToken = "sandbox-token";
const std::string kApp = "/api/v1/apps/sandbox-app/";

// A connection that writes raw bytes and reads whatever comes back.
struct RawConnection {
  explicit RawConnection(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connected = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  }
  ~RawConnection() { ::close(fd); }

  // Sends until done or the peer stops taking bytes; false then.
  bool send(std::string_view bytes) {
    for (ssize_t n = 0; connected && !bytes.empty(); bytes.remove_prefix(static_cast<size_t>(n)))
      if ((n = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL)) <= 0) return false;
    return connected;
  }
  // What arrives until the peer closes (every use here expects it cut off)
  // or `limit` passes.
  std::string readAnswer(std::chrono::milliseconds limit = 20s) {
    std::string text;
    char buffer[65536];
    const auto deadline = Clock::now() + limit;
    for (pollfd entry{fd, POLLIN, 0};;) {
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      const ssize_t n = left >= 0 && ::poll(&entry, 1, static_cast<int>(left)) > 0
                            ? ::recv(fd, buffer, sizeof buffer, 0)
                            : 0;
      if (n <= 0) return text;
      text.append(buffer, static_cast<size_t>(n));
    }
  }

  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  bool connected = false;
};

struct Answer {
  int status = 0;  ///< 0: no answer at all
  std::string text;
  json body;
  httplib::Headers headers;
};

// A refusal: its status, and a body that says why.
void expectError(const Answer& answer, int status, const std::string& message) {
  EXPECT_EQ(answer.status, status) << answer.text;
  EXPECT_EQ(answer.body["status"], "error") << answer.text;
  EXPECT_EQ(answer.body["message"], message);
}

class SandboxTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "zv-sandbox-test-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    sandbox_.reset();
    fs::remove_all(dir_);
  }

  // (Re)starts the sandbox with its files in this test's directory, as
  // `change` then has them.
  void start(const std::function<void(ZVSandboxOptions&)>& change = {},
             const ZVSandboxLimits& limits = {}) {
    ZVSandboxOptions options;
    options.statePath = (dir_ / "state.sqlite").string();
    options.certDir = dir_.string();
    if (change) change(options);
    sandbox_.reset();
    sandbox_ = std::make_unique<ZVSandbox>(options, limits);
    std::string error;
    ASSERT_TRUE(sandbox_->start(error)) << error;
  }

  // A GET of the app's `endpoint` without `body`, else a POST.
  Answer call(const std::string& endpoint, const std::optional<std::string>& body = {},
              httplib::Headers headers = {{"Authorization", fmt::format("Bearer {}", kToken)}},
              const std::string& root = kApp) const {
    httplib::Client client("127.0.0.1", sandbox_->port());
    client.set_connection_timeout(2s);
    client.set_read_timeout(30s);  // sanitizers are slow
    auto result = body ? client.Post(root + endpoint, headers, *body, "application/json")
                       : client.Get(root + endpoint, headers);
    if (!result) return {};
    return {result->status, result->body, json::parse(result->body, nullptr, false),
            result->headers};
  }
  // A POST with an Idempotency-Key.
  Answer keyed(const std::string& key, const std::string& endpoint, const std::string& body) const {
    return call(endpoint, body,
                {{"Authorization", fmt::format("Bearer {}", kToken)}, {"Idempotency-Key", key}});
  }
  Answer order(const std::string& offerID, json order = json::object()) const {
    return call(fmt::format("offers/{}/orders", offerID), json{{"order", order}}.dump());
  }
  size_t ordersKept() const { return call("orders").body["orders"].size(); }
  json question() const { return call("challenges/skills_test_question").body["challenge"]; }
  static std::string answerBody(const std::string& response) {
    return fmt::format(R"({{"challenge":{{"skills_test_question":{{"response":"{}"}}}}}})",
                       response);
  }
  // Fetches a question and answers it for `offerID`; returns the challenge.
  json answerQuestion(const std::string& offerID, bool correctly) const {
    const auto inner = question()["skills_test_question"];
    const auto expected = zvcli::evaluateArithmetic(inner["question"].get<std::string>());
    EXPECT_TRUE(expected) << inner["question"];
    return call(fmt::format("offers/{}/challenges/skills_test_questions/{}", offerID,
                            inner["id"].get<std::string>()),
                answerBody(zvcli::answerText(expected.value_or(0) + !correctly)))
        .body["challenge"];
  }

  fs::path dir_;
  std::unique_ptr<ZVSandbox> sandbox_;
};

TEST_F(SandboxTest, GateChecksTokenAppAndPath) {
  start();
  const std::tuple<const char*, const char*, int, const char*> cases[] = {
      {"sandbox-app/orders", nullptr, 401, "invalid access token"},
      {"sandbox-app/orders", "wrong", 401, "invalid access token"},
      {"other-app/orders", kToken, 404, "unknown app 'other-app'"},
      {"sandbox-app/nothing", kToken, 404,
       "no such endpoint: GET /api/v1/apps/sandbox-app/nothing"},
  };
  for (const auto& [path, token, status, message] : cases) {
    SCOPED_TRACE(path);
    httplib::Headers headers;
    if (token) headers.emplace("Authorization", fmt::format("Bearer {}", token));
    expectError(call(path, std::nullopt, headers, "/api/v1/apps/"), status, message);
  }
}

TEST_F(SandboxTest, RefusalsExplainThemselves) {
  start();
  const std::string deep = std::string(100000, '[') + std::string(100000, ']');
  const std::string quantity = "Quantity must be a whole number from 1 to 1000";
  const std::tuple<const char*, std::string, int, std::string> cases[] = {
      {"107", R"({"order":{"quantity":0}})", 200, quantity},
      {"107", R"({"order":{"quantity":1.5}})", 200, quantity},
      {"105", R"({"order":{}})", 200, "Offer '105' is not available at the user's tier"},
      {"103", R"({"order":{"challenge":{"id":"c-made-up"}}})", 200,
       "A passed skill-testing challenge is required for offer '103'"},
      {"107", R"({"order":{"quantity":"2"}})", 400, "\"quantity\" must be a number"},
      {"107", R"({"order":{"shippingAddress":[]}})", 400, "\"shippingAddress\" must be an object"},
      {"107", R"({"order":)", 400, "the body is not valid JSON"},
      {"107", "[1]", 400, "the body is not a JSON object"},
      {"107", R"({"order":5})", 400, "the body has no \"order\" object"},
      {"107", R"({"order":)" + deep + "}", 400, "the body nests deeper than 32 levels"},
  };
  for (const auto& [offer, body, status, message] : cases) {
    SCOPED_TRACE(body.substr(0, 40));
    expectError(call(fmt::format("offers/{}/orders", offer), body), status, message);
  }
  EXPECT_EQ(ordersKept(), 0u);
}

TEST_F(SandboxTest, PassedChallengeServesOneOrderOfItsOffer) {
  start();
  const auto failed = answerQuestion("103", false);
  EXPECT_EQ(failed["status"], "failed");
  EXPECT_EQ(order("103", {{"challenge", {{"id", failed["id"]}}}}).body["status"], "error");

  const auto passed = answerQuestion("103", true);
  ASSERT_EQ(passed["status"], "passed");
  EXPECT_EQ(passed["offer_id"], "103");
  const json challenge = {{"challenge", {{"id", passed["id"]}}}};
  EXPECT_EQ(order("108", challenge).body["status"], "error");
  EXPECT_EQ(order("103", challenge).body["status"], "ok");
  EXPECT_EQ(order("103", challenge).body["message"],
            "A passed skill-testing challenge is required for offer '103'");

  const std::string id = question()["skills_test_question"]["id"];
  const std::string answer = answerBody("1");
  const std::string path = "offers/103/challenges/skills_test_questions/";
  EXPECT_EQ(call(path + id, "{}").status, 400);
  // Once with a key: the same key replays the answer, another finds it answered.
  const auto first = keyed("answer-1", path + id, answer);
  ASSERT_EQ(first.body["status"], "ok") << first.text;
  EXPECT_EQ(keyed("answer-1", path + id, answer).text, first.text);
  EXPECT_EQ(keyed("answer-2", path + id, answer).body["message"],
            fmt::format("Question '{}' was already answered", id));
  EXPECT_EQ(call(path + "q-none", answer).body["message"], "Unknown question 'q-none'");
}

TEST_F(SandboxTest, FaultsAreInjectedAndRepeatable) {
  using Share = double ZVSandboxFaults::*;
  const auto withFaults = [&](Share share, double value = 1, bool asDate = false) {
    start([&](ZVSandboxOptions& options) {
      options.faults.*share = value;
      options.faults.retryAfterSeconds = 7;
      options.faults.retryAfterAsDate = asDate;
      options.faults.seed = 7;
    });
  };
  // A 500, a truncated body, no answer at all.
  const std::pair<Share, int> plain[] = {{&ZVSandboxFaults::http500Share, 500},
                                         {&ZVSandboxFaults::malformedShare, 200},
                                         {&ZVSandboxFaults::dropShare, 0}};
  for (const auto& [share, status] : plain) {
    withFaults(share);
    const auto answer = call("orders");
    EXPECT_EQ(answer.status, status);
    EXPECT_TRUE(status != 200 || answer.body.is_discarded()) << answer.text;
  }

  // Retry-After as seconds or as a date; the refused order changes nothing.
  for (const auto& [share, status] : {std::pair<Share, int>{&ZVSandboxFaults::http429Share, 429},
                                      {&ZVSandboxFaults::http503Share, 503}}) {
    for (const bool asDate : {false, true}) {
      withFaults(share, 1, asDate);
      const auto refused = order("107");
      EXPECT_EQ(refused.status, status);
      const std::string retryAfter =
          httplib::detail::get_header_value(refused.headers, "Retry-After", 0, "");
      EXPECT_TRUE(asDate ? retryAfter.ends_with(" GMT") : retryAfter == "7") << retryAfter;
    }
  }
  start();
  EXPECT_EQ(ordersKept(), 0u);

  const auto statuses = [&] {
    withFaults(&ZVSandboxFaults::http500Share, 0.5);
    std::vector<int> seen;
    for (int i = 0; i < 20; ++i) seen.push_back(call("orders").status);
    return seen;
  };
  const auto first = statuses();
  EXPECT_EQ(statuses(), first);
  EXPECT_EQ(std::set<int>(first.begin(), first.end()), (std::set<int>{200, 500}));
}

TEST_F(SandboxTest, IdempotencyKeyAnswersOnceAndRefusesAnotherRequest) {
  start();
  const std::string path = "offers/107/orders";
  const auto first = keyed("k-1", path, R"({"order":{"quantity":1,"email":"a@b.c"}})");
  ASSERT_EQ(first.body["status"], "ok") << first.text;
  EXPECT_FALSE(first.headers.count("Idempotent-Replayed"));
  // Same request in other whitespace and key order: the first answer again.
  const auto again = keyed("k-1", path, R"( { "order" : { "email":"a@b.c", "quantity":1 } } )");
  EXPECT_EQ(again.status, 200);
  EXPECT_EQ(again.text, first.text);
  EXPECT_EQ(again.headers.find("Idempotent-Replayed")->second, "true");

  const auto changed = keyed("k-1", path, R"({"order":{"quantity":2}})");
  EXPECT_EQ(changed.status, 422);
  EXPECT_NE(changed.text.find("already used for a different"), std::string::npos);
  EXPECT_EQ(keyed("k-1", "offers/110/orders", R"({"order":{"quantity":1,"email":"a@b.c"}})").status,
            422);

  // A refusal is an answer too; a request without a key orders again.
  const auto refused = keyed("k-2", "offers/111/orders", R"({"order":{}})");
  EXPECT_EQ(keyed("k-2", "offers/111/orders", R"({"order":{}})").text, refused.text);
  EXPECT_EQ(order("107").body["status"], "ok");
  const auto orders = call("orders").body["orders"];
  ASSERT_EQ(orders.size(), 2u);
  EXPECT_EQ(orders[0]["user"]["available_points"], 4500);

  for (const std::string& key :
       {std::string(256, 'k'), std::string("has space"), std::string("caf\xc3\xa9")}) {
    const auto invalid = keyed(key, path, R"({"order":{}})");
    EXPECT_EQ(invalid.status, 400) << key;
    EXPECT_NE(invalid.text.find("Idempotency-Key"), std::string::npos);
  }
  EXPECT_EQ(keyed(std::string(255, '~'), path, R"({"order":{}})").status, 200);

  // Concurrent requests with one key: one order, the same answer for all.
  std::vector<Answer> answers(8);
  std::vector<std::thread> threads;
  for (auto& answer : answers)
    threads.emplace_back([&] { answer = keyed("same", path, R"({"order":{}})"); });
  for (auto& thread : threads) thread.join();
  for (const auto& answer : answers) {
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.body["order"]["id"], answers[0].body["order"]["id"]) << answer.text;
  }
  EXPECT_EQ(ordersKept(), 4u);
}

// State and keys outlive a restart: an order whose answer was lost is found
// by its key's retry instead of being placed again; a key older than a day is
// forgotten; a reset starts afresh.
TEST_F(SandboxTest, StateAndKeysPersistAcrossRestartsUntilReset) {
  start([](ZVSandboxOptions& options) { options.faults.dropAfterCommitShare = 1; });
  const std::string path = "offers/107/orders", body = R"({"order":{"quantity":3}})";
  EXPECT_EQ(keyed("retry-me", path, body).status, 0);
  EXPECT_EQ(ordersKept(), 1u) << "a GET is not dropped";

  start();
  const auto retried = keyed("retry-me", path, body);
  EXPECT_EQ(retried.status, 200);
  EXPECT_EQ(retried.headers.count("Idempotent-Replayed"), 1u);
  EXPECT_EQ(retried.body["order"]["quantity"], 3);
  EXPECT_EQ(order("107").body["order"]["user"]["available_points"], 5000 - 4 * 250);

  sandbox_->stop();
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open((dir_ / "state.sqlite").c_str(), &db), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(db, "UPDATE idempotency SET created_at = created_at - 86401", nullptr,
                         nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(db);
  start();
  EXPECT_EQ(keyed("retry-me", path, R"({"order":{}})").status, 200);
  EXPECT_EQ(ordersKept(), 3u);

  start([](ZVSandboxOptions& options) {
    options.reset = true;
    options.initialPoints = 300;
  });
  EXPECT_EQ(ordersKept(), 0u);
  EXPECT_EQ(order("107").body["order"]["user"]["available_points"], 50);
}

TEST(SandboxFraming, FindsTheEndOfARequestOrRefusesIt) {
  ZVSandboxLimits limits;
  limits.maxHeadBytes = 200;
  limits.maxHeaderCount = 4;
  limits.maxBodyBytes = 10;
  using State = zvsandbox::Framing::State;
  using enum State;
  const std::string get = "GET / HTTP/1.1\r\nHost: x\r\n\r\n", post = "POST / HTTP/1.1\r\n",
                    chunked = post + "Transfer-Encoding: chunked\r\n\r\n";
  // The end of a complete request, the status of a refused one.
  const std::tuple<std::string, State, size_t> cases[] = {
      {get + "GET / HTTP/1.1", complete, get.size()},
      {"GET / HTTP/1.1\r\nHost: x\r\n", incomplete, 0},
      {post + "Content-Length: 3\r\n\r\nab", incomplete, 0},
      {post + "content-length: 3\r\n\r\nabcGET", complete, 41},
      {chunked + "3;x=y\r\nabc\r\n0\r\n\r\n", complete, 64},
      {chunked + "3\r\nabc\r\n0\r\n", incomplete, 0},
      {"GET / HTTP/1.1\r\n" + std::string(200, 'x'), refused, 431},
      {"GET / HTTP/1.1\r\nA: 1\r\nB: 1\r\nC: 1\r\nD: 1\r\nE: 1\r\n\r\n", refused, 431},
      {post + "Content-Length: 11\r\n\r\n", refused, 413},
      {post + "Content-Length: 99999999999999999999999\r\n\r\n", refused, 413},
      {chunked + "6\r\nabcdef\r\n5\r\n", refused, 413},
      {chunked + std::string(30, '1') + "\r\n", refused, 413},
      {chunked + "zz\r\n", refused, 400},
      {chunked + "1\r\nab\r\n", refused, 400},
      {chunked + "0\r\nX: y\r\n\r\n", refused, 400},
      {post + "Content-Length: 1\r\nContent-Length: 1\r\n\r\na", refused, 400},
      {post + "Content-Length: 1\r\nTransfer-Encoding: chunked\r\n\r\n", refused, 400},
      {post + "Content-Length: -1\r\n\r\n", refused, 400},
      {post + "Transfer-Encoding: gzip\r\n\r\n", refused, 501},
      {post + "Content-Encoding: gzip\r\nContent-Length: 1\r\n\r\na", refused, 415},
  };
  for (const auto& [bytes, state, endOrStatus] : cases) {
    // Byte by byte and all at once: the framer resumes where it stopped.
    for (const bool trickle : {false, true}) {
      zvsandbox::RequestFramer framer(limits);
      zvsandbox::Framing framing;
      for (size_t size = trickle ? 1 : bytes.size(); size <= bytes.size(); ++size)
        if ((framing = framer.advance(std::string_view(bytes).substr(0, size))).state != incomplete)
          break;
      EXPECT_EQ(framing.state, state) << bytes;
      const size_t got = state == complete ? framing.end : size_t(framing.status);
      EXPECT_EQ(state == incomplete ? 0 : got, endOrStatus) << bytes << "\n" << framing.message;
    }
  }
}

// Clients that send too much or too slowly are answered and cut off, and
// other clients are served meanwhile.
TEST_F(SandboxTest, HostileClientsAreRefusedWhileOthersAreServed) {
  ZVSandboxLimits limits;
  limits.requestTimeout = 3s;
  limits.workers = 2;
  start({}, limits);

  // More slow clients than workers: each sends the start of a head only.
  std::vector<std::unique_ptr<RawConnection>> slow;
  for (int i = 0; i < 40; ++i) {
    slow.push_back(std::make_unique<RawConnection>(sandbox_->port()));
    ASSERT_TRUE(slow.back()->send("GET " + kApp + "orders HTTP/1.1\r\nX: "));
  }
  EXPECT_EQ(call("orders").status, 200);
  // Served while they wait: none of them has been cut off yet.
  EXPECT_EQ(slow.front()->readAnswer(0ms), "") << "served only after the slow clients timed out";

  // Beyond the limits (the framing's table has them all), each is answered
  // with an error and cut off. A chunked body is 8 MiB in 64 KiB chunks.
  const auto head = [](const std::string& line, const std::string& headers) {
    return fmt::format("{} HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: Bearer {}\r\n{}\r\n", line,
                       kToken, headers);
  };
  const std::tuple<std::string, bool, const char*> cases[] = {
      {head("POST " + kApp + "offers/107/orders", "Transfer-Encoding: chunked\r\n"), true,
       "HTTP/1.1 413 Payload Too Large"},
      {head("GET " + kApp + "orders", "X: " + std::string(20000, 'y') + "\r\n"), false,
       "HTTP/1.1 431 Request Header Fields Too Large"},
      {"GET / HTTP/1.1\r\n", false, "HTTP/1.1 408 Request Timeout"},
  };
  const std::string chunk = "10000\r\n" + std::string(0x10000, 'x') + "\r\n";
  for (const auto& [request, chunked, status] : cases) {
    SCOPED_TRACE(status);
    RawConnection hostile(sandbox_->port());
    ASSERT_TRUE(hostile.send(request));
    for (int i = 0; chunked && i < 128 && hostile.send(chunk); ++i) {
    }
    const std::string answer = hostile.readAnswer();
    EXPECT_EQ(answer.substr(0, answer.find("\r\n")), status) << answer.substr(0, 200);
    EXPECT_NE(answer.find(R"("status":"error")"), std::string::npos) << answer.substr(0, 200);
  }
  EXPECT_EQ(call("orders").status, 200);
  EXPECT_EQ(slow.front()->readAnswer().find("HTTP/1.1 408"), 0u) << "the slow clients timed out";
}

TEST_F(SandboxTest, StateAndKeyAreReadableByTheirOwnerOnly) {
  const auto modeOf = [](const fs::path& path) {
    struct stat info {};
    EXPECT_EQ(::stat(path.c_str(), &info), 0) << path;
    return info.st_mode & 07777;
  };
  // A directory the sandbox makes, a state file left wider by someone else.
  const fs::path made = dir_ / "made";
  const auto inMade = [&](ZVSandboxOptions& options) {
    options.statePath = (made / "state.sqlite").string();
    options.certDir = made.string();
    options.tls = true;
  };
  start(inMade);
  sandbox_->stop();
  for (const char* file : {"state.sqlite", "sandbox-key.pem"}) ::chmod((made / file).c_str(), 0644);
  start(inMade);
  EXPECT_EQ(modeOf(made), 0700u);
  for (const char* file :
       {"state.sqlite", "state.sqlite-wal", "state.sqlite-shm", "sandbox-key.pem"})
    EXPECT_EQ(modeOf(made / file), 0600u) << file;
}

}  // namespace
