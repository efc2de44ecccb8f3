// The sandbox's persistent state: the user's balance, orders, questions and
// challenges, in one SQLite database.
#pragma once

#include <cstdint>
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

/// Every operation is safe from any thread: one connection, guarded by a
/// mutex; changes that must hold together run in one IMMEDIATE transaction,
/// which also keeps other processes on the same file out. Operations throw
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

 private:
  explicit Store(sqlite3* db) : db_(db) {}
  void createSchema(bool reset, int64_t initialPoints);
  Balance balanceLocked();
  nlohmann::json orderLocked(int64_t seq);

  std::mutex mutex_;
  sqlite3* db_;  // guarded by mutex_ after open
};

}  // namespace zvsandbox
