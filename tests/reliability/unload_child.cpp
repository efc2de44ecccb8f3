// A host that unloads the SDK at run time, run as a child process by
// exit_test.cpp:
//   unload_child PLUGIN HOST   starts requests, shuts the SDK down with them
//                              in flight and deliveries queued, and unloads it
// The plugin is the only user of the SDK's libraries, so they go with it. A
// thread of the SDK's left running would then run unmapped code. Success is
// exit status 0: the libraries are gone and nothing crashed afterwards.
#include <dlfcn.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>

// The unloaded SDK leaves its singletons behind (docs/lifetimes.md), which
// LeakSanitizer would report whatever ASAN_OPTIONS say.
extern "C" __attribute__((visibility("default"))) int __lsan_is_turned_off() {
  return 1;
}

namespace {

bool mapped(const char* library) {
  std::ifstream maps("/proc/self/maps");
  std::string line;
  while (std::getline(maps, line))
    if (line.find(library) != std::string::npos) return true;
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;  // usage: see the top of this file
  void* plugin = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (plugin == nullptr) {
    std::fprintf(stderr, "dlopen: %s\n", dlerror());
    return 4;
  }
  auto start = reinterpret_cast<void (*)(const char*, int)>(dlsym(plugin, "zv_plugin_start"));
  auto stop = reinterpret_cast<void (*)()>(dlsym(plugin, "zv_plugin_stop"));
  if (start == nullptr || stop == nullptr) return 5;
  start(argv[2], 20);
  stop();
  dlclose(plugin);
  if (mapped("libZorvaneRewardsKit") || mapped("libZorvaneCoreKit")) {
    std::fprintf(stderr, "the SDK's libraries are still loaded\n");
    return 6;
  }
  // Long enough for a thread left behind to run into unmapped code.
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  return 0;
}
