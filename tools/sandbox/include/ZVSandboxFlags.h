// The fault-injection options shared by the sandbox's command lines,
// `zv_sandbox_server` and `zvrewards sandbox`.
#pragma once

#include <CLI/CLI.hpp>

#include "ZVSandbox.h"

/// Adds the options that fill `faults` to `app`.
inline void addSandboxFaultOptions(CLI::App& app, ZVSandboxFaults& faults) {
  const auto share = CLI::Range(0.0, 1.0);
  app.add_option("--latency-ms", faults.latencyMs, "Delay before every answer")
      ->check(CLI::NonNegativeNumber);
  app.add_option("--fail-share", faults.http500Share, "Share of answers that are HTTP 500")
      ->check(share);
  app.add_option("--malformed-share", faults.malformedShare,
                 "Share of answers with a truncated body")
      ->check(share);
  app.add_option("--drop-share", faults.dropShare,
                 "Share of requests whose connection is dropped before they take effect")
      ->check(share);
  app.add_option("--drop-after-commit-share", faults.dropAfterCommitShare,
                 "Share of POST requests that take effect, then lose their answer")
      ->check(share);
  app.add_option("--throttle-share", faults.http429Share,
                 "Share of answers that are HTTP 429 with Retry-After")
      ->check(share);
  app.add_option("--unavailable-share", faults.http503Share,
                 "Share of answers that are HTTP 503 with Retry-After")
      ->check(share);
  app.add_option("--retry-after", faults.retryAfterSeconds,
                 "Retry-After of the 429 and 503 answers, in seconds")
      ->check(CLI::Range(0, 86400))
      ->capture_default_str();
  app.add_flag("--retry-after-date", faults.retryAfterAsDate,
               "Send Retry-After as an HTTP date instead of seconds");
  app.add_option("--seed", faults.seed, "Seed of the fault generator")->capture_default_str();
}
