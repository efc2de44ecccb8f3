// Inside the SDK: failure reporting shared by the service managers.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include <ZorvaneCoreKit/ZVError.h>
#include <ZorvaneCoreKit/ZVNotificationCenter.h>

#include "runtime/ZVOperation.h"

/// @par Thread safety
/// Safe from any thread.
class ZV_CORE_EXPORT ZVPManagerUtils {
 public:
  /// `+callDidFailWithError:notification:completionHandler:doCompletionBlock:`.
  ///
  /// Queues one task on the main queue that first posts `notification` on the
  /// default centre (object `sender`, user information
  /// {`ZV_MANAGER_NOTIFICATION_ERROR_KEY`: error}) and then runs
  /// `doCompletionBlock(completionHandler, error)` exactly once, also when the
  /// completion handler is empty. Never runs anything inline. When the
  /// handler belongs to an operation (it has `operation()`) that is cancelled
  /// by the time the task runs, the task does nothing.
  template <class Handler>
  static void callDidFailWithError(ZVErrorPtr error, const std::string& notification,
                                   Handler completionHandler,
                                   std::function<void(Handler, ZVErrorPtr)> doCompletionBlock,
                                   const ZVObject* sender = nullptr) {
    std::shared_ptr<const zv_detail::ZVOperation> operation;
    if constexpr (requires { completionHandler.operation(); })
      operation = completionHandler.operation();
    postFailure(error, notification, sender, std::move(operation),
                [error, handler = std::move(completionHandler),
                 step = std::move(doCompletionBlock)]() mutable {
                  if (step) step(std::move(handler), error);
                });
  }

  /// The non-template core of `callDidFailWithError`.
  static void postFailure(ZVErrorPtr error, std::string notification, const ZVObject* sender,
                          std::shared_ptr<const zv_detail::ZVOperation> operation,
                          std::function<void()> step);
};
