// The zvrewards tool: its sandbox service, driven over loopback HTTP with a
// plain client and with raw sockets, and the client, run as a program against
// its built-in sandbox, a sandbox served by `zvrewards sandbox`, and an address
// where nothing listens.
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <fmt/core.h>
#include <gtest/gtest.h>
#include <httplib.h>

#include <ZVSandbox.h>
#include <nlohmann/json.hpp>

#include "SandboxFraming.h"
#include "ZVCliArithmetic.h"
#include "ZVCliFormat.h"
#include "ZVCliOutput.h"
#include "ZVLoopbackServer.h"
#include "ZVProcess.h"
#include "ZVRawServer.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using nlohmann::json;
using zvtest::ProcessResult;
using Args = std::vector<std::string>;
using Clock = std::chrono::steady_clock;

constexpr const char* kSandboxToken = "sandbox-token";
const std::string kApp = "/api/v1/apps/sandbox-app/";

// ---- The sandbox service ----------------------------------------------------

// A connection that writes raw bytes and reads whatever comes back.
struct RawConnection {
  explicit RawConnection(int port) {
    sockaddr_in address{AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
    EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  }
  ~RawConnection() { ::close(fd); }

  // Sends until done or the peer stops taking bytes; false then.
  bool send(std::string_view bytes) {
    for (ssize_t n = 0; !bytes.empty(); bytes.remove_prefix(static_cast<size_t>(n)))
      if ((n = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL)) <= 0) return false;
    return true;
  }
  // What arrives until the peer closes (every use here expects it cut off)
  // or nothing comes for `quiet`.
  std::string readAnswer(std::chrono::milliseconds quiet = 20s) {
    const timeval wait{quiet.count() / 1000, quiet.count() % 1000 * 1000};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    std::string text;
    char buffer[65536];
    for (ssize_t n; (n = ::recv(fd, buffer, sizeof buffer, 0)) > 0;)
      text.append(buffer, static_cast<size_t>(n));
    return text;
  }

  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
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
    std::string pattern = (fs::temp_directory_path() / "zv-tools-test-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    sandbox_.reset();
    std::error_code ignored;
    fs::remove_all(dir_, ignored);
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

  // A GET of the app's `endpoint` without `body`, else a POST, with `key`
  // as its Idempotency-Key unless empty.
  Answer call(const std::string& endpoint, const std::optional<std::string>& body = {},
              const std::string& key = "", const char* token = kSandboxToken,
              const std::string& root = kApp) const {
    httplib::Headers headers;
    if (token) headers.emplace("Authorization", fmt::format("Bearer {}", token));
    if (!key.empty()) headers.emplace("Idempotency-Key", key);
    httplib::Client client("127.0.0.1", sandbox_->port());
    client.set_connection_timeout(2s);
    client.set_read_timeout(30s);  // sanitizers are slow
    auto result = body ? client.Post(root + endpoint, headers, *body, "application/json")
                       : client.Get(root + endpoint, headers);
    if (!result) return {};
    return {result->status, result->body, json::parse(result->body, nullptr, false),
            result->headers};
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

// The gate (token, app, endpoint), then the order's own refusals.
TEST_F(SandboxTest, RefusalsExplainThemselves) {
  start();
  const std::tuple<const char*, const char*, int, const char*> gate[] = {
      {"sandbox-app/orders", nullptr, 401, "invalid access token"},
      {"sandbox-app/orders", "wrong", 401, "invalid access token"},
      {"other-app/orders", kSandboxToken, 404, "unknown app 'other-app'"},
  };
  for (const auto& [path, token, status, message] : gate) {
    SCOPED_TRACE(path);
    expectError(call(path, std::nullopt, "", token, "/api/v1/apps/"), status, message);
  }
  const std::string deep = std::string(100000, '[') + std::string(100000, ']');
  const std::tuple<const char*, std::string, int, std::string> cases[] = {
      {"107", R"({"order":{"quantity":0}})", 200, "Quantity must be a whole number from 1 to 1000"},
      {"105", R"({"order":{}})", 200, "Offer '105' is not available at the user's tier"},
      {"103", R"({"order":{"challenge":{"id":"c-made-up"}}})", 200,
       "A passed skill-testing challenge is required for offer '103'"},
      {"107", R"({"order":{"quantity":"2"}})", 400, "\"quantity\" must be a number"},
      {"107", R"({"order":)", 400, "the body is not valid JSON"},
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
  EXPECT_EQ(order("103", {{"challenge", {{"id", failed["id"]}}}}).body["status"], "error");

  const auto passed = answerQuestion("103", true);
  ASSERT_EQ(passed["status"], "passed");
  const json challenge = {{"challenge", {{"id", passed["id"]}}}};
  EXPECT_EQ(order("103", challenge).body["status"], "ok");
  EXPECT_EQ(order("103", challenge).body["message"],
            "A passed skill-testing challenge is required for offer '103'");

  const std::string id = question()["skills_test_question"]["id"];
  const std::string answer = answerBody("1");
  const std::string path = "offers/103/challenges/skills_test_questions/";
  // Once with a key: the same key replays the answer, another finds it answered.
  const auto first = call(path + id, answer, "answer-1");
  ASSERT_EQ(first.body["status"], "ok") << first.text;
  EXPECT_EQ(call(path + id, answer, "answer-1").text, first.text);
  EXPECT_EQ(call(path + id, answer, "answer-2").body["message"],
            fmt::format("Question '{}' was already answered", id));
}

TEST_F(SandboxTest, FaultsComeBeforeTheRequestTakesEffect) {
  using Share = double ZVSandboxFaults::*;
  // A 500, a truncated body, no answer at all, and Retry-After as seconds or
  // as a date: the faults come before the order, which only the truncated
  // answer placed.
  const std::tuple<Share, int, std::string> cases[] = {
      {&ZVSandboxFaults::http500Share, 500, ""},
      {&ZVSandboxFaults::malformedShare, 200, ""},
      {&ZVSandboxFaults::dropShare, 0, ""},
      {&ZVSandboxFaults::http429Share, 429, "7"},
      {&ZVSandboxFaults::http503Share, 503, " GMT"}};
  for (const auto& [share, status, retryAfter] : cases) {
    start([&](ZVSandboxOptions& options) {
      options.faults.*share = 1;
      options.faults.retryAfterSeconds = 7;
      options.faults.retryAfterAsDate = retryAfter == " GMT";
    });
    const auto answer = order("107");
    EXPECT_EQ(answer.status, status);
    EXPECT_TRUE(status != 200 || answer.body.is_discarded()) << answer.text;
    EXPECT_TRUE(
        std::string_view(httplib::detail::get_header_value(answer.headers, "Retry-After", 0, ""))
            .ends_with(retryAfter));
  }
  start();
  EXPECT_EQ(ordersKept(), 1u);
}

TEST_F(SandboxTest, IdempotencyKeyAnswersOnceAndRefusesAnotherRequest) {
  start();
  const std::string path = "offers/107/orders";
  const auto first = call(path, R"({"order":{"quantity":1,"email":"a@b.c"}})", "k-1");
  ASSERT_EQ(first.body["status"], "ok") << first.text;
  EXPECT_FALSE(first.headers.count("Idempotent-Replayed"));
  // Same request in other whitespace and key order: the first answer again.
  const auto again = call(path, R"( { "order" : { "email":"a@b.c", "quantity":1 } } )", "k-1");
  EXPECT_EQ(again.status, 200);
  EXPECT_EQ(again.text, first.text);
  const auto replayed = again.headers.find("Idempotent-Replayed");
  ASSERT_NE(replayed, again.headers.end());
  EXPECT_EQ(replayed->second, "true");

  const auto changed = call(path, R"({"order":{"quantity":2}})", "k-1");
  EXPECT_EQ(changed.status, 422);
  EXPECT_NE(changed.text.find("already used for a different"), std::string::npos);
  EXPECT_EQ(call("offers/110/orders", R"({"order":{"quantity":1,"email":"a@b.c"}})", "k-1").status,
            422);

  // A refusal is an answer too; a request without a key orders again.
  const auto refused = call("offers/111/orders", R"({"order":{}})", "k-2");
  EXPECT_EQ(call("offers/111/orders", R"({"order":{}})", "k-2").text, refused.text);
  EXPECT_EQ(order("107").body["status"], "ok");
  const auto orders = call("orders").body["orders"];
  ASSERT_EQ(orders.size(), 2u);
  EXPECT_EQ(orders[0]["user"]["available_points"], 4500);

  for (const std::string& key :
       {std::string(256, 'k'), std::string("has space"), std::string("caf\xc3\xa9")}) {
    const auto invalid = call(path, R"({"order":{}})", key);
    EXPECT_EQ(invalid.status, 400) << key;
    EXPECT_NE(invalid.text.find("Idempotency-Key"), std::string::npos);
  }
  EXPECT_EQ(call(path, R"({"order":{}})", std::string(255, '~')).status, 200);

  // Concurrent requests with one key: one order, the same answer for all.
  // Meanwhile 24 orders of a 400-point offer without a key: of the 4250
  // points left, the keyed order takes 250 and 10 of them the rest, never more.
  std::vector<Answer> answers(8), unkeyed(24);
  std::vector<std::thread> threads;
  for (auto& answer : answers)
    threads.emplace_back([&] { answer = call(path, R"({"order":{}})", "same"); });
  for (auto& answer : unkeyed) threads.emplace_back([&] { answer = order("102"); });
  for (auto& thread : threads) thread.join();
  for (const auto& answer : answers)
    EXPECT_EQ(answer.body["order"]["id"], answers[0].body["order"]["id"]) << answer.text;
  for (const auto& answer : unkeyed) EXPECT_EQ(answer.status, 200) << "refused, not failed";
  EXPECT_EQ(std::ranges::count_if(unkeyed, [](auto& a) { return a.body["status"] == "ok"; }), 10);
  EXPECT_EQ(ordersKept(), 14u);
}

// State and keys outlive a restart: an order whose answer was lost is found
// by its key's retry instead of being placed again.
TEST_F(SandboxTest, StateAndKeysPersistAcrossARestart) {
  start([](ZVSandboxOptions& options) { options.faults.dropAfterCommitShare = 1; });
  const std::string path = "offers/107/orders", body = R"({"order":{"quantity":3}})";
  EXPECT_EQ(call(path, body, "retry-me").status, 0);

  start();
  const auto retried = call(path, body, "retry-me");
  EXPECT_EQ(retried.status, 200);
  EXPECT_EQ(retried.headers.count("Idempotent-Replayed"), 1u);
  EXPECT_EQ(order("107").body["order"]["user"]["available_points"], 5000 - 4 * 250);
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
  // The end of a complete request, the status of a refused one. Every
  // shorter prefix, fed byte by byte, must be incomplete.
  const std::tuple<std::string, State, size_t> cases[] = {
      {get + "GET / HTTP/1.1", complete, get.size()},
      {post + "content-length: 3\r\n\r\nabcGET", complete, 41},
      {chunked + "3;x=y\r\nabc\r\n0\r\n\r\n", complete, 64},
      {"GET / HTTP/1.1\r\n" + std::string(200, 'x'), refused, 431},
      {"GET / HTTP/1.1\r\nA: 1\r\nB: 1\r\nC: 1\r\nD: 1\r\nE: 1\r\n\r\n", refused, 431},
      {post + "Content-Length: 11\r\n\r\n", refused, 413},
      {post + "Content-Length: 99999999999999999999999\r\n\r\n", refused, 413},
      {chunked + "6\r\nabcdef\r\n5\r\n", refused, 413},
      {chunked + std::string(30, '1') + "\r\n", refused, 413},
      {chunked + "zz\r\n", refused, 400},
      {post + "Content-Length: 1\r\nContent-Length: 1\r\n\r\na", refused, 400},
      {post + "Content-Length: 1\r\nTransfer-Encoding: chunked\r\n\r\n", refused, 400},
      {post + "Transfer-Encoding: gzip\r\n\r\n", refused, 501},
      {post + "Idempotency-Key: \t\r\n\r\n", refused, 400},  // dropped by the HTTP parser
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
      EXPECT_EQ(got, endOrStatus) << bytes << "\n" << framing.message;
    }
  }
  // One field longer than the HTTP parser takes, within the head's limit.
  zvsandbox::RequestFramer framer{ZVSandboxLimits{}};
  const std::string longField = "GET / HTTP/1.1\r\nX: " + std::string(9000, 'a') + "\r\n\r\n";
  EXPECT_EQ(framer.advance(longField).status, 431);
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
  EXPECT_EQ(slow.front()->readAnswer(1ms), "") << "served only after the slow clients timed out";

  // A body beyond the limit (the framing's table has every limit) is answered
  // while it still streams in, 8 MiB in 64 KiB chunks, and cut off.
  RawConnection hostile(sandbox_->port());
  ASSERT_TRUE(
      hostile.send(fmt::format("POST {}offers/107/orders HTTP/1.1\r\nHost: 127.0.0.1\r\n"
                               "Authorization: Bearer {}\r\n"
                               "Transfer-Encoding: chunked\r\n\r\n",
                               kApp, kSandboxToken)));
  const std::string chunk = "10000\r\n" + std::string(0x10000, 'x') + "\r\n";
  for (int i = 0; i < 128 && hostile.send(chunk); ++i) {
  }
  const std::string answer = hostile.readAnswer();
  EXPECT_TRUE(answer.starts_with("HTTP/1.1 413 Payload Too Large\r\n")) << answer.substr(0, 200);
  // The slow clients timed out, answered with an error too.
  const std::string timedOut = slow.front()->readAnswer();
  EXPECT_TRUE(timedOut.starts_with("HTTP/1.1 408 Request Timeout\r\n")) << timedOut;
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

// ---- The client, run as a program -------------------------------------------

// The sandbox's catalogue: an offer anyone can afford, and one above the balance.
constexpr const char* kCheapOffer = "110";
constexpr const char* kExpensiveOffer = "111";
// A token that must never be printed, whatever its case.
constexpr const char* kToken = "Tok-7f3a9c-never-print-me";

// Our environment without the client's variables, with the sandbox's default
// files (certificates, state) kept in `stateHome`.
Args childEnvironment(const fs::path& stateHome) {
  Args env{"XDG_STATE_HOME=" + stateHome.string()};
  for (char** entry = environ; *entry; ++entry)
    if (const std::string_view text(*entry);
        !text.starts_with("ZVREWARDS_") && !text.starts_with("XDG_STATE_HOME="))
      env.emplace_back(text);
  return env;
}

// `a` followed by `b`.
Args operator+(Args a, const Args& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// Runs of the client, with its files in the test's directory.
class ZvrewardsTest : public SandboxTest {
 protected:
  // Runs zvrewards with `args` as they stand.
  ProcessResult runRaw(Args args) {
    args.insert(args.begin(), ZVREWARDS_BIN);
    return zvtest::runProcess(args, 60s, childEnvironment(dir_));
  }

  // Runs zvrewards against the built-in sandbox with this test's state file;
  // the first run of a test starts it afresh.
  ProcessResult run(const Args& args) {
    Args full{"--state", (dir_ / "state.sqlite").string()};
    if (!std::exchange(started_, true)) full.push_back("--reset");
    return runRaw(full + args);
  }

  // Runs zvrewards with a pseudo-terminal as its standard input and output;
  // `typeAt(screen)` says what to type once the screen so far ends in a
  // prompt (empty: nothing yet). Returns the exit status and the screen.
  std::pair<int, std::string> runAtTerminal(
      Args args, const std::function<std::string(const std::string&)>& typeAt) {
    const int master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    char name[128] = {};
    if (master < 0 || ::grantpt(master) != 0 || ::unlockpt(master) != 0 ||
        ::ptsname_r(master, name, sizeof name) != 0)
      return {-1, "no pseudo-terminal"};  // fails every check of the screen
    const int slave = ::open(name, O_RDWR | O_NOCTTY);
    args.insert(args.begin(), ZVREWARDS_BIN);
    const pid_t pid = zvtest::spawnProcess(args, slave, slave, childEnvironment(dir_), slave);
    EXPECT_GT(pid, 0);
    ::close(slave);

    std::string screen;
    size_t answeredUpTo = 0;
    const auto deadline = Clock::now() + 60s;
    char buffer[4096];
    for (pollfd entry{master, POLLIN, 0}; Clock::now() < deadline && ::poll(&entry, 1, 100) >= 0;) {
      if (entry.revents == 0) continue;
      const ssize_t n = ::read(master, buffer, sizeof buffer);
      if (n <= 0) break;  // the program ended and closed the terminal
      screen.append(buffer, static_cast<size_t>(n));
      if (const std::string typed = typeAt(screen.substr(answeredUpTo)); !typed.empty()) {
        answeredUpTo = screen.size();
        [[maybe_unused]] const auto written = ::write(master, typed.data(), typed.size());
      }
    }
    ::close(master);
    return {zvtest::waitProcess(pid, 10s).exitCode(), screen};
  }

  bool started_ = false;
};

// Bytes a terminal would act on: control characters but the line feed, DEL,
// and, in UTF-8, the C1 CSI and the right-to-left override.
bool drivesTheTerminal(const std::string& text) {
  const bool control = std::any_of(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) < 0x20 && c != '\n') || c == 0x7F;
  });
  return control || text.find("\xc2\x9b") != std::string::npos ||
         text.find("\xe2\x80\xae") != std::string::npos;
}

std::string lowered(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// One state throughout: the order spends from the initial balance, and the
// next run lists it.
TEST_F(ZvrewardsTest, CommandsPrintWhatTheyDid) {
  const Args demo = {"worked out from the question", ": passed",
                     "Balance:", "user-update notification", "CREATED"};
  const std::tuple<Args, int, Args> cases[] = {
      {{"order", kCheapOffer, "--quantity", "2", "--ship-to",
        "Ada Byron, 12 Main Street, Toronto, ON, M5V 2T6, CA"},
       0,
       {"Quantity:  2", "Balance:   4940"}},
      {{"orders"}, 0, {"Free shipping"}},
      {{"offers"}, 0, {"POINTS", "└─ "}},  // options are drawn under their offer
      {{"demo"}, 0, demo},
      {{"demo", "--answer", "not a number"}, 1, {"wrong answer"}},
  };
  for (const auto& [args, status, shown] : cases) {
    const ProcessResult result = run(args);
    EXPECT_EQ(result.exitCode(), status) << result.err << result.out;
    EXPECT_TRUE(status != 0 || result.err.empty()) << result.err;
    for (const std::string& text : shown)
      EXPECT_NE((result.out + result.err).find(text), std::string::npos) << text << "\n"
                                                                         << result.out;
  }
}

TEST_F(ZvrewardsTest, FailuresPrintOneLineAndTheirExitStatus) {
  // Where nothing listens, with a token that must not be printed.
  const std::string nowhere = fmt::format("http://127.0.0.1:{}", zvtest::ZVRawServer::closedPort());
  const Args elsewhere = {"--service", nowhere, "--app",     "a", "--token",
                          kToken,      "-vv",   "--timeout", "5"};
  const std::tuple<const char*, Args, int, std::string> cases[] = {
      {"insufficient points", {"order", kExpensiveOffer}, 1, "Insufficient points: needs"},
      {"unreachable", elsewhere + Args{"--insecure-http", "offers"}, 3, "could not connect"},
      {"plain http not allowed", elsewhere + Args{"offers"}, 2, "--insecure-http"},
  };
  for (const auto& [name, args, status, message] : cases) {
    SCOPED_TRACE(name);
    const ProcessResult failed = run(args);
    EXPECT_EQ(failed.exitCode(), status) << failed.err;
    EXPECT_TRUE(failed.err.starts_with("zvrewards: ")) << failed.err;
    EXPECT_EQ(std::count(failed.err.begin(), failed.err.end(), '\n'), 1) << failed.err;
    EXPECT_NE(failed.err.find(message), std::string::npos) << failed.err;
    EXPECT_EQ(lowered(failed.out + failed.err).find(lowered(kToken)), std::string::npos);
  }
}

// A service that puts terminal escapes and the client's token (in capitals)
// in every string it answers, then in its error messages.
TEST_F(ZvrewardsTest, ServiceTextCannotDriveTheTerminalNorShowTheToken) {
  const std::string token = kToken;
  const std::string evil =
      "\\u0000\\u001b]0;pwned\\u0007\\u001b[31mTasse à café\\u009b2J\\u202e\\nBalance: 9 " +
      lowered(token) + " " + token + " " + token.substr(0, 3) + "-7F3A9C-NEVER-PRINT-ME" + " \\t" +
      token.substr(1);  // the escape of the tab completes the token
  const std::string offer =
      fmt::format(R"({{"id":"{0}","name":"{0}","tier":"{0}","points":5,"status":"{0}"}})", evil);
  const std::string order =
      fmt::format(R"({{"id":"{0}","offer_id":"{0}","name":"{0}","created_at":"{0}","status":"{0}",)"
                  R"("user":{{"id":"{0}","available_points":1}},"extras_key_{0}":1}})",
                  evil);
  // One answer holds what every command reads.
  const std::string answer = fmt::format(
      R"({{"status":"ok","offers":[{1}],"orders":[{2}],"order":{2},"challenge":{{"id":"{0}",)"
      R"("status":"{0}","skills_test_question":{{"id":"{0}","question":"{0}"}}}}}})",
      evil, offer, order);
  std::atomic<bool> failing = false;
  zvtest::ZVLoopbackServer server;
  server.setHandler([&](const zvtest::LoopbackRequest&) -> zvtest::LoopbackResponse {
    if (failing) return {500, fmt::format(R"({{"status":"error","message":"{}"}})", evil)};
    return {200, answer};
  });

  for (const bool fail : {false, true}) {
    failing = fail;
    for (const Args& command :
         {Args{"offers"}, {"orders"}, {"order", "1"}, {"question"}, {"answer", "1", "q", "2"}}) {
      for (const Args& mode : {Args{}, {"--json"}, {"-vv"}}) {
        SCOPED_TRACE(fmt::format("{} {}{}", command[0], mode.empty() ? "" : mode[0],
                                 fail ? ", failing" : ""));
        const ProcessResult result = runRaw(Args{"--service", server.baseURL(), "--app", "app",
                                                 "--token", token, "--insecure-http"} +
                                            mode + command);
        const std::string all = result.out + result.err;
        EXPECT_FALSE(drivesTheTerminal(all)) << all;
        EXPECT_EQ(lowered(all).find(lowered(token).substr(4)), std::string::npos) << all;
        EXPECT_NE(all.find(fail ? "pwned" : "Tasse à café"), std::string::npos) << all;
        EXPECT_TRUE(mode != Args{"--json"} || result.exitCode() != 0 || json::accept(result.out))
            << result.out;
      }
    }
  }
}

// `zvrewards sandbox` serves other clients until SIGTERM. Against it, as
// against any service but the built-in sandbox, the demo takes the answer
// from the user and orders only once confirmed.
TEST_F(ZvrewardsTest, SandboxCommandServesADemoThatAsksBeforeARealOrder) {
  const std::string port = std::to_string(zvtest::ZVRawServer::closedPort());
  const pid_t server = zvtest::spawnProcess(
      {ZVREWARDS_BIN, "--state", (dir_ / "served.sqlite").string(), "sandbox", "--port", port}, -1,
      -1, childEnvironment(dir_));
  ASSERT_GT(server, 0);
  const Args at = {"--service",   "http://127.0.0.1:" + port, "--app", "sandbox-app", "--token",
                   kSandboxToken, "--insecure-http"};
  const auto ordersPlaced = [&] {
    return json::parse(runRaw(at + Args{"--json", "orders"}).out, nullptr, false).size();
  };
  // Ask until the sandbox listens.
  ProcessResult listed;
  for (auto deadline = Clock::now() + 20s; listed.exitCode() != 0 && Clock::now() < deadline;)
    listed = runRaw(at + Args{"orders"});
  EXPECT_NE(listed.out.find("No orders yet."), std::string::npos) << listed.out << listed.err;

  // No terminal: both flags, or nothing is sent at all.
  for (const Args& more : {Args{}, {"--answer", "3"}, {"--yes"}, {"--answer", "", "--yes"}}) {
    const ProcessResult refused = runRaw(at + Args{"demo"} + more);
    EXPECT_EQ(refused.exitCode(), 2) << refused.err;
    EXPECT_NE(refused.err.find("--answer and confirm the order with --yes"), std::string::npos)
        << refused.err;
  }
  EXPECT_EQ(ordersPlaced(), 0u);

  // At a terminal: the answer typed, then the order confirmed or not.
  for (const char* confirm : {"n", "y"}) {
    const auto [status, screen] = runAtTerminal(at + Args{"demo"}, [&](const std::string& screen) {
      if (screen.ends_with("Your answer: ")) {
        const size_t line = screen.rfind("Question ");
        const size_t start = screen.find(": ", line) + 2;
        const auto value =
            zvcli::evaluateArithmetic(screen.substr(start, screen.find('\r', start) - start));
        return value ? zvcli::answerText(*value) + "\n" : std::string("?\n");
      }
      return screen.ends_with("[y/N] ") ? std::string(confirm) + "\n" : std::string();
    });
    SCOPED_TRACE(screen);
    EXPECT_NE(screen.find(": passed"), std::string::npos);
    EXPECT_EQ(status, *confirm == 'y' ? 0 : 1);
    EXPECT_EQ(ordersPlaced(), *confirm == 'y' ? 1u : 0u);
  }

  kill(server, SIGTERM);
  EXPECT_EQ(zvtest::waitProcess(server, 10s).exitCode(), 0);
}

TEST(ZvrewardsOutput, MasksTheTokenAndEscapesWhatDrivesATerminal) {
  // The token to mask, the text, what is shown.
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"Tok-12345", "a TOK-12345 b tok-12345tok-12345", "a *** b ******"},
      {"a", "a cat, a", "*** cat, ***"},
      {"ab1", "ab1 xab1 ab1x ab1-c (ab1)", "*** xab1 ab1x ab1-c (***)"},
      {"", "l1\nl2\r\t\x7f", "l1\\nl2\\r\\t\\x7f"},
      {"", "C1 \xc2\x9b, RLO \xe2\x80\xae, bad \xff\xc3",
       "C1 \\u009b, RLO \\u202e, bad \\xff\\xc3"},
  };
  for (const auto& [secret, text, shown] : cases)
    EXPECT_EQ(zvcli::terminalSafe(zvcli::Redactor(secret)(text)), shown) << text;
  // JSON keeps its meaning: the escapes are JSON escapes.
  EXPECT_EQ(zvcli::terminalSafeJSON("[\"\x7f\xc2\x9b\xe2\x80\xae\"]"), R"(["\u007f\u009b\u202e"])");
  // Serialised, an escape or a number that completes the token goes with it,
  // and the JSON stays valid.
  const std::tuple<const char*, const char*, const char*> serialised[] = {
      {"Tok-12345", R"(["\tok-12345 \tok-1234", "x\u001b"])", R"(["*** \tok-1234", "x\u001b"])"},
      {"tab1", R"(["\tab1", "xtab1"])", R"(["***", "xtab1"])"},
      {"12345678", R"({"n" : 9123456789, "s" : "12345678"})", R"({"n" : "***", "s" : "***"})"},
  };
  for (const auto& [secret, text, shown] : serialised)
    EXPECT_EQ(zvcli::Redactor(secret).serialized(text), shown) << text;
  // Cut to a width, never inside a character.
  EXPECT_EQ(zvcli::truncateToWidth("Écouteurs sans fil", 6), "Écout…");
}

// The sandbox's own questions are solved in the demo runs above.
TEST(ZvrewardsArithmetic, SolvesQuestionsOrRefusesThem) {
  const std::pair<std::string, std::optional<double>> cases[] = {
      {"What is 12 ÷ 4 + 2?", 5},
      {"2 × (3 + 4) − 1", 13},
      {"10 - 2 - 3", 5},
      {"8 / (4 - 4)", std::nullopt},
      {"(1 + 2", std::nullopt},
      {std::string(100000, '(') + "1", std::nullopt},  // deep nesting: no crash
  };
  for (const auto& [question, answer] : cases)
    EXPECT_EQ(zvcli::evaluateArithmetic(question), answer) << question.substr(0, 20);
}

}  // namespace
