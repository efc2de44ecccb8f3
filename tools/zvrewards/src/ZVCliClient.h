// The command-line host's side of the SDK: configuration, the optional
// in-process sandbox, and blocking calls that drive the main queue.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include <ZVSandbox.h>
#include <ZorvaneCoreKit/ZVError.h>
#include <ZorvaneCoreKit/ZVLocale.h>
#include <ZorvaneCoreKit/ZVTransport.h>
#include <ZorvaneRewardsKit/ZVRewardsManager.h>

namespace zvcli {

/// Exit statuses of the program.
enum ExitStatus : int {
  kExitSuccess = 0,
  kExitFailure = 1,    ///< the service or the SDK refused the request
  kExitUsage = 2,      ///< bad command line or configuration
  kExitTransport = 3,  ///< the service could not be reached
};

/// A failure to report as one line on standard error, with the exit status.
class CliError : public std::runtime_error {
 public:
  CliError(const std::string& message, int exitStatus)
      : std::runtime_error(message), message_(message), exitStatus_(exitStatus) {}
  int exitStatus() const { return exitStatus_; }
  /// The whole message: what() ends at a NUL a service may have put in it.
  const std::string& message() const { return message_; }

 private:
  std::string message_;
  int exitStatus_;
};

/// The options that apply to every command.
struct GlobalOptions {
  /// A real service; empty: run the sandbox inside this process.
  std::string service;
  std::string appID;
  std::string accessToken;  ///< never printed
  std::string caFile;
  bool insecureHTTP = false;
  std::string statePath;  ///< sandbox state; empty: the sandbox's default file
  bool reset = false;     ///< start the sandbox from its initial state
  double timeoutSeconds = 30;
  bool json = false;
};

/// One line for a person: the error's own message when it reads well (the
/// service's refusal reasons for a refused order), else a text made from its
/// type, code and HTTP status. Never contains the access token.
std::string describeError(const ZVError& error);
/// `kExitTransport` for transport failures, `kExitUsage` for a configuration
/// that refuses the request, `kExitFailure` for everything else.
int exitStatusFor(const ZVError& error);

/// @par Thread safety
/// Use from the main thread only: each call runs the main queue until its
/// completion handler has run.
class Client {
 public:
  explicit Client(GlobalOptions options);
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  /// Starts the sandbox unless a service was given (`freshState` resets it
  /// whatever `--reset` said), then configures the SDK. Throws `CliError`.
  void connect(bool freshState = false);
  bool usesSandbox() const { return sandbox_ != nullptr; }

  // Each sends one request through `ZVRewardsManager::instance()` and waits
  // for its completion handler. A failure throws `CliError`.
  ZVOfferArrayPtr fetchOffers(std::optional<ZVLocale> locale, bool force);
  ZVOrderArrayPtr fetchOrders();
  std::shared_ptr<ZVOrder> placeOrder(std::shared_ptr<ZVOrderRequest> request);
  std::shared_ptr<ZVSkillQuestion> fetchSkillQuestion();
  std::shared_ptr<ZVSkillChallenge> answerSkillQuestion(const std::string& offerID,
                                                        const std::string& questionID,
                                                        const std::string& answer);

 private:
  template <class Result>
  Result await(const std::function<void(std::function<void(Result, ZVErrorPtr)>)>& start);

  GlobalOptions options_;
  // Our own transport, so that its connections close when we are done: the
  // sandbox would otherwise wait out their keep-alive time before it stops.
  std::shared_ptr<ZVTransport> transport_;
  std::unique_ptr<ZVSandbox> sandbox_;
  std::chrono::milliseconds waitLimit_;
};

}  // namespace zvcli
