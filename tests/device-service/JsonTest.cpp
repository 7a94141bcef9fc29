#include "payload/Json.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <clocale>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace Lumo;
using ::testing::ElementsAre;

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

// What a document holds, a line for every value: kind, depth, name, text.
std::vector<std::string> itemsOf(const std::string& text) {
  constexpr std::string_view kKinds = "nbirsao";  // in the order of JsonKind
  std::vector<std::string> items;
  const std::string error = ReadJson(text, [&](const JsonItem& item) {
    items.push_back(kKinds[static_cast<std::size_t>(item.kind)] + std::to_string(item.depth) + " " +
                    std::string(item.name) + ": " + std::string(item.text));
  });
  EXPECT_EQ(error, "") << text;
  return items;
}

std::string stringIn(const std::string& json) {
  std::string string;
  const std::string error = ReadJson(json, [&](const JsonItem& item) {
    EXPECT_EQ(item.kind, JsonKind::String);
    string = item.text;
  });
  EXPECT_EQ(error, "") << json;
  return string;
}

double realIn(const std::string& json) {
  double real = 0;
  const std::string error = ReadJson(json, [&](const JsonItem& item) {
    EXPECT_EQ(item.kind, JsonKind::Real);
    real = item.real;
  });
  EXPECT_EQ(error, "") << json;
  return real;
}

std::string errorOf(const std::string& text) {
  EXPECT_FALSE(IsJson(text)) << text;
  return ReadJson(text, [](const JsonItem&) {});
}

bool isRefusedAsInvalid(const std::string& text) {
  return errorOf(text).rfind("not valid JSON: ", 0) == 0;
}

TEST(JsonTest, WritesStringsThatReadBackTheSame) {
  EXPECT_EQ(stringOf(""), "\"\"");
  EXPECT_EQ(stringOf("a\"b\\c/d"), R"("a\"b\\c/d")");
  EXPECT_EQ(stringOf(std::string("\0\x1F\n\t\x7F", 5)), "\"\\u0000\\u001f\\n\\u0009\x7F\"");
  std::string all;
  for (int byte = 0; byte < 128; ++byte) all.push_back(static_cast<char>(byte));
  all += "\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80";
  EXPECT_EQ(stringIn(stringOf(all)), all);
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
    EXPECT_EQ(realIn(numberOf(number)), number);
  }
}

TEST(JsonTest, WritesNullForWhatIsNoNumber) {
  EXPECT_EQ(numberOf(std::numeric_limits<double>::infinity()), "null");
  EXPECT_EQ(numberOf(-std::numeric_limits<double>::infinity()), "null");
  EXPECT_EQ(numberOf(std::numeric_limits<double>::quiet_NaN()), "null");
}

TEST(JsonTest, TellsOfEveryValueBehindWhatItHolds) {
  EXPECT_THAT(itemsOf(" null "), ElementsAre("n0 : null"));
  EXPECT_THAT(itemsOf(R"({"a":[true,{}, "x"],"b":{"c": -1.50e1},"":0})"),
              ElementsAre("b2 : true", "o2 : {}", "s2 : x", "a1 a: [true,{}, \"x\"]",
                          "r2 c: -1.50e1", R"(o1 b: {"c": -1.50e1})", "i1 : 0",
                          R"(o0 : {"a":[true,{}, "x"],"b":{"c": -1.50e1},"":0})"));
}

TEST(JsonTest, ResolvesTheEscapesOfNamesAndStringsAndKeepsThemInWhatIsWritten) {
  EXPECT_THAT(itemsOf(R"({"\u0061\n":"\"\\\/\b\f\n\r\t\u00e9\ud83d\ude00"})"),
              ElementsAre("s1 a\n: \"\\/\b\f\n\r\t\xC3\xA9\xF0\x9F\x98\x80",
                          R"(o0 : {"\u0061\n":"\"\\\/\b\f\n\r\t\u00e9\ud83d\ude00"})"));
  EXPECT_THAT(itemsOf(R"(["\u0061",["\u0062"],{"\u0063":"\u0064"}])"),
              ElementsAre("s1 : a", "s2 : b", R"(a1 : ["\u0062"])", "s2 c: d",
                          R"(o1 : {"\u0063":"\u0064"})",
                          R"(a0 : ["\u0061",["\u0062"],{"\u0063":"\u0064"}])"));
  EXPECT_EQ(stringIn(R"("a\u0000b")"), std::string("a\0b", 3));
}

