// The fault-injection options shared by the sandbox's command lines,
// `zv_sandbox_server` and `zvrewards sandbox`.
#pragma once

#include <CLI/CLI.hpp>

#include "ZVSandbox.h"

/// Adds the options that fill `faults` to `app`.
inline void addSandboxFaultOptions(CLI::App& app, ZVSandboxFaults& faults) {
  app.add_option("--latency-ms", faults.latencyMs, "Delay before every answer")
      ->check(CLI::NonNegativeNumber);
  const struct {
    const char* flag;
    double ZVSandboxFaults::*share;
    const char* help;
  } shares[] = {
      {"--fail-share", &ZVSandboxFaults::http500Share, "Share of answers that are HTTP 500"},
      {"--malformed-share", &ZVSandboxFaults::malformedShare,
       "Share of answers with a truncated body"},
      {"--drop-share", &ZVSandboxFaults::dropShare,
       "Share of requests whose connection is dropped before they take effect"},
      {"--drop-after-commit-share", &ZVSandboxFaults::dropAfterCommitShare,
       "Share of POST requests that take effect, then lose their answer"},
      {"--throttle-share", &ZVSandboxFaults::http429Share,
       "Share of answers that are HTTP 429 with Retry-After"},
      {"--unavailable-share", &ZVSandboxFaults::http503Share,
       "Share of answers that are HTTP 503 with Retry-After"},
  };
  for (const auto& option : shares)
    app.add_option(option.flag, faults.*option.share, option.help)->check(CLI::Range(0.0, 1.0));
  app.add_option("--retry-after", faults.retryAfterSeconds,
                 "Retry-After of the 429 and 503 answers, in seconds")
      ->check(CLI::Range(0, 86400))
      ->capture_default_str();
  app.add_flag("--retry-after-date", faults.retryAfterAsDate,
               "Send Retry-After as an HTTP date instead of seconds");
  app.add_option("--seed", faults.seed, "Seed of the fault generator")->capture_default_str();
}
