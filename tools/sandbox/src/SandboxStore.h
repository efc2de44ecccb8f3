// The sandbox's persistent state: the user's balance, orders, questions and
// challenges, in one SQLite database.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>

#include <nlohmann/json.hpp>

struct sqlite3;

namespace zvsandbox {

/// The one user the sandbox serves.
inline constexpr const char* kUserID = "sandbox-user";

/// A failure of the database itself (not a refusal): I/O, a locked file
/// beyond the busy timeout, a damaged file.
class StoreError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Balance {
  int64_t available = 0;
  int64_t test = 0;
};

/// What an order needs from the catalogue and the request.
struct NewOrder {
  std::string offerID, offerType, name, logo, description;
  std::string status;  ///< "approved" or "pending_approval"
  int64_t quantity = 1;
  int64_t unitPoints = 0;
  bool needsChallenge = false;
  std::string challengeID;  ///< empty: none given
  std::optional<std::string> email, ip;
  std::optional<nlohmann::json> shippingAddress;
};

struct PlaceResult {
  enum class Outcome { placed, insufficientPoints, challengeRequired };
  Outcome outcome = Outcome::placed;
  nlohmann::json order;  ///< the stored order, when placed
  int64_t needs = 0, has = 0;
};

struct AnswerResult {
  enum class Outcome { recorded, unknownQuestion, alreadyAnswered };
  Outcome outcome = Outcome::recorded;
  bool passed = false;
};

/// An answer to a submission, as stored with its idempotency key.
struct StoredAnswer {
  int status = 0;
  std::string body;
};

/// A submission that carries an idempotency key.
struct IdempotentCall {
  std::string appID, userID, key;
  /// What makes two requests the same: method, target and canonical body.
  std::string request;
};

struct IdempotentResult {
  enum class Outcome {
    fresh,     ///< the key was new: `answer` is the one just made
    replayed,  ///< `answer` is the one first given for the key
    conflict,  ///< the key was used for another request; nothing ran
  };
  Outcome outcome = Outcome::fresh;
  StoredAnswer answer;
};

/// Every operation is safe from any thread: one connection, guarded by a
/// recursive mutex; changes that must hold together run in one IMMEDIATE
/// transaction, which also keeps other processes on the same file out (a
/// transaction begun inside another is a savepoint of it). Operations throw
/// `StoreError` when the database fails.
class Store {
 public:
  /// Opens (creating it if needed) the database at `path` (":memory:"
  /// allowed). `reset` discards what it held; a new or reset state starts
  /// with `initialPoints`. Returns null with a message in `error`.
  static std::unique_ptr<Store> open(const std::string& path, bool reset, int64_t initialPoints,
                                     std::string& error);
  ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  Balance balance();
  /// Orders in the service's layout, newest first.
  nlohmann::json orders();
  /// Re-checks the balance (and, if needed, an unused passed challenge for
  /// the offer), deducts, records the order and uses the challenge, all in
  /// one transaction.
  PlaceResult placeOrder(const NewOrder& order);
  void addQuestion(const std::string& questionID, const std::string& question, int64_t answer);
  /// Records the verdict on a question (each question is answered once) as
  /// challenge `challengeID` for `offerID`.
  AnswerResult answerQuestion(const std::string& questionID, const std::string& offerID,
                              std::optional<int64_t> response, const std::string& challengeID);

  /// Answers a keyed submission once. Keys older than `window` are
  /// forgotten first. A known key with the same request gives its stored
  /// answer back, with another request a conflict. A new key runs `work`
  /// (which may use this store) and stores its answer with the key in the
  /// same transaction as `work`'s changes, so that no change is ever kept
  /// without its key. An answer of 500 or more is not stored, and `work`'s
  /// changes are then rolled back. Concurrent calls with one key run one
  /// after the other.
  IdempotentResult idempotent(const IdempotentCall& call, std::chrono::seconds window,
                              const std::function<StoredAnswer()>& work);

 private:
  friend class Transaction;
  explicit Store(sqlite3* db) : db_(db) {}
  void createSchema(bool reset, int64_t initialPoints);
  Balance balanceLocked();
  nlohmann::json orderLocked(int64_t seq);

  std::recursive_mutex mutex_;
  sqlite3* db_;           // guarded by mutex_ after open
  int transactions_ = 0;  // guarded by mutex_: open transactions, nested ones included
};

}  // namespace zvsandbox
