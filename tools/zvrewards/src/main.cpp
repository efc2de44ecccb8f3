// zvrewards: a command-line host of the rewards SDK.
#include <fmt/core.h>
#include <unistd.h>
#include <CLI/CLI.hpp>
#include <limits>

#include <ZVSandboxFlags.h>
#include <ZorvaneCoreKit/ZVLogger.h>

#include "ZVCliCommands.h"
#include "ZVCliOutput.h"

namespace {

// One line on standard error: the secret masked, nothing a terminal acts on.
void printError(const std::string& message) {
  std::fflush(stdout);
  zvcli::writeText(stderr, "zvrewards: " + zvcli::shown(message) + "\n");
}

}  // namespace

int main(int argc, char** argv) {
  using namespace zvcli;

  CLI::App app{
      "zvrewards: list reward offers, redeem them and review orders.\n"
      "Without --service, a sandbox rewards service runs inside the process, on a free "
      "loopback port, with its state in a file (--state, --reset).",
      "zvrewards"};
  app.require_subcommand(1);

  GlobalOptions global;
  int verbosity = 0;
  app.add_option("--service", global.service,
                 "Rewards service URL instead of the built-in sandbox, e.g. "
                 "https://rewards.example.com")
      ->envname("ZVREWARDS_SERVICE");
  app.add_option("--app", global.appID, "Application id")->envname("ZVREWARDS_APP");
  app.add_option("--token", global.accessToken, "Access token (never printed)")
      ->envname("ZVREWARDS_TOKEN");
  app.add_option("--ca-file", global.caFile, "Extra certificate authorities (PEM)")
      ->check(CLI::ExistingFile);
  app.add_flag("--insecure-http", global.insecureHTTP, "Allow a plain http:// service");
  app.add_option("--state", global.statePath,
                 "Sandbox state file (default: ~/.local/state/zvrewards/sandbox.sqlite)");
  app.add_flag("--reset", global.reset, "Start the sandbox from its initial state");
  // Bounded so that the value always converts to milliseconds.
  app.add_option("--timeout", global.timeoutSeconds,
                 "Seconds allowed per request (default 30, at most 86400)")
      ->check(CLI::Range(0.001, 86400.0));
  app.add_flag("-v,--verbose", verbosity, "Log the SDK's work to stderr (-vv: with source lines)");
  app.add_flag("--json", global.json, "Machine-readable JSON instead of tables");

  auto subcommand = [&app](const char* name, const char* help) {
    auto* command = app.add_subcommand(name, help);
    command->fallthrough();  // global options may follow the command
    return command;
  };

  OffersArgs offersArgs;
  auto* offers = subcommand("offers", "List the offers");
  offers->add_option("--locale", offersArgs.locale, "Locale of the texts, e.g. fr_CA");
  offers->add_flag("--force", offersArgs.force, "Bypass the offers cache");

  auto* orders = subcommand("orders", "List past orders, newest first");

  OrderArgs orderArgs;
  auto* order = subcommand("order", "Redeem an offer");
  order->add_option("OFFER_ID", orderArgs.offerID, "The offer to redeem")->required();
  order->add_option("--quantity", orderArgs.quantity, "How many (default 1)")
      ->check(CLI::Range(1, std::numeric_limits<int>::max()));
  order->add_option("--email", orderArgs.email, "Where the reward is sent");
  order->add_option("--challenge", orderArgs.challengeID,
                    "Id of a passed skill-testing challenge, for offers that need one");
  order->add_option("--ship-to", orderArgs.shipTo,
                    "\"Name, Street, City, Region, Postal code, Country\"");

  auto* question = subcommand("question", "Fetch the skill-testing question");

  AnswerArgs answerArgs;
  auto* answer = subcommand("answer", "Answer the skill-testing question for an offer");
  answer->add_option("OFFER_ID", answerArgs.offerID)->required();
  answer->add_option("QUESTION_ID", answerArgs.questionID)->required();
  answer->add_option("ANSWER", answerArgs.answer)->required();

  SandboxArgs sandboxArgs;
  auto* sandbox = subcommand("sandbox", "Run the sandbox service until interrupted");
  sandbox->add_option("--port", sandboxArgs.port, "Port (default: a free one)")
      ->check(CLI::Range(0, 65535));
  sandbox->add_flag("--tls", sandboxArgs.tls, "Serve HTTPS with a self-signed certificate");
  addSandboxFaultOptions(*sandbox, sandboxArgs.faults);

  DemoArgs demoArgs;
  auto* demo = subcommand(
      "demo",
      "Walk through the whole flow: offers, question, answer, order, balance, orders.\n"
      "With the built-in sandbox it starts from a fresh state so that it can always afford "
      "an offer; --keep-state uses the saved state instead.");
  demo->add_option("--answer", demoArgs.answer,
                   "Answer to give (default: asked at a terminal, else, with the built-in "
                   "sandbox only, worked out)");
  demo->add_flag("--yes", demoArgs.yes,
                 "Order without asking (a service other than the built-in sandbox asks)");
  demo->add_flag("--keep-state", demoArgs.keepState, "Do not reset the sandbox's state");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);  // --help
    setOutputSecret(global.accessToken);
    printError(fmt::format("{} (see zvrewards --help)", e.what()));
    return kExitUsage;
  }
  // The sandbox command prints the token it serves, for its clients; every
  // other command masks the token it sends.
  if (!*sandbox) setOutputSecret(global.accessToken);

  if (verbosity > 0) {
    auto* logger = ZVLogger::instance();
    // Record descriptions separate their fields with carriage returns, which
    // a terminal would print over each other: each field goes on a line of
    // its own, with whatever the service put in it escaped.
    logger->setSink([](std::string_view line) {
      const std::string masked = outputRedactor()(line);
      std::string text;
      for (size_t start = 0;;) {
        const size_t end = masked.find('\r', start);
        text += terminalSafe(std::string_view(masked).substr(start, end - start));
        if (end == std::string::npos) break;
        text += "\n    ";
        start = end + 1;
      }
      writeText(stderr, text + "\n");
    });
    logger->setLogCategories(ZVLogCategoryRewards);
    logger->setLogLevel(std::min(verbosity, 2));
  }

  try {
    if (*offers) return runOffers(global, offersArgs);
    if (*orders) return runOrders(global);
    if (*order) return runOrder(global, orderArgs);
    if (*question) return runQuestion(global);
    if (*answer) return runAnswer(global, answerArgs);
    if (*sandbox) return runSandbox(global, sandboxArgs);
    if (*demo) return runDemo(global, demoArgs, stdin, isatty(STDIN_FILENO) != 0);
  } catch (const CliError& e) {
    printError(e.message());
    return e.exitStatus();
  } catch (const std::exception& e) {
    printError(e.what());
    return kExitFailure;
  }
  return kExitUsage;
}
