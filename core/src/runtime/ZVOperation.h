// Inside the SDK: one operation a host started, tracked from its call to the
// end of its delivery so that a scope, a cancel-all or shutdown can end it.
#pragma once

#include <functional>
#include <memory>
#include <thread>

#include <ZorvaneCoreKit/ZVExport.h>
#include <ZorvaneCoreKit/ZVScope.h>

#include "runtime/ZVHostCode.h"

namespace zv_detail {

void detachScope(const std::shared_ptr<ZVScopeState>& scope);

/// Ends exactly once: delivered (its handler called) or cancelled. Held by
/// the request's callback and by the main-queue task that delivers it; the
/// registry and the scope only point at it.
///
/// @par Thread safety
/// Every operation is safe from any thread. The state is guarded by the
/// registry's lock, which is never held while host code runs.
class ZV_CORE_EXPORT ZVOperation : public std::enable_shared_from_this<ZVOperation> {
 public:
  ZVOperation(const ZVOperation&) = delete;
  ZVOperation& operator=(const ZVOperation&) = delete;

  /// Whether it was cancelled: its answer must then change nothing.
  bool cancelled() const;

  /// Cancels it unless it was delivered: the handler is released and the
  /// cancellation callback called, on this thread. Waits while the handler
  /// runs on another thread; returns at once when it runs on this one.
  void cancel();

 protected:
  /// `release` destroys the handler of the derived object. Not virtual, so
  /// that no type information of the SDK's internals is exported.
  using Release = void (*)(ZVOperation& operation);
  explicit ZVOperation(Release release) : release_(release) {}
  /// Destroyed only as the derived type (by the shared pointer that made it).
  ~ZVOperation();
  /// Joins the registry and the scope active on this thread. An operation
  /// started while the SDK shuts down is cancelled at once.
  void enroll();
  /// Takes the one delivery: false when cancelled or delivered already.
  bool claim();
  /// Ends a claimed delivery, after the handler was released.
  void finish();

 private:
  friend struct ZVOperationRegistry;
  friend void detachScope(const std::shared_ptr<ZVScopeState>& scope);
  enum class State { Pending, Running, Done, Cancelled };
  void leaveLocked();
  void endCancelled();

  const Release release_;  // called once, with no lock held

  // Guarded by the registry's lock.
  State state_ = State::Pending;
  std::thread::id runner_;  // the delivering thread, while Running
  std::shared_ptr<ZVScopeState> scope_;
  bool enrolled_ = false;
  // Set before the operation is shared; afterwards only the thread that ends
  // the operation touches it.
  std::function<void()> onCancel_;
};

/// An operation with its completion handler.
template <class Handler>
class ZVOperationWith final : public ZVOperation {
 public:
  static std::shared_ptr<ZVOperationWith> make(Handler handler) {
    std::shared_ptr<ZVOperationWith> operation(new ZVOperationWith(std::move(handler)));
    operation->enroll();
    return operation;
  }

  /// Calls `call(handler)` unless the operation was cancelled or delivered;
  /// an exception from it is reported as thrown by `what`. The handler is
  /// destroyed before the delivery counts as ended. Returns whether this
  /// call was the delivery.
  template <class Call>
  bool deliver(const char* what, Call&& call) {
    if (!claim()) return false;
    Handler handler = std::move(handler_);
    runHostCode(what, [&] { call(handler); });
    handler = Handler();
    finish();
    return true;
  }

 private:
  explicit ZVOperationWith(Handler handler)
      : ZVOperation(&ZVOperationWith::release), handler_(std::move(handler)) {}
  static void release(ZVOperation& operation) {
    Handler released = std::move(static_cast<ZVOperationWith&>(operation).handler_);
  }

  Handler handler_;  // touched only by the thread that ends the operation
};

/// Cancels every operation not yet delivered, in the whole process.
ZV_CORE_EXPORT void cancelAllOperations();

/// While closed, operations are cancelled as soon as they start (shutdown).
/// Counted: each `true` is undone by one `false`.
ZV_CORE_EXPORT void setOperationsClosed(bool closed);

/// Operations started and not yet ended, in the whole process.
ZV_CORE_EXPORT size_t pendingOperations();

/// For `ZVScope`: its operations not yet ended; cancelling them; forgetting
/// those still listed when it goes away.
size_t scopePending(const ZVScopeState& scope);
void cancelScope(const std::shared_ptr<ZVScopeState>& scope);
void detachScope(const std::shared_ptr<ZVScopeState>& scope);
std::shared_ptr<ZVScopeState> makeScopeState();

}  // namespace zv_detail
