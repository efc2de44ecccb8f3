#include "http/ZVRetries.h"

#include <sys/random.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <ctime>
#include <map>
#include <mutex>
#include <random>

namespace zv_detail {
namespace {

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

struct Holds {
  std::mutex mutex;
  std::map<std::string, std::chrono::steady_clock::time_point> until;  // guarded by mutex
};

Holds& holds() {
  // Never destroyed: calls may still be sent while the process exits.
  static Holds* const state = new Holds();
  return *state;
}

}  // namespace

ZVRetryVerdict judgeAttempt(const ZVHTTPResult& result) {
  ZVRetryVerdict verdict;
  switch (result.failure) {
    case ZVTransportFailure::Connect:
    case ZVTransportFailure::Timeout:
    case ZVTransportFailure::Reset:
      verdict.retryable = true;
      return verdict;
    case ZVTransportFailure::None:
      break;
    default:
      return verdict;
  }
  switch (result.status) {
    case 429:
    case 503:
      for (const auto& [name, value] : result.headers)
        if (equalsIgnoringCase(name, "Retry-After"))
          verdict.retryAfter = parseRetryAfter(value, std::chrono::system_clock::now());
      [[fallthrough]];
    case 408:
    case 500:
    case 502:
    case 504:
      verdict.retryable = true;
      break;
    default:
      break;
  }
  return verdict;
}

std::optional<std::chrono::milliseconds> parseRetryAfter(
    std::string_view value, std::chrono::system_clock::time_point now) {
  value = trimmed(value);
  if (value.empty()) return std::nullopt;
  if (std::all_of(value.begin(), value.end(), [](char c) { return c >= '0' && c <= '9'; })) {
    uint64_t seconds = 0;
    const auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), seconds);
    // A number too large for 64 bits still means "a very long time".
    if (ec == std::errc::result_out_of_range)
      seconds = UINT32_MAX;
    else if (ec != std::errc() || end != value.data() + value.size())
      return std::nullopt;
    return std::chrono::milliseconds(std::min<uint64_t>(seconds, UINT32_MAX) * 1000);
  }
  const std::string text(value);
  for (const char* format :
       {"%a, %d %b %Y %H:%M:%S GMT", "%A, %d-%b-%y %H:%M:%S GMT", "%a %b %d %H:%M:%S %Y"}) {
    std::tm parts{};
    const char* end = strptime(text.c_str(), format, &parts);
    if (end == nullptr || *end != '\0') continue;
    const std::time_t at = timegm(&parts);
    if (at == static_cast<std::time_t>(-1)) return std::nullopt;
    // In milliseconds, not in the clock's nanoseconds: a date some centuries
    // ahead would overflow those and read as no wait at all.
    constexpr int64_t kMaxWait = int64_t{UINT32_MAX} * 1000;  // as for seconds
    const int64_t nowMs =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count();
    const int64_t atMs = std::min<int64_t>(at, INT64_MAX / 2000) * 1000;
    return std::chrono::milliseconds(std::clamp<int64_t>(atMs - nowMs, 0, kMaxWait));
  }
  return std::nullopt;
}

std::chrono::milliseconds backoff(const ZVRetryPolicy& policy, int attemptsMade) {
  using std::chrono::milliseconds;
  const int64_t base = std::max<int64_t>(0, policy.baseDelay.count());
  const int64_t cap = std::max<int64_t>(0, policy.maxDelay.count());
  int64_t ceiling = base;
  for (int i = 1; i < attemptsMade && ceiling < cap; ++i) ceiling *= 2;
  ceiling = std::min(ceiling, cap);
  thread_local std::mt19937_64 random{std::random_device{}()};
  return milliseconds(std::uniform_int_distribution<int64_t>(0, ceiling)(random));
}

void holdService(const std::string& origin, std::chrono::steady_clock::time_point until) {
  Holds& h = holds();
  std::lock_guard lock(h.mutex);
  auto& held = h.until[origin];
  held = std::max(held, until);
}

std::optional<std::chrono::steady_clock::time_point> serviceHeldUntil(const std::string& origin) {
  Holds& h = holds();
  std::lock_guard lock(h.mutex);
  const auto it = h.until.find(origin);
  if (it == h.until.end()) return std::nullopt;
  if (it->second <= std::chrono::steady_clock::now()) {
    h.until.erase(it);
    return std::nullopt;
  }
  return it->second;
}

std::string makeIdempotencyKey() {
  unsigned char bytes[16];
  if (getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes)) {
    std::random_device device;  // the kernel's generator through another door
    for (unsigned char& byte : bytes) byte = static_cast<unsigned char>(device());
  }
  static constexpr char kHex[] = "0123456789abcdef";
  std::string key;
  key.reserve(32);
  for (unsigned char byte : bytes) {
    key += kHex[byte >> 4];
    key += kHex[byte & 15];
  }
  return key;
}

bool isValidIdempotencyKey(std::string_view key) {
  return !key.empty() && key.size() <= 255 &&
         std::all_of(key.begin(), key.end(), [](char c) { return c >= 0x21 && c <= 0x7E; });
}

}  // namespace zv_detail
