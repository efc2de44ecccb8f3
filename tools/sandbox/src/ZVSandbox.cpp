#include "ZVSandbox.h"

#include <pwd.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <random>
#include <thread>

#include <fmt/core.h>
#include <httplib.h>
#include <nlohmann/json.hpp>

#include "SandboxCatalogue.h"
#include "SandboxCertificate.h"
#include "SandboxFiles.h"
#include "SandboxFraming.h"
#include "SandboxServer.h"
#include "SandboxStore.h"

namespace fs = std::filesystem;
using nlohmann::json;
using zvsandbox::AnswerResult;
using zvsandbox::PlaceResult;

namespace {

constexpr const char* kAppPath = "/api/v1/apps/([^/]+)";
constexpr int64_t kMaxQuantity = 1000;
constexpr auto kIdempotencyWindow = std::chrono::hours(24);
constexpr size_t kMaxIdempotencyKey = 255;

enum class Fault { none, http500, malformed, drop, dropAfterCommit, http429, http503 };

std::string toText(const json& value) {
  return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

void reply(httplib::Response& res, int status, const json& body) {
  res.status = status;
  res.set_content(toText(body), "application/json; charset=utf-8");
}

// Business refusals answer 200 with "status" "error", the way the service
// does, so that clients compose their error from the body.
void refuse(httplib::Response& res, const std::string& message) {
  reply(res, 200, {{"status", "error"}, {"message", message}});
}

void badRequest(httplib::Response& res, const std::string& message) {
  reply(res, 400, {{"status", "error"}, {"message", message}});
}

// Whether JSON text nests arrays and objects at most `limit` deep. Checked
// before parsing: copying or printing a parsed value recurses once per level.
bool nestsAtMost(std::string_view text, size_t limit) {
  size_t depth = 0;
  bool inString = false, escaped = false;
  for (const char c : text) {
    if (inString) {
      if (escaped) {
        escaped = false;
      } else if (c == '\\') {
        escaped = true;
      } else if (c == '"') {
        inString = false;
      }
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > limit) return false;
    } else if ((c == ']' || c == '}') && depth > 0) {
      --depth;
    }
  }
  return true;
}

// The body as a JSON object, or a 400 answer saying why not.
std::optional<json> objectBody(const httplib::Request& req, httplib::Response& res,
                               size_t maxDepth) {
  if (!nestsAtMost(req.body, maxDepth)) {
    badRequest(res, fmt::format("the body nests deeper than {} levels", maxDepth));
    return std::nullopt;
  }
  auto body = json::parse(req.body, nullptr, false);
  if (body.is_discarded()) {
    badRequest(res, "the body is not valid JSON");
    return std::nullopt;
  }
  if (!body.is_object()) {
    badRequest(res, "the body is not a JSON object");
    return std::nullopt;
  }
  return body;
}

fs::path defaultStatePath() {
  if (const char* xdg = std::getenv("XDG_STATE_HOME"); xdg && *xdg) {
    return fs::path(xdg) / "zvrewards" / "sandbox.sqlite";
  }
  std::string home;
  if (const char* env = std::getenv("HOME"); env && *env) {
    home = env;
  } else {
    struct passwd entry {};
    struct passwd* found = nullptr;
    char buffer[4096];
    if (getpwuid_r(getuid(), &entry, buffer, sizeof buffer, &found) == 0 && found) {
      home = found->pw_dir;
    }
  }
  return fs::path(home.empty() ? "." : home) / ".local" / "state" / "zvrewards" / "sandbox.sqlite";
}

bool inMemory(const std::string& path) {
  return path == ":memory:";
}

// What makes two submissions the same request: method, target and the
// body as canonical JSON (whitespace and key order do not count), or the
// body's bytes when it is not JSON within the depth limit.
std::string requestIdentity(const httplib::Request& req, size_t maxDepth) {
  std::string body = req.body;
  if (nestsAtMost(req.body, maxDepth)) {
    if (const auto parsed = json::parse(req.body, nullptr, false); !parsed.is_discarded())
      body = "json:" + toText(parsed);
  }
  return fmt::format("{} {}\n{}", req.method, req.target, body);
}

// 1 to 255 printable ASCII characters, without spaces.
bool validIdempotencyKey(const std::string& key) {
  return !key.empty() && key.size() <= kMaxIdempotencyKey &&
         std::all_of(key.begin(), key.end(), [](char c) { return c >= 0x21 && c <= 0x7E; });
}

// An HTTP date (IMF-fixdate), independent of the process's locale.
std::string httpDate(std::time_t when) {
  static constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                            "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  std::tm utc{};
  gmtime_r(&when, &utc);
  return fmt::format("{}, {:02} {} {} {:02}:{:02}:{:02} GMT", kDays[utc.tm_wday], utc.tm_mday,
                     kMonths[utc.tm_mon], utc.tm_year + 1900, utc.tm_hour, utc.tm_min, utc.tm_sec);
}

// An integer answer: a JSON integer, a whole float, or text holding only an
// integer (surrounding blanks allowed).
std::optional<int64_t> integerAnswer(const json& response) {
  if (response.is_number_integer()) return response.get<int64_t>();
  if (response.is_number_float()) {
    const double value = response.get<double>();
    if (std::trunc(value) == value && std::abs(value) < 1e15) return static_cast<int64_t>(value);
    return std::nullopt;
  }
  if (!response.is_string()) return std::nullopt;
  std::string_view text = response.get_ref<const std::string&>();
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) {
    text.remove_prefix(1);
  }
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) {
    text.remove_suffix(1);
  }
  if (!text.empty() && text.front() == '+') text.remove_prefix(1);
  int64_t value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

