#include <ZorvaneCoreKit/ZVAddress.h>

#include "base/ZVStrings.h"

#include "base/ZVUtil.h"
#include "json/ZVJSONAccess.h"

namespace {

// The fields in the order they are read and written.
struct Field {
  const char* key;
  std::optional<std::string> ZVAddress::*member;
};
constexpr Field kFields[] = {
    {"name", &ZVAddress::name},       {"street1", &ZVAddress::street1},
    {"street2", &ZVAddress::street2}, {"city", &ZVAddress::city},
    {"region", &ZVAddress::region},   {"postal_code", &ZVAddress::postalCode},
    {"country", &ZVAddress::country}, {"phone", &ZVAddress::phone},
};

std::string describeField(const std::optional<std::string>& field) {
  return field ? zv_detail::describedText(*field) : std::string("(null)");
}

}  // namespace

std::shared_ptr<ZVAddress> ZVAddress::initMutableWithDictionary(const ZVDictionaryPtr& dictionary) {
  auto address = std::make_shared<ZVAddress>();
  if (!dictionary) return address;
  for (const Field& field : kFields)
    (*address).*field.member =
        ZVUtil::nilOrStringFromObject(dictionary->getAndRemoveObjectForKey(field.key));
  address->extras = dictionary->prune();
  return address;
}

std::shared_ptr<ZVAddress> ZVAddress::initMutableWithDictionary(const ZVJSONValue& value) {
  return initMutableWithDictionary(value.dictionary());
}

ZVDictionaryPtr ZVAddress::asDictionary() const {
  auto dictionary = ZVMutableDictionary::make();
  for (const Field& field : kFields)
    if (const auto& text = this->*field.member)
      zv_detail::appendUnchecked(*dictionary, field.key, *text);
  return dictionary;
}

std::string ZVAddress::description() const {
  return zv_detail::strCat("\rName: ", describeField(name), "\rCity: ", describeField(city),
                           "\rCountry: ", describeField(country));
}
