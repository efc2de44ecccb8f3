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
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
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

constexpr const char* kToken = "sandbox-token";
constexpr const char* kOrdersPath = "/api/v1/apps/sandbox-app/orders";

// A connection that writes raw bytes and reads whatever comes back.
class RawConnection {
 public:
  explicit RawConnection(int port) : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  }
  ~RawConnection() { ::close(fd_); }
  RawConnection(const RawConnection&) = delete;
  RawConnection& operator=(const RawConnection&) = delete;

  // Sends until done or the peer stops taking bytes; false then.
  bool send(std::string_view bytes) {
    while (connected_ && !bytes.empty()) {
      const ssize_t n = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (n <= 0) return false;
      bytes.remove_prefix(static_cast<size_t>(n));
    }
    return connected_;
  }
  // What arrives until one whole answer did, the peer closes or `limit` passes.
  std::string readAnswer(std::chrono::milliseconds limit = 20s) {
    std::string text;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    char buffer[65536];
    for (;;) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      pollfd entry{fd_, POLLIN, 0};
      if (left.count() < 0 || ::poll(&entry, 1, static_cast<int>(left.count())) <= 0) break;
      const ssize_t n = ::recv(fd_, buffer, sizeof buffer, 0);
      if (n <= 0) break;
      text.append(buffer, static_cast<size_t>(n));
      const size_t headEnd = text.find("\r\n\r\n");
      const size_t length = text.find("Content-Length: ");
      if (headEnd != std::string::npos && length < headEnd &&
          text.size() >= headEnd + 4 + std::stoul(text.substr(length + 16)))
        break;
    }
    return text;
  }

 private:
  int fd_;
  bool connected_ = false;
};

std::string statusLine(const std::string& answer) {
  return answer.substr(0, answer.find("\r\n"));
}

std::string requestHead(const std::string& method, const std::string& path,
                        const std::string& headers = {}) {
  return fmt::format("{} {} HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: Bearer {}\r\n{}\r\n",
                     method, path, kToken, headers);
}

struct Answer {
  int status = 0;  ///< 0: no answer at all
  std::string text;
  json body;
  httplib::Headers headers;
};

class SandboxTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() /
           fmt::format("zv-sandbox-test-{}-{}", getpid(),
                       ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(dir_);
    fs::create_directories(dir_);
  }
  void TearDown() override {
    sandbox_.reset();
    fs::remove_all(dir_);
  }

  ZVSandboxOptions defaults() const {
    ZVSandboxOptions options;
    options.statePath = (dir_ / "state.sqlite").string();
    options.certDir = dir_.string();
    return options;
  }
  void start(const ZVSandboxOptions& options, const ZVSandboxLimits& limits = {}) {
    sandbox_.reset();
    sandbox_ = std::make_unique<ZVSandbox>(options, limits);
    std::string error;
    ASSERT_TRUE(sandbox_->start(error)) << error;
  }

  Answer call(const std::string& method, const std::string& path, const std::string& body = {},
              const char* token = kToken, httplib::Headers headers = {}) const {
    httplib::Client client("127.0.0.1", sandbox_->port());
    client.set_connection_timeout(std::chrono::seconds(2));
    client.set_read_timeout(std::chrono::seconds(30));  // sanitizers are slow
    if (token) headers.emplace("Authorization", fmt::format("Bearer {}", token));
    auto result = method == "GET" ? client.Get(path, headers)
                                  : client.Post(path, headers, body, "application/json");
    if (!result) return {};
    return {result->status, result->body, json::parse(result->body, nullptr, false),
            result->headers};
  }
  // A POST with an Idempotency-Key.
  Answer keyed(const std::string& key, const std::string& endpoint, const std::string& body) const {
    return call("POST", "/api/v1/apps/sandbox-app/" + endpoint, body, kToken,
                {{"Idempotency-Key", key}});
  }
  Answer get(const std::string& endpoint) const {
    return call("GET", "/api/v1/apps/sandbox-app/" + endpoint);
  }
  Answer post(const std::string& endpoint, const json& body) const {
    return call("POST", "/api/v1/apps/sandbox-app/" + endpoint, body.dump());
  }
  Answer order(const std::string& offerID, json order = json::object()) const {
    return post(fmt::format("offers/{}/orders", offerID), {{"order", std::move(order)}});
  }
  // Fetches a question and answers it for `offerID`; returns the challenge.
  json answerQuestion(const std::string& offerID, bool correctly) const {
    const auto question = get("challenges/skills_test_question").body["challenge"];
    const auto& inner = question["skills_test_question"];
    const auto expected = zvcli::evaluateArithmetic(inner["question"].get<std::string>());
    EXPECT_TRUE(expected) << inner["question"];
    const std::string response = zvcli::answerText(expected.value_or(0) + (correctly ? 0 : 1));
    const auto answer = post(fmt::format("offers/{}/challenges/skills_test_questions/{}", offerID,
                                         inner["id"].get<std::string>()),
                             {{"challenge", {{"skills_test_question", {{"response", response}}}}}});
    return answer.body["challenge"];
  }
  json userOf(const Answer& answer) const { return answer.body["order"]["user"]; }

  fs::path dir_;
  std::unique_ptr<ZVSandbox> sandbox_;
};