struct Question {
  std::string text;
  int64_t answer;
};

// A multi-step sum with one product, in one of a few shapes, positive.
Question makeQuestion(std::mt19937_64& random) {
  std::uniform_int_distribution<int64_t> factor(2, 9), term(1, 9), shape(0, 3);
  for (;;) {
    const int64_t a = factor(random), b = factor(random), c = term(random), d = term(random);
    Question question;
    switch (shape(random)) {
      case 0:
        question = {fmt::format("({} x {}) + {} - {}", a, b, c, d), a * b + c - d};
        break;
      case 1:
        question = {fmt::format("{} x ({} + {}) - {}", a, b, c, d), a * (b + c) - d};
        break;
      case 2:
        question = {fmt::format("({} + {}) x {} - {}", a, b, c, d), (a + b) * c - d};
        break;
      default:
        question = {fmt::format("{} + {} x {} - {}", a, b, c, d), a + b * c - d};
        break;
    }
    if (question.answer > 0) return question;
  }
}

}  // namespace

struct ZVSandbox::Impl {
  Impl(ZVSandboxOptions o, ZVSandboxLimits l)
      : options(std::move(o)), limits(l), faultRandom(options.faults.seed) {}

  using Route = std::function<void(const httplib::Request&, httplib::Response&)>;

  Fault drawFault();
  std::string newID(const char* prefix);
  httplib::Server::Handler wrap(Route route);
  void retryLater(httplib::Response& res, int status) const;
  void answerOnce(const httplib::Request& req, httplib::Response& res,
                  const std::function<zvsandbox::StoredAnswer()>& run);
  void installRoutes();

  void fetchOffers(const httplib::Request& req, httplib::Response& res);
  void fetchOrders(const httplib::Request& req, httplib::Response& res);
  void placeOrder(const httplib::Request& req, httplib::Response& res);
  void fetchQuestion(const httplib::Request& req, httplib::Response& res);
  void answerQuestion(const httplib::Request& req, httplib::Response& res);

  const ZVSandboxOptions options;
  const ZVSandboxLimits limits;
  std::unique_ptr<zvsandbox::Catalogue> catalogue;
  std::unique_ptr<zvsandbox::Store> store;
  std::unique_ptr<zvsandbox::GuardedServer> server;
  std::thread listener;
  int port = 0;
  std::string statePath;
  std::string certificatePath;
  fs::path ownedCertDir;  // a temporary directory made for an in-memory state

  std::mutex randomMutex;
  std::mt19937_64 faultRandom;                       // guarded by randomMutex
  std::mt19937_64 idRandom{std::random_device{}()};  // guarded by randomMutex
};

