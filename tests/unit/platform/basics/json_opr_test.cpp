#include "platform/json_opr.h"

#include <gtest/gtest.h>

#include <fstream>
#include <limits>
#include <sstream>

namespace Tessaro::Iot::Component {
namespace {

using namespace std::string_literals;

Json::Value parsed(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(JsonOpr::string_to_json(text, value)) << text;
  return value;
}

std::string written(const Json::Value& value, bool styled = false) {
  std::string text;
  EXPECT_TRUE(JsonOpr::json_to_string(value, text, styled));
  return text;
}

class RefusedJson : public testing::TestWithParam<std::string> {};

TEST_P(RefusedJson, IsRefusedAndLeavesNull) {
  Json::Value value = "former";
  EXPECT_FALSE(JsonOpr::string_to_json(GetParam(), value));
  EXPECT_TRUE(value.isNull());
  value = "former";
  std::istringstream stream(GetParam());
  EXPECT_FALSE(JsonOpr::parse(stream, value));
  EXPECT_TRUE(value.isNull());
}
INSTANTIATE_TEST_SUITE_P(Texts, RefusedJson,
                         testing::Values("", " ", "{", "[", "}", "nul", "{\"a\"}", "{\"a\":}", "{a:1}", "[1 2]",
                                         "\"open", "\"\\ud800\"", "\"\\uzzzz\"", "\xFF", "\0"s, "{\"a\":\0}"s, "x10",
                                         "NaN", "{'a':1}", std::string(1001, '['), std::string(100'000, '['),
                                         std::string(1001, '[') + std::string(1001, ']'),
                                         std::string(100'000, '[') + std::string(100'000, ']')));

TEST(JsonOpr, ReadsNothingFromAFileThatIsNotThere) {
  std::ifstream stream("/nonexistent", std::ios::binary);
  Json::Value value = "former";
  EXPECT_FALSE(JsonOpr::parse(stream, value));
  EXPECT_TRUE(value.isNull());
}

TEST(JsonOpr, ReadsTheSameFromAStream) {
  std::istringstream stream("[1, {\"a\": \"b\"}]");
  Json::Value value;
  ASSERT_TRUE(JsonOpr::parse(stream, value));
  EXPECT_EQ(written(value), "[1,{\"a\":\"b\"}]");
}

TEST(JsonOpr, AThrowingStreamIsARefusedText) {
  std::istringstream stream("[1");
  stream.exceptions(std::ios::failbit | std::ios::badbit | std::ios::eofbit);
  Json::Value value = "former";
  EXPECT_FALSE(JsonOpr::parse(stream, value));
  EXPECT_TRUE(value.isNull());
}

TEST(JsonOpr, IsAsLenientAsItsParser) {
  EXPECT_EQ(written(parsed("// a comment\n{\"a\":1 /* and one */, \"a\":2,} trailing")), "{\"a\":2}");
  EXPECT_EQ(written(parsed("[1,2,]")), "[1,2]");
  EXPECT_EQ(written(parsed("7")), "7");
  EXPECT_EQ(written(parsed("null")), "null");
}

TEST(JsonOpr, AcceptsTheDeepestNestingOfItsParser) {
  constexpr int depth = 999;
  EXPECT_EQ(written(parsed(std::string(depth, '[') + std::string(depth, ']'))).size(), 2U * depth);
}

TEST(JsonOpr, WritesOneLineOrIndented) {
  Json::Value reply;
  reply["code"] = 0;
  reply["message"] = "Success";
  EXPECT_EQ(written(reply), "{\"code\":0,\"message\":\"Success\"}");
  EXPECT_EQ(written(reply, true), "{\n  \"code\" : 0,\n  \"message\" : \"Success\"\n}");
}

TEST(JsonOpr, WritesAnyTextWithoutNewLinesOrRawBytes) {
  Json::Value value;
  value["text"] = "a\nb\x01\xFF\xC3\xA4";
  const std::string text = written(value);
  for (const char byte : text) EXPECT_TRUE(byte >= 0x20 && byte < 0x7F) << text;
}

const char* const members = R"({
  "text": "t", "empty": "", "nul": "a\u0000b", "half": "\udc00", "int": 7, "negative": -7, "whole": 1.0, "part": 1.5,
  "true": true, "false": false, "null": null, "array": [1], "object": {"a": 1},
  "max": 2147483647, "over": 2147483648, "min": -2147483648, "under": -2147483649,
  "u64": 18446744073709551615, "huge": 99999999999999999999999999, "exponent": 1e300, "small": 1e-300
})";

TEST(JsonOpr, GivesStringsAndOnlyStrings) {
  const Json::Value value = parsed(members);
  EXPECT_EQ(JsonOpr::get_json_value(value, "text", "d"), "t");
  EXPECT_EQ(JsonOpr::get_json_value(value, "text", "d"s), "t");
  EXPECT_EQ(JsonOpr::get_json_value(value, "empty", "d"), "");
  EXPECT_EQ(JsonOpr::get_json_value(value, "nul", "d"), "a\0b"s);
  EXPECT_EQ(JsonOpr::get_json_value(value, "half", "d"), "\xED\xB0\x80");
  for (const char* key : {"missing", "int", "part", "true", "null", "array", "object"}) {
    EXPECT_EQ(JsonOpr::get_json_value(value, key, "d"), "d") << key;
  }
}

TEST(JsonOpr, GivesWholeNumbersThatFitAsInt) {
  const Json::Value value = parsed(members);
  EXPECT_EQ(JsonOpr::get_json_value(value, "int", 5), 7);
  EXPECT_EQ(JsonOpr::get_json_value(value, "negative", 5), -7);
  EXPECT_EQ(JsonOpr::get_json_value(value, "whole", 5), 1);
  EXPECT_EQ(JsonOpr::get_json_value(value, "max", 5), std::numeric_limits<int32_t>::max());
  EXPECT_EQ(JsonOpr::get_json_value(value, "min", 5), std::numeric_limits<int32_t>::min());
  for (const char* key : {"missing", "text", "part", "true", "false", "null", "array", "object", "over", "under", "u64",
                          "huge", "exponent", "small"}) {
    EXPECT_EQ(JsonOpr::get_json_value(value, key, 5), 5) << key;
  }
}

TEST(JsonOpr, GivesAnyNumberAsDouble) {
  const Json::Value value = parsed(members);
  EXPECT_EQ(JsonOpr::get_json_value(value, "int", 0.5), 7.0);
  EXPECT_EQ(JsonOpr::get_json_value(value, "part", 0.5), 1.5);
  EXPECT_EQ(JsonOpr::get_json_value(value, "u64", 0.5), 18446744073709551615.0);
  EXPECT_EQ(JsonOpr::get_json_value(value, "huge", 0.5), 1e26);
  EXPECT_EQ(JsonOpr::get_json_value(value, "exponent", 0.5), 1e300);
  for (const char* key : {"missing", "text", "true", "false", "null", "array", "object"}) {
    EXPECT_EQ(JsonOpr::get_json_value(value, key, 0.5), 0.5) << key;
  }
}

TEST(JsonOpr, ANumberBeyondAllRangesDoesNoHarm) {
  Json::Value value;
  if (JsonOpr::string_to_json("{\"a\": 1e999}", value)) {
    EXPECT_EQ(JsonOpr::get_json_value(value, "a", 5), 5);
    (void)JsonOpr::get_json_value(value, "a", 0.5);  // whatever it is
  }
}

TEST(JsonOpr, GivesMembersAsTheyAre) {
  const Json::Value value = parsed(members);
  EXPECT_EQ(written(JsonOpr::get_json_value(value, "object")), "{\"a\":1}");
  EXPECT_TRUE(JsonOpr::get_json_value(value, "missing").isNull());
  EXPECT_TRUE(JsonOpr::is_json_array(value, "array"));
  for (const char* key : {"missing", "text", "int", "true", "null", "object"}) {
    EXPECT_FALSE(JsonOpr::is_json_array(value, key)) << key;
  }
}

class NonObject : public testing::TestWithParam<const char*> {};

TEST_P(NonObject, HasNoMembers) {
  const Json::Value value = parsed(GetParam());
  EXPECT_EQ(JsonOpr::get_json_value(value, "a", "d"), "d");
  EXPECT_EQ(JsonOpr::get_json_value(value, "a", 5), 5);
  EXPECT_EQ(JsonOpr::get_json_value(value, "a", 0.5), 0.5);
  EXPECT_TRUE(JsonOpr::get_json_value(value, "a").isNull());
  EXPECT_FALSE(JsonOpr::is_json_array(value, "a"));
}
INSTANTIATE_TEST_SUITE_P(Values, NonObject, testing::Values("[]", "[{\"a\":1}]", "\"a\"", "1", "1.5", "true", "null"));

}  // namespace
}  // namespace Tessaro::Iot::Component
