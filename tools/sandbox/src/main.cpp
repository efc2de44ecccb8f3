// Runs the sandbox rewards service in the foreground until interrupted.
#include <pthread.h>

#include <csignal>
#include <cstdio>
#include <string>

#include <fmt/core.h>
#include <CLI/CLI.hpp>

#include "ZVSandbox.h"
#include "ZVSandboxFlags.h"

int main(int argc, char** argv) {
  ZVSandboxOptions options;
  CLI::App app{"Runs the sandbox rewards service in the foreground until interrupted."};
  app.add_option("--host", options.host, "Address to listen on")->capture_default_str();
  app.add_option("--port", options.port, "Port to listen on (0: any free port)")
      ->check(CLI::Range(0, 65535))
      ->capture_default_str();
  app.add_flag("--tls", options.tls, "Serve HTTPS with a generated self-signed certificate");
  app.add_option("--state", options.statePath,
                 "SQLite state file (default: $XDG_STATE_HOME/zvrewards/sandbox.sqlite, else "
                 "~/.local/state/zvrewards/sandbox.sqlite; \":memory:\" keeps nothing)");
  app.add_flag("--reset", options.reset, "Start from the initial state");
  app.add_option("--cert-dir", options.certDir,
                 "Where the certificate is written (default: next to the state file)");
  app.add_option("--app-id", options.appID, "Application id of the URLs")->capture_default_str();
  app.add_option("--token", options.accessToken, "Bearer token clients must send")
      ->capture_default_str();
  app.add_option("--points", options.initialPoints, "Starting balance of a new state")
      ->check(CLI::NonNegativeNumber)
      ->capture_default_str();
  addSandboxFaultOptions(app, options.faults);
  CLI11_PARSE(app, argc, argv);

  // Block the stop signals before any thread starts, so that every thread
  // inherits the mask and they reach sigwait below.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  ZVSandbox sandbox(options);
  std::string error;
  if (!sandbox.start(error)) {
    fmt::print(stderr, "zv_sandbox_server: {}\n", error);
    return 1;
  }
  fmt::print("Sandbox rewards service at {}\n", sandbox.serviceHost());
  fmt::print("  app id: {}\n  token:  {}\n  state:  {}\n", options.appID, options.accessToken,
             sandbox.statePath());
  if (options.tls) fmt::print("  certificate: {}\n", sandbox.certificatePath());
  fmt::print("Press Ctrl-C to stop.\n");
  std::fflush(stdout);

  int received = 0;
  sigwait(&stopSignals, &received);
  sandbox.stop();
  return 0;
}
