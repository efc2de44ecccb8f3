// The current time, replaceable by tests.
#pragma once

#include <functional>

#include <ZorvaneCoreKit/ZVExport.h>

/// Seconds since 1970-01-01 00:00 UTC, with fraction.
///
/// @par Thread safety
/// Safe from any thread, including while another thread replaces the source.
class ZV_CORE_EXPORT ZVClock {
 public:
  /// Now, from the installed source (the system clock by default).
  static double now();
  /// Replaces the time source; an empty function restores the system clock.
  static void setSource(std::function<double()> source);
};
