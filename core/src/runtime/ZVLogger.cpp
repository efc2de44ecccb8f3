#include <ZorvaneCoreKit/ZVLogger.h>

#include <cstdio>
#include <optional>

#include "runtime/ZVHostCode.h"

ZVLogger* ZVLogger::instance() {
  // Leaked so that logging from static destructors at exit stays valid.
  static ZVLogger* const logger = new ZVLogger();
  return logger;
}

namespace {

void writeToStandardError(std::string_view line) {
  // One write per line, so that lines from other writers to stderr do not split ours.
  std::string text;
  text.reserve(line.size() + 1);
  text.append(line);
  text.push_back('\n');
  std::fwrite(text.data(), 1, text.size(), stderr);
  std::fflush(stderr);
}

// Whether this thread runs the sink, which holds the sink's lock; and the
// sink it set meanwhile, installed once the sink returns.
thread_local bool tInSink = false;
thread_local std::optional<ZVLogger::Sink> tReplacement;

}  // namespace

bool zv_detail::insideLogSink() {
  return tInSink;
}

void ZVLogger::log(std::string_view line) {
  // The sink logging would wait for its own lock.
  if (tInSink) {
    writeToStandardError(line);
    return;
  }
  std::unique_lock lock(sinkMutex_);
  if (!sink_) {
    writeToStandardError(line);
    return;
  }
  // A throwing sink must not stop the delivery that logs (the handler and the
  // notification come after the line); the line goes to stderr instead.
  tInSink = true;
  try {
    sink_(line);
  } catch (...) {
    try {
      writeToStandardError(line);
      writeToStandardError("ZorvaneRewardsKit: the log sink threw an exception; the SDK went on");
    } catch (...) {
    }
  }
  tInSink = false;
  if (!tReplacement) return;
  Sink previous = std::exchange(sink_, std::move(*tReplacement));
  tReplacement.reset();
  lock.unlock();
  // The previous sink is destroyed here, outside the lock.
}

void ZVLogger::setSink(Sink sink) {
  if (tInSink) {
    tReplacement = std::move(sink);  // installed when the sink returns
    return;
  }
  {
    std::lock_guard lock(sinkMutex_);
    sink_.swap(sink);
  }
  // The previous sink is destroyed here, outside the lock.
}