Fault ZVSandbox::Impl::drawFault() {
  const auto& faults = options.faults;
  const std::pair<double, Fault> shares[] = {
      {faults.http500Share, Fault::http500}, {faults.malformedShare, Fault::malformed},
      {faults.dropShare, Fault::drop},       {faults.dropAfterCommitShare, Fault::dropAfterCommit},
      {faults.http429Share, Fault::http429}, {faults.http503Share, Fault::http503},
  };
  if (std::all_of(std::begin(shares), std::end(shares), [](auto& s) { return s.first <= 0; })) {
    return Fault::none;
  }
  double draw = 0;
  {
    std::lock_guard lock(randomMutex);
    draw = std::uniform_real_distribution<double>(0.0, 1.0)(faultRandom);
  }
  for (const auto& [share, fault] : shares) {
    if (draw < share) return fault;
    draw -= share;
  }
  return Fault::none;
}

void ZVSandbox::Impl::retryLater(httplib::Response& res, int status) const {
  const int seconds = options.faults.retryAfterSeconds;
  res.set_header("Retry-After", options.faults.retryAfterAsDate
                                    ? httpDate(std::time(nullptr) + seconds)
                                    : std::to_string(seconds));
  const char* what = status == 429 ? "too many requests" : "the service is unavailable";
  reply(res, status,
        {{"status", "error"}, {"message", fmt::format("{}; retry after {} s", what, seconds)}});
}

// A submission with an Idempotency-Key: the first answer for the key, given
// again to a retry of the same request.
void ZVSandbox::Impl::answerOnce(const httplib::Request& req, httplib::Response& res,
                                 const std::function<zvsandbox::StoredAnswer()>& run) {
  const std::string key = req.get_header_value("Idempotency-Key");
  if (req.get_header_value_count("Idempotency-Key") != 1 || !validIdempotencyKey(key)) {
    return badRequest(res, std::string(zvsandbox::kBadIdempotencyKey));
  }
  const zvsandbox::IdempotentCall call{options.appID, zvsandbox::kUserID, key,
                                       requestIdentity(req, limits.maxJSONDepth)};
  const auto result = store->idempotent(call, kIdempotencyWindow, run);
  switch (result.outcome) {
    case zvsandbox::IdempotentResult::Outcome::fresh:
      return;  // `run` answered
    case zvsandbox::IdempotentResult::Outcome::replayed:
      res.status = result.answer.status;
      res.set_content(result.answer.body, "application/json; charset=utf-8");
      res.set_header("Idempotent-Replayed", "true");
      return;
    case zvsandbox::IdempotentResult::Outcome::conflict:
      return reply(res, 422,
                   {{"status", "error"},
                    {"message",
                     "this Idempotency-Key was already used for a different request (another "
                     "method, path or body)"}});
  }
}

std::string ZVSandbox::Impl::newID(const char* prefix) {
  std::lock_guard lock(randomMutex);
  return fmt::format("{}{:016x}", prefix, idRandom());
}

// Every endpoint goes through the same gate: faults, then the token, then
// the app id, then the endpoint (once per idempotency key); a failing state
// store answers 500.
httplib::Server::Handler ZVSandbox::Impl::wrap(Route route) {
  return [this, route = std::move(route)](const httplib::Request& req, httplib::Response& res) {
    const Fault fault = drawFault();
    if (options.faults.latencyMs > 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(options.faults.latencyMs));
    }
    switch (fault) {
      case Fault::drop:
        zvsandbox::GuardedServer::dropConnection();
        return;
      case Fault::http500:
        return reply(res, 500, {{"status", "error"}, {"message", "internal server error"}});
      case Fault::http429:
        return retryLater(res, 429);
      case Fault::http503:
        return retryLater(res, 503);
      default:
        break;
    }
    if (req.get_header_value("Authorization") != "Bearer " + options.accessToken) {
      reply(res, 401, {{"status", "error"}, {"message", "invalid access token"}});
      return;
    }
    if (const auto appID = req.matches[1].str(); appID != options.appID) {
      reply(res, 404, {{"status", "error"}, {"message", fmt::format("unknown app '{}'", appID)}});
      return;
    }
    const auto run = [&]() -> zvsandbox::StoredAnswer {
      try {
        route(req, res);
      } catch (const std::exception& e) {
        reply(res, 500,
              {{"status", "error"}, {"message", fmt::format("sandbox state: {}", e.what())}});
      }
      return {res.status, res.body};
    };
    const bool submission = req.method == "POST";
    if (submission && req.has_header("Idempotency-Key")) {
      try {
        answerOnce(req, res, run);
      } catch (const std::exception& e) {
        reply(res, 500,
              {{"status", "error"}, {"message", fmt::format("sandbox state: {}", e.what())}});
      }
    } else {
      run();
    }
    if (fault == Fault::dropAfterCommit && submission) {
      zvsandbox::GuardedServer::dropConnection();
      return;
    }
    if (fault == Fault::malformed) res.body.resize(res.body.size() / 2);
  };
}

