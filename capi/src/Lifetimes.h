// Operations as C sees them: every one ends with one call of its callback,
// a cancelled one included, and shutdown leaves none owed.
#pragma once

#include <functional>
#include <memory>

#include <ZorvaneCoreKit/ZVError.h>
#include <ZorvaneCoreKit/ZVScope.h>

namespace zvr {

/// Starts an operation: runs `start()` (the manager's call) with `scope`
/// active (may be null) and, when `cancelled` is set, promises to call
/// `cancelled()` once should the operation end cancelled, on the main queue
/// (or in zvr_shutdown), never inside this call. An exception from `start`
/// propagates, and then `cancelled` is never called.
void startOperation(ZVScope* scope, std::function<void()> cancelled,
                    const std::function<void()>& start);

/// The error a cancelled operation's callback receives.
const ZVErrorPtr& cancellationError();

/// Whether this thread is inside the host's wake-up hook.
bool insideWakeUp();

}  // namespace zvr
