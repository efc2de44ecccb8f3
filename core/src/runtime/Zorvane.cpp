#include <ZorvaneCoreKit/Zorvane.h>

#include <mutex>

#include "http/ZVGenericRequestManager.h"
#include "runtime/ZorvaneSettings.h"

namespace {

struct Settings {
  std::mutex mutex;
  // Replaced whole, never changed in place: a request keeps the one it was
  // sent under without copying it.
  std::shared_ptr<const ZVConfiguration> configuration =
      std::make_shared<const ZVConfiguration>();  // guarded by mutex
  std::optional<ZVLocale> customLocale;           // guarded by mutex
};

Settings& settings() {
  // Leaked: requests finishing on other threads may read the configuration during exit.
  static Settings* const state = new Settings();
  return *state;
}

}  // namespace

void Zorvane::configure(const ZVConfiguration& configuration) {
  auto replacement = std::make_shared<const ZVConfiguration>(configuration);
  Settings& s = settings();
  std::lock_guard lock(s.mutex);
  s.configuration.swap(replacement);
  // The previous one is released after the unlock, with `replacement`.
}

ZVConfiguration Zorvane::configuration() {
  return *zv_detail::currentConfiguration();
}

std::shared_ptr<const ZVConfiguration> zv_detail::currentConfiguration() {
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

void Zorvane::setTransport(std::shared_ptr<ZVTransport> transport) {
  ZVGenericRequestManager::instance()->setTransport(std::move(transport));
}
