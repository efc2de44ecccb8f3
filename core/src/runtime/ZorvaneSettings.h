// Inside the library: the configuration without a copy.
#pragma once

#include <memory>

#include <ZorvaneCoreKit/ZVExport.h>
#include <ZorvaneCoreKit/Zorvane.h>

namespace zv_detail {

/// The current configuration, shared: never null, never changed once made.
/// `Zorvane::configure` installs a new object, so the pointer identifies it.
ZV_CORE_EXPORT std::shared_ptr<const ZVConfiguration> currentConfiguration();

}  // namespace zv_detail
