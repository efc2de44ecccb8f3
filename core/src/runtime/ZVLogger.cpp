#include <ZorvaneCoreKit/ZVLogger.h>

#include <cstdio>

ZVLogger* ZVLogger::instance() {
  // Leaked so that logging from static destructors at exit stays valid.
  static ZVLogger* const logger = new ZVLogger();
  return logger;
}

void ZVLogger::log(std::string_view line) {
  std::lock_guard lock(sinkMutex_);
  if (sink_) {
    sink_(line);
    return;
  }
  // One write per line, so that lines from other writers to stderr do not split ours.
  std::string text;
  text.reserve(line.size() + 1);
  text.append(line);
  text.push_back('\n');
  std::fwrite(text.data(), 1, text.size(), stderr);
  std::fflush(stderr);
}

void ZVLogger::setSink(Sink sink) {
  {
    std::lock_guard lock(sinkMutex_);
    sink_.swap(sink);
  }
  // The previous sink is destroyed here, outside the lock.
}
