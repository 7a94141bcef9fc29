#include "payload/Json.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace Lumo;

std::string stringOf(std::string_view text) {
  std::string json;
  AppendJsonString(json, text);
  return json;
}

std::string numberOf(double number) {
  std::string json;
  AppendJsonNumber(json, number);
  return json;
}

std::string errorOf(const std::string& text) {
  std::string error;
  EXPECT_FALSE(ParseJson(text, &error)) << text;
  EXPECT_FALSE(ParseJson(text, nullptr)) << text;
  return error;
}

TEST(JsonTest, WritesStringsThatReadBackTheSame) {
  EXPECT_EQ(stringOf(""), "\"\"");
  EXPECT_EQ(stringOf("a\"b\\c/d"), R"("a\"b\\c/d")");
  EXPECT_EQ(stringOf(std::string("\0\x1F\n\t\x7F", 5)), "\"\\u0000\\u001f\\n\\u0009\x7F\"");
  std::string all;
  for (int byte = 0; byte < 128; ++byte) all.push_back(static_cast<char>(byte));
  all += "\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80";
  const auto parsed = ParseJson(stringOf(all), nullptr);
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->asString(), all);
}

TEST(JsonTest, ReplacesWhatIsNotUtf8) {
  EXPECT_EQ(stringOf("a\xFF\xC3z"), "\"a\xEF\xBF\xBD\xEF\xBF\xBDz\"");
  EXPECT_EQ(stringOf("\xED\xA0\x80"), "\"\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\"");
}

TEST(JsonTest, WritesNumbersThatReadBackAsTheSameDouble) {
  EXPECT_EQ(numberOf(0.1), "0.1");
  EXPECT_EQ(numberOf(2), "2.0");
  EXPECT_EQ(numberOf(-0.0), "-0.0");
  EXPECT_EQ(numberOf(1e300), "1e+300");
  for (const double number : {1.0 / 3, 5e-324, std::numeric_limits<double>::max(), -2147483648.0}) {
    const auto parsed = ParseJson(numberOf(number), nullptr);
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->type(), Json::realValue);
    EXPECT_EQ(parsed->asDouble(), number);
  }
}

TEST(JsonTest, WritesNullForWhatIsNoNumber) {
  EXPECT_EQ(numberOf(std::numeric_limits<double>::infinity()), "null");
  EXPECT_EQ(numberOf(-std::numeric_limits<double>::infinity()), "null");
  EXPECT_EQ(numberOf(std::numeric_limits<double>::quiet_NaN()), "null");
}

TEST(JsonTest, ReadsOneWholeDocumentOfAnyType) {
  for (const char* text : {"{}", "[]", " [1] ", "\"text\"", "1", "-0.5e3", "true", "null"}) {
    EXPECT_TRUE(ParseJson(text, nullptr)) << text;
  }
  for (const char* text :
       {"",       " ",   "{",   "[1,]", "{\"a\":1,}", "{} {}",      "[1] x", "// c\n[]",
        "[/**/]", "nul", "NaN", "'a'",  "\"a",        "{1:2}",      "[1 2]", "+1",
        "-",      "1e",  ".5",  "tru",  "\"\\x\"",    "\"\\ud800\""}) {
    EXPECT_EQ(errorOf(text).substr(0, 15), "not valid JSON:") << text;
  }
}

TEST(JsonTest, ReadsNoNumbersAndStringsThatOthersWouldNot) {
  for (const char* text : {"0", "-0", "10", "1.5", "0.0", "1e5", "1E+5", "-1.25e-3", "[1,2.0,-3]",
                           "{\"01\":1}", "\"+1 \\\" 01\"", "[\"\\\\\",1]"}) {
    EXPECT_TRUE(ParseJson(text, nullptr)) << text;
  }
  for (const char* text : {"01", "-01", "00", "+1", "-", "1.", "1.e5", "[1,-]",
                           "{\"a\":{\"b\":01}}", "\"a\nb\"", "\"\t\"", "[\"\\\\\",01]"}) {
    EXPECT_EQ(errorOf(text).substr(0, 15), "not valid JSON:") << text;
  }
  EXPECT_EQ(errorOf(std::string("\"a\0\"", 4)).substr(0, 15), "not valid JSON:");
}

TEST(JsonTest, ReadsNoCommaBehindTheLastMember) {
  for (const char* text : {R"({"":1,})", R"({"a":{"":1 , }})", R"([{"":[1],	
}])",
                           R"({"a":1,})", "[1,]", "[[],]", "[,]", "{,}"}) {
    EXPECT_EQ(errorOf(text).substr(0, 15), "not valid JSON:") << text;
  }
  for (const char* text : {R"({"":1,"a":2})", R"({"":1 , "":2})", R"({"":",}"})"}) {
    EXPECT_TRUE(ParseJson(text, nullptr)) << text;
  }
}

TEST(JsonTest, ReadsNoNulByteAndNoByteOrderMark) {
  for (const std::string& text : {std::string("\0", 1), std::string("[]\0", 3),
                                  std::string("{}\0\"", 4), std::string("[1\0]", 4)}) {
    EXPECT_EQ(errorOf(text), "not valid JSON: a NUL byte");
  }
  EXPECT_EQ(errorOf("\xEF\xBB\xBF[]").substr(0, 15), "not valid JSON:");
}

TEST(JsonTest, AReaderReadsOneDocumentAfterAnother) {
  const JsonReader reader;
  std::string error;
  EXPECT_FALSE(reader.Read("[1, {", &error));
  EXPECT_FALSE(error.empty());
  EXPECT_FALSE(reader.Read(std::string(200, '['), &error));
  for (int number = 0; number < 3; ++number) {
    const auto parsed = reader.Read("[" + std::to_string(number) + "]", &error);
    ASSERT_TRUE(parsed) << error;
    ASSERT_EQ(parsed->size(), 1U);
    EXPECT_EQ((*parsed)[0].asInt(), number);
  }
}

TEST(JsonTest, OfMembersWithOneNameTheLastCounts) {
  const auto parsed = ParseJson(R"({"a":{"x":1},"b":2,"a":{"y":3}})", nullptr);
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->size(), 2U);
  EXPECT_EQ((*parsed)["a"].getMemberNames(), std::vector<std::string>{"y"});
}

TEST(JsonTest, DoesNotQuoteWhatItCannotRead) {
  EXPECT_EQ(errorOf(R"({"pin": 4711e})"),
            "not valid JSON: Line 1, Column 9 what stands there is not a number.");
  EXPECT_EQ(errorOf("[4711e, 4712e]").find("471"), std::string::npos);
  const std::string error = errorOf("[" + std::string(250'000, '9') + "]");
  EXPECT_EQ(error.substr(0, 15), "not valid JSON:");
  EXPECT_EQ(error.find("9999"), std::string::npos);
  EXPECT_LT(error.size(), 130U);
}

TEST(JsonTest, SaysInOneLineWhatIsWrong) {
  EXPECT_EQ(errorOf("[1,\n2"),
            "not valid JSON: Line 2, Column 2 Missing ',' or ']' in array declaration");
  EXPECT_EQ(errorOf("\"\xFF\""), "not UTF-8");
}

TEST(JsonTest, RefusesADocumentThatIsNestedTooDeep) {
  const auto nested = [](std::size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
  };
  EXPECT_TRUE(ParseJson(nested(100), nullptr));
  EXPECT_EQ(errorOf(nested(101)), "nested deeper than 100 levels");
  EXPECT_EQ(errorOf(std::string(200'000, '[')), "nested deeper than 100 levels");
}

}  // namespace
