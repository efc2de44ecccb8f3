#include "SandboxStore.h"

#include <sqlite3.h>

#include <openssl/evp.h>

#include <chrono>
#include <ctime>

#include <fmt/core.h>

namespace zvsandbox {

constexpr int kSchemaVersion = 2;  // 2: idempotency keys

namespace {

[[noreturn]] void fail(sqlite3* db, const char* what) {
  throw StoreError(fmt::format("{}: {}", what, sqlite3_errmsg(db)));
}

void exec(sqlite3* db, const char* sql) {
  char* message = nullptr;
  if (sqlite3_exec(db, sql, nullptr, nullptr, &message) != SQLITE_OK) {
    std::string text = message ? message : sqlite3_errmsg(db);
    sqlite3_free(message);
    throw StoreError(text);
  }
}

class Statement {
 public:
  Statement(sqlite3* db, const char* sql) : db_(db) {
    if (sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr) != SQLITE_OK) fail(db, "prepare");
  }
  ~Statement() { sqlite3_finalize(stmt_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  Statement& bind(int index, int64_t value) {
    check(sqlite3_bind_int64(stmt_, index, value));
    return *this;
  }
  Statement& bind(int index, const std::string& value) {
    check(sqlite3_bind_text(stmt_, index, value.data(), static_cast<int>(value.size()),
                            SQLITE_TRANSIENT));
    return *this;
  }
  Statement& bind(int index, const std::optional<std::string>& value) {
    if (!value) {
      check(sqlite3_bind_null(stmt_, index));
      return *this;
    }
    return bind(index, *value);
  }

  /// True while there is a row.
  bool step() {
    const int rc = sqlite3_step(stmt_);
    if (rc == SQLITE_ROW) return true;
    if (rc == SQLITE_DONE) return false;
    fail(db_, "step");
  }
  int64_t integer(int column) const { return sqlite3_column_int64(stmt_, column); }
  bool isNull(int column) const { return sqlite3_column_type(stmt_, column) == SQLITE_NULL; }
  std::string text(int column) const {
    const auto* bytes = sqlite3_column_text(stmt_, column);
    return bytes ? std::string(reinterpret_cast<const char*>(bytes),
                               static_cast<size_t>(sqlite3_column_bytes(stmt_, column)))
                 : std::string();
  }

 private:
  void check(int rc) {
    if (rc != SQLITE_OK) fail(db_, "bind");
  }
  sqlite3* db_;
  sqlite3_stmt* stmt_ = nullptr;
};

}  // namespace

// BEGIN IMMEDIATE takes the write lock up front, so a read-then-write never
// races another writer, in this process or another one. Inside another
// transaction it is a savepoint, which commits or rolls back with its outer
// one. The store's mutex must be held.
class Transaction {
 public:
  explicit Transaction(Store& store) : store_(store), outer_(store.transactions_ == 0) {
    exec(store_.db_, outer_ ? "BEGIN IMMEDIATE" : "SAVEPOINT nested");
    ++store_.transactions_;
  }
  ~Transaction() {
    if (!done_) {
      sqlite3_exec(store_.db_, outer_ ? "ROLLBACK" : "ROLLBACK TO nested; RELEASE nested", nullptr,
                   nullptr, nullptr);
      --store_.transactions_;
    }
  }
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  void commit() {
    exec(store_.db_, outer_ ? "COMMIT" : "RELEASE nested");
    done_ = true;
    --store_.transactions_;
  }

