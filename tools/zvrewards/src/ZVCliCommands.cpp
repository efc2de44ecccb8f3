#include "ZVCliCommands.h"

#include <fmt/core.h>
#include <pthread.h>
#include <cctype>
#include <csignal>
#include <vector>

#include <ZorvaneCoreKit/ZVIdentity.h>
#include <ZorvaneCoreKit/ZVNotificationCenter.h>
#include <ZorvaneRewardsKit/ZVRewardsNotifications.h>

#include "ZVCliArithmetic.h"
#include "ZVCliFormat.h"
#include "ZVCliOutput.h"

namespace zvcli {
namespace {

constexpr std::string_view kPassed = "passed";

std::string trim(std::string_view text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return "";
  const auto last = text.find_last_not_of(" \t");
  return std::string(text.substr(first, last - first + 1));
}

void emitJSON(const ZVJSONValue& value) {
  if (!printJSON(value)) throw CliError("the answer cannot be written as JSON", kExitFailure);
}

std::string balanceText(int64_t available, int64_t test) {
  return fmt::format("{} points available, {} test points", available, test);
}

// Prints text of ours, with the service's parts already passed through `shown`.
template <class... Args>
void say(fmt::format_string<Args...> format, Args&&... args) {
  writeText(stdout, fmt::format(format, std::forward<Args>(args)...));
}

std::string describeOrder(const ZVOrder& order) {
  std::string out = fmt::format("Order {} placed: {}\n", shown(order.orderID().value_or("(no id)")),
                                order.stringForCurrentStatus());
  const std::string name = shown(fieldText(order.name()));
  out += fmt::format("  Offer:     {}{}\n", shown(order.offerID().value_or("")),
                     name.empty() ? "" : fmt::format(" ({})", name));
  out += fmt::format("  Quantity:  {}\n", order.quantity());
  out += fmt::format("  Points:    {}\n", order.points());
  if (const auto& user = order.user())
    out +=
        fmt::format("  Balance:   {}\n", balanceText(user->availablePoints(), user->testPoints()));
  return out;
}

std::string questionText(const ZVSkillQuestion& question) {
  return fieldText(question.question());
}

std::string challengeStatus(const ZVSkillChallenge& challenge) {
  return fieldText(challenge.status());
}

// Prints only for people: in JSON mode the record says it all.
class Narrator {
 public:
  explicit Narrator(bool quiet) : quiet_(quiet) {}
  template <class... Args>
  void say(fmt::format_string<Args...> format, Args&&... args) const {
    if (!quiet_) writeText(stdout, fmt::format(format, std::forward<Args>(args)...));
  }

 private:
  bool quiet_;
};

// The user-update notification that follows an accepted order, with the new balances.
class BalanceWatcher {
 public:
  BalanceWatcher() {
    token_ = ZVNotificationCenter::defaultCenter()->addObserver(
        ZV_USER_MANAGER_DID_UPDATE_USER_INTERNAL, nullptr,
        [seen = seen_](const ZVNotification& notification) {
          *seen = std::pair{ZVRewardsNotification::availablePoints(notification).value_or(0),
                            ZVRewardsNotification::testPoints(notification).value_or(0)};
        });
  }
  ~BalanceWatcher() { ZVNotificationCenter::defaultCenter()->removeObserver(token_); }
  BalanceWatcher(const BalanceWatcher&) = delete;
  BalanceWatcher& operator=(const BalanceWatcher&) = delete;

  /// Read on the main thread, where the main queue (and so the observer) runs.
  const std::optional<std::pair<int64_t, int64_t>>& balances() const { return *seen_; }

