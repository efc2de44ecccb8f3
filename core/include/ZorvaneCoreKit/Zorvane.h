// The SDK's umbrella class: configuration and the custom locale.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <ZorvaneCoreKit/ZVExport.h>
#include <ZorvaneCoreKit/ZVLocale.h>

class ZVTransport;

/// Opt-in retries of failed requests. With the default `maxAttempts` of 1,
/// every call is sent once and never retried.
///
/// With retries on, a call is sent again after a transport failure (could
/// not connect, a timeout, the connection lost) or an HTTP status 408, 429,
/// 500, 502, 503 or 504; never after another answer. Submissions (placing
/// an order, answering the skill question) are retried on the same faults,
/// always with the same `Idempotency-Key`, so a service that honours the key
/// stores the order once. The wait before attempt n+1 is drawn uniformly
/// from [0, min(maxDelay, baseDelay * 2^(n-1))] ("full jitter"), or is the
/// answer's `Retry-After` when it sent one. All attempts and waits of one
/// call fit in its `requestTimeout`; the completion handler is called once,
/// with the final outcome, and an error's `attempts()` says how many were made.
struct ZVRetryPolicy {
  /// Attempts per call, the first included; below 1 counts as 1.
  /// Default: 1 (no retries).
  int maxAttempts = 1;
  /// Below 0 counts as 0, as for `maxDelay`. Default: 200 ms.
  std::chrono::milliseconds baseDelay{200};
  /// Default: 5 s.
  std::chrono::milliseconds maxDelay{5000};
  /// The longest `Retry-After` honoured (seconds or an HTTP date); an answer
  /// that asks for a longer wait is not retried (below 0: no answer that
  /// sends one). Default: 30 s.
  std::chrono::milliseconds maxRetryAfter{30000};
  /// Time allowed to one attempt; 0 or less: whatever is left of
  /// `requestTimeout`. Default: 0.
  std::chrono::milliseconds attemptTimeout{0};
};

/// Everything a host configures. Read by the request layer at every send, so
/// a new configuration applies to the requests sent after it.
struct ZVConfiguration {
  /// The rewards service: "rewards.example.com", "rewards.example.com:8443",
  /// or with a scheme, "http://127.0.0.1:8080". Without a scheme, https.
  /// REQUIRES: non-empty before the first request (else every request fails
  /// with `ZVErrorNotConfigured`, as it does for a host that is not a host
  /// name or IP literal with an optional port of 1 to 65535, or that holds
  /// a path or credentials). Default: empty.
  std::string serviceHost;
  /// The application id that fills ":appid". Default: empty.
  std::string appID;
  /// Sent as "Authorization: Bearer <token>" when non-empty. Never logged and
  /// never part of an error message. Default: empty.
  std::string accessToken;
  /// Allow plain http (a service host with the "http://" scheme). Meant for
  /// a local sandbox and tests. Default: false (such requests fail with
  /// `ZVErrorNotConfigured`).
  bool allowInsecureHTTP = false;
  /// Time allowed to establish a connection; 0 or less: libcurl's own limit
  /// (300 s), within `requestTimeout` all the same. Default: 10 s.
  std::chrono::milliseconds connectTimeout{10000};
  /// Time allowed for a whole operation: from the call to its completion
  /// handler's task on the main queue, waiting for a free slot, connecting,
  /// every attempt, decoding and building the records included. The handler
  /// is queued no later than this plus the time to decode one answer, except
  /// for a submission (an order, a skill answer) whose answer arrived in
  /// time: that one is always decoded and delivered, after the decodes queued
  /// before it (see docs/reliability.md). 0 or less: no limit. Default: 30 s.
  std::chrono::milliseconds requestTimeout{30000};
  /// A PEM file of extra certificate authorities to trust (a private CA, or a
  /// sandbox's self-signed certificate). Verification is never turned off.
  /// Default: empty (the system's store).
  std::string caFile;
  /// Largest answer body accepted; a larger one fails with
  /// `ZVErrorAnswerTooLarge`. It also bounds what decoding any answer can
  /// cost: the JSON values of one answer may take at most four times this
  /// size (`ZVJSONMemoryForAnswer`), and one answer may produce at most one
  /// record per 128 bytes of it (offers' options included); past either, the
  /// answer fails with `ZVErrorAnswerTooLarge`. 0: no limit and no bound.
  ///
  /// Default: 8 MiB. A catalogue of offers with options weighs about 1.5 KB
  /// per offer, so 8 MiB holds some 5,500 offers (and at most 65,536
  /// records); decoding such a catalogue costs about 3.4 times its size, and
  /// the costliest answer of 8 MiB we could build added 91 MB to the process
  /// while it was decoded (docs/reliability.md). Raise it for a larger
  /// catalogue; every bound grows with it.
  size_t maxResponseBytes = 8u << 20;
  /// Largest total of an answer's header and trailer lines (status lines
  /// included); past it the transfer stops with `ZVErrorAnswerTooLarge`, as
  /// it does for any one line past 100 KiB (libcurl's own limit). 0: only
  /// that line limit. Default: 64 KiB.
  size_t maxHeaderBytes = 64u << 10;
  /// Requests in flight and waiting, all operations together; a call past it
  /// fails at once (on the main queue) with `ZVErrorTooManyRequests`, and
  /// nothing is sent (0: every call). Cache hits and validation failures do
  /// not count. Default: 64.
  size_t maxRequestsInFlight = 64;
  /// Default: no retries.
  ZVRetryPolicy retry;
};

