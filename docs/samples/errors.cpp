// Errors: what to show a user for each error type.
#include <cstdio>
#include <string>

#include <ZorvaneRewardsKit/ZorvaneRewardsKit.h>

//! [user_message]
std::string userMessageFor(const ZVError& error) {
  switch (error.type()) {
    case ZVErrorTypeTransport:
      if (error.code() == ZVErrorTransportTimeout)
        return "The rewards service is taking too long. Try again in a moment.";
      return "Can't reach the rewards service. Check your connection and try again.";
    case ZVErrorTypeService:
      // The service words its refusals for people, e.g. "Reward: Insufficient points".
      return error.message().value_or("This reward could not be redeemed.");
    case ZVErrorTypeHTTP:
      if (error.httpStatus() == 401 || error.httpStatus() == 403)
        return "Please sign in again to see your rewards.";
      return "The rewards service is unavailable. Try again later.";
    case ZVErrorTypeValidation:     // the app passed a null argument: a bug
    case ZVErrorTypeConfiguration:  // the app did not configure the SDK: a bug
    case ZVErrorTypeInvalidAnswer:  // the service sent something unreadable
    default:
      return "Rewards are not available right now.";
  }
}
//! [user_message]

int main() {
  //! [log_details]
  ZVRewardsManager::instance()->fetchOrdersWithCompletionHandler(
      [](ZVOrderArrayPtr, ZVErrorPtr error) {
        if (!error) return;
        // For your logs: type, code, HTTP status and message, never the token.
        std::fprintf(stderr, "%s (HTTP %d)\n", error->description().c_str(), error->httpStatus());
        std::printf("%s\n", userMessageFor(*error).c_str());
      });
  //! [log_details]
  return 0;
}
