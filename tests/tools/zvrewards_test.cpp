// The zvrewards client, run as a program against its built-in sandbox, a
// sandbox served by `zvrewards sandbox`, and an address where nothing listens.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <fmt/core.h>
#include <gtest/gtest.h>

#include <ZVSandbox.h>
#include <ZorvaneCoreKit/ZVJSON.h>
#include <nlohmann/json.hpp>

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

// The sandbox's catalogue: an offer anyone can afford, one above the balance,
// one above the user's tier, and one that needs a passed skill-testing challenge.
constexpr const char* kCheapOffer = "110";
constexpr const char* kExpensiveOffer = "111";
constexpr const char* kGoldTierOffer = "105";
constexpr const char* kSkillOffer = "103";
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

class ZvrewardsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "zvrewards-test-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    std::error_code ignored;
    fs::remove_all(dir_, ignored);
  }

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
    const auto deadline = std::chrono::steady_clock::now() + 60s;
    char buffer[4096];
    for (pollfd entry{master, POLLIN, 0};
         std::chrono::steady_clock::now() < deadline && ::poll(&entry, 1, 100) >= 0;) {
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

  fs::path dir_;
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

// One state throughout: the first order spends from the initial balance, the
// demo runs again on the state it left.
TEST_F(ZvrewardsTest, CommandsPrintWhatTheyDid) {
  const ProcessResult placed = run({"--json", "order", kCheapOffer, "--quantity", "2", "--ship-to",
                                    "Ada Byron, 12 Main Street, Toronto, ON, M5V 2T6, CA"});
  const json order = json::parse(placed.out, nullptr, false);
  ASSERT_TRUE(order.is_object()) << placed.out << placed.err;
  EXPECT_EQ(order["quantity"], 2);
  EXPECT_EQ(order["user"]["available_points"], 5000 - order["points"].get<int64_t>());

  const json catalogue = json::parse(run({"--json", "offers"}).out, nullptr, false);
  ASSERT_TRUE(catalogue.is_array() && !catalogue.empty()) << catalogue;
  size_t options = 0;
  std::map<std::string, std::string> statuses;
  for (const json& offer : catalogue) {
    statuses[offer.value("id", "")] = offer.value("status", "");
    EXPECT_TRUE(offer["points"].is_number_integer()) << offer;
    options += offer.value("options", json::array()).size();
  }
  EXPECT_GT(options, 0u);
  EXPECT_EQ(statuses[kCheapOffer], "available");
  EXPECT_EQ(statuses[kExpensiveOffer], "insufficient_points");
  EXPECT_EQ(statuses[kGoldTierOffer], "not_qualified");

  const Args demo = {"worked out from the question", ": passed",
                     "Balance:", "user-update notification", "CREATED"};
  const std::tuple<Args, int, Args> cases[] = {
      {{"orders"}, 0, {order.value("id", "?")}},
      {{"offers"}, 0, {"POINTS", "└─ "}},  // options are drawn under their offer
      {{"offers", "--locale", "fr_CA"}, 0, {"Tasse à café"}},
      {{"order", kCheapOffer}, 0, {"Balance:"}},
      {{"demo"}, 0, demo},
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
  const ProcessResult question = run({"--json", "question"});
  const std::string questionID = json::parse(question.out, nullptr, false).value("id", "");
  ASSERT_FALSE(questionID.empty()) << question.out << question.err;

  // Where nothing listens, with a token that must not be printed.
  const std::string nowhere = fmt::format("http://127.0.0.1:{}", zvtest::ZVRawServer::closedPort());
  const Args elsewhere = {"--service", nowhere, "--app",     "a", "--token",
                          kToken,      "-vv",   "--timeout", "5"};
  const std::tuple<const char*, Args, int, std::string> cases[] = {
      {"unknown offer", {"order", "no-such-offer"}, 1, "Unknown offer 'no-such-offer'"},
      {"insufficient points", {"order", kExpensiveOffer}, 1, "Insufficient points: needs"},
      {"skill test missing", {"order", kSkillOffer}, 1, "skill-testing challenge is required"},
      {"wrong answer", {"answer", kSkillOffer, questionID, "not-a-number"}, 1, "wrong answer"},
      {"unknown question", {"answer", kSkillOffer, "q-none", "3"}, 1, "Unknown question"},
      {"unreachable", elsewhere + Args{"--insecure-http", "offers"}, 3, "could not connect"},
      {"plain http not allowed", elsewhere + Args{"offers"}, 2, "--insecure-http"},
      {"unknown command", elsewhere + Args{"no-such-command"}, 2, "subcommand is required"},
      {"missing argument", {"order"}, 2, "OFFER_ID"},
      {"bad address", {"order", "101", "--ship-to", "Ada Byron, Toronto"}, 2, "six parts"},
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

// `zvrewards sandbox` serves other clients until SIGTERM; a wrong token is
// refused without being echoed.
TEST_F(ZvrewardsTest, SandboxCommandServesOtherClients) {
  const std::string host = "http://127.0.0.1:" + std::to_string(zvtest::ZVRawServer::closedPort());
  FILE* banner = std::tmpfile();
  ASSERT_TRUE(banner);
  const pid_t server =
      zvtest::spawnProcess({ZVREWARDS_BIN, "--state", (dir_ / "served.sqlite").string(), "--reset",
                            "sandbox", "--port", host.substr(host.rfind(':') + 1)},
                           fileno(banner), fileno(banner), childEnvironment(dir_));
  ASSERT_GT(server, 0);
  auto with = [&](const Args& args) {
    return runRaw(Args{"--service", host, "--app", "sandbox-app", "--insecure-http"} + args);
  };
  // Ask until the sandbox listens.
  ProcessResult good;
  for (auto deadline = std::chrono::steady_clock::now() + 20s;
       good.exitCode() != 0 && std::chrono::steady_clock::now() < deadline;)
    good = with({"--token", "sandbox-token", "orders"});
  EXPECT_EQ(good.exitCode(), 0) << good.err;
  EXPECT_NE(good.out.find("No orders yet."), std::string::npos) << good.out;

  const ProcessResult bad = with({"--token", "wrong-secret-4711", "offers"});
  EXPECT_EQ(bad.exitCode(), 1);
  EXPECT_NE(bad.err.find("invalid access token"), std::string::npos) << bad.err;
  EXPECT_EQ(bad.err.find("wrong-secret-4711"), std::string::npos) << bad.err;

  kill(server, SIGTERM);
  EXPECT_EQ(zvtest::waitProcess(server, 10s).exitCode(), 0);
  std::rewind(banner);
  std::string text(4096, '\0');
  text.resize(std::fread(text.data(), 1, text.size(), banner));
  std::fclose(banner);
  EXPECT_NE(text.find("Service host:  " + host), std::string::npos) << text;
  EXPECT_NE(text.find("sandbox-token"), std::string::npos) << text;
}

// A service that puts terminal escapes and the client's token (in capitals)
// in every string it answers, then in its error messages.
TEST_F(ZvrewardsTest, ServiceTextCannotDriveTheTerminalNorShowTheToken) {
  const std::string token = kToken;
  const std::string evil =
      "\\u001b]0;pwned\\u0007\\u001b[31mTasse à café\\u009b2J\\u202e\\nBalance: 9 " +
      lowered(token) + " " + token + " " + token.substr(0, 3) + "-7F3A9C-NEVER-PRINT-ME";
  const std::string offer =
      fmt::format(R"({{"id":"{0}","name":"{0}","tier":"{0}","points":5,"status":"{0}"}})", evil);
  const std::string order =
      fmt::format(R"({{"id":"{0}","offer_id":"{0}","name":"{0}","created_at":"{0}","status":"{0}",)"
                  R"("user":{{"id":"{0}","available_points":1}},"extras_key_{0}":1}})",
                  evil);
  std::atomic<bool> failing = false;
  zvtest::ZVLoopbackServer server;
  server.setHandler([&](const zvtest::LoopbackRequest& request) -> zvtest::LoopbackResponse {
    if (failing) return {500, fmt::format(R"({{"status":"error","message":"{}"}})", evil)};
    const std::string& path = request.path;
    std::string rest = fmt::format(R"("challenge":{{"id":"{0}","status":"{0}"}})", evil);
    if (path.ends_with("/offers")) rest = R"("offers":[)" + offer + "]";
    if (path.ends_with("/orders"))
      rest = request.method == "GET" ? R"("orders":[)" + order + "]" : R"("order":)" + order;
    if (path.ends_with("/skills_test_question"))
      rest = fmt::format(
          R"("challenge":{{"skills_test_question":{{"id":"{0}","question":"{0}"}}}})", evil);
    return {200, R"({"status":"ok",)" + rest + "}"};
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
        EXPECT_TRUE(mode != Args{"--json"} || result.exitCode() != 0 ||
                    ZVJSONParse(result.out).ok())
            << result.out;
      }
    }
  }
}

// Against a service other than the built-in sandbox, the demo takes the
// answer from the user and orders only once confirmed.
TEST_F(ZvrewardsTest, DemoAsksBeforeARealOrder) {
  ZVSandboxOptions options;
  options.statePath = ":memory:";
  ZVSandbox service(options);
  std::string error;
  ASSERT_TRUE(service.start(error)) << error;
  const Args at = {"--service", service.serviceHost(), "--app",          "sandbox-app",
                   "--token",   "sandbox-token",       "--insecure-http"};
  const auto ordersPlaced = [&] {
    return json::parse(runRaw(at + Args{"--json", "orders"}).out, nullptr, false).size();
  };

  // No terminal: both flags, or nothing is sent at all.
  for (const Args& more : {Args{}, {"--answer", "3"}, {"--yes"}}) {
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
}

TEST(ZvrewardsOutput, MasksTheTokenAndEscapesWhatDrivesATerminal) {
  // The token to mask, the text, what is shown.
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"Tok-12345", "a TOK-12345 b tok-12345tok-12345", "a *** b ******"},
      {"Tok-12345", "Tok-1234", "Tok-1234"},
      {"a", "a cat, a", "*** cat, ***"},
      {"ab1", "ab1 xab1 ab1x ab1-c (ab1)", "*** xab1 ab1x ab1-c (***)"},
      {"", "\x1b]0;t\x07 \x1b[31m", "\\x1b]0;t\\x07 \\x1b[31m"},
      {"", "l1\nl2\r\t\x7f", "l1\\nl2\\r\\t\\x7f"},
      {"", "C1 \xc2\x9b, RLO \xe2\x80\xae, bad \xff\xc3",
       "C1 \\u009b, RLO \\u202e, bad \\xff\\xc3"},
      {"", "Tasse à café, Ελληνικά, 日本, 🎁", "Tasse à café, Ελληνικά, 日本, 🎁"},
  };
  for (const auto& [secret, text, shown] : cases)
    EXPECT_EQ(zvcli::terminalSafe(zvcli::Redactor(secret)(text)), shown) << text;
  EXPECT_EQ(zvcli::terminalSafe("a\nb", /*keepLineFeeds=*/true), "a\nb");
  // JSON keeps its meaning: the escapes are JSON escapes.
  EXPECT_EQ(zvcli::terminalSafeJSON("[\"\x7f\xc2\x9b\xe2\x80\xae\"]"), R"(["\u007f\u009b\u202e"])");
}

TEST(ZvrewardsArithmetic, SolvesTheSandboxQuestions) {
  const std::pair<const char*, std::optional<double>> cases[] = {
      {"(7 x 3) + 9 - 4", 26},
      {"6 + 5 x 8 - 3", 43},
      {"What is 12 ÷ 4 + 2?", 5},
      {"2 × (3 + 4) − 1", 13},
      {"10 - 2 - 3", 5},
      {"-3 * -2", 6},
      {"7 / 2", 3.5},
      {"8 / (4 - 4)", std::nullopt},
      {"(1 + 2", std::nullopt},
      {"what is the answer?", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& [question, answer] : cases)
    EXPECT_EQ(zvcli::evaluateArithmetic(question), answer) << question;

  // Deep nesting ends in an answer or nullopt, never a crash.
  EXPECT_EQ(zvcli::evaluateArithmetic(std::string(100000, '(') + "1"), std::nullopt);
  EXPECT_EQ(zvcli::answerText(26), "26");
  EXPECT_EQ(zvcli::answerText(3.5), "3.5");
}

TEST(ZvrewardsFormat, PadsByCodePointsAndTruncates) {
  zvcli::Table table({{"NAME"}, {"POINTS", zvcli::Table::Align::Right}});
  table.addRow({"Tasse à café", "150"});
  table.addRow({"Mug", "75"});
  std::istringstream lines(table.render());
  std::vector<size_t> ends;
  for (std::string line; std::getline(lines, line);) ends.push_back(zvcli::displayWidth(line));
  ASSERT_EQ(ends.size(), 4u);
  // Right-aligned last column: every line ends in the same screen column.
  for (size_t end : ends) EXPECT_EQ(end, ends[0]);

  EXPECT_EQ(zvcli::truncateToWidth("Écouteurs sans fil", 6), "Écout…");
  EXPECT_EQ(zvcli::truncateToWidth("short", 6), "short");
}

}  // namespace