void ZVSandbox::Impl::fetchOffers(const httplib::Request& req, httplib::Response& res) {
  const auto balance = store->balance();
  reply(res, 200,
        {{"status", "ok"},
         {"offers", catalogue->offersFor(req.get_param_value("locale"), balance.available)}});
}

void ZVSandbox::Impl::fetchOrders(const httplib::Request&, httplib::Response& res) {
  reply(res, 200, {{"status", "ok"}, {"orders", store->orders()}});
}

void ZVSandbox::Impl::placeOrder(const httplib::Request& req, httplib::Response& res) {
  const std::string offerID = req.matches[2].str();
  const auto body = objectBody(req, res, limits.maxJSONDepth);
  if (!body) return;
  const auto order = body->find("order");
  if (order == body->end() || !order->is_object()) {
    return badRequest(res, "the body has no \"order\" object");
  }
  const auto optionalOf = [&](const char* key, bool (json::*isType)() const,
                              const char* typeName) -> std::optional<json> {
    const auto value = order->find(key);
    if (value == order->end() || value->is_null()) return std::nullopt;
    if (!((*value).*isType)())
      throw std::invalid_argument(fmt::format("\"{}\" must be {}", key, typeName));
    return *value;
  };
  zvsandbox::NewOrder draft;
  std::optional<json> quantity, challenge;
  try {
    quantity = optionalOf("quantity", &json::is_number, "a number");
    if (auto email = optionalOf("email", &json::is_string, "a string")) draft.email = *email;
    if (auto ip = optionalOf("ip", &json::is_string, "a string")) draft.ip = *ip;
    draft.shippingAddress = optionalOf("shippingAddress", &json::is_object, "an object");
    challenge = optionalOf("challenge", &json::is_object, "an object");
  } catch (const std::invalid_argument& e) {
    return badRequest(res, e.what());
  }

  const std::string locale = zvsandbox::chooseLocale(req.get_param_value("locale"));
  const json* offer = catalogue->find(offerID, locale);
  if (!offer) return refuse(res, fmt::format("Unknown offer '{}'", offerID));
  if (quantity) {
    const auto whole = integerAnswer(*quantity);
    if (!whole || *whole < 1 || *whole > kMaxQuantity) {
      return refuse(res, fmt::format("Quantity must be a whole number from 1 to {}", kMaxQuantity));
    }
    draft.quantity = *whole;
  }
  if (!zvsandbox::userQualifies(*offer)) {
    return refuse(res, fmt::format("Offer '{}' is not available at the user's tier", offerID));
  }
  draft.offerID = offerID;
  draft.offerType = offer->value("type", "");
  draft.name = offer->value("name", "");
  draft.logo = offer->value("logo", "");
  draft.description = offer->value("description", "");
  draft.status = draft.offerType == "physical" ? "pending_approval" : "approved";
  draft.unitPoints = zvsandbox::offerPoints(*offer);
  draft.needsChallenge = zvsandbox::flagValue(*offer, "requires_skills_test");
  if (challenge) {
    if (const auto id = challenge->find("id"); id != challenge->end() && id->is_string()) {
      draft.challengeID = id->get<std::string>();
    }
  }

  const PlaceResult placed = store->placeOrder(draft);
  switch (placed.outcome) {
    case PlaceResult::Outcome::insufficientPoints:
      return reply(
          res, 200,
          {{"status", "error"},
           {"order",
            {{"base",
              {fmt::format("Insufficient points: needs {}, has {}", placed.needs, placed.has)}},
             {"user_id", zvsandbox::kUserID}}}});
    case PlaceResult::Outcome::challengeRequired:
      return refuse(
          res, fmt::format("A passed skill-testing challenge is required for offer '{}'", offerID));
    case PlaceResult::Outcome::placed:
      return reply(res, 200, {{"status", "ok"}, {"order", placed.order}});
  }
}

