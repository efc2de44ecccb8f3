// The commands of `zvrewards`, one function each. Each returns the exit
// status or throws `CliError`.
#pragma once

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <ZorvaneCoreKit/ZVAddress.h>

#include "ZVCliClient.h"

namespace zvcli {

struct OffersArgs {
  std::string locale;  ///< empty: the SDK's choice (custom locale, else the device's)
  bool force = false;
};

struct OrderArgs {
  std::string offerID;
  int quantity = 1;
  std::string email;
  std::string challengeID;
  std::string shipTo;  ///< "Name, Street, City, Region, Postal code, Country"
};

struct AnswerArgs {
  std::string offerID;
  std::string questionID;
  std::string answer;
};

struct SandboxArgs {
  int port = 0;
  bool tls = false;
  ZVSandboxFaults faults;
};

struct DemoArgs {
  /// The answer to the question; without it, a terminal is asked, or, with
  /// the built-in sandbox only, the answer is worked out.
  std::optional<std::string> answer;
  /// Order without asking; needed by a service other than the built-in
  /// sandbox when there is no terminal.
  bool yes = false;
  /// Keep the sandbox's saved state; by default the demo starts it afresh so
  /// that it can always afford an offer.
  bool keepState = false;
};

int runOffers(const GlobalOptions& global, const OffersArgs& args);
int runOrders(const GlobalOptions& global);
int runOrder(const GlobalOptions& global, const OrderArgs& args);
int runQuestion(const GlobalOptions& global);
int runAnswer(const GlobalOptions& global, const AnswerArgs& args);
/// Serves until SIGINT or SIGTERM.
int runSandbox(const GlobalOptions& global, const SandboxArgs& args);
/// `input` is read for the answer and the order's confirmation when
/// `interactive`. Against a service other than the built-in sandbox it never
/// answers the question itself, and it orders only once confirmed.
int runDemo(const GlobalOptions& global, const DemoArgs& args, std::FILE* input, bool interactive);

/// "Name, Street, City, Region, Postal code, Country" as an address. Throws
/// `CliError` (usage) when there are not six non-empty parts.
std::shared_ptr<ZVAddress> parseShippingAddress(std::string_view text);

}  // namespace zvcli
