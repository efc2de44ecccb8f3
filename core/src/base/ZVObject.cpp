#include <ZorvaneCoreKit/ZVObject.h>

#include <cxxabi.h>

#include <cstdlib>
#include <typeinfo>

#include "base/ZVStrings.h"
#include "runtime/ZVYieldPoint.h"

ZVObject::~ZVObject() {
  // Freeing a catalogue of thousands of records is long work on a
  // reclaimer thread: it yields between objects as the decode does.
  zv_detail::teardownPoint();
}

std::string ZVObject::description() const {
  const char* mangled = typeid(*this).name();
  int status = 0;
  char* demangled = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
  std::string name = (status == 0 && demangled != nullptr) ? demangled : mangled;
  std::free(demangled);
  return zv_detail::strCat("<", name, ": ", zv_detail::addressText(this), ">");
}

std::string ZVDescribe(const ZVObject* object) {
  return object != nullptr ? object->description() : std::string("(null)");
}

std::string ZVDescribe(const std::string* text) {
  return text != nullptr ? zv_detail::describedText(*text) : std::string("(null)");
}

std::string ZVDescribeList(const std::vector<std::string>& items) {
  std::string out = "(\n";
  for (size_t i = 0; i < items.size(); ++i) {
    out += "    ";
    out += items[i];
    out += i + 1 < items.size() ? ",\n" : "\n";
  }
  out += ')';
  return out;
}

std::string ZVNumber::description() const {
  return zv_detail::decimal(value_);
}
