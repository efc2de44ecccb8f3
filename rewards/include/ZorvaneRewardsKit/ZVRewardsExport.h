// Symbol visibility for the rewards library: everything is hidden unless marked.
#pragma once

#if defined(ZV_REWARDS_STATIC)
#define ZV_REWARDS_EXPORT
#else
#define ZV_REWARDS_EXPORT __attribute__((visibility("default")))
#endif