void ZVSandbox::Impl::fetchQuestion(const httplib::Request&, httplib::Response& res) {
  Question question;
  {
    std::lock_guard lock(randomMutex);
    question = makeQuestion(idRandom);
  }
  const std::string id = newID("q-");
  store->addQuestion(id, question.text, question.answer);
  reply(res, 200,
        {{"status", "ok"},
         {"challenge",
          {{"skills_test_question", {{"id", id}, {"question", question.text}}},
           {"instructions", "Answer with a whole number."}}}});
}

void ZVSandbox::Impl::answerQuestion(const httplib::Request& req, httplib::Response& res) {
  const std::string offerID = req.matches[2].str();
  const std::string questionID = req.matches[3].str();
  const auto body = objectBody(req, res, limits.maxJSONDepth);
  if (!body) return;
  const json* response = nullptr;
  if (const auto challenge = body->find("challenge");
      challenge != body->end() && challenge->is_object()) {
    const auto question = challenge->find("skills_test_question");
    if (question != challenge->end() && question->is_object()) {
      if (const auto found = question->find("response"); found != question->end()) {
        response = &*found;
      }
    }
  }
  if (!response) {
    return badRequest(res, "the body has no \"challenge\".\"skills_test_question\".\"response\"");
  }
  if (!catalogue->find(offerID, "en-US")) {
    return refuse(res, fmt::format("Unknown offer '{}'", offerID));
  }
  const std::string challengeID = newID("c-");
  const AnswerResult answer =
      store->answerQuestion(questionID, offerID, integerAnswer(*response), challengeID);
  switch (answer.outcome) {
    case AnswerResult::Outcome::unknownQuestion:
      return refuse(res, fmt::format("Unknown question '{}'", questionID));
    case AnswerResult::Outcome::alreadyAnswered:
      return refuse(res, fmt::format("Question '{}' was already answered", questionID));
    case AnswerResult::Outcome::recorded:
      return reply(res, 200,
                   {{"status", "ok"},
                    {"challenge",
                     {{"id", challengeID},
                      {"status", answer.passed ? "passed" : "failed"},
                      {"offer_id", offerID},
                      {"question_id", questionID}}}});
  }
}

void ZVSandbox::Impl::installRoutes() {
  const std::string app = kAppPath;
  const auto bind = [this](void (Impl::*handler)(const httplib::Request&, httplib::Response&)) {
    return wrap([this, handler](const httplib::Request& req, httplib::Response& res) {
      (this->*handler)(req, res);
    });
  };
  server->Get(app + "/offers", bind(&Impl::fetchOffers));
  server->Get(app + "/orders", bind(&Impl::fetchOrders));
  server->Post(app + "/offers/([^/]+)/orders", bind(&Impl::placeOrder));
  server->Get(app + "/challenges/skills_test_question", bind(&Impl::fetchQuestion));
  server->Post(app + "/offers/([^/]+)/challenges/skills_test_questions/([^/]+)",
               bind(&Impl::answerQuestion));

  // Answers the server makes itself (no route, too large a body...) carry a
  // JSON body too.
  server->set_error_handler(
      httplib::Server::HandlerWithResponse([](const httplib::Request& req, httplib::Response& res) {
        if (!res.body.empty()) {
          return httplib::Server::HandlerResponse::Unhandled;
        }
        std::string message = fmt::format("HTTP {}", res.status);
        if (res.status == 404)
          message = fmt::format("no such endpoint: {} {}", req.method, req.path);
        if (res.status == 400) message = "the request is malformed";
        if (res.status == 413) message = "the body is too large";
        if (res.status == 414) message = "the request target is too long";
        reply(res, res.status, {{"status", "error"}, {"message", message}});
        return httplib::Server::HandlerResponse::Handled;
      }));
  server->set_exception_handler(
      [](const httplib::Request&, httplib::Response& res, std::exception_ptr error) {
        std::string message = "internal error";
        try {
          std::rethrow_exception(error);
        } catch (const std::exception& e) {
          message = fmt::format("internal error: {}", e.what());
        } catch (...) {
        }
        reply(res, 500, {{"status", "error"}, {"message", message}});
      });
}

ZVSandbox::ZVSandbox(ZVSandboxOptions options, ZVSandboxLimits limits)
    : impl_(std::make_unique<Impl>(std::move(options), limits)) {}

ZVSandbox::~ZVSandbox() {
  stop();
}

