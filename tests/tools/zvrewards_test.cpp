// The zvrewards client, run as a program against its built-in sandbox, a
// sandbox served by `zvrewards sandbox`, and an address where nothing listens.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <ZorvaneCoreKit/ZVJSON.h>

#include "ZVCliArithmetic.h"
#include "ZVCliFormat.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

struct Outcome {
  int status = -1;  // exit status, or -1 when killed
  std::string out;
  std::string err;
};

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// Our environment without the client's variables, with the sandbox's default
// files (certificates, state) kept in `stateHome`.
std::vector<std::string> childEnvironment(const fs::path& stateHome) {
  std::vector<std::string> env;
  for (char** entry = environ; *entry; ++entry) {
    std::string_view text(*entry);
    if (text.starts_with("ZVREWARDS_") || text.starts_with("XDG_STATE_HOME=")) continue;
    env.emplace_back(text);
  }
  env.push_back("XDG_STATE_HOME=" + stateHome.string());
  return env;
}

// Starts zvrewards with stdin from /dev/null (so never a terminal) and the
// given descriptors as stdout and stderr.
pid_t spawnClient(const std::vector<std::string>& args, const fs::path& stateHome, int outFd,
                  int errFd) {
  std::vector<std::string> argStrings{ZVREWARDS_BIN};
  argStrings.insert(argStrings.end(), args.begin(), args.end());
  const auto envStrings = childEnvironment(stateHome);
  std::vector<char*> argv, envp;
  for (const auto& a : argStrings) argv.push_back(const_cast<char*>(a.c_str()));
  for (const auto& e : envStrings) envp.push_back(const_cast<char*>(e.c_str()));
  argv.push_back(nullptr);
  envp.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, outFd, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, errFd, STDERR_FILENO);
  pid_t pid = -1;
  const int rc = posix_spawn(&pid, ZVREWARDS_BIN, &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  return rc == 0 ? pid : -1;
}