 private:
  Store& store_;
  const bool outer_;
  bool done_ = false;
};

namespace {

std::string nowISO8601() {
  const std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
  std::tm utc{};
  gmtime_r(&now, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

// Requests can be large; their keys keep a fixed-size digest of them.
std::string sha256Hex(const std::string& text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  if (EVP_Digest(text.data(), text.size(), digest, &size, EVP_sha256(), nullptr) != 1)
    throw StoreError("could not hash a request");
  std::string hex;
  for (unsigned int i = 0; i < size; ++i) hex += fmt::format("{:02x}", digest[i]);
  return hex;
}

constexpr const char* kOrderColumns =
    "seq, offer_id, offer_type, external_id, quantity, points, created_at, name, logo, "
    "description, status, shipping_address, available_after, test_after";

nlohmann::json orderFromRow(const Statement& row) {
  nlohmann::json order = {
      {"id", std::to_string(row.integer(0))},
      {"offer_id", row.text(1)},
      {"offer_type", row.text(2)},
      {"user_id", kUserID},
      {"external_id", row.text(3)},
      {"quantity", row.integer(4)},
      {"points", row.integer(5)},
      {"created_at", row.text(6)},
      {"name", row.text(7)},
      {"logo", row.text(8)},
      {"description", row.text(9)},
      {"status", row.text(10)},
      {"user",
       {{"id", kUserID}, {"available_points", row.integer(12)}, {"test_points", row.integer(13)}}},
  };
  if (!row.isNull(11)) {
    auto address = nlohmann::json::parse(row.text(11), nullptr, false);
    if (!address.is_discarded()) order["shipping_address"] = std::move(address);
  }
  return order;
}

}  // namespace

std::unique_ptr<Store> Store::open(const std::string& path, bool reset, int64_t initialPoints,
                                   std::string& error) {
  sqlite3* db = nullptr;
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX;
  if (sqlite3_open_v2(path.c_str(), &db, flags, nullptr) != SQLITE_OK) {
    error = fmt::format("could not open the sandbox state {}: {}", path,
                        db ? sqlite3_errmsg(db) : "out of memory");
    sqlite3_close(db);
    return nullptr;
  }
  std::unique_ptr<Store> store(new Store(db));
  try {
    sqlite3_busy_timeout(db, 5000);
    exec(db, "PRAGMA journal_mode=WAL");
    exec(db, "PRAGMA synchronous=NORMAL");
    store->createSchema(reset, initialPoints);
  } catch (const StoreError& e) {
    error = fmt::format("could not open the sandbox state {}: {}", path, e.what());
    return nullptr;
  }
  return store;
}

Store::~Store() {
  sqlite3_close(db_);
}

void Store::createSchema(bool reset, int64_t initialPoints) {
  std::lock_guard lock(mutex_);
  Transaction transaction(*this);
  const int64_t found = [&] {
    Statement version(db_, "PRAGMA user_version");
    version.step();
    return version.integer(0);
  }();
  // Version 1 lacks only tables that are created below.
  if (found != 0 && found != 1 && found != kSchemaVersion && !reset) {
    throw StoreError(fmt::format("the file has layout version {}, not {}; start over with reset",
                                 found, kSchemaVersion));
  }
  if (reset) {
    exec(db_,
         "DROP TABLE IF EXISTS users; DROP TABLE IF EXISTS orders;"
         "DROP TABLE IF EXISTS questions; DROP TABLE IF EXISTS challenges;"
         "DROP TABLE IF EXISTS idempotency;");
  }
  exec(db_,
       "CREATE TABLE IF NOT EXISTS users(id TEXT PRIMARY KEY, available_points INTEGER NOT NULL,"
       " test_points INTEGER NOT NULL);"
       "CREATE TABLE IF NOT EXISTS orders(seq INTEGER PRIMARY KEY AUTOINCREMENT, offer_id TEXT,"
       " offer_type TEXT, external_id TEXT, quantity INTEGER, points INTEGER, created_at TEXT,"
       " name TEXT, logo TEXT, description TEXT, status TEXT, email TEXT, ip TEXT,"
       " shipping_address TEXT, available_after INTEGER, test_after INTEGER);"
       "CREATE TABLE IF NOT EXISTS questions(id TEXT PRIMARY KEY, question TEXT NOT NULL,"
       " answer INTEGER NOT NULL, answered INTEGER NOT NULL DEFAULT 0);"
       "CREATE TABLE IF NOT EXISTS challenges(id TEXT PRIMARY KEY, question_id TEXT NOT NULL,"
       " offer_id TEXT NOT NULL, status TEXT NOT NULL, used INTEGER NOT NULL DEFAULT 0);"
       "CREATE TABLE IF NOT EXISTS idempotency(app_id TEXT NOT NULL, user_id TEXT NOT NULL,"
       " key TEXT NOT NULL, request_hash TEXT NOT NULL, status INTEGER NOT NULL,"
       " body TEXT NOT NULL, created_at INTEGER NOT NULL, PRIMARY KEY(app_id, user_id, key));"
       "CREATE INDEX IF NOT EXISTS idempotency_age ON idempotency(created_at);");
  exec(db_, fmt::format("PRAGMA user_version={}", kSchemaVersion).c_str());
  Statement user(db_,
                 "INSERT OR IGNORE INTO users(id, available_points, test_points) VALUES(?, ?, 0)");
  user.bind(1, std::string(kUserID)).bind(2, initialPoints).step();
  transaction.commit();
}

Balance Store::balanceLocked() {
  Statement query(db_, "SELECT available_points, test_points FROM users WHERE id = ?");
  query.bind(1, std::string(kUserID));
  if (!query.step()) throw StoreError("the sandbox user is missing from the state");
  return {query.integer(0), query.integer(1)};
}

Balance Store::balance() {
  std::lock_guard lock(mutex_);
  return balanceLocked();
}

nlohmann::json Store::orderLocked(int64_t seq) {
  Statement query(db_, fmt::format("SELECT {} FROM orders WHERE seq = ?", kOrderColumns).c_str());
  query.bind(1, seq);
  if (!query.step()) throw StoreError("a recorded order vanished");
  return orderFromRow(query);
}

nlohmann::json Store::orders() {
  std::lock_guard lock(mutex_);
  Statement query(db_,
                  fmt::format("SELECT {} FROM orders ORDER BY seq DESC", kOrderColumns).c_str());
  auto orders = nlohmann::json::array();
  while (query.step()) orders.push_back(orderFromRow(query));
  return orders;
}

PlaceResult Store::placeOrder(const NewOrder& order) {
  std::lock_guard lock(mutex_);
  Transaction transaction(*this);
  const Balance before = balanceLocked();
  PlaceResult result;
  int64_t cost = 0;
  if (__builtin_mul_overflow(order.unitPoints, order.quantity, &cost) || before.available < cost) {
    result.outcome = PlaceResult::Outcome::insufficientPoints;
    result.needs = cost;
    result.has = before.available;
    return result;
  }
  if (order.needsChallenge) {
    Statement use(db_,
                  "UPDATE challenges SET used = 1 WHERE id = ? AND offer_id = ? AND"
                  " status = 'passed' AND used = 0");
    use.bind(1, order.challengeID).bind(2, order.offerID).step();
    if (sqlite3_changes(db_) != 1) {
      result.outcome = PlaceResult::Outcome::challengeRequired;
      return result;
    }
  }
  Statement deduct(db_, "UPDATE users SET available_points = available_points - ? WHERE id = ?");
  deduct.bind(1, cost).bind(2, std::string(kUserID)).step();
  std::optional<std::string> address;
  if (order.shippingAddress) {
    address = order.shippingAddress->dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  }
  Statement insert(db_,
                   "INSERT INTO orders(offer_id, offer_type, external_id, quantity, points,"
                   " created_at, name, logo, description, status, email, ip, shipping_address,"
                   " available_after, test_after)"
                   " VALUES(?, ?, 'ext-' || lower(hex(randomblob(8))), ?, ?, ?, ?, ?, ?, ?, ?, ?,"
                   " ?, ?, ?)");
  insert.bind(1, order.offerID)
      .bind(2, order.offerType)
      .bind(3, order.quantity)
      .bind(4, cost)
      .bind(5, nowISO8601())
      .bind(6, order.name)
      .bind(7, order.logo)
      .bind(8, order.description)
      .bind(9, order.status)
      .bind(10, order.email)
      .bind(11, order.ip)
      .bind(12, address)
      .bind(13, before.available - cost)
      .bind(14, before.test)
      .step();
  result.order = orderLocked(sqlite3_last_insert_rowid(db_));
  transaction.commit();
  return result;
}

void Store::addQuestion(const std::string& questionID, const std::string& question,
                        int64_t answer) {
  std::lock_guard lock(mutex_);
  Statement insert(db_, "INSERT INTO questions(id, question, answer) VALUES(?, ?, ?)");
  insert.bind(1, questionID).bind(2, question).bind(3, answer).step();
}

AnswerResult Store::answerQuestion(const std::string& questionID, const std::string& offerID,
                                   std::optional<int64_t> response,
                                   const std::string& challengeID) {
  std::lock_guard lock(mutex_);
  Transaction transaction(*this);
  Statement query(db_, "SELECT answer, answered FROM questions WHERE id = ?");
  query.bind(1, questionID);
  AnswerResult result;
  if (!query.step()) {
    result.outcome = AnswerResult::Outcome::unknownQuestion;
    return result;
  }
  if (query.integer(1) != 0) {
    result.outcome = AnswerResult::Outcome::alreadyAnswered;
    return result;
  }
  result.passed = response && *response == query.integer(0);
  Statement mark(db_, "UPDATE questions SET answered = 1 WHERE id = ?");
  mark.bind(1, questionID).step();
  Statement insert(db_,
                   "INSERT INTO challenges(id, question_id, offer_id, status) VALUES(?, ?, ?, ?)");
  insert.bind(1, challengeID)
      .bind(2, questionID)
      .bind(3, offerID)
      .bind(4, std::string(result.passed ? "passed" : "failed"))
      .step();
  transaction.commit();
  return result;
}

IdempotentResult Store::idempotent(const IdempotentCall& call, std::chrono::seconds window,
                                   const std::function<StoredAnswer()>& work) {
  const std::string requestHash = sha256Hex(call.request);
  const int64_t now = std::chrono::duration_cast<std::chrono::seconds>(
                          std::chrono::system_clock::now().time_since_epoch())
                          .count();
  std::lock_guard lock(mutex_);
  Transaction transaction(*this);
  Statement purge(db_, "DELETE FROM idempotency WHERE created_at <= ?");
  purge.bind(1, now - window.count()).step();

  IdempotentResult result;
  Statement find(db_,
                 "SELECT request_hash, status, body FROM idempotency"
                 " WHERE app_id = ? AND user_id = ? AND key = ?");
  find.bind(1, call.appID).bind(2, call.userID).bind(3, call.key);
  if (find.step()) {
    if (find.text(0) != requestHash) {
      result.outcome = IdempotentResult::Outcome::conflict;
    } else {
      result.outcome = IdempotentResult::Outcome::replayed;
      result.answer = {static_cast<int>(find.integer(1)), find.text(2)};
    }
    transaction.commit();  // keeps the purge
    return result;
  }

  result.answer = work();
  if (result.answer.status >= 500) return result;  // rolled back, key not kept
  Statement insert(db_,
                   "INSERT INTO idempotency(app_id, user_id, key, request_hash, status, body,"
                   " created_at) VALUES(?, ?, ?, ?, ?, ?, ?)");
  insert.bind(1, call.appID)
      .bind(2, call.userID)
      .bind(3, call.key)
      .bind(4, requestHash)
      .bind(5, int64_t{result.answer.status})
      .bind(6, result.answer.body)
      .bind(7, now)
      .step();
  transaction.commit();
  return result;
}

}  // namespace zvsandbox
