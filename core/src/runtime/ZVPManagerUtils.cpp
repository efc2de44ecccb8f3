#include "runtime/ZVPManagerUtils.h"

#include <ZorvaneCoreKit/ZVMainQueue.h>

const char* const ZV_MANAGER_NOTIFICATION_ERROR_KEY = "error";
const char* const ZV_MANAGER_NOTIFICATION_DATA_KEY = "data";

void ZVPManagerUtils::postFailure(ZVErrorPtr error, std::string notification,
                                  const ZVObject* sender,
                                  std::shared_ptr<const zv_detail::ZVOperation> operation,
                                  std::function<void()> step) {
  // One task, so that observers always see the failure before the completion handler runs
  // and nothing else on the main queue can come between the two.
  ZVMainQueue::shared()->async([error = std::move(error), name = std::move(notification), sender,
                                operation = std::move(operation),
                                step = std::move(step)]() mutable {
    if (operation && operation->cancelled()) return;
    ZVUserInfo userInfo;
    if (error) userInfo.emplace(ZV_MANAGER_NOTIFICATION_ERROR_KEY, error);
    ZVNotificationCenter::defaultCenter()->postNotificationName(std::move(name), sender,
                                                                std::move(userInfo));
    if (step) step();
  });
}