TEST_F(SandboxTest, GateChecksTokenAppAndPath) {
  start(defaults());
  const struct {
    const char* path;
    const char* token;
    int status;
    const char* message;
  } cases[] = {
      {"/api/v1/apps/sandbox-app/orders", nullptr, 401, "invalid access token"},
      {"/api/v1/apps/sandbox-app/orders", "wrong", 401, "invalid access token"},
      {"/api/v1/apps/other-app/orders", kToken, 404, "unknown app 'other-app'"},
      {"/api/v1/apps/sandbox-app/nothing", kToken, 404,
       "no such endpoint: GET /api/v1/apps/sandbox-app/nothing"},
      {"/api/v1/apps/sandbox-app/orders", kToken, 200, nullptr},
  };
  for (const auto& c : cases) {
    const auto answer = call("GET", c.path, {}, c.token);
    EXPECT_EQ(answer.status, c.status) << c.path;
    if (c.message) {
      EXPECT_EQ(answer.body["status"], "error");
      EXPECT_EQ(answer.body["message"], c.message);
    }
  }
}

TEST_F(SandboxTest, RefusalsExplainThemselves) {
  start(defaults());
  const std::string deep = std::string(100000, '[') + std::string(100000, ']');
  const struct {
    std::string offer;
    std::string body;
    int status;
    const char* message;
  } cases[] = {
      {"107", R"({"order":{"quantity":0}})", 200, "Quantity must be a whole number from 1 to 1000"},
      {"107", R"({"order":{"quantity":1.5}})", 200,
       "Quantity must be a whole number from 1 to 1000"},
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
  for (const auto& c : cases) {
    const auto answer =
        call("POST", fmt::format("/api/v1/apps/sandbox-app/offers/{}/orders", c.offer), c.body);
    EXPECT_EQ(answer.status, c.status) << c.body.substr(0, 40);
    ASSERT_TRUE(answer.body.is_object()) << answer.text;
    EXPECT_EQ(answer.body["status"], "error");
    EXPECT_EQ(answer.body["message"], c.message) << c.body.substr(0, 40);
  }

  const auto bottle = order("111", {{"quantity", 1}});
  EXPECT_EQ(bottle.body, json::parse(R"({"status":"error","order":{
      "base":["Insufficient points: needs 9000, has 5000"],"user_id":"sandbox-user"}})"));
  EXPECT_TRUE(get("orders").body["orders"].empty());
}

