// Lets the record tests state their inputs and expectations as JSON text.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include <ZorvaneCoreKit/ZVJSON.h>

namespace zvtest {

inline ZVJSONValue json(std::string_view text) {
  ZVJSONParseResult result = ZVJSONParse(text);
  EXPECT_TRUE(result.ok()) << result.error << " in " << text;
  return result.value;
}

inline ZVDictionaryPtr dict(std::string_view text) {
  return json(text).dictionary();
}

// One value of every JSON type, for the bad-input tables.
inline const std::vector<std::string>& everyJSONType() {
  static const std::vector<std::string> values = {"null",
                                                  "true",
                                                  "false",
                                                  "0",
                                                  "-7",
                                                  "2.5",
                                                  "1e300",
                                                  "\"\"",
                                                  "\"text\"",
                                                  "[]",
                                                  "[1, \"a\", null, {}]",
                                                  "{}",
                                                  "{\"k\": {\"n\": [null]}}"};
  return values;
}

// `{"<key>": <value>}` as text.
inline std::string withKey(std::string_view key, std::string_view value) {
  return "{\"" + std::string(key) + "\": " + std::string(value) + "}";
}

}  // namespace zvtest
