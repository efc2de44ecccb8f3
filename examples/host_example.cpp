// A small host program: configures the SDK, calls every public operation of
// the rewards manager in turn and prints what comes back.
//
//   zv_host_example [SERVICE_HOST [APP_ID [TOKEN]]]
//
// With no arguments it talks to http://127.0.0.1:9, where nothing listens, and
// shows how a transport failure reaches the completion handler. Against the
// sandbox (`zvrewards sandbox` prints its address):
//   zv_host_example http://127.0.0.1:PORT sandbox-app sandbox-token
#include <chrono>
#include <cstdio>
#include <string>

#include <ZorvaneRewardsKit/ZorvaneRewardsKit.h>

namespace {

// Runs the main queue until the completion handler has run, as a host's
// event loop would.
template <class Start>
void await(const char* what, Start start) {
  bool done = false;
  start(done);
  if (!ZVMainQueue::shared()->runUntil([&] { return done; }, std::chrono::seconds(30)))
    std::printf("%s: no answer within 30 s\n", what);
}

void printError(const char* what, const ZVErrorPtr& error) {
  std::printf("%s failed: %s\n", what, error->message().value_or(error->description()).c_str());
}

}  // namespace

int main(int argc, char** argv) {
  ZVConfiguration configuration;
  configuration.serviceHost = argc > 1 ? argv[1] : "http://127.0.0.1:9";
  configuration.appID = argc > 2 ? argv[2] : "sandbox-app";
  configuration.accessToken = argc > 3 ? argv[3] : "sandbox-token";
  configuration.allowInsecureHTTP = true;  // loopback sandbox only
  configuration.requestTimeout = std::chrono::seconds(10);
  Zorvane::configure(configuration);

  // Observers see every outcome, whoever started the operation.
  ZVNotificationCenter::defaultCenter()->addObserver(
      ZV_USER_MANAGER_DID_UPDATE_USER_INTERNAL, nullptr, [](const ZVNotification& note) {
        std::printf("identity update: available points %s\n",
                    ZVDescribe(note.userInfo.at(kUserAvailablePoints)).c_str());
      });

  ZVRewardsManager* rewards = ZVRewardsManager::instance();
  std::shared_ptr<ZVOffer> skillOffer;

  await("offers", [&](bool& done) {
    rewards->fetchOffersWithCompletionHandler([&](ZVOfferArrayPtr offers, ZVErrorPtr error) {
      if (error) {
        printError("fetch offers", error);
      } else {
        std::printf("%zu offers\n", offers->size());
        for (const auto& offer : *offers) {
          std::printf("  %-6s %-32s %6lld points  %s\n", offer->offerID().value_or("?").c_str(),
                      offer->name().description().c_str(), static_cast<long long>(offer->points()),
                      ZVOffer::stringForStatus(offer->status()).c_str());
          if (offer->isSkillChallengeRequired() && !skillOffer) skillOffer = offer;
        }
      }
      done = true;
    });
  });

  // A second fetch within refreshInterval is served from the cache.
  await("cached offers", [&](bool& done) {
    rewards->fetchOffersWithLocale(ZVLocale("fr_CA"), [&](ZVOfferArrayPtr offers, ZVErrorPtr) {
      if (offers) std::printf("cache served %zu offers without a request\n", offers->size());
      done = true;
    });
  });

  std::shared_ptr<ZVSkillQuestion> question;
  await("question", [&](bool& done) {
    rewards->fetchSkillQuestionWithCompletionHandler(
        [&](std::shared_ptr<ZVSkillQuestion> q, ZVErrorPtr error) {
          if (error)
            printError("fetch question", error);
          else
            std::printf("question %s: %s\n", q->questionID().value_or("?").c_str(),
                        q->question().description().c_str());
          question = q;
          done = true;
        });
  });

  std::shared_ptr<ZVSkillChallenge> challenge;
  if (question && skillOffer) {
    await("answer", [&](bool& done) {
      // A real host asks its user; the example answers "0" and shows the verdict.
      rewards->answerSkillQuestionForOfferID(
          skillOffer->offerID(), question->questionID(), ZVJSONValue("0"),
          [&](std::shared_ptr<ZVSkillChallenge> c, ZVErrorPtr error) {
            if (error)
              printError("answer", error);
            else
              std::printf("challenge %s: %s\n", c->challengeID().value_or("?").c_str(),
                          c->status().description().c_str());
            challenge = c;
            done = true;
          });
    });
  }

  await("order", [&](bool& done) {
    auto request = ZVOrderRequest::initWithOfferID(skillOffer ? skillOffer->offerID() : "1", 1);
    if (challenge) request->setChallengeID(challenge->challengeID());
    rewards->placeOrder(request, [&](std::shared_ptr<ZVOrder> order, ZVErrorPtr error) {
      if (error)
        printError("place order", error);
      else
        std::printf("order %s: %s\n", order->orderID().value_or("?").c_str(),
                    order->stringForCurrentStatus().c_str());
      done = true;
    });
  });

  await("orders", [&](bool& done) {
    rewards->fetchOrdersWithCompletionHandler([&](ZVOrderArrayPtr orders, ZVErrorPtr error) {
      if (error)
        printError("fetch orders", error);
      else
        std::printf("%zu orders\n", orders->size());
      done = true;
    });
  });
  return 0;
}
