// The SDK's umbrella class: configuration and the custom locale.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include <ZorvaneCoreKit/ZVExport.h>
#include <ZorvaneCoreKit/ZVLocale.h>

class ZVTransport;

/// Everything a host configures. Read by the request layer at every send, so
/// a new configuration applies to the requests sent after it.
struct ZVConfiguration {
  /// The rewards service: "rewards.example.com", "rewards.example.com:8443",
  /// or with a scheme, "http://127.0.0.1:8080". Without a scheme, https.
  /// REQUIRES: non-empty before the first request (else every request fails
  /// with `ZVErrorNotConfigured`). Default: empty.
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
  /// Time allowed to establish a connection. Default: 10 s.
  std::chrono::milliseconds connectTimeout{10000};
  /// Time allowed for a whole exchange, connection included. Default: 30 s.
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
};

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
};
