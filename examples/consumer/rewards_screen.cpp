#include "rewards_screen.h"

#include <string>

//! [screen_scope]
void RewardsScreen::load() {
  // Operations started while `active` lives belong to the screen's scope:
  // closing the screen cancels them, and their handlers never run.
  ZVScope::Activation active(scope_);
  ZVRewardsManager::instance()->fetchOffersWithCompletionHandler(
      [this](ZVOfferArrayPtr offers, ZVErrorPtr error) {
        ++outcomes_;
        if (error) {
          banner_ = messageFor(*error);
          return;
        }
        rows_.clear();
        for (const auto& offer : *offers) {
          const auto name = offer->name().string();
          std::string row = std::string(name ? *name : "Reward") + " - " +
                            std::to_string(offer->points()) + " points";
          if (offer->status() != ZVOfferStatusAvailable) row += " (unavailable)";
          rows_.push_back(std::move(row));
        }
        banner_ = offers->empty() ? "No rewards right now. Check back soon." : "";
      });
}
//! [screen_scope]

void RewardsScreen::redeem(const std::string& offerID) {
  ZVScope::Activation active(scope_);
  ZVRewardsManager::instance()->placeOrder(
      ZVOrderRequest::initWithOfferID(offerID, 1),
      [this](std::shared_ptr<ZVOrder> order, ZVErrorPtr error) {
        ++outcomes_;
        if (error) {
          banner_ = messageFor(*error);
          return;
        }
        banner_ = "Redeemed! You have " + std::to_string(order->user()->availablePoints()) +
                  " points left.";
      });
}

std::string RewardsScreen::messageFor(const ZVError& error) {
  switch (error.type()) {
    case ZVErrorTypeTransport:
      return "Can't reach the rewards service. Check your connection and try again.";
    case ZVErrorTypeService:
      // The service words its refusals for people ("Reward: Insufficient points").
      return error.message().value_or("The reward could not be redeemed.");
    case ZVErrorTypeHTTP:
      if (error.httpStatus() == 401 || error.httpStatus() == 403)
        return "Please sign in again to see your rewards.";
      return "The rewards service is unavailable. Try again later.";
    default:
      // Validation, configuration and unreadable answers are the app's or the
      // service's fault, not the user's: log them, show something calm.
      return "Rewards are not available right now.";
  }
}
