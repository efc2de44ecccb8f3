// Names shared with the identity services.
#pragma once

#include <ZorvaneCoreKit/ZVExport.h>

/// Posted by the rewards manager after an order was accepted, with the manager
/// as object and the user's new balances under `kUserAvailablePoints` and
/// `kUserTestPoints` (each a `ZVNumber`).
extern ZV_CORE_EXPORT const char* const ZV_USER_MANAGER_DID_UPDATE_USER_INTERNAL;
extern ZV_CORE_EXPORT const char* const kUserAvailablePoints;
extern ZV_CORE_EXPORT const char* const kUserTestPoints;

/// Post this when the signed-in user changed or signed out (any object, any
/// user information): every `ZVBaseManager` then calls its `clearUserState`
/// with the notification's object, and the rewards manager drops its cached
/// offers and orders.
extern ZV_CORE_EXPORT const char* const ZV_USER_MANAGER_USER_DID_CHANGE_NOTIFICATION;
