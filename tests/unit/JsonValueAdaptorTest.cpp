#include "JsonValueAdaptor.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "PlatformTest.h"

namespace ThingCommon {
namespace {

using Adaptor = JsonValueAdaptor;

constexpr std::size_t kMebibyte = 1 << 20;

const std::vector<std::pair<Adaptor::_Type, Json::ValueType>> kPairs = {
    {Adaptor::TYPE_NULL, Json::nullValue},     {Adaptor::TYPE_BOOL, Json::booleanValue},
    {Adaptor::TYPE_INT, Json::intValue},       {Adaptor::TYPE_UINT, Json::uintValue},
    {Adaptor::TYPE_REAL, Json::realValue},     {Adaptor::TYPE_STRING, Json::stringValue},
    {Adaptor::TYPE_OBJECT, Json::objectValue}, {Adaptor::TYPE_ARRAY, Json::arrayValue},
};

// The line that HandleException logs.
ExpectedLog ExceptionLine(const std::string& message) {
  return {6, "THING_COMMON", "JsonValueAdaptor.cpp", "HandleException", message};
}

// JsonCpp's own error for `text`, in its own words.
std::string ParseError(const std::string& text) {
  Json::Value value;
  std::istringstream stream(text);
  try {
    stream >> value;
  } catch (const Json::Exception& e) {
    return e.what();
  }
  return "no error at all";
}

class JsonValueAdaptorTest : public PlatformTest {
 protected:
  // Parses `text`, which JsonCpp refuses, and checks that the one line about it is there.
  Adaptor CreateFromInvalid(const std::string& text) {
    Adaptor result;
    EXPECT_NO_THROW(result = Adaptor::Create(text));
    EXPECT_EQ(platform.Logs().size(), 1U);
    EXPECT_TRUE(LoggedOnce(ExceptionLine("[] json exception: " + ParseError(text) + "\n")));
    return result;
  }
};

TEST_F(JsonValueAdaptorTest, AddsNothingToAJsonValue) {
  static_assert(std::is_base_of_v<Json::Value, Adaptor>);
  static_assert(std::is_convertible_v<const Adaptor*, const Json::Value*>);
  static_assert(sizeof(Adaptor) == sizeof(Json::Value));
  static_assert(!std::is_polymorphic_v<Adaptor>);
  static_assert(sizeof(Adaptor::_Type) == sizeof(int));
  // A tag that became a value without being asked to would be taken for a number elsewhere.
  static_assert(!std::is_convertible_v<Adaptor::_Type, Adaptor>);
}

TEST_F(JsonValueAdaptorTest, IsNullByDefault) {
  const Adaptor adaptor;
  EXPECT_EQ(adaptor.Type(), Adaptor::TYPE_NULL);
  EXPECT_EQ(adaptor.ToString(false), "null");
}

TEST_F(JsonValueAdaptorTest, IsACopyOfTheJsonValueItIsBuiltFrom) {
  Json::Value value;
  value["a"][0] = 1;
  const Adaptor adaptor(value);
  value["a"][0] = 2;
  EXPECT_EQ(adaptor.ToString(false), R"({"a":[1]})");
}

TEST_F(JsonValueAdaptorTest, CopiesMovesAndAssignsAsAJsonValue) {
  Adaptor first(Json::Value("text"));
  Adaptor copy(first);
  const Adaptor moved(std::move(first));
  EXPECT_EQ(copy.asString(), "text");
  EXPECT_EQ(moved.asString(), "text");
  copy = Json::Value(true);
  EXPECT_EQ(copy.Type(), Adaptor::TYPE_BOOL);
  std::map<std::string, Adaptor> table;
  table["x"] = copy;
  EXPECT_TRUE(table["x"].asBool());
}

TEST_F(JsonValueAdaptorTest, NumbersItsTypesAsTheTablesOfOthersExpect) {
  EXPECT_EQ(static_cast<int>(Adaptor::TYPE_NULL), 0);
  EXPECT_EQ(static_cast<int>(Adaptor::TYPE_BOOL), 1);
  EXPECT_EQ(static_cast<int>(Adaptor::TYPE_INT), 2);
  EXPECT_EQ(static_cast<int>(Adaptor::TYPE_UINT), 3);
  EXPECT_EQ(static_cast<int>(Adaptor::TYPE_REAL), 4);
  EXPECT_EQ(static_cast<int>(Adaptor::TYPE_STRING), 5);
  EXPECT_EQ(static_cast<int>(Adaptor::TYPE_OBJECT), 6);
  EXPECT_EQ(static_cast<int>(Adaptor::TYPE_ARRAY), 7);
}

TEST_F(JsonValueAdaptorTest, IsTheEmptyValueOfTheTypeItIsBuiltFrom) {
  for (const auto& [type, jsonType] : kPairs) {
    const Adaptor adaptor(type);
    EXPECT_EQ(adaptor.Type(), type);
    EXPECT_EQ(static_cast<const Json::Value&>(adaptor), Json::Value(jsonType)) << type;
  }
  EXPECT_EQ(Adaptor(Adaptor::TYPE_NULL).ToString(false), "null");
  EXPECT_EQ(Adaptor(Adaptor::TYPE_BOOL).ToString(false), "false");
  EXPECT_EQ(Adaptor(Adaptor::TYPE_INT).ToString(false), "0");
  EXPECT_EQ(Adaptor(Adaptor::TYPE_UINT).ToString(false), "0");
  EXPECT_EQ(Adaptor(Adaptor::TYPE_REAL).ToString(false), "0.0");
  EXPECT_EQ(Adaptor(Adaptor::TYPE_STRING).ToString(false), "\"\"");
  EXPECT_EQ(Adaptor(Adaptor::TYPE_OBJECT).ToString(false), "{}");
  EXPECT_EQ(Adaptor(Adaptor::TYPE_ARRAY).ToString(false), "[]");
}

TEST_F(JsonValueAdaptorTest, TellsTheTypeOfTheValueItHoldsNow) {
  Adaptor adaptor(Adaptor::TYPE_BOOL);
  adaptor = Json::Value(1.5);
  EXPECT_EQ(adaptor.Type(), Adaptor::TYPE_REAL);
  adaptor = Json::Value(Json::arrayValue);
  EXPECT_EQ(adaptor.Type(), Adaptor::TYPE_ARRAY);
}

TEST_F(JsonValueAdaptorTest, TurnsEachTypeIntoItsPairAndBack) {
  for (const auto& [type, jsonType] : kPairs) {
    EXPECT_EQ(Adaptor::ConvertType(type), jsonType);
    EXPECT_EQ(Adaptor::GetType(jsonType), type);
    EXPECT_EQ(Adaptor::GetType(Adaptor::ConvertType(type)), type);
  }
}

TEST_F(JsonValueAdaptorTest, GivesZeroForTypesOutsideTheTables) {
  for (const int number : {8, 99, -1}) {
    EXPECT_EQ(Adaptor::ConvertType(static_cast<Adaptor::_Type>(number)), Json::nullValue);
    EXPECT_EQ(Adaptor::GetType(static_cast<Json::ValueType>(number)), Adaptor::TYPE_NULL);
  }
  EXPECT_TRUE(Adaptor(static_cast<Adaptor::_Type>(8)).isNull());
  EXPECT_TRUE(platform.Logs().empty());
}

// Not constant, so that the compiler does not object to a type that is none.
Json::ValueType JsonType(int number) {
  return static_cast<Json::ValueType>(number);
}

bool TablesAreComplete() {
  for (const auto& [type, jsonType] : kPairs) {
    if (Adaptor::ConvertType(type) != jsonType || Adaptor::GetType(jsonType) != type) return false;
  }
  return true;
}

// Both look at the first look-up of a process, and so need one of their own.
class JsonValueAdaptorFirstUseTest : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(JsonValueAdaptorFirstUseTest, FillsTheTablesWhateverIsLookedUpFirst) {
  const auto lookUp = [] {
    Adaptor::ConvertType(static_cast<Adaptor::_Type>(8));
    Adaptor::GetType(JsonType(8));
    std::_Exit(TablesAreComplete() ? 0 : 1);
  };
  EXPECT_EXIT(lookUp(), ::testing::ExitedWithCode(0), "");
}

TEST_F(JsonValueAdaptorFirstUseTest, FillsTheTablesOnceForSeveralThreads) {
  const auto lookUp = [] {
    std::vector<std::thread> threads;
    std::vector<char> complete(4);
    for (char& own : complete) {
      threads.emplace_back([&own] { own = TablesAreComplete() ? 1 : 0; });
    }
    for (std::thread& thread : threads) thread.join();
    // By the ordinary way out, so that a race detector can still object.
    std::exit(complete == std::vector<char>(4, 1) ? 0 : 1);
  };
  EXPECT_EXIT(lookUp(), ::testing::ExitedWithCode(0), "");
}

TEST_F(JsonValueAdaptorTest, WritesCompactTextInOneLineWithoutBlanks) {
  Json::Value value;
  value["b"] = Json::Value(Json::arrayValue);
  value["b"].append(1);
  value["b"].append("two words");
  value["a"]["c"] = Json::Value();
  EXPECT_EQ(Adaptor::ToString(value, false), R"({"a":{"c":null},"b":[1,"two words"]})");
  EXPECT_EQ(Adaptor(value).ToString(false), Adaptor::ToString(value, false));
}

TEST_F(JsonValueAdaptorTest, WritesNoCommentsIntoCompactText) {
  Json::Value value(1);
  value.setComment(std::string("// why"), Json::commentBefore);
  EXPECT_EQ(Adaptor::ToString(value, false), "1");
}

TEST_F(JsonValueAdaptorTest, WritesStyledTextInIndentedLinesWithALineFeedAtTheEnd) {
  Json::Value value;
  value["a"]["b"] = 1;
  const std::string text = Adaptor::ToString(value, true);
  EXPECT_EQ(text, value.toStyledString());
  EXPECT_NE(text.find("\n\t"), std::string::npos);
  EXPECT_EQ(text.back(), '\n');
  EXPECT_EQ(Adaptor(value).ToString(true), text);
}

TEST_F(JsonValueAdaptorTest, WritesTextForInvalidUtf8AndNuls) {
  const std::string bytes("a\0\xff", 3);
  std::string text;
  EXPECT_NO_THROW(text = Adaptor::ToString(Json::Value(bytes), false));
  EXPECT_EQ(text.find('\0'), std::string::npos);
  EXPECT_EQ(text.find('\xff'), std::string::npos);
  EXPECT_EQ(text.rfind("\"a\\u0000", 0), 0U) << text;
}

TEST_F(JsonValueAdaptorTest, ParsesADocumentWhole) {
  const std::string text =
      "{ \"s\" : \"x\\u0000y\",\n \"a\" : [1, -2, 2.5, true, null], \"o\" : {} }";
  const Adaptor adaptor = Adaptor::Create(text);
  EXPECT_EQ(adaptor.ToString(false), R"({"a":[1,-2,2.5,true,null],"o":{},"s":"x\u0000y"})");
  EXPECT_EQ(adaptor["s"].asString(), std::string("x\0y", 3));
  EXPECT_TRUE(platform.Logs().empty());
}

TEST_F(JsonValueAdaptorTest, ParsesValuesThatAreNoObjects) {
  EXPECT_EQ(Adaptor::Create("-1").Type(), Adaptor::TYPE_INT);
  EXPECT_EQ(Adaptor::Create("\"s\"").Type(), Adaptor::TYPE_STRING);
  EXPECT_EQ(Adaptor::Create("[]").Type(), Adaptor::TYPE_ARRAY);
  EXPECT_EQ(Adaptor::Create("null").Type(), Adaptor::TYPE_NULL);
  EXPECT_TRUE(platform.Logs().empty());
}

TEST_F(JsonValueAdaptorTest, GivesNullForABareWordAndLogsOnce) {
  EXPECT_EQ(CreateFromInvalid("hello").Type(), Adaptor::TYPE_NULL);
}

TEST_F(JsonValueAdaptorTest, GivesNullForEmptyTextAndLogsOnce) {
  EXPECT_EQ(CreateFromInvalid("").Type(), Adaptor::TYPE_NULL);
}

TEST_F(JsonValueAdaptorTest, KeepsWhatWasParsedBeforeAnError) {
  const Adaptor adaptor = CreateFromInvalid(R"({"a":1,"b":[2,)");
  EXPECT_EQ(adaptor.Type(), Adaptor::TYPE_OBJECT);
  EXPECT_EQ(adaptor["a"], Json::Value(1));
  EXPECT_EQ(adaptor["b"][0], Json::Value(2));
}

TEST_F(JsonValueAdaptorTest, RefusesDeeperNestingThanTheParserAllows) {
  const Adaptor adaptor = CreateFromInvalid(std::string(100'000, '['));
  EXPECT_NO_THROW(adaptor.ToString(false));
}

TEST_F(JsonValueAdaptorTest, TakesTheLastOfTwoMembersOfOneName) {
  EXPECT_EQ(Adaptor::Create(R"({"a":1,"a":2})").ToString(false), R"({"a":2})");
}

TEST_F(JsonValueAdaptorTest, ParsesAnEmptyName) {
  EXPECT_EQ(Adaptor::Create(R"({"":1})")[""], Json::Value(1));
}

TEST_F(JsonValueAdaptorTest, ParsesNumbersOutside32Bits) {
  EXPECT_EQ(Adaptor::Create("2147483648").asInt64(), 2147483648);
  EXPECT_EQ(Adaptor::Create("18446744073709551615").Type(), Adaptor::TYPE_UINT);
  EXPECT_EQ(Adaptor::Create("18446744073709551616").Type(), Adaptor::TYPE_REAL);
  EXPECT_TRUE(platform.Logs().empty());
}

TEST_F(JsonValueAdaptorTest, ParsesAndWritesAMebibyte) {
  const std::string text = "\"" + std::string(kMebibyte, 'x') + "\"";
  EXPECT_EQ(Adaptor::Create(text).ToString(false), text);
}

TEST_F(JsonValueAdaptorTest, ParsesAndWritesTenThousandEntries) {
  std::string text = "[";
  for (int i = 0; i < 10'000; ++i) text += (i == 0 ? "" : ",") + std::to_string(i);
  text += "]";
  EXPECT_EQ(Adaptor::Create(text).ToString(false), text);
}

TEST_F(JsonValueAdaptorTest, RunsAJobOnceAndLogsNothing) {
  int runs = 0;
  Adaptor::HandleException([&runs] { ++runs; }, "tag");
  EXPECT_EQ(runs, 1);
  EXPECT_TRUE(platform.Logs().empty());
}

TEST_F(JsonValueAdaptorTest, LogsAJsonExceptionAsSuch) {
  EXPECT_NO_THROW(Adaptor::HandleException([] { throw Json::LogicError("broken"); }, "tag"));
  ASSERT_EQ(platform.Logs().size(), 1U);
  EXPECT_TRUE(Matches(platform.Logs()[0], ExceptionLine("[tag] json exception: broken\n")));
  EXPECT_EQ(platform.Logs()[0].format, "%s : %s(%d)  [%s] json exception: %s\n");
}

TEST_F(JsonValueAdaptorTest, LogsAStandardException) {
  EXPECT_NO_THROW(Adaptor::HandleException([] { throw std::runtime_error("100%s"); }, "%d"));
  ASSERT_EQ(platform.Logs().size(), 1U);
  EXPECT_TRUE(Matches(platform.Logs()[0], ExceptionLine("[%d] exception: 100%s\n")));
  EXPECT_EQ(platform.Logs()[0].format, "%s : %s(%d)  [%s] exception: %s\n");
}

TEST_F(JsonValueAdaptorTest, LogsAnUnknownException) {
  EXPECT_NO_THROW(Adaptor::HandleException([] { throw 1; }, "tag"));
  ASSERT_EQ(platform.Logs().size(), 1U);
  EXPECT_TRUE(Matches(platform.Logs()[0], ExceptionLine("[tag] unknown exception\n")));
  EXPECT_EQ(platform.Logs()[0].format, "%s : %s(%d)  [%s] unknown exception\n");
}

TEST_F(JsonValueAdaptorTest, LogsAnEmptyJobAsAStandardException) {
  EXPECT_NO_THROW(Adaptor::HandleException(std::function<void()>(), ""));
  ASSERT_EQ(platform.Logs().size(), 1U);
  const std::string what = std::bad_function_call().what();
  EXPECT_TRUE(Matches(platform.Logs()[0], ExceptionLine("[] exception: " + what + "\n")));
}

}  // namespace
}  // namespace ThingCommon