bool ZVSandbox::start(std::string& error) {
  if (impl_->server) {
    error = "the sandbox is already running";
    return false;
  }
  const auto fail = [&](std::string message) {
    error = std::move(message);
    stop();
    return false;
  };
  Impl& impl = *impl_;
  impl.catalogue = zvsandbox::Catalogue::load(error);
  if (!impl.catalogue) return fail(error);

  impl.statePath =
      impl.options.statePath.empty() ? defaultStatePath().string() : impl.options.statePath;
  std::error_code ec;
  if (!inMemory(impl.statePath)) {
    // SQLite gives its journal and shared-memory files the mode of the
    // database, so one owner-only file keeps them all private.
    const fs::path state = impl.statePath;
    if (!zvsandbox::createPrivateDirectories(state.parent_path(), error) ||
        !zvsandbox::makePrivateFile(state, error) ||
        !zvsandbox::narrowIfPresent(state.string() + "-wal", error) ||
        !zvsandbox::narrowIfPresent(state.string() + "-shm", error)) {
      return fail(error);
    }
  }
  impl.store =
      zvsandbox::Store::open(impl.statePath, impl.options.reset, impl.options.initialPoints, error);
  if (!impl.store) return fail(error);

  SSL_CTX* tls = nullptr;
  if (impl.options.tls) {
    fs::path certDir = impl.options.certDir;
    if (certDir.empty() && !inMemory(impl.statePath)) {
      certDir = fs::absolute(impl.statePath, ec).parent_path();
    }
    if (certDir.empty()) {
      std::string pattern = (fs::temp_directory_path(ec) / "zv-sandbox-XXXXXX").string();
      if (!mkdtemp(pattern.data())) return fail("could not create a directory for the certificate");
      certDir = impl.ownedCertDir = pattern;
    }
    zvsandbox::CertificateFiles files;
    if (!zvsandbox::ensureCertificate(certDir, files, error)) return fail(error);
    impl.certificatePath = files.certificate.string();
    tls = zvsandbox::GuardedServer::makeTLSContext(files.certificate, files.privateKey, error);
    if (!tls) return fail(error);
  }
  impl.server = std::make_unique<zvsandbox::GuardedServer>(impl.limits, tls);
  impl.installRoutes();

  if (impl.options.port == 0) {
    impl.port = impl.server->bind_to_any_port(impl.options.host);
  } else if (impl.server->bind_to_port(impl.options.host, impl.options.port)) {
    impl.port = impl.options.port;
  } else {
    impl.port = -1;
  }
  if (impl.port <= 0) {
    impl.port = 0;
    return fail(fmt::format("could not listen on {}:{}", impl.options.host, impl.options.port));
  }
  impl.server->widenBacklog();

  auto ended = std::make_shared<std::atomic<bool>>(false);
  impl.listener = std::thread([server = impl.server.get(), ended] {
    server->listen_after_bind();
    ended->store(true);
  });
  while (!impl.server->is_running() && !ended->load()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  if (!impl.server->is_running()) return fail("the sandbox server stopped at once");
  return true;
}

void ZVSandbox::stop() {
  Impl& impl = *impl_;
  if (impl.server) impl.server->stop();
  if (impl.listener.joinable()) impl.listener.join();
  if (impl.server) impl.server->shutdown();
  impl.server.reset();
  impl.store.reset();
  impl.port = 0;
  if (!impl.ownedCertDir.empty()) {
    std::error_code ec;
    fs::remove_all(impl.ownedCertDir, ec);
    impl.ownedCertDir.clear();
    impl.certificatePath.clear();
  }
}

int ZVSandbox::port() const {
  return impl_->port;
}

std::string ZVSandbox::serviceHost() const {
  std::string host = impl_->options.host;
  if (host.empty() || host == "0.0.0.0") host = "127.0.0.1";
  if (host == "::") host = "::1";
  if (host.find(':') != std::string::npos) host = "[" + host + "]";
  return fmt::format("{}://{}:{}", impl_->options.tls ? "https" : "http", host, impl_->port);
}

std::string ZVSandbox::certificatePath() const {
  return impl_->certificatePath;
}

std::string ZVSandbox::statePath() const {
  return impl_->statePath;
}

const ZVSandboxOptions& ZVSandbox::options() const {
  return impl_->options;
}

const ZVSandboxLimits& ZVSandbox::limits() const {
  return impl_->limits;
}
