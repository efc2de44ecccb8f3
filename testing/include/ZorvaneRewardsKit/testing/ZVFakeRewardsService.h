// A fake rewards service for host unit tests: a transport that answers each
// request kind with a canned body, an HTTP status or a transport failure, so
// that a host's tests drive the real manager, records, main queue and
// notifications without a network.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <ZorvaneCoreKit/ZVTransport.h>
#include <ZorvaneCoreKit/Zorvane.h>

// X11's headers define `None` as a macro, and a host may include them
// before ours: it is set aside here and restored at the end of this header.
#pragma push_macro("None")
#undef None

/// What the fake answers to one request.
struct ZVFakeAnswer {
  /// HTTP status of the answer (ignored for a transport failure).
  int status = 200;
  /// The answer body, normally JSON text; sent as it stands.
  std::string body;
  /// Not `None`: the exchange fails without an HTTP answer.
  ZVTransportFailure failure = ZVTransportFailure::None;
  /// For a failure: what went wrong, for a person.
  std::string failureMessage;
  /// Time the fake waits before answering.
  std::chrono::milliseconds delay{0};

  /// An HTTP answer carrying `body` (JSON text).
  static ZVFakeAnswer json(std::string body, int status = 200);
  /// An HTTP error status, with an optional body.
  static ZVFakeAnswer httpStatus(int status, std::string body = {});
  /// No HTTP answer at all: a connection failure, a timeout, a reset...
  static ZVFakeAnswer transportFailure(ZVTransportFailure failure, std::string message = {});
};

/// One request as the fake received it.
struct ZVFakeRequest {
  /// The request kind recognised from method and path (`kKindFetchRewardOffers`,
  /// `kKindPlaceOrder`, ...), or empty when the request matched no kind.
  std::string kind;
  std::string method;  ///< "GET" or "POST"
  std::string url;     ///< as sent, query included
  std::string body;    ///< the JSON body of a POST, empty for a GET
  ZVHeaders headers;
  /// The offer id of the path (placing an order, answering a question),
  /// percent-decoded; empty when the path has none.
  std::string offerID;
  /// The question id of the path (answering a question), percent-decoded.
  std::string questionID;
};

/// A `ZVTransport` that plays the rewards service.
///
/// It recognises the request kind from the method and the path below
/// ".../api/v1/apps/<app id>/":
/// - GET "offers": `kKindFetchRewardOffers`
/// - POST "offers/<offer id>/orders": `kKindPlaceOrder`
/// - GET "orders": `kKindFetchRewardOrders`
/// - GET "challenges/skills_test_question": `kKindFetchSkillQuestion`
/// - POST "offers/<offer id>/challenges/skills_test_questions/<question id>":
///   `kKindAnswerSkillQuestion`
///
/// and answers with the first one-shot answer queued for the kind
/// (`pushAnswer`), else the standing answer of the kind (`setAnswer`), else
/// HTTP 501 with {"status": "error", "message": "No answer set for <kind>"}.
/// A request that matches no kind gets HTTP 404. Every request is recorded.
///
/// Answers are delivered on a thread the fake owns, never from inside
/// `send`, in the order their delay expires (then in the order sent).
/// Destroying the fake fails the requests still waiting with
/// `ZVTransportFailure::Shutdown` and joins the thread.
///
/// @par Thread safety
/// Every operation is safe from any thread.
class ZVFakeRewardsService final : public ZVTransport {
 public:
  static std::shared_ptr<ZVFakeRewardsService> make();

  ZVFakeRewardsService();
  ~ZVFakeRewardsService() override;
  ZVFakeRewardsService(const ZVFakeRewardsService&) = delete;
  ZVFakeRewardsService& operator=(const ZVFakeRewardsService&) = delete;

  void send(ZVHTTPRequest request, Completion done) override;

  /// Answers every later request of `kind` with `answer`.
  void setAnswer(std::string_view kind, ZVFakeAnswer answer);
  /// Shorthand for `setAnswer(kind, ZVFakeAnswer::json(body, status))`.
  void setBody(std::string_view kind, std::string body, int status = 200);
  /// Answers the next request of `kind` with `answer`, once; several queue up.
  void pushAnswer(std::string_view kind, ZVFakeAnswer answer);
  /// Forgets every answer set or queued.
  void clearAnswers();

  /// The requests received so far, in the order `send` was called.
  std::vector<ZVFakeRequest> requests() const;
  /// The requests of one kind, in order.
  std::vector<ZVFakeRequest> requestsOfKind(std::string_view kind) const;
  size_t requestCount(std::string_view kind) const;
  void clearRequests();

  /// The kind of a request, from method and URL ("" when none matches).
  static std::string kindForRequest(std::string_view method, std::string_view url);

 private:
  struct State;
  std::shared_ptr<State> state_;
};

/// Installs a fake rewards service for the lifetime of the object.
///
/// On construction: installs the fake as the request manager's transport,
/// configures the SDK with a dummy service ("https://rewards.fake.invalid",
/// app id "fake-app") when no service host is configured, and empties the
/// rewards manager's state (`resetData`). On destruction: restores the
/// default transport, the previous configuration when it replaced it, and
/// empties the manager's state again.
///
/// Requests still in flight when the scope ends fail with a transport error,
/// delivered on the main queue like any outcome: wait for every outcome (or
/// drain the main queue) before the scope ends so that none reaches the next test.
///
/// @par Thread safety
/// Create and destroy on one thread, typically a test's.
class ZVScopedFakeRewardsService {
 public:
  explicit ZVScopedFakeRewardsService(
      std::shared_ptr<ZVFakeRewardsService> service = ZVFakeRewardsService::make());
  ~ZVScopedFakeRewardsService();
  ZVScopedFakeRewardsService(const ZVScopedFakeRewardsService&) = delete;
  ZVScopedFakeRewardsService& operator=(const ZVScopedFakeRewardsService&) = delete;

  ZVFakeRewardsService& service() const { return *service_; }
  ZVFakeRewardsService* operator->() const { return service_.get(); }

 private:
  std::shared_ptr<ZVFakeRewardsService> service_;
  std::optional<ZVConfiguration> previous_;
};

#pragma pop_macro("None")