TEST_F(SandboxTest, PassedChallengeServesOneOrderOfItsOffer) {
  start(defaults());
  const auto failed = answerQuestion("103", false);
  EXPECT_EQ(failed["status"], "failed");
  EXPECT_EQ(order("103", {{"challenge", {{"id", failed["id"]}}}}).body["status"], "error");

  const auto passed = answerQuestion("103", true);
  ASSERT_EQ(passed["status"], "passed");
  EXPECT_EQ(passed["offer_id"], "103");
  EXPECT_EQ(order("108", {{"challenge", {{"id", passed["id"]}}}}).body["status"], "error");
  EXPECT_EQ(order("103", {{"challenge", {{"id", passed["id"]}}}}).body["status"], "ok");
  EXPECT_EQ(order("103", {{"challenge", {{"id", passed["id"]}}}}).body["message"],
            "A passed skill-testing challenge is required for offer '103'");

  const auto question = get("challenges/skills_test_question").body["challenge"];
  const std::string id = question["skills_test_question"]["id"];
  const json answer = {{"challenge", {{"skills_test_question", {{"response", "1"}}}}}};
  const auto path = "offers/103/challenges/skills_test_questions/";
  EXPECT_EQ(post(path + id, answer).body["status"], "ok");
  EXPECT_EQ(post(path + id, answer).body["message"],
            fmt::format("Question '{}' was already answered", id));
  EXPECT_EQ(post(std::string(path) + "q-none", answer).body["message"],
            "Unknown question 'q-none'");
  EXPECT_EQ(post(path + id, json::object()).status, 400);
}

TEST_F(SandboxTest, StatePersistsAcrossRestartsUntilReset) {
  start(defaults());
  ASSERT_EQ(order("107").body["status"], "ok");
  sandbox_->stop();

  start(defaults());
  EXPECT_EQ(get("orders").body["orders"].size(), 1u);
  EXPECT_EQ(userOf(order("107"))["available_points"], 4500);

  auto options = defaults();
  options.reset = true;
  options.initialPoints = 300;
  start(options);
  EXPECT_TRUE(get("orders").body["orders"].empty());
  EXPECT_EQ(userOf(order("107"))["available_points"], 50);
}

TEST_F(SandboxTest, FaultsAreInjectedAndRepeatable) {
  const auto withFaults = [&](double ZVSandboxFaults::*share, bool asDate = false) {
    auto options = defaults();
    options.faults.*share = 1;
    options.faults.retryAfterSeconds = 7;
    options.faults.retryAfterAsDate = asDate;
    options.faults.seed = 7;
    start(options);
  };
  withFaults(&ZVSandboxFaults::http500Share);
  EXPECT_EQ(get("orders").status, 500);
  withFaults(&ZVSandboxFaults::malformedShare);
  const auto truncated = get("orders");
  EXPECT_EQ(truncated.status, 200);
  EXPECT_TRUE(truncated.body.is_discarded()) << truncated.text;
  withFaults(&ZVSandboxFaults::dropShare);
  EXPECT_EQ(get("orders").status, 0);

  // Retry-After as seconds or as a date; the refused order changes nothing.
  for (const auto& [share, status] : {std::pair{&ZVSandboxFaults::http429Share, 429},
                                      std::pair{&ZVSandboxFaults::http503Share, 503}}) {
    for (const bool asDate : {false, true}) {
      withFaults(share, asDate);
      const auto refused = order("107");
      EXPECT_EQ(refused.status, status);
      const auto retryAfter =
          httplib::detail::get_header_value(refused.headers, "Retry-After", 0, "");
      if (asDate) {
        EXPECT_TRUE(std::string_view(retryAfter).ends_with(" GMT")) << retryAfter;
      } else {
        EXPECT_STREQ(retryAfter, "7");
      }
    }
  }
  start(defaults());
  EXPECT_TRUE(get("orders").body["orders"].empty());

  const auto statuses = [&] {
    auto options = defaults();
    options.faults.http500Share = 0.5;
    options.faults.seed = 7;
    start(options);
    std::vector<int> seen;
    for (int i = 0; i < 20; ++i) seen.push_back(get("orders").status);
    return seen;
  };
  const auto first = statuses();
  EXPECT_EQ(statuses(), first);
  EXPECT_EQ(std::set<int>(first.begin(), first.end()), (std::set<int>{200, 500}));
}

