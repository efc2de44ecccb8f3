#include <ZorvaneCoreKit/ZVJSON.h>

#include <cmath>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "ZVTestSupport.h"

namespace {

using zvtest::json;

std::string compact(const ZVJSONValue& value) {
  std::string out;
  EXPECT_TRUE(ZVJSONSerialize(value, false, out));
  return out;
}

std::string nested(size_t depth) {
  return std::string(depth, '[') + std::string(depth, ']');
}

TEST(JSONTest, CompactRoundTripKeepsKindsOrderAndEscapes) {
  struct Case {
    std::string in, out;
  } cases[] = {
      {R"({"b":1,"a":[true,false,null],"c":{}})", R"({"b":1,"a":[true,false,null],"c":{}})"},
      {"[1, 1.0, -0, 2.5e3, 1e-7]", "[1,1.0,0,2500.0,1e-07]"},
      {"[9223372036854775807,-9223372036854775808]", "[9223372036854775807,-9223372036854775808]"},
      // Above the signed range but within 64 bits: kept as a double.
      {"18446744073709551615", "1.8446744073709552e+19"},
      {R"("q\"b\\s\/ \u0001\t\n é \ud83d\ude00")",
       "\"q\\\"b\\\\s/ \\u0001\\t\\n é \xF0\x9F\x98\x80\""},
      {" \"top\" ", "\"top\""},
  };
  for (const auto& c : cases) EXPECT_EQ(compact(json(c.in)), c.out) << c.in;
}

TEST(JSONTest, BadInputIsAClearError) {
  const std::string cases[] = {"", "[1] x", "[1,]",
                               "\"\xed\xa0\x80\"",  // encoded surrogate
                               // Numbers beyond the ranges are read; malformed ones are not.
                               "01", "[1e400x]", std::string("[\"a\0b\"]", 7)};
  for (const auto& text : cases) {
    ZVJSONParseResult result = ZVJSONParse(text);
    EXPECT_FALSE(result.ok()) << text.substr(0, 40);
    EXPECT_TRUE(result.value.isNil());
  }
  EXPECT_EQ(ZVJSONParse("\"\xff\"").error, "invalid JSON: The input is not valid UTF-8");
}

// Beyond the 64-bit types: the nearest double; beyond double's range:
// infinity with its sign (below it, zero), in a container or on its own.
TEST(JSONTest, NumbersBeyondTheRangesAreDoubles) {
  const double inf = std::numeric_limits<double>::infinity();
  struct Case {
    std::string text;
    double value;
  } cases[] = {
      {"123456789012345678901234567890", 1.2345678901234568e29},
      {"-9223372036854775809", -9223372036854775808.0},
      {"1e400", inf},
      {"[-1E+400]", -inf},
      {R"({"n": 0.00001e99999999999999999999})", inf},
      {"[" + std::string(5000, '9') + "]", inf},
      {"-0.0000001e-99999", -0.0},
  };
  for (const Case& c : cases) {
    ZVJSONValue v = json(c.text);
    if (const ZVArrayPtr array = v.array()) v = (*array)[0];
    if (const ZVDictionaryPtr object = v.dictionary()) v = object->objectForKey("n");
    ASSERT_TRUE(v.isDouble()) << c.text.substr(0, 40);
    EXPECT_EQ(v.doubleValue(), c.value) << c.text.substr(0, 40);
    EXPECT_EQ(std::signbit(v.doubleValue()), std::signbit(c.value)) << c.text.substr(0, 40);
  }
  // One odd field does not cost the rest of the answer.
  EXPECT_EQ(json(R"({"x": 1e999, "offers": [{"id": "1"}]})").dictionary()->count(), 2u);
}

TEST(JSONTest, DepthIsBounded) {
  ZVJSONParseResult ok = ZVJSONParse(nested(512));
  ASSERT_TRUE(ok.ok()) << ok.error;
  std::string out;
  EXPECT_TRUE(ZVJSONSerialize(ok.value, true, out));
  ok = {};  // a 512-deep tree must destroy without trouble

  EXPECT_EQ(ZVJSONParse(nested(513)).error, "JSON nesting is deeper than 512 levels");
  EXPECT_FALSE(ZVJSONParse(std::string(100000, '[')).ok());
  EXPECT_EQ(ZVJSONParse(R"({"a":{"b":[1]}})", {.maxDepth = 2}).error,
            "JSON nesting is deeper than 2 levels");
  EXPECT_TRUE(ZVJSONParse(R"({"a":{"b":1}})", {.maxDepth = 2}).ok());
  EXPECT_TRUE(ZVJSONParse("7", {.maxDepth = 0}).ok());
  // A generous limit is still capped, so later recursion stays bounded.
  EXPECT_TRUE(ZVJSONParse(nested(1024), {.maxDepth = 1u << 30}).ok());
  EXPECT_FALSE(ZVJSONParse(nested(1025), {.maxDepth = 1u << 30}).ok());
}

