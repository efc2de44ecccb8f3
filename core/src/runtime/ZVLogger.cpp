#include <ZorvaneCoreKit/ZVLogger.h>

#include <cstdio>

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

}  // namespace

void ZVLogger::log(std::string_view line) {
  std::lock_guard lock(sinkMutex_);
  if (!sink_) {
    writeToStandardError(line);
    return;
  }
  // A throwing sink must not stop the delivery that logs (the handler and the
  // notification come after the line); the line goes to stderr instead.
  try {
    sink_(line);
  } catch (...) {
    try {
      writeToStandardError(line);
      writeToStandardError("ZorvaneRewardsKit: the log sink threw an exception; the SDK went on");
    } catch (...) {
    }
  }
}

void ZVLogger::setSink(Sink sink) {
  {
    std::lock_guard lock(sinkMutex_);
    sink_.swap(sink);
  }
  // The previous sink is destroyed here, outside the lock.
}