TEST_F(SandboxTest, IdempotencyKeyAnswersOnceAndRefusesAnotherRequest) {
  start(defaults());
  const auto first =
      keyed("k-1", "offers/107/orders", R"({"order":{"quantity":1,"email":"a@b.c"}})");
  ASSERT_EQ(first.body["status"], "ok") << first.text;
  EXPECT_FALSE(first.headers.count("Idempotent-Replayed"));
  // Same request in other whitespace and key order: the first answer again.
  const auto again =
      keyed("k-1", "offers/107/orders", R"( { "order" : { "email":"a@b.c", "quantity":1 } } )");
  EXPECT_EQ(again.status, 200);
  EXPECT_EQ(again.text, first.text);
  EXPECT_EQ(again.headers.find("Idempotent-Replayed")->second, "true");

  const auto changed = keyed("k-1", "offers/107/orders", R"({"order":{"quantity":2}})");
  EXPECT_EQ(changed.status, 422);
  EXPECT_NE(changed.body["message"].get<std::string>().find("already used for a different"),
            std::string::npos);
  EXPECT_EQ(keyed("k-1", "offers/110/orders", R"({"order":{"quantity":1,"email":"a@b.c"}})").status,
            422);

  // A refusal is an answer too; a request without a key orders again.
  const auto refused = keyed("k-2", "offers/111/orders", R"({"order":{}})");
  EXPECT_EQ(keyed("k-2", "offers/111/orders", R"({"order":{}})").text, refused.text);
  EXPECT_EQ(order("107").body["status"], "ok");
  const auto orders = get("orders").body["orders"];
  ASSERT_EQ(orders.size(), 2u);
  EXPECT_EQ(orders[0]["user"]["available_points"], 4500);

  for (const std::string& key :
       {std::string(256, 'k'), std::string("has space"), std::string("caf\xc3\xa9")}) {
    const auto invalid = keyed(key, "offers/107/orders", R"({"order":{}})");
    EXPECT_EQ(invalid.status, 400) << key;
    EXPECT_NE(invalid.body["message"].get<std::string>().find("Idempotency-Key"),
              std::string::npos);
  }
  EXPECT_EQ(keyed(std::string(255, '~'), "offers/107/orders", R"({"order":{}})").status, 200);
}

TEST_F(SandboxTest, ConcurrentRequestsWithOneKeyChargeOnce) {
  start(defaults());
  std::vector<std::thread> threads;
  std::vector<Answer> answers(8);
  for (size_t i = 0; i < answers.size(); ++i)
    threads.emplace_back(
        [&, i] { answers[i] = keyed("same", "offers/107/orders", R"({"order":{}})"); });
  for (auto& thread : threads) thread.join();
  for (const auto& answer : answers) {
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.body["order"]["id"], answers[0].body["order"]["id"]) << answer.text;
  }
  EXPECT_EQ(get("orders").body["orders"].size(), 1u);
}