 private:
  std::shared_ptr<std::optional<std::pair<int64_t, int64_t>>> seen_ =
      std::make_shared<std::optional<std::pair<int64_t, int64_t>>>();
  ZVObserverToken token_ = 0;
};

// The cheapest offer that needs the skill test and that the user can afford now.
std::shared_ptr<ZVOffer> pickDemoOffer(const ZVOfferArray& offers) {
  std::shared_ptr<ZVOffer> best, cheapestSkillOffer;
  for (const auto& offer : offers) {
    if (!offer || !offer->isSkillChallengeRequired() || !offer->offerID()) continue;
    if (!cheapestSkillOffer || offer->points() < cheapestSkillOffer->points())
      cheapestSkillOffer = offer;
    if (offer->status() == ZVOfferStatusAvailable && (!best || offer->points() < best->points()))
      best = offer;
  }
  if (best) return best;
  if (!cheapestSkillOffer)
    throw CliError("no offer of the catalogue needs the skill-testing question", kExitFailure);
  throw CliError(
      fmt::format("balance too low: the cheapest offer that needs the skill-testing question, "
                  "{}, costs {} points; run the demo without --keep-state to start afresh",
                  shown(*cheapestSkillOffer->offerID()), cheapestSkillOffer->points()),
      kExitFailure);
}

// Asks on standard error, so that standard output keeps only the results.
std::optional<std::string> promptLine(std::FILE* input, const std::string& prompt) {
  std::fflush(stdout);
  writeText(stderr, prompt);
  std::fflush(stderr);
  std::string line;
  for (int c; (c = std::fgetc(input)) != EOF && c != '\n';) line += static_cast<char>(c);
  if (line.empty() && std::feof(input)) return std::nullopt;
  return trim(line);
}

}  // namespace

std::shared_ptr<ZVAddress> parseShippingAddress(std::string_view text) {
  std::vector<std::string> parts;
  size_t start = 0;
  while (true) {
    const auto comma = text.find(',', start);
    parts.push_back(
        trim(text.substr(start, comma == std::string_view::npos ? comma : comma - start)));
    if (comma == std::string_view::npos) break;
    start = comma + 1;
  }
  bool complete = parts.size() == 6;
  for (const auto& part : parts) complete = complete && !part.empty();
  if (!complete)
    throw CliError(
        "--ship-to needs six parts: \"Name, Street, City, Region, Postal code, Country\"",
        kExitUsage);
  auto address = std::make_shared<ZVAddress>();
  address->name = parts[0];
  address->street1 = parts[1];
  address->city = parts[2];
  address->region = parts[3];
  address->postalCode = parts[4];
  address->country = parts[5];
  return address;
}

int runOffers(const GlobalOptions& global, const OffersArgs& args) {
  Client client(global);
  client.connect();
  std::optional<ZVLocale> locale;
  if (!args.locale.empty()) locale = ZVLocale(args.locale);
  const auto offers = client.fetchOffers(locale, args.force);
  if (global.json) {
    emitJSON(offersJSON(*offers));
  } else if (offers->empty()) {
    say("No offers.\n");
  } else {
    say("{}", offersTable(*offers));
  }
  return kExitSuccess;
}

int runOrders(const GlobalOptions& global) {
  Client client(global);
  client.connect();
  const auto orders = client.fetchOrders();
  if (global.json) {
    emitJSON(ordersJSON(*orders));
  } else if (orders->empty()) {
    say("No orders yet.\n");
  } else {
    say("{}", ordersTable(*orders));
  }
  return kExitSuccess;
}

int runOrder(const GlobalOptions& global, const OrderArgs& args) {
  // Checked before anything starts, so that a typo costs no request.
  std::shared_ptr<ZVAddress> address;
  if (!args.shipTo.empty()) address = parseShippingAddress(args.shipTo);

  Client client(global);
  client.connect();
  auto request = ZVOrderRequest::initWithOfferID(args.offerID, ZVJSONValue(args.quantity));
  if (!args.email.empty()) request->setEmail(args.email);
  if (!args.challengeID.empty()) request->setChallengeID(args.challengeID);
  request->setShippingAddress(address);
  const auto order = client.placeOrder(request);
  if (global.json) {
    emitJSON(orderJSON(*order));
  } else {
    say("{}", describeOrder(*order));
  }
  return kExitSuccess;
}

int runQuestion(const GlobalOptions& global) {
  Client client(global);
  client.connect();
  const auto question = client.fetchSkillQuestion();
  if (global.json) {
    emitJSON(questionJSON(*question));
  } else {
    say("Question {}: {}\n", shown(question->questionID().value_or("(no id)")),
        shown(questionText(*question)));
    say("Answer it with: zvrewards answer OFFER_ID {} ANSWER\n",
        shown(question->questionID().value_or("QUESTION_ID")));
  }
  return kExitSuccess;
}

int runAnswer(const GlobalOptions& global, const AnswerArgs& args) {
  Client client(global);
  client.connect();
  const auto challenge = client.answerSkillQuestion(args.offerID, args.questionID, args.answer);
  const std::string status = challengeStatus(*challenge);
  const std::string id = challenge->challengeID().value_or("(no id)");
  if (global.json) {
    emitJSON(challengeJSON(*challenge));
  } else {
    say("Challenge {}: {}\n", shown(id), shown(status));
    if (status == kPassed)
      say("Order with it: zvrewards order {} --challenge {}\n", shown(args.offerID), shown(id));
  }
  if (status != kPassed)
    throw CliError(
        fmt::format("wrong answer to question {} (challenge {}: {})", shown(args.questionID),
                    shown(id), status.empty() ? "not passed" : shown(status)),
        kExitFailure);
  return kExitSuccess;
}

int runSandbox(const GlobalOptions& global, const SandboxArgs& args) {
  if (!global.service.empty())
    throw CliError("the sandbox command serves the sandbox itself; drop --service", kExitUsage);
  // Blocked before the service starts its threads, which inherit the mask,
  // so that the signals reach sigwait below and nothing else.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  ZVSandboxOptions options;
  options.port = args.port;
  options.tls = args.tls;
  options.faults = args.faults;
  options.statePath = global.statePath;
  options.reset = global.reset;
  if (!global.appID.empty()) options.appID = global.appID;
  if (!global.accessToken.empty()) options.accessToken = global.accessToken;
  ZVSandbox sandbox(options);
  std::string error;
  if (!sandbox.start(error))
    throw CliError(fmt::format("could not start the sandbox: {}", error), kExitFailure);

  const auto& running = sandbox.options();
  if (global.json) {
    auto info = ZVMutableDictionary::make({{"service_host", sandbox.serviceHost()},
                                           {"app_id", running.appID},
                                           {"access_token", running.accessToken},
                                           {"port", sandbox.port()}});
    if (options.tls) info->setObject("certificate", sandbox.certificatePath());
    if (!running.statePath.empty()) info->setObject("state", running.statePath);
    printJSON(info);
  } else {
    say("Sandbox rewards service running; stop it with Ctrl-C.\n");
    say("  Service host:  {}\n", sandbox.serviceHost());
    say("  App id:        {}\n", running.appID);
    say("  Access token:  {}\n", running.accessToken);
    if (options.tls) say("  Certificate:   {}\n", sandbox.certificatePath());
    if (!running.statePath.empty()) say("  State:         {}\n", running.statePath);
    say("Try: zvrewards --service {} --app {} --token {}{} offers\n", sandbox.serviceHost(),
        running.appID, running.accessToken,
        options.tls ? fmt::format(" --ca-file {}", sandbox.certificatePath())
                    : std::string(" --insecure-http"));
  }
  std::fflush(stdout);

  int received = 0;
  sigwait(&signals, &received);
  writeText(stderr, fmt::format("zvrewards: stopping the sandbox ({})\n",
                                received == SIGINT ? "SIGINT" : "SIGTERM"));
  sandbox.stop();
  return kExitSuccess;
}

int runDemo(const GlobalOptions& global, const DemoArgs& args, std::FILE* input, bool interactive) {
  // A real service takes real points: the user answers the question and
  // confirms the order; without a terminal, only flags can say so.
  const bool realService = !global.service.empty();
  // An empty --answer is no answer, as an empty line typed is.
  const bool answerGiven = args.answer && !args.answer->empty();
  if (realService && !interactive && (!answerGiven || !args.yes)) {
    throw CliError(fmt::format("demo places a real order at {}: without a terminal to ask at, give "
                               "the answer with --answer and confirm the order with --yes",
                               global.service),
                   kExitUsage);
  }
  const Narrator narrator(global.json);
  Client client(global);
  client.connect(/*freshState=*/!args.keepState);
  if (realService) {
    narrator.say("Using the rewards service at {}.\n", global.service);
  } else if (args.keepState) {
    narrator.say("Using a sandbox inside this process, with its saved state.\n");
  } else {
    narrator.say(
        "Using a sandbox inside this process, started afresh (--keep-state keeps earlier "
        "orders).\n");
  }

  narrator.say("\n1. The offers\n");
  const auto offers = client.fetchOffers(std::nullopt, true);
  narrator.say("{}", offersTable(*offers));
  const auto offer = pickDemoOffer(*offers);
  const std::string offerID = *offer->offerID();
  const std::string offerName = fieldText(offer->name());
  narrator.say("\nChosen: {} ({}, {} points), which needs the skill-testing question.\n",
               shown(offerName), shown(offerID), offer->points());

  narrator.say("\n2. The skill-testing question\n");
  const auto question = client.fetchSkillQuestion();
  const std::string questionID = question->questionID().value_or("");
  narrator.say("Question {}: {}\n", shown(questionID), shown(questionText(*question)));

  narrator.say("\n3. The answer\n");
  std::optional<std::string> answer = answerGiven ? args.answer : std::nullopt;
  if (answer) {
    narrator.say("Answering {} (from --answer).\n", shown(*answer));
  } else if (interactive && (realService || !global.json)) {
    // In JSON mode the narration is off: the prompt shows the question.
    answer = promptLine(input, global.json ? fmt::format("Question: {}\nYour answer: ",
                                                         shown(questionText(*question)))
                                           : std::string("Your answer: "));
    if (!answer) writeText(stderr, "\n");  // the prompt line met end of input
    if (answer && answer->empty()) answer.reset();
  }
  if (!answer && realService) {
    throw CliError(
        "no answer given; the demo answers the question by itself only for the "
        "built-in sandbox",
        kExitUsage);
  }
  if (!answer) {
    const auto value = evaluateArithmetic(questionText(*question));
    if (!value)
      throw CliError(fmt::format("cannot work out the answer to \"{}\"; give it with --answer",
                                 shown(questionText(*question))),
                     kExitFailure);
    answer = answerText(*value);
    narrator.say("{}: answering {}, worked out from the question.\n",
                 interactive ? "Nothing typed" : "No terminal and no --answer", *answer);
  }
  const auto challenge = client.answerSkillQuestion(offerID, questionID, *answer);
  const std::string status = challengeStatus(*challenge);
  const std::string challengeID = challenge->challengeID().value_or("");
  narrator.say("Challenge {}: {}\n", shown(challengeID), shown(status));
  if (status != kPassed)
    throw CliError(fmt::format("wrong answer to question {} (challenge {}: {})", shown(questionID),
                               shown(challengeID), status.empty() ? "not passed" : shown(status)),
                   kExitFailure);

  if (realService && !args.yes) {
    const auto reply = promptLine(
        input, fmt::format("Place a real order of {} ({}) for {} points at {}? [y/N] ",
                           shown(offerName), shown(offerID), offer->points(), global.service));
    std::string word = reply.value_or("");
    for (char& c : word) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (word != "y" && word != "yes")
      throw CliError("the order was not placed: not confirmed", kExitFailure);
  }

  narrator.say("\n4. The order\n");
  auto request = ZVOrderRequest::initWithOfferID(offerID, ZVJSONValue(1));
  request->setChallengeID(challengeID);
  std::shared_ptr<ZVOrder> order;
  std::optional<std::pair<int64_t, int64_t>> announced;
  {
    const BalanceWatcher watcher;
    order = client.placeOrder(request);
    announced = watcher.balances();
  }
  narrator.say("{}", describeOrder(*order));
  if (announced) {
    narrator.say("  Announced: {} (user-update notification)\n",
                 balanceText(announced->first, announced->second));
  } else {
    narrator.say("  No user-update notification arrived.\n");
  }

  narrator.say("\n5. The orders\n");
  const auto orders = client.fetchOrders();
  narrator.say("{}", ordersTable(*orders));

  if (global.json) {
    auto summary = ZVMutableDictionary::make();
    summary->setObject("offers", offersJSON(*offers));
    summary->setObject("question", questionJSON(*question));
    summary->setObject("answer", *answer);
    summary->setObject("challenge", challengeJSON(*challenge));
    summary->setObject("order", orderJSON(*order));
    if (announced) {
      summary->setObject(
          "announced_balance",
          ZVMutableDictionary::make(
              {{"available_points", ZVJSONValue(static_cast<long long>(announced->first))},
               {"test_points", ZVJSONValue(static_cast<long long>(announced->second))}}));
    }
    summary->setObject("orders", ordersJSON(*orders));
    emitJSON(summary);
  }
  return kExitSuccess;
}

}  // namespace zvcli
