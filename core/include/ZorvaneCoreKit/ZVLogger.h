// The SDK's logger: a category and level gate and a replaceable sink.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>

#include <ZorvaneCoreKit/ZVExport.h>

/// Log categories (bits of `logCategories`).
enum : int64_t {
  ZVLogCategoryRewards = 1 << 0,  ///< The rewards module.
};

/// The shared logger.
///
/// The rewards module writes a line only when bit 0 of `logCategories` is set
/// and `logLevel` is 1 (compact lines) or 2 (lines with their source location).
/// Defaults: `logCategories` 0 and `logLevel` 0 (silent).
///
/// @par Thread safety
/// Every operation is safe from any thread. The sink is called under the
/// logger's sink lock, so lines never interleave. A line logged from inside
/// the sink goes to standard error, and a sink set there takes over when the
/// sink returns. A sink that throws loses that line to standard error, and
/// the SDK goes on.
class ZV_CORE_EXPORT ZVLogger {
 public:
  using Sink = std::function<void(std::string_view line)>;

  static ZVLogger* instance();

  int64_t logCategories() const { return categories_.load(std::memory_order_relaxed); }
  void setLogCategories(int64_t categories) {
    categories_.store(categories, std::memory_order_relaxed);
  }
  int64_t logLevel() const { return level_.load(std::memory_order_relaxed); }
  void setLogLevel(int64_t level) { level_.store(level, std::memory_order_relaxed); }

  /// Writes one finished line (without its trailing newline) to the sink.
  void log(std::string_view line);

  /// Replaces the sink. Default: standard error, one line per call. An empty
  /// function restores the default. Called from inside the sink, the
  /// replacement takes over when the sink returns (a line the sink logs
  /// itself goes to standard error).
  void setSink(Sink sink);

 private:
  ZVLogger() = default;
  std::atomic<int64_t> categories_{0};
  std::atomic<int64_t> level_{0};
  std::mutex sinkMutex_;
  Sink sink_;  // guarded by sinkMutex_
};