// A string is read in blocks, whose size is the processor's.
constexpr std::size_t kSomeBlocks = 70;

TEST(JsonTest, ReadsACharacterTheSameAtEveryPlaceOfAString) {
  const std::vector<std::vector<std::string>> characters = {
      {R"(\")", "\""},
      {R"(\\)", "\\"},
      {R"(\n)", "\n"},
      {R"(\u00e9)", "\xC3\xA9"},
      {" ", " "},
      {"!", "!"},
      {"\x7F", "\x7F"},
      {"\xC2\x80", "\xC2\x80"},
      {"\xE2\x82\xAC", "\xE2\x82\xAC"},
      {"\xF4\x8F\xBF\xBF", "\xF4\x8F\xBF\xBF"}};
  for (const auto& character : characters) {
    for (std::size_t place = 0; place < kSomeBlocks; ++place) {
      const std::string before(place, 'a');
      const std::string after(kSomeBlocks - place, '[');
      EXPECT_EQ(stringIn('"' + before + character[0] + after + '"'), before + character[1] + after);
      // After an escape a string is no longer where it was written.
      EXPECT_EQ(stringIn("\"\\t" + before + character[0] + after + '"'),
                '\t' + before + character[1] + after);
    }
  }
}

TEST(JsonTest, ReadsNoControlCharacterAtAnyPlaceOfAString) {
  for (char control = 1; control < ' '; ++control) {
    for (std::size_t place = 0; place < kSomeBlocks; ++place) {
      const std::string text = std::string(place, 'a') + control + std::string(kSomeBlocks, '~');
      EXPECT_TRUE(isRefusedAsInvalid('"' + text + '"')) << place;
      EXPECT_TRUE(isRefusedAsInvalid("{\"\\n" + text + "\":1}")) << place;
    }
  }
}

TEST(JsonTest, ReadsNoStringWithoutAnEnd) {
  for (std::size_t length = 0; length < kSomeBlocks; ++length) {
    EXPECT_TRUE(isRefusedAsInvalid('"' + std::string(length, 'a'))) << length;
    EXPECT_TRUE(isRefusedAsInvalid('"' + std::string(length, 'a') + '\\')) << length;
    EXPECT_TRUE(isRefusedAsInvalid("[\"\\n" + std::string(length, 'a'))) << length;
  }
}

TEST(JsonTest, NamesAndStringsAreGoodUntilTheDocumentIsRead) {
  std::vector<std::string_view> texts;
  std::vector<std::string> copies;
  EXPECT_EQ(ReadJson(R"({"\u0061":"\u0062","c\n":["\u00e9",{"d":"e"}]})",
                     [&](const JsonItem& item) {
                       for (const std::string_view text : {item.name, item.text}) {
                         texts.push_back(text);
                         copies.emplace_back(text);
                       }
                       EXPECT_TRUE(std::equal(texts.begin(), texts.end(), copies.begin()));
                     }),
            "");
  EXPECT_EQ(copies.size(), 12U);
}

TEST(JsonTest, ReadsOneWholeDocumentOfAnyType) {
  for (const char* text : {"{}", "[]", " [1] ", "\"text\"", "1", "-0.5e3", "true", "null"}) {
    EXPECT_TRUE(IsJson(text)) << text;
  }
  for (const char* text :
       {"",         " ",           "{",     "[1,]", "{\"a\":1,}", "{} {}",     "[1] x",
        "nul",      "NaN",         "'a'",   "\"a",  "+1",         "-",         "{1:2}",
        "[1 2]",    "1e",          ".5",    "tru",  "[\v1]",      "[\f]",      "-Infinity",
        "\"\\x\"",  "\"\\ud800\"", "True",  "[1]]", "{\"a\"}",    "\"\\u12\"", "\xC2\xA0[]",
        "{\"a\":}", "{\"a\" 1}",   "[-NaN]"}) {
    EXPECT_TRUE(isRefusedAsInvalid(text)) << text;
  }
}