/// Told when host code that the SDK runs throws: `where` names the code ("a
/// completion handler", "an observer of rewards.manager.did.fetch.offers",
/// "a main-queue task", ...), `what` is the exception's text.
using ZVHostExceptionHandler = std::function<void(std::string_view where, std::string_view what)>;

/// @par Thread safety
/// Every operation is safe from any thread.
class ZV_CORE_EXPORT Zorvane {
 public:
  /// Replaces the whole configuration.
  static void configure(const ZVConfiguration& configuration);
  /// A copy of the current configuration.
  static ZVConfiguration configuration();

  /// The locale the host chose for the SDK's services, or nullopt (then the
  /// device's current locale is used).
  static std::optional<ZVLocale> customLocale();
  static void setCustomLocale(std::optional<ZVLocale> locale);

  /// Installs the transport for the requests sent from now on (a host's
  /// fake service in its unit tests, say); an empty pointer restores the
  /// default libcurl transport. Requests already sent finish on the
  /// transport they were given to.
  static void setTransport(std::shared_ptr<ZVTransport> transport);

  /// Host code that throws (a completion handler, an observer, a main-queue
  /// task, a hook) never stops what the SDK does next: the exception is
  /// caught where the SDK called that code, a line is written through the
  /// logger's sink (whatever the log level), and `handler`, when set, is
  /// called on the same thread. Each completion handler and each observer is
  /// guarded on its own: a success notification is still posted after a
  /// handler that threw, and a handler is still called after a failure
  /// observer that threw. An exception from `handler` itself is ignored. An
  /// empty function removes it. Default: none.
  static void setHostExceptionHandler(ZVHostExceptionHandler handler);

  /// Cancels every operation, in the whole process, that has not called its
  /// completion handler yet, as `ZVScope::cancel()` does for a scope's: its
  /// handler is never called, its answer changes no state and posts no
  /// notification. Waits for handlers running on other threads. Call it
  /// before `ZVRewardsManager::clearUserState` when the user signs out, so
  /// that no answer to the previous user's requests reaches the next one.
  static void cancelAllOperations();

  /// Ends the SDK's activity, so that the process may go on without it or
  /// unload its libraries:
  /// - cancels every pending operation, as `cancelAllOperations()` does
  ///   (operations started while it runs are cancelled at once);
  /// - stops the transport: the default one joins its I/O threads; one
  ///   installed with `setTransport` is released;
  /// - stops and joins the main queue's dedicated thread, if started, and
  ///   destroys the tasks still queued without running them;
  /// - forgets every host hook: the main queue's wake-up handler and
  ///   executor, the exception handler, the logger's sink, the clock source.
  /// The configuration, the custom locale, the log level, observers and the
  /// manager's state are kept. The SDK may be used again at once: the next
  /// request starts a new transport; restart the dedicated thread and set
  /// the hooks again as needed.
  ///
  /// Called from inside a handler, it does not wait for that handler, and the
  /// dedicated thread (if that is where it runs) ends after it. Called from
  /// inside the log sink, it does nothing but say so on standard error: it
  /// would wait for threads that wait for the sink. Unloading
  /// the libraries is safe once a call made outside the SDK's threads has
  /// returned, observers were removed, and a transport or executor of the
  /// host's holds nothing of the SDK.
  static void shutdown();
};