// Waits for `pid` until `limit`, then kills it. Returns the exit status, -1 if killed.
int waitFor(pid_t pid, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  int status = 0;
  while (waitpid(pid, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      ADD_FAILURE() << "zvrewards did not finish in time";
      return -1;
    }
    std::this_thread::sleep_for(20ms);
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::optional<ZVJSONValue> parseJSON(const std::string& text) {
  auto parsed = ZVJSONParse(text);
  if (!parsed.ok()) return std::nullopt;
  return parsed.value;
}

std::string stringAt(const ZVDictionaryPtr& d, std::string_view key) {
  const ZVJSONValue* value = d ? d->find(key) : nullptr;
  return value && value->string() ? *value->string() : "";
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
  Outcome runRaw(const std::vector<std::string>& args, std::chrono::milliseconds limit = 60s) {
    const auto outPath = dir_ / "stdout", errPath = dir_ / "stderr";
    const int outFd = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int errFd = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    Outcome result;
    const pid_t pid = spawnClient(args, dir_, outFd, errFd);
    close(outFd);
    close(errFd);
    if (pid < 0) {
      ADD_FAILURE() << "could not start " << ZVREWARDS_BIN;
      return result;
    }
    result.status = waitFor(pid, limit);
    result.out = readFile(outPath);
    result.err = readFile(errPath);
    return result;
  }

  // Runs zvrewards against the built-in sandbox with this test's state file;
  // the first run of a test starts it afresh.
  Outcome run(std::vector<std::string> args) {
    std::vector<std::string> full{"--state", (dir_ / "state.sqlite").string()};
    if (!started_) full.push_back("--reset");
    started_ = true;
    full.insert(full.end(), args.begin(), args.end());
    return runRaw(full);
  }

  // The catalogue as the client's JSON output gives it.
  ZVArrayPtr offers() {
    const Outcome listing = run({"--json", "offers"});
    EXPECT_EQ(listing.status, 0) << listing.err;
    auto parsed = parseJSON(listing.out);
    EXPECT_TRUE(parsed && parsed->isArray()) << listing.out;
    return parsed ? parsed->array() : ZVMutableArray::make();
  }

  // The cheapest top-level offer matching `wanted`, or "".
  template <class Predicate>
  std::string cheapestOffer(const ZVArrayPtr& catalogue, Predicate wanted) {
    std::string best;
    int64_t bestPoints = 0;
    for (const auto& item : *catalogue) {
      const auto offer = item.dictionary();
      if (!offer || !wanted(offer)) continue;
      const int64_t points = offer->objectForKey("points").integerValue();
      if (best.empty() || points < bestPoints) {
        best = stringAt(offer, "id");
        bestPoints = points;
      }
    }
    return best;
  }

  fs::path dir_;
  bool started_ = false;
};

bool skillTest(const ZVDictionaryPtr& offer) {
  return offer->objectForKey("requires_skills_test").boolValue();
}

TEST_F(ZvrewardsTest, ListsOffersAsTableTreeAndJSON) {
  const Outcome table = run({"offers"});
  ASSERT_EQ(table.status, 0) << table.err;
  EXPECT_TRUE(table.err.empty()) << table.err;
  EXPECT_NE(table.out.find("POINTS"), std::string::npos);
  EXPECT_NE(table.out.find("└─ "), std::string::npos) << "options are drawn under their offer";

  const auto catalogue = offers();
  ASSERT_FALSE(catalogue->empty());
  bool someOptions = false;
  for (const auto& item : *catalogue) {
    const auto offer = item.dictionary();
    ASSERT_TRUE(offer);
    EXPECT_FALSE(stringAt(offer, "id").empty());
    EXPECT_FALSE(stringAt(offer, "status").empty());
    EXPECT_TRUE(offer->objectForKey("points").isInteger());
    const auto options = offer->objectForKey("options").array();
    someOptions = someOptions || (options && !options->empty());
  }
  EXPECT_TRUE(someOptions);

  const Outcome french = run({"offers", "--locale", "fr_CA"});
  ASSERT_EQ(french.status, 0) << french.err;
  EXPECT_NE(french.out.find("Tasse à café"), std::string::npos) << french.out;
}

TEST_F(ZvrewardsTest, OrderDeductsItsPointsAndIsListed) {
  const auto catalogue = offers();
  const std::string offerID = cheapestOffer(catalogue, [](const ZVDictionaryPtr& offer) {
    return !skillTest(offer) && stringAt(offer, "status") == "available";
  });
  ASSERT_FALSE(offerID.empty());

  const Outcome placed = run({"--json", "order", offerID, "--quantity", "2", "--ship-to",
                              "Ada Byron, 12 Main Street, Toronto, ON, M5V 2T6, CA"});
  ASSERT_EQ(placed.status, 0) << placed.err;
  auto order = parseJSON(placed.out);
  ASSERT_TRUE(order && order->isDictionary()) << placed.out;
  const auto orderDict = order->dictionary();
  const int64_t points = orderDict->objectForKey("points").integerValue();
  EXPECT_EQ(orderDict->objectForKey("quantity").integerValue(), 2);
  const auto user = orderDict->objectForKey("user").dictionary();
  ASSERT_TRUE(user);
  const int64_t balance = user->objectForKey("available_points").integerValue();
  EXPECT_EQ(balance, 5000 - points);

  const Outcome again = run({"order", offerID});
  ASSERT_EQ(again.status, 0) << again.err;
  EXPECT_NE(again.out.find("Balance:"), std::string::npos) << again.out;

  const Outcome history = run({"orders"});
  ASSERT_EQ(history.status, 0) << history.err;
  EXPECT_NE(history.out.find(stringAt(orderDict, "id")), std::string::npos) << history.out;
}

TEST_F(ZvrewardsTest, DemoRunsWithoutATerminalAgainAndAgain) {
  for (int round = 0; round < 2; ++round) {
    const Outcome demo = run({"demo"});
    ASSERT_EQ(demo.status, 0) << "round " << round << ": " << demo.err << demo.out;
    for (const char* expected : {"worked out from the question", ": passed",
                                 "Balance:", "user-update notification", "CREATED"})
      EXPECT_NE(demo.out.find(expected), std::string::npos) << expected << "\n" << demo.out;
  }
  const Outcome wrong = run({"demo", "--answer", "not a number"});
  EXPECT_EQ(wrong.status, 1);
  EXPECT_NE(wrong.err.find("wrong answer"), std::string::npos) << wrong.err;
}

TEST_F(ZvrewardsTest, FailuresPrintOneLineAndTheirExitStatus) {
  const auto catalogue = offers();
  const std::string expensive = cheapestOffer(catalogue, [](const ZVDictionaryPtr& offer) {
    return stringAt(offer, "status") == "insufficient_points";
  });
  const std::string skillOffer = cheapestOffer(catalogue, skillTest);
  ASSERT_FALSE(expensive.empty());
  ASSERT_FALSE(skillOffer.empty());
  const Outcome question = run({"--json", "question"});
  ASSERT_EQ(question.status, 0) << question.err;
  const auto questionRecord = parseJSON(question.out);
  ASSERT_TRUE(questionRecord && questionRecord->isDictionary());
  const std::string questionID = stringAt(questionRecord->dictionary(), "id");

  struct Case {
    const char* name;
    std::vector<std::string> args;
    int status;
    std::string message;
  };
  const Case cases[] = {
      {"unknown offer", {"order", "no-such-offer"}, 1, "Unknown offer 'no-such-offer'"},
      {"insufficient points", {"order", expensive}, 1, "Insufficient points: needs"},
      {"skill test missing", {"order", skillOffer}, 1, "skill-testing challenge is required"},
      {"wrong answer", {"answer", skillOffer, questionID, "not-a-number"}, 1, "wrong answer"},
      {"unknown question", {"answer", skillOffer, "q-none", "3"}, 1, "Unknown question"},
      {"unreachable",
       {"--service", "http://127.0.0.1:1", "--app", "a", "--insecure-http", "--timeout", "5",
        "offers"},
       3,
       "could not connect"},
      {"plain http not allowed",
       {"--service", "http://127.0.0.1:1", "--app", "a", "offers"},
       2,
       "--insecure-http"},
      {"missing argument", {"order"}, 2, "OFFER_ID"},
      {"bad address", {"order", "101", "--ship-to", "Ada Byron, Toronto"}, 2, "six parts"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const Outcome failed = run(c.args);
    EXPECT_EQ(failed.status, c.status) << failed.err;
    EXPECT_TRUE(failed.err.starts_with("zvrewards: ")) << failed.err;
    EXPECT_EQ(std::count(failed.err.begin(), failed.err.end(), '\n'), 1) << failed.err;
    EXPECT_NE(failed.err.find(c.message), std::string::npos) << failed.err;
  }
}

// `zvrewards sandbox` serves other clients until SIGTERM; a wrong token is
// refused without being echoed.
TEST_F(ZvrewardsTest, SandboxCommandServesOtherClients) {
  int pipeFds[2];
  ASSERT_EQ(pipe(pipeFds), 0);
  const int errFd = open((dir_ / "sandbox.err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  const pid_t server =
      spawnClient({"--state", (dir_ / "served.sqlite").string(), "--reset", "sandbox"}, dir_,
                  pipeFds[1], errFd);
  close(pipeFds[1]);
  close(errFd);
  ASSERT_GT(server, 0);

  // The banner names the service host; wait for that line.
  std::string banner, host;
  const auto deadline = std::chrono::steady_clock::now() + 20s;
  while (host.empty() && std::chrono::steady_clock::now() < deadline) {
    pollfd readable{pipeFds[0], POLLIN, 0};
    if (poll(&readable, 1, 200) <= 0) continue;
    char chunk[512];
    const ssize_t n = read(pipeFds[0], chunk, sizeof chunk);
    if (n <= 0) break;
    banner.append(chunk, static_cast<size_t>(n));
    const auto at = banner.find("Service host:");
    const auto end = at == std::string::npos ? at : banner.find('\n', at);
    if (end != std::string::npos) {
      std::istringstream line(banner.substr(at, end - at));
      std::string word;
      line >> word >> word >> host;
    }
  }
  close(pipeFds[0]);
  EXPECT_NE(banner.find("sandbox-token"), std::string::npos) << banner;

  if (!host.empty()) {
    const std::vector<std::string> service{"--service", host, "--app", "sandbox-app",
                                           "--insecure-http"};
    auto with = [&](std::vector<std::string> args) {
      args.insert(args.begin(), service.begin(), service.end());
      return args;
    };
    const Outcome good = runRaw(with({"--token", "sandbox-token", "orders"}));
    EXPECT_EQ(good.status, 0) << good.err;
    EXPECT_NE(good.out.find("No orders yet."), std::string::npos) << good.out;

    const Outcome bad = runRaw(with({"--token", "wrong-secret-4711", "offers"}));
    EXPECT_EQ(bad.status, 1);
    EXPECT_NE(bad.err.find("invalid access token"), std::string::npos) << bad.err;
    EXPECT_EQ(bad.err.find("wrong-secret-4711"), std::string::npos) << bad.err;
  } else {
    ADD_FAILURE() << "no service host in the banner: " << banner;
  }

  kill(server, SIGTERM);
  EXPECT_EQ(waitFor(server, 10s), 0);
}

TEST(ZvrewardsArithmetic, SolvesTheSandboxQuestions) {
  struct Case {
    const char* question;
    std::optional<double> answer;
  };
  const Case cases[] = {
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
  for (const auto& c : cases)
    EXPECT_EQ(zvcli::evaluateArithmetic(c.question), c.answer) << c.question;

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
