#include "ZVBenchSupport.h"

#include "ZVRewardsRouting.h"

#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>

#include <simdjson.h>
#include <nlohmann/json.hpp>

#include <ZorvaneCoreKit/ZVJSON.h>
#include <ZorvaneCoreKit/ZVLogger.h>
#include <ZorvaneCoreKit/ZVMainQueue.h>
#include <ZorvaneCoreKit/Zorvane.h>
#include <ZorvaneRewardsKit/ZVRewardsConstants.h>
#include <ZorvaneRewardsKit/ZVRewardsManager.h>
#include "http/ZVGenericRequest.h"

namespace zvbench {

std::string asAnswerBody(std::string body) {
  // The room past the end is blank, so the DOM baseline, which reads it in
  // place, sees the same bytes from run to run.
  const size_t size = body.size();
  body.append(ZVJSONPadding, ' ');
  body.resize(size);
  return body;
}

namespace {

// The largest catalogues are above the SDK's default answer size limit, as
// a host serving them would raise it.
constexpr size_t kMaxAnswerBytes = size_t{1} << 30;

ZVOfferArrayPtr decode(std::string& body, bool dropBody) {
  static const bool configured = [] {
    ZVConfiguration configuration = Zorvane::configuration();
    configuration.maxResponseBytes = kMaxAnswerBytes;
    Zorvane::configure(configuration);
    return true;
  }();
  (void)configured;
  // What the request manager does with an answer body...
  ZVJSONParseResult parsed =
      ZVJSONParse(body, {.maxValueBytes = ZVJSONMemoryForAnswer(kMaxAnswerBytes)});
  if (dropBody) std::string().swap(body);
  ZVDictionaryPtr dict = parsed.value.dictionary();
  if (!dict) return nullptr;
  // ...and what the manager's routing does with the response.
  auto response = std::make_shared<ZVGenericResponse>(
      200, "https://127.0.0.1/api/v1/apps/bench/offers", std::move(dict));
  ZVOfferArrayPtr delivered;
  bool called = false;
  ZVRewardsRouting(*ZVRewardsManager::instance())
      .requestKind(kKindFetchRewardOffers, std::move(response), nullptr,
                   ZVOffersCompletionHandler([&](ZVOfferArrayPtr result, ZVErrorPtr) {
                     called = true;
                     delivered = std::move(result);
                   }));
  while (!called && ZVMainQueue::shared()->drain() != 0) {
  }
  return delivered;
}

}  // namespace

ZVOfferArrayPtr decodeOffers(std::string& body) {
  return decode(body, false);
}

ZVOfferArrayPtr decodeOffers(std::string&& body) {
  return decode(body, true);
}

void forgetCatalogue() {
  ZVRewardsManager::instance()->resetData();
}

size_t simdjsonDOMParse(const std::string& body) {
  thread_local simdjson::dom::parser parser;
  simdjson::dom::element root;
  const bool padded = body.capacity() >= body.size() + simdjson::SIMDJSON_PADDING;
  const auto parsed =
      padded ? parser.parse(simdjson::padded_string_view(body.data(), body.size(), body.capacity()))
             : parser.parse(body.data(), body.size(), true);
  if (parsed.get(root) != simdjson::SUCCESS) return 0;
  simdjson::dom::array offers;
  if (root["offers"].get_array().get(offers) != simdjson::SUCCESS) return 0;
  return offers.size();
}

size_t nlohmannParse(std::string_view body) {
  const nlohmann::json document = nlohmann::json::parse(body, nullptr, /*allow_exceptions=*/false);
  const auto offers = document.find("offers");
  return offers == document.end() ? 0 : offers->size();
}

namespace {

size_t statusField(const char* name) {
  std::ifstream status("/proc/self/status");
  std::string line;
  const std::string prefix = std::string(name) + ":";
  while (std::getline(status, line)) {
    if (line.rfind(prefix, 0) == 0) return std::stoull(line.substr(prefix.size())) * 1024;
  }
  return 0;
}

}  // namespace

size_t peakResidentBytes() {
  return statusField("VmHWM");
}
size_t residentBytes() {
  return statusField("VmRSS");
}

bool resetPeakResident() {
  std::ofstream clear("/proc/self/clear_refs");
  clear << "5";
  clear.flush();
  return static_cast<bool>(clear);
}

std::string readFile(const std::string& path, std::string& error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    error = "cannot open " + path;
    return {};
  }
  std::ostringstream buffer;
  buffer << in.rdbuf();
  return std::move(buffer).str();
}

void quietSDK() {
  ZVLogger::instance()->setLogLevel(0);
  ZVLogger::instance()->setLogCategories(0);
}

}  // namespace zvbench
