// Inside the SDK: which failed attempts may be retried and after how long,
// the services that asked to be left alone for a while, and the keys that
// make a retried submission safe.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include <ZorvaneCoreKit/ZVTransport.h>
#include <ZorvaneCoreKit/Zorvane.h>

namespace zv_detail {

struct ZVRetryVerdict {
  bool retryable = false;
  /// How long the answer asked to wait (`Retry-After` of a 429 or 503).
  std::optional<std::chrono::milliseconds> retryAfter;
};

/// A transport failure (could not connect, a timeout, the connection lost) or
/// an HTTP status 408, 429, 500, 502, 503 or 504 may be retried; nothing else.
ZVRetryVerdict judgeAttempt(const ZVHTTPResult& result);

/// A `Retry-After` value: delta-seconds, or an HTTP date (IMF-fixdate, RFC
/// 850 or asctime form) compared with `now`; a date in the past is 0.
ZV_CORE_EXPORT std::optional<std::chrono::milliseconds> parseRetryAfter(
    std::string_view value, std::chrono::system_clock::time_point now);

/// The wait before the next attempt once `attemptsMade` have failed: drawn
/// uniformly from [0, min(maxDelay, baseDelay * 2^(attemptsMade-1))].
std::chrono::milliseconds backoff(const ZVRetryPolicy& policy, int attemptsMade);

/// Services that answered 429 or 503 with `Retry-After`: until then, calls
/// made with retries on wait (or fail at once when the wait would pass their
/// deadline).
void holdService(const std::string& origin, std::chrono::steady_clock::time_point until);
std::optional<std::chrono::steady_clock::time_point> serviceHeldUntil(const std::string& origin);

/// 32 lower-case hexadecimal digits of 128 random bits.
std::string makeIdempotencyKey();
/// 1 to 255 visible ASCII characters: what a header value can carry as it is.
bool isValidIdempotencyKey(std::string_view key);

}  // namespace zv_detail