TEST(JsonTest, ReadsNoComments) {
  for (const char* text : {"// c\n[]", "[/**/]", "[] // c", "/**/1", "[1/*\"*/,2/*\"*/]",
                           R"({"qz":"x"/*"*/,"a":01/*"*/})", R"({"a"/**/:1})", "# c\n[]"}) {
    EXPECT_TRUE(isRefusedAsInvalid(text)) << text;
  }
  for (const char* text : {R"(["/**/","//"])", R"({"/*":"*/"})"}) EXPECT_TRUE(IsJson(text)) << text;
}

TEST(JsonTest, ReadsNoNumbersAndStringsThatOthersWouldNot) {
  for (const char* text : {"0", "-0", "10", "1.5", "0.0", "1e5", "1E+5", "-1.25e-3", "[1,2.0,-3]",
                           "{\"01\":1}", "\"+1 \\\" 01\"", "[\"\\\\\",1]"}) {
    EXPECT_TRUE(IsJson(text)) << text;
  }
  for (const char* text :
       {"01", "-01", "00", "+1", "-", "1.", "1.e5", "[1,-]", "1e+", "0x10", "1_000", "--1", "1.5.",
        "{\"a\":{\"b\":01}}", "\"a\nb\"", "\"\t\"", "\"\x1F\"", "[\"\\\\\",01]", "{\"a\tb\":1}"}) {
    EXPECT_TRUE(isRefusedAsInvalid(text)) << text;
  }
  EXPECT_TRUE(isRefusedAsInvalid(std::string("\"a\0\"", 4)));
}

TEST(JsonTest, ReadsNoCommaBehindTheLastMember) {
  for (const char* text : {R"({"":1,})", R"({"a":{"":1 , }})", R"([{"":[1],	
}])",
                           R"({"a":1,})", "[1,]", "[[],]", "[,]", "{,}", "[1,,2]"}) {
    EXPECT_TRUE(isRefusedAsInvalid(text)) << text;
  }
  for (const char* text : {R"({"":1,"a":2})", R"({"":1 , "":2})", R"({"":",}"})"}) {
    EXPECT_TRUE(IsJson(text)) << text;
  }
}

TEST(JsonTest, ReadsNoNulByteAndNoByteOrderMark) {
  for (const std::string& text : {std::string("\0", 1), std::string("[]\0", 3),
                                  std::string("{}\0\"", 4), std::string("[1\0]", 4)}) {
    EXPECT_EQ(errorOf(text), "not valid JSON: a NUL byte");
  }
  EXPECT_TRUE(isRefusedAsInvalid("\xEF\xBB\xBF[]"));
}

TEST(JsonTest, ReadsOnlyUtf8) {
  for (const std::string bytes :
       {"\xFF", "\x80", "\xC3", "\xC0\x80", "\xED\xA0\x80", "\xF4\x90\x80\x80"}) {
    for (const std::string& text :
         {'"' + bytes + '"', "[\"" + bytes + "\\u00e9\"]", "{\"" + bytes + "\":1}",
          "{\"a\":{\"b\":\"" + bytes + "\"}}", "[" + bytes + "]", "{\"a\":\"" + bytes}) {
      EXPECT_EQ(errorOf(text), "not UTF-8");
    }
  }
}

TEST(JsonTest, ReadsNoHalfOfASurrogatePair) {
  for (const char* text : {R"("\ud800")", R"("\ud800\u0061")", R"("\ud800\ud800")", R"("\ud83dx")",
                           R"("\udc00")", R"({"\udc00":1})", R"([{"a":"\udfff\ud800"}])"}) {
    EXPECT_NE(errorOf(text), "") << text;
  }
  EXPECT_EQ(errorOf(R"([{"a":["\udc00"]}])"), "not a Unicode text");
  EXPECT_EQ(errorOf(R"([{"\udc00":1}])"), "not a Unicode text");
}

