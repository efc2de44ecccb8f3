// Symbol visibility for the core library: the library is built with hidden
// visibility, and only what is marked here is exported.
#pragma once

#if defined(ZV_CORE_STATIC)
#define ZV_CORE_EXPORT
#else
#define ZV_CORE_EXPORT __attribute__((visibility("default")))
#endif