TEST(JSONTest, SerialiserRefusesWhatJSONCannotHold) {
  std::string out;
  EXPECT_FALSE(ZVJSONSerialize(ZVJSONValue(), false, out));
  EXPECT_FALSE(ZVJSONSerialize(std::numeric_limits<double>::quiet_NaN(), false, out));
  EXPECT_FALSE(ZVJSONSerialize(ZVMutableArray::make({-INFINITY}), false, out));
  EXPECT_FALSE(ZVJSONSerialize(std::string("bad \xc3"), false, out));
  EXPECT_FALSE(ZVJSONSerialize(ZVMutableDictionary::make({{"\xff", 1}}), false, out));

  // A dictionary that holds itself is refused, not followed forever.
  auto loop = ZVMutableDictionary::make();
  loop->setObject("self", loop);
  EXPECT_FALSE(ZVJSONSerialize(loop, false, out));
  EXPECT_NE(loop->description().find("{...}"), std::string::npos);
  loop->removeObjectForKey("self");

  // Nil inside containers is skipped.
  auto array = ZVMutableArray::make({ZVJSONValue(), 1, ZVJSONValue()});
  EXPECT_EQ(compact(array), "[1]");
}

TEST(JSONTest, NestedContainersAreSharedAndCopiesAreShallow) {
  ZVDictionaryPtr root = json(R"({"inner":{"x":1,"y":2},"list":[1]})").dictionary();
  ZVDictionaryPtr inner = root->objectForKey("inner").dictionary();
  EXPECT_EQ(inner, root->find("inner")->dictionary());
  inner->removeObjectForKey("x");
  EXPECT_EQ(compact(root), R"({"inner":{"y":2},"list":[1]})");

  ZVDictionaryPtr copy = root->mutableCopy();
  EXPECT_NE(copy, root);
  EXPECT_EQ(copy->objectForKey("inner").dictionary(), inner);
  copy->removeObjectForKey("list");
  EXPECT_EQ(root->count(), 2u);

  ZVArrayPtr list = root->objectForKey("list").array();
  ZVArrayPtr listCopy = list->mutableCopy();
  listCopy->add("more");
  EXPECT_EQ(list->count(), 1u);
}

// Small objects are held against the fuzzer's reference; large objects take
// another path, and so does a hostile run of one key.
TEST(JSONTest, DuplicateKeysKeepFirstPositionAndLastValue) {
  std::string wide = "{";
  for (int i = 0; i < 100; ++i) wide += fmt::format("\"k{}\":{},", i, i);
  wide += "\"k5\":\"last\"}";
  ZVDictionaryPtr dict = json(wide).dictionary();
  EXPECT_EQ(dict->count(), 100u);
  EXPECT_EQ(dict->allKeys()[5], "k5");
  EXPECT_EQ(*dict->objectForKey("k5").string(), "last");

  std::string same = "{";
  for (int i = 0; i < 200000; ++i) same += fmt::format("\"k\":{},", i);
  same += "\"k\":-1}";
  dict = json(same).dictionary();
  EXPECT_EQ(dict->count(), 1u);
  EXPECT_EQ(dict->objectForKey("k").integerValue(), -1);

  // Past the table that lets equal long keys share one text, a repeated
  // long key is two texts: still one key, in small and larger objects.
  std::string crowded = R"({"fill":{)";
  for (int i = 0; i < 1000; ++i) crowded += fmt::format("\"filling key {}\":{},", i, i);
  crowded += R"("end":0},"few":{"repeated key":1,"x":0,"repeated key":2},"many":{)";
  for (int i = 0; i < 20; ++i) crowded += fmt::format("\"another key {}\":{},", i, i);
  crowded += R"("another key 3":-3}})";
  dict = json(crowded).dictionary();
  ZVDictionaryPtr few = dict->objectForKey("few").dictionary();
  EXPECT_EQ(few->allKeys(), (std::vector<std::string>{"repeated key", "x"}));
  EXPECT_EQ(few->objectForKey("repeated key").integerValue(), 2);
  ZVDictionaryPtr many = dict->objectForKey("many").dictionary();
  EXPECT_EQ(many->count(), 20u);
  EXPECT_EQ(many->objectForKey("another key 3").integerValue(), -3);
}

