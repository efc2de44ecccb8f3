#include "ZVCliClient.h"

#include <fmt/core.h>
#include <algorithm>
#include <cmath>

#include <ZorvaneCoreKit/ZVMainQueue.h>
#include <ZorvaneCoreKit/Zorvane.h>

namespace zvcli {
namespace {

std::string stringAt(const ZVDictionaryPtr& dictionary, std::string_view key) {
  if (!dictionary) return "";
  const ZVJSONValue* value = dictionary->find(key);
  return value && value->string() ? std::string(*value->string()) : std::string();
}

// The reasons of a refused order, {"order": {"base": [...]}}, joined: the
// rewards error's own message prefixes them with "Reward: " and adds the user
// id on a second line, which reads poorly as one line of a terminal.
std::string refusalReasons(const ZVDictionaryPtr& raw) {
  if (!raw) return "";
  const auto order = raw->objectForKey("order").dictionary();
  const auto base = order ? order->objectForKey("base").array() : nullptr;
  if (!base) return "";
  std::string out;
  for (const auto& reason : *base) {
    if (!reason.string() || reason.string()->empty()) continue;
    if (!out.empty()) out += ", ";
    out += *reason.string();
  }
  return out;
}

std::string oneLine(std::string text) {
  std::string out;
  for (char c : text) {
    if (c == '\n') {
      out += "; ";
    } else if (c != '\r') {
      out += c;
    }
  }
  return out;
}

std::string withCode(std::string text, const ZVError& error) {
  return error.code().empty() ? text : fmt::format("{} ({})", text, error.code());
}

std::string fallbackText(const ZVError& error) {
  switch (error.type()) {
    case ZVErrorTypeTransport:
      return withCode("could not reach the rewards service", error);
    case ZVErrorTypeValidation:
      return withCode("a required argument is missing", error);
    case ZVErrorTypeService:
      return "the rewards service refused the request";
    case ZVErrorTypeInvalidAnswer:
      if (error.code() == ZVErrorAnswerTooLarge) return "the service's answer is too large";
      if (error.code() == ZVErrorAnswerNotObject)
        return "the service's answer is not a JSON object";
      return "the service's answer is not valid JSON";
    case ZVErrorTypeConfiguration:
      return withCode("the client is not configured for this service", error);
    default:
      return withCode(fmt::format("request failed (error type {})", error.type()), error);
  }
}

}  // namespace

std::string describeError(const ZVError& error) {
  if (error.type() == ZVErrorTypeService) {
    if (auto reasons = refusalReasons(error.raw()); !reasons.empty()) return reasons;
  }
  std::string text = oneLine(error.message().value_or(""));
  if (error.type() == ZVErrorTypeHTTP) {
    // The message of a failed order is the whole body as JSON; the body's
    // own "message" says the same in words.
    if (auto said = stringAt(error.raw(), "message"); !said.empty()) {
      text = oneLine(said);
    } else if (text.starts_with("{")) {
      text.clear();
    }
    const int status = error.httpStatus();
    if (text.empty())
      return status ? fmt::format("the rewards service answered HTTP {}", status)
                    : "the rewards service answered with an HTTP error";
    const bool saysStatus = text.find(fmt::format("HTTP {}", status)) != std::string::npos;
    return status && !saysStatus ? fmt::format("{} (HTTP {})", text, status) : text;
  }
  return text.empty() ? fallbackText(error) : text;
}

int exitStatusFor(const ZVError& error) {
  switch (error.type()) {
    case ZVErrorTypeTransport:
      return kExitTransport;
    case ZVErrorTypeConfiguration:
      return kExitUsage;
    default:
      return kExitFailure;
  }
}

Client::Client(GlobalOptions options)
    : options_(std::move(options)),
      waitLimit_(std::chrono::milliseconds(
          static_cast<int64_t>(std::ceil(options_.timeoutSeconds * 1000)) + 5000)) {}

Client::~Client() {
  if (transport_) {
    Zorvane::setTransport(nullptr);
    transport_.reset();
  }
  if (sandbox_) sandbox_->stop();
}

void Client::connect(bool freshState) {
  ZVConfiguration configuration;
  if (options_.service.empty()) {
    ZVSandboxOptions sandboxOptions;
    sandboxOptions.statePath = options_.statePath;
    sandboxOptions.reset = options_.reset || freshState;
    sandbox_ = std::make_unique<ZVSandbox>(sandboxOptions);
    std::string error;
    if (!sandbox_->start(error)) {
      sandbox_.reset();
      throw CliError(fmt::format("could not start the sandbox: {}", error), kExitFailure);
    }
    configuration.serviceHost = sandbox_->serviceHost();
    configuration.appID = options_.appID.empty() ? sandboxOptions.appID : options_.appID;
    configuration.accessToken =
        options_.accessToken.empty() ? sandboxOptions.accessToken : options_.accessToken;
    // The sandbox listens on loopback only, without TLS.
    configuration.allowInsecureHTTP = true;
  } else {
    if (options_.appID.empty())
      throw CliError("--service needs an app id (--app ID or ZVREWARDS_APP)", kExitUsage);
    if (options_.service.starts_with("http://") && !options_.insecureHTTP)
      throw CliError(
          fmt::format("{} is plain http: add --insecure-http to allow it", options_.service),
          kExitUsage);
    configuration.serviceHost = options_.service;
    configuration.appID = options_.appID;
    configuration.accessToken = options_.accessToken;
    configuration.caFile = options_.caFile;
    configuration.allowInsecureHTTP = options_.insecureHTTP;
  }
  const auto timeout =
      std::chrono::milliseconds(static_cast<int64_t>(std::ceil(options_.timeoutSeconds * 1000)));
  configuration.requestTimeout = timeout;
  configuration.connectTimeout = std::min(timeout, configuration.connectTimeout);
  Zorvane::configure(configuration);
  transport_ = ZVMakeCurlTransport();
  Zorvane::setTransport(transport_);
}

template <class Result>
Result Client::await(const std::function<void(std::function<void(Result, ZVErrorPtr)>)>& start) {
  // Shared with the handler: after a timeout it may still arrive later.
  struct Outcome {
    bool done = false;
    Result result;
    ZVErrorPtr error;
  };
  auto outcome = std::make_shared<Outcome>();
  start([outcome](Result result, ZVErrorPtr error) {
    outcome->result = std::move(result);
    outcome->error = std::move(error);
    outcome->done = true;
  });
  if (!ZVMainQueue::shared()->runUntil([&] { return outcome->done; }, waitLimit_)) {
    throw CliError(fmt::format("no answer from the rewards service within {} seconds",
                               options_.timeoutSeconds),
                   kExitTransport);
  }
  if (outcome->error)
    throw CliError(describeError(*outcome->error), exitStatusFor(*outcome->error));
  if (!outcome->result) throw CliError("the rewards service's answer held no result", kExitFailure);
  return outcome->result;
}

ZVOfferArrayPtr Client::fetchOffers(std::optional<ZVLocale> locale, bool force) {
  return await<ZVOfferArrayPtr>([&](ZVOffersCompletionHandler handler) {
    ZVRewardsManager::instance()->fetchOffersWithLocale(locale, force, std::move(handler));
  });
}

ZVOrderArrayPtr Client::fetchOrders() {
  return await<ZVOrderArrayPtr>([](ZVOrdersCompletionHandler handler) {
    ZVRewardsManager::instance()->fetchOrdersWithCompletionHandler(std::move(handler));
  });
}

std::shared_ptr<ZVOrder> Client::placeOrder(std::shared_ptr<ZVOrderRequest> request) {
  return await<std::shared_ptr<ZVOrder>>([&](ZVOrderCompletionHandler handler) {
    ZVRewardsManager::instance()->placeOrder(request, std::move(handler));
  });
}

std::shared_ptr<ZVSkillQuestion> Client::fetchSkillQuestion() {
  return await<std::shared_ptr<ZVSkillQuestion>>([](ZVSkillQuestionCompletionHandler handler) {
    ZVRewardsManager::instance()->fetchSkillQuestionWithCompletionHandler(std::move(handler));
  });
}

std::shared_ptr<ZVSkillChallenge> Client::answerSkillQuestion(const std::string& offerID,
                                                              const std::string& questionID,
                                                              const std::string& answer) {
  return await<std::shared_ptr<ZVSkillChallenge>>([&](ZVSkillChallengeCompletionHandler handler) {
    ZVRewardsManager::instance()->answerSkillQuestionForOfferID(
        offerID, questionID, ZVJSONValue(answer), std::move(handler));
  });
}

}  // namespace zvcli
