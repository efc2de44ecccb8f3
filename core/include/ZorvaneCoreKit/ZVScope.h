// Scopes: the owner of the operations a host object starts, so that none of
// their completion handlers runs after the object is gone.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>

#include <ZorvaneCoreKit/ZVExport.h>

namespace zv_detail {
struct ZVScopeState;
class ZVOperation;
}  // namespace zv_detail

/// Owns the operations started while it is active, and cancels them when it
/// is destroyed (or when `cancel()` is called).
///
/// An operation is one call of a manager's public operation (a fetch, an
/// order, ...). It ends exactly once, in one of two ways:
/// - its completion handler is called (once, on the main queue); or
/// - it is cancelled first: its completion handler is never called, the
///   handler object is destroyed (its captures released) on the thread that
///   cancelled it, and the operation changes nothing more: its answer does not
///   update the manager's state and posts no notification.
///
/// A scope is made active on the current thread by an `Activation`; every
/// operation started on that thread while the activation lives belongs to
/// the scope:
///
/// @code
/// class Screen {
///   void load() {
///     ZVScope::Activation active(scope_);
///     ZVRewardsManager::instance()->fetchOffersWithCompletionHandler(
///         [this](ZVOfferArrayPtr offers, ZVErrorPtr error) { show(offers, error); });
///   }
///   ZVScope scope_;  // last member: destroyed first, before what handlers use
/// };
/// @endcode
///
/// @par Thread safety
/// `cancel()`, `pendingCount()` and the destructor are safe from any thread.
/// When they return, no completion handler of the scope's operations is
/// running on another thread, and none will run again: they wait for one that
/// is running on another thread at that moment. Called from inside one of the
/// scope's own completion handlers, they do not wait for that handler (it is
/// the caller), which goes on to its end. REQUIRES: no `Activation` of the
/// scope is alive when it is destroyed.
class ZV_CORE_EXPORT ZVScope {
 public:
  ZVScope();
  /// Cancels the scope's operations (see `cancel()`).
  ~ZVScope();
  ZVScope(const ZVScope&) = delete;
  ZVScope& operator=(const ZVScope&) = delete;

  /// Cancels every operation of this scope that has not called its handler
  /// yet, whether its request is in flight or its delivery is already queued
  /// on the main queue. The scope stays usable: operations started later
  /// belong to it again.
  void cancel();

  /// Operations of this scope that have neither called their handler nor
  /// been cancelled.
  size_t pendingCount() const;

  /// Makes a scope active on the current thread for its lifetime. Activations
  /// nest: an operation belongs to the innermost active scope.
  ///
  /// `onCancel`, when set, is given to every operation started while this
  /// activation lives: it is called once for an operation that ends without
  /// calling its completion handler (cancelled by a scope,
  /// `Zorvane::cancelAllOperations()` or `Zorvane::shutdown()`), on the
  /// thread that ends it, after the handler object was destroyed; never for
  /// an operation whose handler was called. A wrapper that passes per-call
  /// data to a handler releases that data in the one or the other.
  ///
  /// @par Thread safety
  /// Lives on one thread: create and destroy it on the same thread, in
  /// nested order (as a local variable).
  class ZV_CORE_EXPORT Activation {
   public:
    explicit Activation(ZVScope& scope);
    /// `scope` may be null: only `onCancel` is then given to the operations.
    Activation(ZVScope* scope, std::function<void()> onCancel);
    ~Activation();
    Activation(const Activation&) = delete;
    Activation& operator=(const Activation&) = delete;

    /// The innermost activation of the current thread, or null.
    static const Activation* current();
    ZVScope* scope() const { return scope_; }
    const std::function<void()>& onCancel() const { return onCancel_; }
    const Activation* previous() const { return previous_; }

   private:
    ZVScope* scope_;
    std::function<void()> onCancel_;
    const Activation* previous_;
  };

 private:
  friend class zv_detail::ZVOperation;  // joins the scope's list
  std::shared_ptr<zv_detail::ZVScopeState> state_;
};
