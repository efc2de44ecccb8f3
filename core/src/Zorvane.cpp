#include <ZorvaneCoreKit/Zorvane.h>

#include <mutex>

namespace {

struct Settings {
  std::mutex mutex;
  ZVConfiguration configuration;         // guarded by mutex
  std::optional<ZVLocale> customLocale;  // guarded by mutex
};

Settings& settings() {
  // Leaked: requests finishing on other threads may read the configuration during exit.
  static Settings* const state = new Settings();
  return *state;
}

}  // namespace

void Zorvane::configure(const ZVConfiguration& configuration) {
  Settings& s = settings();
  std::lock_guard lock(s.mutex);
  s.configuration = configuration;
}

ZVConfiguration Zorvane::configuration() {
  Settings& s = settings();
  std::lock_guard lock(s.mutex);
  return s.configuration;
}

std::optional<ZVLocale> Zorvane::customLocale() {
  Settings& s = settings();
  std::lock_guard lock(s.mutex);
  return s.customLocale;
}

void Zorvane::setCustomLocale(std::optional<ZVLocale> locale) {
  Settings& s = settings();
  std::lock_guard lock(s.mutex);
  s.customLocale = std::move(locale);
}