TEST(JsonTest, RefusesANumberBeyondADouble) {
  for (const char* text : {"1e999", "-1e999", "1.8e308", "[{\"a\":1e309}]",
                           "1.7976931348623159e308", "123456789e999999999999999999999"}) {
    EXPECT_EQ(errorOf(text), "a number beyond a double") << text;
  }
  EXPECT_EQ(errorOf(std::string(400, '9')), "a number beyond a double");
  // The reader takes these: each rounds to a double that is not finite.
  const std::string integer = "17976931348623159" + std::string(292, '0');
  EXPECT_EQ(errorOf(integer), "a number beyond a double");
  EXPECT_EQ(errorOf("{\"a\":[-" + integer + "]}"), "a number beyond a double");
  const std::string largest = "17976931348623157" + std::string(292, '0');
  EXPECT_TRUE(IsJson(largest));
  EXPECT_TRUE(IsJson("[-" + largest + "]"));
  EXPECT_EQ(realIn("1.7976931348623157e308"), std::numeric_limits<double>::max());
  EXPECT_EQ(realIn("1e-999"), 0);
  EXPECT_EQ(realIn("-1e-99999999999999999999"), 0);
  EXPECT_EQ(realIn("0." + std::string(400, '0') + "1e401"), 1);
  EXPECT_TRUE(IsJson(std::string(300, '9')));
}

// What a sum in binary arithmetic gets wrong.
TEST(JsonTest, ReadsARealNumberAsTheDoubleNextToIt) {
  EXPECT_EQ(realIn("9007199254740993.0"), 9007199254740992.0);
  EXPECT_EQ(realIn("9007199254740993.0000000000000000000000000000000001"), 9007199254740994.0);
  EXPECT_EQ(realIn("1.2345678901234567e22"), 0x1.4ea15b273b38ap+73);
  EXPECT_EQ(realIn("2.2250738585072011e-308"), 0x0.fffffffffffffp-1022);
  EXPECT_EQ(realIn("5e-324"), std::numeric_limits<double>::denorm_min());
}

TEST(JsonTest, ReadsNumbersTheSameInEveryLocale) {
  const char* const before = std::setlocale(LC_NUMERIC, nullptr);
  const std::string locale = before;
  for (const char* name : {"de_DE.UTF-8", "fr_FR.UTF-8", "C.UTF-8"}) {
    if (std::setlocale(LC_NUMERIC, name) == nullptr) continue;
    EXPECT_EQ(realIn("1.5"), 1.5);
  }
  std::setlocale(LC_NUMERIC, locale.c_str());
}

TEST(JsonTest, DoesNotQuoteWhatItCannotRead) {
  EXPECT_EQ(errorOf(R"({"pin": 4711e})"), "not valid JSON: byte 14: Miss exponent in number.");
  EXPECT_EQ(errorOf("[4711e, 4712e]").find("471"), std::string::npos);
  for (const char* text : {"{\"s3cret\" s3cret", "[s3cret]", "\"s3cret", "\"s3cret\\q\"",
                           "\"s3cret\" \"s3cret\"", "\"s3cret\xFF\"", "{s3cret:1}"}) {
    EXPECT_EQ(errorOf(text).find("s3cret"), std::string::npos) << text;
  }
  const std::string error = errorOf("[" + std::string(250'000, '9') + "]");
  EXPECT_EQ(error.find("9999"), std::string::npos);
  EXPECT_LT(error.size(), 130U);
}

TEST(JsonTest, SaysInOneLineWhatIsWrong) {
  EXPECT_EQ(errorOf("[1,\n2"),
            "not valid JSON: byte 6: Missing a comma or ']' after an array element.");
  EXPECT_EQ(errorOf(""), "not valid JSON: byte 1: The document is empty.");
}

TEST(JsonTest, RefusesADocumentThatIsNestedTooDeep) {
  const auto nested = [](std::size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
  };
  EXPECT_TRUE(IsJson(nested(100)));
  EXPECT_EQ(errorOf(nested(101)), "nested deeper than 100 levels");
  EXPECT_EQ(errorOf(std::string(200'000, '[')), "nested deeper than 100 levels");
  std::string objects;
  for (int depth = 0; depth < 101; ++depth) objects += "{\"a\":";
  EXPECT_EQ(errorOf(objects), "nested deeper than 100 levels");
}

}  // namespace
