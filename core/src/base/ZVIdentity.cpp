#include <ZorvaneCoreKit/ZVIdentity.h>

const char* const ZV_USER_MANAGER_DID_UPDATE_USER_INTERNAL =
    "com.zorvane.user.manager.did.update.user.internal";
const char* const kUserAvailablePoints = "available_points";
const char* const kUserTestPoints = "test_points";
const char* const ZV_USER_MANAGER_USER_DID_CHANGE_NOTIFICATION =
    "com.zorvane.user.manager.user.did.change.notification";
