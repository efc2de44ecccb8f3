#include "runtime/ZVOperation.h"

#include <condition_variable>
#include <mutex>
#include <unordered_set>
#include <vector>

namespace zv_detail {

struct ZVScopeState {
  std::unordered_set<ZVOperation*> operations;  // guarded by the registry's lock
};

// Every operation not yet ended, and the scopes' lists. One lock for all: an
// operation changes state a handful of times in its life, so contention stays
// low, and a single lock makes "cancelled" and "delivered" exclude each other.
struct ZVOperationRegistry {
  std::mutex mutex;
  std::condition_variable ended;                // a running delivery finished
  std::unordered_set<ZVOperation*> operations;  // guarded by mutex
  int closed = 0;                               // guarded by mutex: shutdowns under way

  // Live references to the listed operations; one that is being destroyed
  // is skipped, and its destructor ends it.
  static std::vector<std::shared_ptr<ZVOperation>> lockAll(
      const std::unordered_set<ZVOperation*>& listed) {
    std::vector<std::shared_ptr<ZVOperation>> live;
    live.reserve(listed.size());
    for (ZVOperation* operation : listed)
      if (auto strong = operation->weak_from_this().lock()) live.push_back(std::move(strong));
    return live;
  }
};

namespace {

ZVOperationRegistry& registry() {
  // Leaked: handlers and scopes may be destroyed by the exit sequence.
  static ZVOperationRegistry* const instance = new ZVOperationRegistry();
  return *instance;
}

}  // namespace

ZVOperation::~ZVOperation() {
  bool dropped = false;
  {
    std::lock_guard lock(registry().mutex);
    dropped = state_ == State::Pending;
    leaveLocked();
  }
  // Dropped without a delivery (its task destroyed unrun, an answer of no
  // known kind): for the host this is the same end as a cancellation. The
  // handler is already gone with the derived object.
  if (dropped && onCancel_) runHostCode("a cancellation callback", onCancel_);
}

void ZVOperation::leaveLocked() {
  if (!enrolled_) return;
  enrolled_ = false;
  registry().operations.erase(this);
  if (scope_) scope_->operations.erase(this);
  scope_.reset();
}

void ZVOperation::enroll() {
  std::shared_ptr<ZVScopeState> scope;
  for (const ZVScope::Activation* a = ZVScope::Activation::current(); a; a = a->previous()) {
    if (!scope && a->scope()) scope = a->scope()->state_;
    if (!onCancel_ && a->onCancel()) onCancel_ = a->onCancel();
  }
  ZVOperationRegistry& r = registry();
  {
    std::lock_guard lock(r.mutex);
    if (r.closed == 0) {
      r.operations.insert(this);
      if (scope) scope->operations.insert(this);
      scope_ = std::move(scope);
      enrolled_ = true;
      return;
    }
    state_ = State::Cancelled;
  }
  endCancelled();
}

bool ZVOperation::cancelled() const {
  std::lock_guard lock(registry().mutex);
  return state_ == State::Cancelled;
}

bool ZVOperation::claim() {
  std::lock_guard lock(registry().mutex);
  if (state_ != State::Pending) return false;
  state_ = State::Running;
  runner_ = std::this_thread::get_id();
  return true;
}

void ZVOperation::finish() {
  ZVOperationRegistry& r = registry();
  {
    std::lock_guard lock(r.mutex);
    state_ = State::Done;
    leaveLocked();
  }
  r.ended.notify_all();
  onCancel_ = nullptr;  // delivered: the callback will never be needed
}

void ZVOperation::cancel() {
  ZVOperationRegistry& r = registry();
  {
    std::unique_lock lock(r.mutex);
    // A handler running elsewhere finishes first; one running on this thread
    // is the caller itself, and goes on to its end.
    r.ended.wait(lock,
                 [&] { return state_ != State::Running || runner_ == std::this_thread::get_id(); });
    if (state_ != State::Pending) return;
    state_ = State::Cancelled;
    leaveLocked();
  }
  endCancelled();
}

void ZVOperation::endCancelled() {
  release_(*this);
  if (onCancel_) {
    std::function<void()> callback = std::move(onCancel_);
    onCancel_ = nullptr;
    runHostCode("a cancellation callback", callback);
  }
}

void cancelAllOperations() {
  std::vector<std::shared_ptr<ZVOperation>> live;
  {
    std::lock_guard lock(registry().mutex);
    live = ZVOperationRegistry::lockAll(registry().operations);
  }
  for (const auto& operation : live) operation->cancel();
}

void setOperationsClosed(bool closed) {
  std::lock_guard lock(registry().mutex);
  registry().closed += closed ? 1 : -1;
}

size_t pendingOperations() {
  std::lock_guard lock(registry().mutex);
  return registry().operations.size();
}

std::shared_ptr<ZVScopeState> makeScopeState() {
  return std::make_shared<ZVScopeState>();
}

size_t scopePending(const ZVScopeState& scope) {
  std::lock_guard lock(registry().mutex);
  return scope.operations.size();
}

void cancelScope(const std::shared_ptr<ZVScopeState>& scope) {
  std::vector<std::shared_ptr<ZVOperation>> live;
  {
    std::lock_guard lock(registry().mutex);
    live = ZVOperationRegistry::lockAll(scope->operations);
  }
  for (const auto& operation : live) operation->cancel();
}

void detachScope(const std::shared_ptr<ZVScopeState>& scope) {
  std::lock_guard lock(registry().mutex);
  // Started while the scope was being cancelled: they stay in the registry.
  for (ZVOperation* operation : scope->operations) operation->scope_.reset();
  scope->operations.clear();
}

}  // namespace zv_detail
