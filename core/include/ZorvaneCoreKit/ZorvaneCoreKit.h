// Umbrella header of the core services.
#pragma once

#include <ZorvaneCoreKit/ZVAddress.h>
#include <ZorvaneCoreKit/ZVBaseManager.h>
#include <ZorvaneCoreKit/ZVClock.h>
#include <ZorvaneCoreKit/ZVError.h>
#include <ZorvaneCoreKit/ZVIdentity.h>
#include <ZorvaneCoreKit/ZVJSON.h>
#include <ZorvaneCoreKit/ZVLocale.h>
#include <ZorvaneCoreKit/ZVLogger.h>
#include <ZorvaneCoreKit/ZVMainQueue.h>
#include <ZorvaneCoreKit/ZVNotificationCenter.h>
#include <ZorvaneCoreKit/ZVObject.h>
#include <ZorvaneCoreKit/ZVScope.h>
#include <ZorvaneCoreKit/ZVTransport.h>
#include <ZorvaneCoreKit/Zorvane.h>
