// The sandbox rewards service: a real HTTP service that behaves like the
// rewards service the SDK talks to, over a SQLite state file.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

/// Fault injection, off by default. One draw per request to an endpoint,
/// before the token and app checks, from a generator seeded with `seed`, so
/// runs repeat; the shares are taken in the order below and add up to at
/// most 1. A request answered 500, 429 or 503, or dropped, changes no state;
/// a truncated answer is cut, and a dropped answer dropped, after the
/// request took effect.
struct ZVSandboxFaults {
  int latencyMs = 0;            ///< added before every answer
  double http500Share = 0.0;    ///< share of requests answered with HTTP 500
  double malformedShare = 0.0;  ///< share answered with a truncated JSON body
  double dropShare = 0.0;       ///< share whose connection is closed without an answer
  /// Share of POST requests that take effect, after which the connection is
  /// closed without an answer (a GET drawing it is served normally).
  double dropAfterCommitShare = 0.0;
  double http429Share = 0.0;  ///< share answered 429 with Retry-After
  double http503Share = 0.0;  ///< share answered 503 with Retry-After
  int retryAfterSeconds = 1;  ///< the Retry-After of 429 and 503 answers
  /// Retry-After as an HTTP date (now plus `retryAfterSeconds`) instead of
  /// a number of seconds.
  bool retryAfterAsDate = false;
  uint64_t seed = 1;
};

/// Bounds on what one client can make the sandbox read, hold or wait for.
/// An excess is answered with a JSON error where the connection still allows
/// an answer, and that connection is closed; other clients are served
/// meanwhile. Requests are handled by workers only once they arrived whole,
/// so slow or idle clients hold no worker.
struct ZVSandboxLimits {
  size_t maxHeadBytes = 16 * 1024;  ///< request line and header fields; more: 431
  size_t maxHeaderCount = 100;      ///< header fields; more: 431
  /// Body after chunk decoding; more: 413. On the wire, with its chunk
  /// framing, a body takes at most twice this.
  size_t maxBodyBytes = 1 << 20;
  size_t maxJSONDepth = 32;  ///< nesting of a JSON body; deeper: 400
  /// To receive a whole request (head and body) from its first byte;
  /// slower: 408.
  std::chrono::milliseconds requestTimeout{10000};
  /// A connection without a request in progress (new, or between two
  /// requests) is closed after this long.
  std::chrono::milliseconds idleTimeout{5000};
  /// An answer the client does not take within this long is abandoned.
  std::chrono::milliseconds writeTimeout{5000};
  /// Connections open at once; more are answered 503 and closed.
  size_t maxConnections = 256;
  /// Request bytes held for all connections together; a connection whose
  /// request would pass it is answered 503.
  size_t maxBufferedBytes = 64 << 20;
  size_t workers = 16;  ///< requests handled at once
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
/// A POST with "Idempotency-Key: K" (1 to 255 characters 0x21 to 0x7E, else
/// 400) is answered once per key, app and user for 24 hours: the answer is
/// stored with the key in the transaction of the order or skill answer; the
/// same request with the key gets it again, with "Idempotent-Replayed:
/// true", another request 422. `limits` bound what a client can make the
/// service read, hold or wait for.
///
/// @par Thread safety
/// `start` and `stop` from one thread; the service itself serves concurrent
/// requests (orders never overspend: balance checks and deductions are one
/// SQLite transaction).
class ZVSandbox {
 public:
  explicit ZVSandbox(ZVSandboxOptions options, ZVSandboxLimits limits = {});
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
  const ZVSandboxLimits& limits() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};
