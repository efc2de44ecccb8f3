// The skill-testing flow: question, answer, then an order that carries the challenge.
#include <cstdio>
#include <memory>
#include <string>

#include <ZorvaneRewardsKit/ZorvaneRewardsKit.h>

namespace {

void showError(const ZVError& error) {
  std::printf("%s\n", error.message().value_or("Something went wrong.").c_str());
}
void showQuestion(const std::shared_ptr<ZVOffer>&, const std::shared_ptr<ZVSkillQuestion>&) {}
void askSkillQuestion(const std::shared_ptr<ZVOffer>& offer);
void placeOrderWithChallenge(const std::shared_ptr<ZVOffer>& offer,
                             const std::shared_ptr<ZVSkillChallenge>& challenge);

//! [redeem]
void redeem(const std::shared_ptr<ZVOffer>& offer) {
  if (offer->isSkillChallengeRequired()) {
    askSkillQuestion(offer);  // the order waits for a passed challenge
  } else {
    placeOrderWithChallenge(offer, nullptr);
  }
}
//! [redeem]

//! [fetch_question]
void askSkillQuestion(const std::shared_ptr<ZVOffer>& offer) {
  ZVRewardsManager::instance()->fetchSkillQuestionWithCompletionHandler(
      [offer](std::shared_ptr<ZVSkillQuestion> question, ZVErrorPtr error) {
        if (error) return showError(*error);
        // question->question() holds the text to show, normally a string.
        showQuestion(offer, question);
      });
}
//! [fetch_question]

//! [answer_question]
// Called by the question screen with what the user typed.
void submitAnswer(const std::shared_ptr<ZVOffer>& offer,
                  const std::shared_ptr<ZVSkillQuestion>& question, const std::string& answer) {
  ZVRewardsManager::instance()->answerSkillQuestionForOfferID(
      offer->offerID(), question->questionID(), ZVJSONValue(answer),
      [offer](std::shared_ptr<ZVSkillChallenge> challenge, ZVErrorPtr error) {
        if (error) return showError(*error);
        const auto status = challenge->status().string();
        if (!status || *status != "passed") {
          std::printf("That is not right. Try another question.\n");
          return;
        }
        placeOrderWithChallenge(offer, challenge);
      });
}
//! [answer_question]

//! [order_with_challenge]
void placeOrderWithChallenge(const std::shared_ptr<ZVOffer>& offer,
                             const std::shared_ptr<ZVSkillChallenge>& challenge) {
  auto request = ZVOrderRequest::initWithOfferID(offer->offerID(), 1);
  if (challenge) request->setChallengeID(challenge->challengeID());
  ZVRewardsManager::instance()->placeOrder(
      request, [](std::shared_ptr<ZVOrder> order, ZVErrorPtr error) {
        if (error) return showError(*error);
        std::printf("order %s: %s\n", order->orderID().value_or("?").c_str(),
                    order->stringForCurrentStatus().c_str());
      });
}
//! [order_with_challenge]

}  // namespace

int main() {
  auto offer = std::make_shared<ZVOffer>();
  offer->setOfferID("12");
  redeem(offer);
  submitAnswer(offer, std::make_shared<ZVSkillQuestion>(), "42");
  return 0;
}
