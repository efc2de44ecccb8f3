// Configuration: every knob of ZVConfiguration, the locale and the logger.
#include <chrono>
#include <cstdio>
#include <string_view>

#include <ZorvaneRewardsKit/ZorvaneRewardsKit.h>

int main() {
  //! [configuration]
  ZVConfiguration configuration;
  configuration.serviceHost = "rewards.example.com:8443";  // https unless a scheme says otherwise
  configuration.appID = "my-app-id";
  configuration.accessToken = "token-from-your-sign-in";  // sent as a bearer token, never logged
  configuration.connectTimeout = std::chrono::seconds(5);
  configuration.requestTimeout = std::chrono::seconds(20);
  configuration.caFile = "/etc/my-app/private-ca.pem";  // extra CAs; verification stays on
  configuration.maxResponseBytes = 32u << 20;           // a catalogue of 20,000 offers
  Zorvane::configure(configuration);
  //! [configuration]

  //! [token_refresh]
  // After the user signs in again: copy, change the token, configure again.
  // Requests sent from now on carry the new token.
  ZVConfiguration updated = Zorvane::configuration();
  updated.accessToken = "new-token";
  Zorvane::configure(updated);
  //! [token_refresh]

  //! [locale]
  // Offers in French (Canada), whatever the device's language.
  Zorvane::setCustomLocale(ZVLocale("fr_CA"));
  //! [locale]

  //! [logging]
  ZVLogger* logger = ZVLogger::instance();
  logger->setLogCategories(ZVLogCategoryRewards);
  logger->setLogLevel(2);  // 1: compact lines, 2: with source locations
  logger->setSink([](std::string_view line) {
    std::fprintf(stderr, "[rewards] %.*s\n", static_cast<int>(line.size()), line.data());
  });
  //! [logging]
  return 0;
}
