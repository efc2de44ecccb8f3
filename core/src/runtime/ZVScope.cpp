#include <ZorvaneCoreKit/ZVScope.h>

#include "runtime/ZVOperation.h"

namespace {

// A plain pointer, so the thread-local needs no destructor: a library that
// registers none can be unloaded while host threads live on.
thread_local const ZVScope::Activation* tActivation = nullptr;

}  // namespace

ZVScope::ZVScope() : state_(zv_detail::makeScopeState()) {}

ZVScope::~ZVScope() {
  zv_detail::cancelScope(state_);
  zv_detail::detachScope(state_);
}

void ZVScope::cancel() {
  zv_detail::cancelScope(state_);
}

size_t ZVScope::pendingCount() const {
  return zv_detail::scopePending(*state_);
}

ZVScope::Activation::Activation(ZVScope& scope) : Activation(&scope, nullptr) {}

ZVScope::Activation::Activation(ZVScope* scope, std::function<void()> onCancel)
    : scope_(scope), onCancel_(std::move(onCancel)), previous_(tActivation) {
  tActivation = this;
}

ZVScope::Activation::~Activation() {
  tActivation = previous_;
}

const ZVScope::Activation* ZVScope::Activation::current() {
  return tActivation;
}
