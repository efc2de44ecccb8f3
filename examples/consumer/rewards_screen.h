// The rewards screen of a host application: what it shows for the offers it
// receives and for the outcome of a redemption.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <ZorvaneRewardsKit/ZorvaneRewardsKit.h>

/// A view model: no UI toolkit, so that the app's tests can check what the
/// user would see. Call it, and read it, on the thread that drains the main
/// queue; the SDK delivers every outcome there.
///
/// Its handlers capture `this`. The screen may be closed (destroyed) at any
/// time, a request still in flight or its outcome already queued: the
/// operations it starts belong to its scope, whose destruction cancels them,
/// so no handler runs on a destroyed screen.
class RewardsScreen {
 public:
  /// Asks for the catalogue; `rows()` and `banner()` change when it arrives.
  void load();
  /// Redeems one unit of an offer; `banner()` tells the outcome.
  void redeem(const std::string& offerID);

  /// One line per offer the user can see: "<name> - <points> points", with
  /// " (unavailable)" when the offer cannot be redeemed now.
  const std::vector<std::string>& rows() const { return rows_; }
  /// The message at the top of the screen ("" when there is none).
  const std::string& banner() const { return banner_; }
  /// Outcomes received so far (loads and redemptions).
  int outcomes() const { return outcomes_; }

  /// What to tell a user about an error of the SDK.
  static std::string messageFor(const ZVError& error);

 private:
  std::vector<std::string> rows_;
  std::string banner_;
  int outcomes_ = 0;
  // Last, so that it is destroyed first: its handlers use the members above.
  ZVScope scope_;
};
