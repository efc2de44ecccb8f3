// The sandbox rewards service: a real HTTP service that behaves like the
// rewards service the SDK talks to, over a SQLite state file.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

/// Fault injection, off by default. One draw per request to an endpoint,
/// before the token and app checks, from a generator seeded with `seed`, so
/// runs repeat. A request answered 500 or dropped changes no state; a
/// truncated answer is cut after the request took effect.
struct ZVSandboxFaults {
  int latencyMs = 0;            ///< added before every answer
  double http500Share = 0.0;    ///< share of requests answered with HTTP 500
  double malformedShare = 0.0;  ///< share answered with a truncated JSON body
  double dropShare = 0.0;       ///< share whose connection is closed without an answer
  uint64_t seed = 1;
};

struct ZVSandboxOptions {
  std::string host = "127.0.0.1";
  int port = 0;  ///< 0: a free port chosen by the system
  /// SQLite state file. Empty: $XDG_STATE_HOME/zvrewards/sandbox.sqlite, else
  /// ~/.local/state/zvrewards/sandbox.sqlite. ":memory:" keeps state in memory.
  std::string statePath;
  bool reset = false;  ///< start from the initial state
  bool tls = false;    ///< HTTPS with a generated self-signed certificate
  /// Where the generated certificate and key are written (for a host's
  /// `caFile`). Empty: next to the state file.
  std::string certDir;
  std::string appID = "sandbox-app";
  std::string accessToken = "sandbox-token";
  /// Starting balance of the sandbox user.
  int64_t initialPoints = 5000;
  ZVSandboxFaults faults;
};

/// Runs the sandbox service on a thread pool of its own.
///
/// Endpoints under "/api/v1/apps/<appID>/": GET "offers?locale=L", GET
/// "orders", POST "offers/<id>/orders", GET "challenges/skills_test_question",
/// POST "offers/<id>/challenges/skills_test_questions/<question id>". Every
/// request needs "Authorization: Bearer <accessToken>" (else 401) and the
/// configured app id (else 404). Business refusals (unknown offer or
/// question, bad quantity, tier, balance, missing challenge) answer HTTP 200
/// with "status" "error", as the service does; malformed bodies answer 400.
/// The one sandbox user has tier "silver": gold-tier offers show
/// "not_qualified" and cannot be ordered; offers above the balance show
/// "insufficient_points". Physical orders are "pending_approval", others
/// "approved". Each question is answered once; a passed challenge serves one
/// order of its offer.
///
/// @par Thread safety
/// `start` and `stop` from one thread; the service itself serves concurrent
/// requests (orders never overspend: balance checks and deductions are one
/// SQLite transaction).
class ZVSandbox {
 public:
  explicit ZVSandbox(ZVSandboxOptions options);
  ~ZVSandbox();  ///< stops the service
  ZVSandbox(const ZVSandbox&) = delete;
  ZVSandbox& operator=(const ZVSandbox&) = delete;

  /// Opens the state, binds and starts serving. Returns false with a message
  /// in `error` when it cannot.
  bool start(std::string& error);
  void stop();

  int port() const;
  /// "http://127.0.0.1:PORT" or "https://127.0.0.1:PORT": the SDK's `serviceHost`.
  std::string serviceHost() const;
  /// The PEM certificate the TLS sandbox serves (empty without TLS).
  std::string certificatePath() const;
  /// The state file in use (`options().statePath`, or the default it stands
  /// for); empty before `start`.
  std::string statePath() const;
  const ZVSandboxOptions& options() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};