// The order takes effect though its answer is lost; the retry, to a
// restarted sandbox, gets that order back instead of a second one. A key
// older than a day is forgotten.
TEST_F(SandboxTest, KeyedRetryAfterALostAnswerFindsTheOrderAcrossRestarts) {
  auto options = defaults();
  options.faults.dropAfterCommitShare = 1;
  start(options);
  const std::string body = R"({"order":{"quantity":3}})";
  EXPECT_EQ(keyed("retry-me", "offers/107/orders", body).status, 0);
  EXPECT_EQ(get("orders").body["orders"].size(), 1u) << "a GET is not dropped";

  start(defaults());
  const auto retried = keyed("retry-me", "offers/107/orders", body);
  EXPECT_EQ(retried.status, 200);
  EXPECT_EQ(retried.headers.count("Idempotent-Replayed"), 1u);
  EXPECT_EQ(retried.body["order"]["quantity"], 3);
  EXPECT_EQ(get("orders").body["orders"].size(), 1u);

  sandbox_->stop();
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open((dir_ / "state.sqlite").c_str(), &db), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(db, "UPDATE idempotency SET created_at = created_at - 86401", nullptr,
                         nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(db);
  start(defaults());
  EXPECT_EQ(keyed("retry-me", "offers/107/orders", R"({"order":{}})").status, 200);
  EXPECT_EQ(get("orders").body["orders"].size(), 2u);
}

TEST_F(SandboxTest, SkillAnswerWithAKeyIsRecordedOnce) {
  start(defaults());
  const auto question = get("challenges/skills_test_question").body["challenge"];
  const std::string path = fmt::format("offers/103/challenges/skills_test_questions/{}",
                                       question["skills_test_question"]["id"].get<std::string>());
  const std::string body = R"({"challenge":{"skills_test_question":{"response":"1"}}})";
  const auto first = keyed("answer-1", path, body);
  ASSERT_EQ(first.body["status"], "ok") << first.text;
  EXPECT_EQ(keyed("answer-1", path, body).text, first.text);
  EXPECT_EQ(keyed("answer-2", path, body).body["status"], "error") << "answered once";
}

TEST(SandboxFraming, FindsTheEndOfARequestOrRefusesIt) {
  ZVSandboxLimits limits;
  limits.maxHeadBytes = 200;
  limits.maxHeaderCount = 4;
  limits.maxBodyBytes = 10;
  using State = zvsandbox::Framing::State;
  const std::string get = "GET / HTTP/1.1\r\nHost: x\r\n\r\n";
  const struct {
    std::string bytes;
    State state;
    size_t endOrStatus;
  } cases[] = {
      {get + "GET / HTTP/1.1", State::complete, get.size()},
      {"GET / HTTP/1.1\r\nHost: x\r\n", State::incomplete, 0},
      {"POST / HTTP/1.1\r\nContent-Length: 3\r\n\r\nab", State::incomplete, 0},
      {"POST / HTTP/1.1\r\ncontent-length: 3\r\n\r\nabcGET", State::complete, 41},
      {"POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n3;x=y\r\nabc\r\n0\r\n\r\n",
       State::complete, 64},
      {"POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n", State::incomplete,
       0},
      {"GET / HTTP/1.1\r\n" + std::string(200, 'x'), State::refused, 431},
      {"GET / HTTP/1.1\r\nA: 1\r\nB: 1\r\nC: 1\r\nD: 1\r\nE: 1\r\n\r\n", State::refused, 431},
      {"POST / HTTP/1.1\r\nContent-Length: 11\r\n\r\n", State::refused, 413},
      {"POST / HTTP/1.1\r\nContent-Length: 99999999999999999999999\r\n\r\n", State::refused, 413},
      {"POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n6\r\nabcdef\r\n5\r\n", State::refused,
       413},
      {"POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n" + std::string(30, '1') + "\r\n",
       State::refused, 413},
      {"POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n", State::refused, 400},
      {"POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n1\r\nab\r\n", State::refused, 400},
      {"POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n0\r\nX: y\r\n\r\n", State::refused,
       400},
      {"POST / HTTP/1.1\r\nContent-Length: 1\r\nContent-Length: 1\r\n\r\na", State::refused, 400},
      {"POST / HTTP/1.1\r\nContent-Length: 1\r\nTransfer-Encoding: chunked\r\n\r\n", State::refused,
       400},
      {"POST / HTTP/1.1\r\nContent-Length: -1\r\n\r\n", State::refused, 400},
      {"POST / HTTP/1.1\r\nTransfer-Encoding: gzip\r\n\r\n", State::refused, 501},
      {"POST / HTTP/1.1\r\nContent-Encoding: gzip\r\nContent-Length: 1\r\n\r\na", State::refused,
       415},
  };
  for (const auto& c : cases) {
    // Byte by byte and all at once: the framer resumes where it stopped.
    for (const bool trickle : {false, true}) {
      zvsandbox::RequestFramer framer(limits);
      zvsandbox::Framing framing;
      for (size_t size = trickle ? 1 : c.bytes.size(); size <= c.bytes.size(); ++size) {
        framing = framer.advance(std::string_view(c.bytes).substr(0, size));
        if (framing.state != State::incomplete) break;
      }
      EXPECT_EQ(framing.state, c.state) << c.bytes;
      if (c.state != State::incomplete) {
        EXPECT_EQ(c.state == State::complete ? framing.end : size_t(framing.status), c.endOrStatus)
            << c.bytes << "\n"
            << framing.message;
      }
    }
  }
}

// Clients that send too much or too slowly are answered and cut off, and
// other clients are served meanwhile.
TEST_F(SandboxTest, HostileClientsAreRefusedWhileOthersAreServed) {
  ZVSandboxLimits limits;
  limits.requestTimeout = 3s;
  limits.workers = 2;
  start(defaults(), limits);

  // More slow clients than workers: each sends the start of a head only.
  std::vector<std::unique_ptr<RawConnection>> slow;
  for (int i = 0; i < 40; ++i) {
    slow.push_back(std::make_unique<RawConnection>(sandbox_->port()));
    ASSERT_TRUE(slow.back()->send("GET /api/v1/apps/sandbox-app/orders HTTP/1.1\r\nX: "));
  }
  EXPECT_EQ(get("orders").status, 200);
  // Served while they wait: none of them has been cut off yet.
  EXPECT_EQ(slow.front()->readAnswer(0ms), "") << "served only after the slow clients timed out";

  const std::string orderPath = "/api/v1/apps/sandbox-app/offers/107/orders";
  const std::string deep = R"({"order":{"shippingAddress":)" + std::string(100000, '[') +
                           std::string(100000, ']') + "}}";
  std::string manyFields;
  for (int i = 0; i < 101; ++i) manyFields += fmt::format("X-{}: y\r\n", i);
  const struct {
    const char* name;
    std::string head;
    std::string body;  // sent in 64 KiB chunks, 8 MiB of them when "chunked"
    const char* status;
  } cases[] = {
      {"deep JSON",
       requestHead("POST", orderPath, fmt::format("Content-Length: {}\r\n", deep.size())), deep,
       "HTTP/1.1 400 Bad Request"},
      {"endless chunked body", requestHead("POST", orderPath, "Transfer-Encoding: chunked\r\n"),
       "chunked", "HTTP/1.1 413 Payload Too Large"},
      {"too many header fields", requestHead("GET", kOrdersPath, manyFields), "",
       "HTTP/1.1 431 Request Header Fields Too Large"},
      {"huge head", requestHead("GET", kOrdersPath, "X: " + std::string(20000, 'y') + "\r\n"), "",
       "HTTP/1.1 431 Request Header Fields Too Large"},
      {"slow head", "GET / HTTP/1.1\r\n", "", "HTTP/1.1 408 Request Timeout"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    RawConnection hostile(sandbox_->port());
    ASSERT_TRUE(hostile.send(c.head));
    if (c.body == "chunked") {
      const std::string chunk = "10000\r\n" + std::string(0x10000, 'x') + "\r\n";
      for (int i = 0; i < 128 && hostile.send(chunk); ++i) {
      }
    } else {
      hostile.send(c.body);
    }
    const std::string answer = hostile.readAnswer();
    EXPECT_EQ(statusLine(answer), c.status) << answer.substr(0, 200);
    EXPECT_NE(answer.find(R"("status":"error")"), std::string::npos) << answer.substr(0, 200);
  }
  EXPECT_EQ(get("orders").status, 200);
  EXPECT_EQ(slow.front()->readAnswer().find("HTTP/1.1 408"), 0u) << "the slow clients timed out";
}

TEST_F(SandboxTest, StateAndKeyAreReadableByTheirOwnerOnly) {
  const auto modeOf = [](const fs::path& path) {
    struct stat info {};
    EXPECT_EQ(::stat(path.c_str(), &info), 0) << path;
    return info.st_mode & 07777;
  };
  // A directory the sandbox makes, a state file left wider by someone else.
  auto options = defaults();
  options.statePath = (dir_ / "made" / "state.sqlite").string();
  options.certDir = (dir_ / "made").string();
  options.tls = true;
  start(options);
  sandbox_->stop();
  ::chmod(options.statePath.c_str(), 0644);
  ::chmod((dir_ / "made" / "sandbox-key.pem").c_str(), 0644);
  start(options);
  EXPECT_EQ(modeOf(dir_ / "made"), 0700u);
  for (const char* file :
       {"state.sqlite", "state.sqlite-wal", "state.sqlite-shm", "sandbox-key.pem"})
    EXPECT_EQ(modeOf(dir_ / "made" / file), 0600u) << file;
}

}  // namespace
