#include <ZorvaneRewardsKit/testing/ZVFakeRewardsService.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

#include <ZorvaneCoreKit/Zorvane.h>
#include <ZorvaneRewardsKit/ZVRewardsConstants.h>
#include <ZorvaneRewardsKit/ZVRewardsManager.h>

namespace {

using Clock = std::chrono::steady_clock;

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string percentDecode(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size()) {
      const int high = hexDigit(text[i + 1]);
      const int low = hexDigit(text[i + 2]);
      if (high >= 0 && low >= 0) {
        out.push_back(static_cast<char>(high * 16 + low));
        i += 2;
        continue;
      }
    }
    out.push_back(text[i]);
  }
  return out;
}

// The path segments below ".../api/v1/apps/<app id>/", raw; nullopt when the
// URL is not under an app.
std::optional<std::vector<std::string_view>> appSegments(std::string_view url) {
  if (const size_t scheme = url.find("://"); scheme != std::string_view::npos)
    url.remove_prefix(scheme + 3);
  const size_t pathStart = url.find('/');
  if (pathStart == std::string_view::npos) return std::nullopt;
  url.remove_prefix(pathStart);
  if (const size_t end = url.find_first_of("?#"); end != std::string_view::npos)
    url = url.substr(0, end);
  constexpr std::string_view kPrefix = "/api/v1/apps/";
  if (!url.starts_with(kPrefix)) return std::nullopt;
  url.remove_prefix(kPrefix.size());
  const size_t appEnd = url.find('/');
  if (appEnd == std::string_view::npos || appEnd == 0) return std::nullopt;
  url.remove_prefix(appEnd + 1);
  std::vector<std::string_view> segments;
  while (true) {
    const size_t slash = url.find('/');
    segments.push_back(url.substr(0, slash));
    if (slash == std::string_view::npos) break;
    url.remove_prefix(slash + 1);
  }
  return segments;
}

struct Route {
  std::string kind;
  std::string offerID;
  std::string questionID;
};

Route route(std::string_view method, std::string_view url) {
  const auto segments = appSegments(url);
  if (!segments) return {};
  const auto& s = *segments;
  const bool get = method == "GET";
  const bool post = method == "POST";
  if (get && s.size() == 1 && s[0] == "offers") return {kKindFetchRewardOffers, {}, {}};
  if (get && s.size() == 1 && s[0] == "orders") return {kKindFetchRewardOrders, {}, {}};
  if (get && s.size() == 2 && s[0] == "challenges" && s[1] == "skills_test_question")
    return {kKindFetchSkillQuestion, {}, {}};
  if (post && s.size() == 3 && s[0] == "offers" && !s[1].empty() && s[2] == "orders")
    return {kKindPlaceOrder, percentDecode(s[1]), {}};
  if (post && s.size() == 5 && s[0] == "offers" && !s[1].empty() && s[2] == "challenges" &&
      s[3] == "skills_test_questions" && !s[4].empty())
    return {kKindAnswerSkillQuestion, percentDecode(s[1]), percentDecode(s[4])};
  return {};
}

ZVHTTPResult resultOf(const ZVFakeAnswer& answer, const ZVHTTPRequest& request) {
  ZVHTTPResult result;
  if (answer.failure != ZVTransportFailure::None) {
    result.failure = answer.failure;
    result.failureMessage = answer.failureMessage.empty()
                                ? "the fake rewards service failed the exchange"
                                : answer.failureMessage;
    return result;
  }
  if (request.maxBodyBytes != 0 && answer.body.size() > request.maxBodyBytes) {
    result.failure = ZVTransportFailure::TooLarge;
    result.failureMessage = "the answer is larger than the configured limit";
    return result;
  }
  result.status = answer.status;
  result.headers = {{"Content-Type", "application/json"}};
  result.body = answer.body;
  result.httpVersion = "1.1";
  return result;
}

std::string errorBody(std::string_view message) {
  // The messages are fixed texts without characters that need escaping.
  return "{\"status\": \"error\", \"message\": \"" + std::string(message) + "\"}";
}

}  // namespace

ZVFakeAnswer ZVFakeAnswer::json(std::string body, int status) {
  ZVFakeAnswer answer;
  answer.status = status;
  answer.body = std::move(body);
  return answer;
}

ZVFakeAnswer ZVFakeAnswer::httpStatus(int status, std::string body) {
  return json(std::move(body), status);
}

ZVFakeAnswer ZVFakeAnswer::transportFailure(ZVTransportFailure failure, std::string message) {
  ZVFakeAnswer answer;
  answer.status = 0;
  answer.failure = failure;
  answer.failureMessage = std::move(message);
  return answer;
}

// Shared by the fake and its delivery thread, so that the thread can finish
// on its own when the last reference to the fake is dropped on that thread.
struct ZVFakeRewardsService::State {
  struct Job {
    ZVTransport::Completion done;
    ZVHTTPResult result;
  };

  std::mutex mutex;
  std::condition_variable wake;
  // Keyed by (due time, arrival number): answers leave in due order, ties in send order.
  std::map<std::pair<Clock::time_point, uint64_t>, Job> jobs;            // guarded by mutex
  uint64_t nextNumber = 0;                                               // guarded by mutex
  bool stopping = false;                                                 // guarded by mutex
  std::map<std::string, ZVFakeAnswer, std::less<>> standing;             // guarded by mutex
  std::map<std::string, std::deque<ZVFakeAnswer>, std::less<>> oneShot;  // guarded by mutex
  std::vector<ZVFakeRequest> received;                                   // guarded by mutex
  std::thread worker;

