#include <ZorvaneCoreKit/ZVLocale.h>

#include <cstdlib>
#include <string_view>

ZVLocale ZVLocale::currentLocale() {
  for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* value = std::getenv(name);
    if (value == nullptr || *value == '\0') continue;
    // The first one set decides, as for the C library; "C" and "POSIX" (with
    // or without an encoding, as in "C.UTF-8") name no language.
    const std::string_view id(value);
    const std::string_view base = id.substr(0, id.find_first_of(".@"));
    if (base == "C" || base == "POSIX") break;
    return ZVLocale(std::string(id));
  }
  return ZVLocale("en_US");
}
