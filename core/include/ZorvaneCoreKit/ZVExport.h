// Symbol visibility for the core library: everything is hidden unless marked.
#pragma once

#if defined(ZV_CORE_STATIC)
#define ZV_CORE_EXPORT
#elif defined(ZV_CORE_BUILDING)
#define ZV_CORE_EXPORT __attribute__((visibility("default")))
#else
#define ZV_CORE_EXPORT __attribute__((visibility("default")))
#endif
