#include <ZorvaneCoreKit/ZVAddress.h>
#include <ZorvaneCoreKit/ZVJSON.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

TEST(AddressTest, ConsumesItsKeysAndKeepsTheRestAsExtras) {
  auto dict = ZVJSONParse(R"({"name":"Ann","street1":"1 Main","city":"Lyon","postal_code":69001,
      "country":"FR","phone":null,"floor":3,"note":null})")
                  .value.dictionary();
  ASSERT_TRUE(dict);
  auto address = ZVAddress::initMutableWithDictionary(dict);
  EXPECT_EQ(address->postalCode, "69001");
  EXPECT_EQ(address->street2, std::nullopt);
  EXPECT_EQ(address->phone, std::nullopt);
  EXPECT_EQ(address->extras, dict);
  EXPECT_EQ(dict->allKeys(), std::vector<std::string>{"floor"});
  EXPECT_EQ(address->description(), "\rName: Ann\rCity: Lyon\rCountry: FR");

  std::string out;
  ASSERT_TRUE(ZVJSONSerialize(address->asDictionary(), false, out));
  EXPECT_EQ(
      out,
      R"({"name":"Ann","street1":"1 Main","city":"Lyon","postal_code":"69001","country":"FR"})");

  for (const auto& empty : {ZVAddress::initMutableWithDictionary(ZVDictionaryPtr()),
                            ZVAddress::initMutableWithDictionary(ZVJSONValue("text"))}) {
    EXPECT_EQ(empty->description(), "\rName: (null)\rCity: (null)\rCountry: (null)");
    EXPECT_TRUE(empty->asDictionary()->empty());
  }
}

}  // namespace