  void run() {
    std::unique_lock lock(mutex);
    while (!stopping) {
      if (jobs.empty()) {
        wake.wait(lock);
        continue;
      }
      auto first = jobs.begin();
      if (first->first.first > Clock::now()) {
        wake.wait_until(lock, first->first.first);
        continue;
      }
      Job job = std::move(first->second);
      jobs.erase(first);
      // Never call back under the lock: the completion may send again.
      lock.unlock();
      job.done(std::move(job.result));
      lock.lock();
    }
    auto left = std::move(jobs);
    jobs.clear();
    lock.unlock();
    for (auto& [key, job] : left) {
      ZVHTTPResult result;
      result.failure = ZVTransportFailure::Shutdown;
      result.failureMessage = "the fake rewards service shut down before answering";
      job.done(std::move(result));
    }
  }

  ZVFakeAnswer answerFor(const std::string& kind) {
    if (kind.empty()) return ZVFakeAnswer::httpStatus(404, errorBody("Not found"));
    if (auto queued = oneShot.find(kind); queued != oneShot.end() && !queued->second.empty()) {
      ZVFakeAnswer answer = std::move(queued->second.front());
      queued->second.pop_front();
      return answer;
    }
    if (auto set = standing.find(kind); set != standing.end()) return set->second;
    return ZVFakeAnswer::httpStatus(501, errorBody("No answer set for " + kind));
  }
};

std::shared_ptr<ZVFakeRewardsService> ZVFakeRewardsService::make() {
  return std::make_shared<ZVFakeRewardsService>();
}

ZVFakeRewardsService::ZVFakeRewardsService() : state_(std::make_shared<State>()) {
  state_->worker = std::thread([state = state_] { state->run(); });
}

ZVFakeRewardsService::~ZVFakeRewardsService() {
  {
    std::lock_guard lock(state_->mutex);
    state_->stopping = true;
  }
  state_->wake.notify_all();
  // The last reference may go inside a completion, on the worker itself.
  if (state_->worker.get_id() == std::this_thread::get_id())
    state_->worker.detach();
  else
    state_->worker.join();
}

void ZVFakeRewardsService::send(ZVHTTPRequest request, Completion done) {
  Route r = route(request.method, request.url);
  {
    std::lock_guard lock(state_->mutex);
    const ZVFakeAnswer answer = state_->answerFor(r.kind);
    const auto due = Clock::now() + answer.delay;
    state_->jobs.emplace(std::pair{due, state_->nextNumber++},
                         State::Job{std::move(done), resultOf(answer, request)});
    state_->received.push_back(ZVFakeRequest{std::move(r.kind), std::move(request.method),
                                             std::move(request.url), std::move(request.body),
                                             std::move(request.headers), std::move(r.offerID),
                                             std::move(r.questionID)});
  }
  state_->wake.notify_all();
}

void ZVFakeRewardsService::setAnswer(std::string_view kind, ZVFakeAnswer answer) {
  std::lock_guard lock(state_->mutex);
  state_->standing.insert_or_assign(std::string(kind), std::move(answer));
}

void ZVFakeRewardsService::setBody(std::string_view kind, std::string body, int status) {
  setAnswer(kind, ZVFakeAnswer::json(std::move(body), status));
}

void ZVFakeRewardsService::pushAnswer(std::string_view kind, ZVFakeAnswer answer) {
  std::lock_guard lock(state_->mutex);
  state_->oneShot[std::string(kind)].push_back(std::move(answer));
}

void ZVFakeRewardsService::clearAnswers() {
  std::lock_guard lock(state_->mutex);
  state_->standing.clear();
  state_->oneShot.clear();
}

std::vector<ZVFakeRequest> ZVFakeRewardsService::requests() const {
  std::lock_guard lock(state_->mutex);
  return state_->received;
}

std::vector<ZVFakeRequest> ZVFakeRewardsService::requestsOfKind(std::string_view kind) const {
  std::lock_guard lock(state_->mutex);
  std::vector<ZVFakeRequest> out;
  for (const auto& request : state_->received)
    if (request.kind == kind) out.push_back(request);
  return out;
}

size_t ZVFakeRewardsService::requestCount(std::string_view kind) const {
  std::lock_guard lock(state_->mutex);
  size_t count = 0;
  for (const auto& request : state_->received) count += request.kind == kind ? 1 : 0;
  return count;
}

void ZVFakeRewardsService::clearRequests() {
  std::lock_guard lock(state_->mutex);
  state_->received.clear();
}

std::string ZVFakeRewardsService::kindForRequest(std::string_view method, std::string_view url) {
  return route(method, url).kind;
}

ZVScopedFakeRewardsService::ZVScopedFakeRewardsService(
    std::shared_ptr<ZVFakeRewardsService> service)
    : service_(std::move(service)) {
  ZVConfiguration configuration = Zorvane::configuration();
  if (configuration.serviceHost.empty()) {
    previous_ = configuration;
    configuration.serviceHost = "https://rewards.fake.invalid";
    if (configuration.appID.empty()) configuration.appID = "fake-app";
    Zorvane::configure(configuration);
  }
  Zorvane::setTransport(service_);
  ZVRewardsManager::instance()->resetData();
}

ZVScopedFakeRewardsService::~ZVScopedFakeRewardsService() {
  Zorvane::setTransport(nullptr);
  if (previous_) Zorvane::configure(*previous_);
  ZVRewardsManager::instance()->resetData();
}