TEST(JSONTest, DictionaryKeepsInsertionOrderThroughRemovals) {
  auto dict = ZVMutableDictionary::make();
  for (const char* key : {"a", "b", "c", "d"}) dict->setObject(key, key);
  dict->removeObjectForKey("b");
  dict->setObject("a", 1);              // replaced in place
  dict->setObject("b", 2);              // re-added at the end
  dict->setObject("c", ZVJSONValue());  // nil removes
  EXPECT_EQ(dict->allKeys(), (std::vector<std::string>{"a", "d", "b"}));
  EXPECT_EQ(dict->count(), 3u);
  EXPECT_TRUE(dict->objectForKey("c").isNil());

  EXPECT_EQ(*dict->getAndRemoveObjectForKey("d").string(), "d");
  EXPECT_TRUE(dict->getAndRemoveObjectForKey("d").isNil());
  EXPECT_EQ(compact(dict), R"({"a":1,"b":2})");

  // Builders follow the same rules, small or large.
  for (size_t n : {4u, 40u}) {
    std::vector<ZVMutableDictionary::Entry> entries;
    for (size_t i = 0; i < n; ++i) entries.emplace_back(fmt::format("k{}", i), int(i));
    entries.emplace_back("k0", ZVJSONValue());
    entries.emplace_back("k1", "again");
    entries.emplace_back("k0", "back");
    auto built = ZVMutableDictionary::make(std::move(entries));
    EXPECT_EQ(built->count(), n);
    EXPECT_EQ(built->allKeys().front(), "k1");
    EXPECT_EQ(built->allKeys().back(), "k0");
    EXPECT_EQ(*built->objectForKey("k1").string(), "again");
  }
}

TEST(JSONTest, PruneDropsTopLevelNullsInPlace) {
  ZVDictionaryPtr dict = json(R"({"a":null,"b":{"c":null},"d":0})").dictionary();
  ZVDictionaryPtr nestedB = dict->objectForKey("b").dictionary();
  EXPECT_EQ(dict->prune(), dict);
  EXPECT_EQ(compact(dict), R"({"b":{"c":null},"d":0})");
  EXPECT_EQ(dict->objectForKey("b").dictionary(), nestedB);
}

TEST(JSONTest, EqualityIsDeepAndTypeExact) {
  EXPECT_EQ(json(R"({"a":[1,{"b":"x"}],"c":null})"), json(R"({"c":null,"a":[1,{"b":"x"}]})"));
  EXPECT_NE(json("[1]"), json("[1.0]"));
  EXPECT_NE(json("[true]"), json("[1]"));
  EXPECT_NE(ZVJSONValue(), ZVJSONValue::null());
  EXPECT_NE(json(R"({"a":1})"), json(R"({"a":1,"b":2})"));
}

TEST(JSONTest, Descriptions) {
  struct Case {
    ZVJSONValue value;
    std::string text;
  } cases[] = {
      {ZVJSONValue(), "(null)"}, {ZVJSONValue::null(), "<null>"}, {true, "1"}, {3.0, "3"},
      {"text", "text"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.value.description(), c.text);
  // Containers print as pretty JSON does.
  const ZVJSONValue tree = json(R"({"a":[1,{"b":null}],"c":{},"d":[]})");
  const std::string pretty =
      "{\n  \"a\" : [\n    1,\n    {\n      \"b\" : null\n    }\n  ],\n"
      "  \"c\" : {},\n  \"d\" : []\n}";
  std::string out;
  EXPECT_TRUE(ZVJSONSerialize(tree, true, out));
  EXPECT_EQ(out, pretty);
  EXPECT_EQ(tree.description(), pretty);
  // People read descriptions: they never fail, even where JSON would.
  EXPECT_EQ(ZVMutableArray::make({std::string("\xff"), NAN})->description(),
            "[\n  \"\xEF\xBF\xBD\",\n  nan\n]");
}

TEST(JSONTest, ParsesConcurrentlyOnManyThreads) {
  std::vector<std::thread> threads;
  std::vector<std::string> results(4);
  for (size_t t = 0; t < results.size(); ++t)
    threads.emplace_back([t, &results] {
      for (int i = 0; i < 200; ++i) {
        ZVJSONParseResult r = ZVJSONParse(fmt::format(R"({{"t":{},"i":[{}]}})", t, i));
        if (r.ok()) ZVJSONSerialize(r.value, false, results[t]);
      }
    });
  for (auto& thread : threads) thread.join();
  for (size_t t = 0; t < results.size(); ++t)
    EXPECT_EQ(results[t], fmt::format(R"({{"t":{},"i":[199]}})", t));
}

}  // namespace
