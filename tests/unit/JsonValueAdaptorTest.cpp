#include "JsonValueAdaptor.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <future>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
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
ExpectedLog ExceptionLine(const std::string& message, const std::string& format = "") {
  return {6, "THING_COMMON", "JsonValueAdaptor.cpp", "HandleException", message, 0, format};
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

using JsonValueAdaptorTest = PlatformTest;

TEST_F(JsonValueAdaptorTest, AddsNothingToAJsonValue) {
  static_assert(std::is_base_of_v<Json::Value, Adaptor>);
  static_assert(std::is_convertible_v<const Adaptor*, const Json::Value*>);
  static_assert(sizeof(Adaptor) == sizeof(Json::Value));
  static_assert(!std::is_polymorphic_v<Adaptor>);
  static_assert(sizeof(Adaptor::_Type) == sizeof(int));
  // A tag that became a value without being asked to would be taken for a number elsewhere.
  static_assert(!std::is_convertible_v<Adaptor::_Type, Adaptor>);
}

TEST_F(JsonValueAdaptorTest, CopiesMovesAndAssignsAsAJsonValue) {
  Json::Value value;
  value["a"][0] = 1;
  Adaptor first(value);
  value["a"][0] = 2;
  Adaptor copy(first);
  const Adaptor moved(std::move(first));
  EXPECT_EQ(copy.ToString(false), R"({"a":[1]})");
  EXPECT_EQ(moved.ToString(false), R"({"a":[1]})");
  copy = Json::Value(true);
  std::map<std::string, Adaptor> table;
  table["x"] = copy;
  EXPECT_TRUE(table["x"].asBool());
}

TEST_F(JsonValueAdaptorTest, HasATypeOfItsOwnNumberForEachOfJsonCpps) {
  // In the order of their numbers: tables of others are indexed by them.
  const std::string empty[] = {"null", "false", "0", "0", "0.0", "\"\"", "{}", "[]"};
  for (std::size_t i = 0; i < kPairs.size(); ++i) {
    SCOPED_TRACE(i);
    const auto& [type, jsonType] = kPairs[i];
    EXPECT_EQ(static_cast<std::size_t>(type), i);
    EXPECT_EQ(Adaptor::ConvertType(type), jsonType);
    EXPECT_EQ(Adaptor::GetType(jsonType), type);
    const Adaptor adaptor(type);
    EXPECT_EQ(adaptor.Type(), type);
    EXPECT_EQ(static_cast<const Json::Value&>(adaptor), Json::Value(jsonType));
    EXPECT_EQ(adaptor.ToString(false), empty[i]);
    Adaptor other;  // tells the type that it has now
    EXPECT_EQ(other.Type(), Adaptor::TYPE_NULL);
    other = Json::Value(jsonType);
    EXPECT_EQ(other.Type(), type);
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

// About the first look-up of a process, and so in a process of its own.
TEST(JsonValueAdaptorFirstUseTest, FillsTheTablesOnceForSeveralThreadsWhateverIsLookedUpFirst) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto lookUp = [](bool isOutside) {
    if (isOutside) {
      Adaptor::ConvertType(static_cast<Adaptor::_Type>(8));
      Adaptor::GetType(JsonType(8));
    }
    std::vector<std::future<bool>> complete;
    for (int i = 0; i < 4; ++i) {
      complete.push_back(std::async(std::launch::async, TablesAreComplete));
    }
    bool allComplete = true;
    for (auto& own : complete) allComplete = own.get() && allComplete;
    // By the ordinary way out, so that a race detector can still object.
    std::exit(allComplete ? 0 : 1);
  };
  EXPECT_EXIT(lookUp(true), ::testing::ExitedWithCode(0), "");
  EXPECT_EXIT(lookUp(false), ::testing::ExitedWithCode(0), "");
}

TEST_F(JsonValueAdaptorTest, WritesCompactTextInOneLineWithoutBlanksAndComments) {
  Json::Value value = Adaptor::Create(R"({"b": [1, "two words"], "a": {"c": null}})");
  value["b"][0].setComment(std::string("// why"), Json::commentBefore);
  EXPECT_EQ(Adaptor::ToString(value, false), R"({"a":{"c":null},"b":[1,"two words"]})");
  EXPECT_EQ(Adaptor(value).ToString(false), Adaptor::ToString(value, false));
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

TEST_F(JsonValueAdaptorTest, ParsesTextAndWritesItCompactly) {
  const std::string mebibyte = "\"" + std::string(kMebibyte, 'x') + "\"";
  std::string entries = "[0";
  for (int i = 1; i < 10'000; ++i) entries += "," + std::to_string(i);
  entries += "]";
  const struct {
    std::string text;
    Adaptor::_Type type;
    std::string compact;
  } documents[] = {
      {"{ \"s\" : \"x\\u0000y\",\n \"a\" : [1, -2, 2.5, true, null], \"o\" : {} }",
       Adaptor::TYPE_OBJECT, R"({"a":[1,-2,2.5,true,null],"o":{},"s":"x\u0000y"})"},
      {R"({"a":1,"":2,"a":3})", Adaptor::TYPE_OBJECT, R"({"":2,"a":3})"},  // the last of one name
      {"-1", Adaptor::TYPE_INT, "-1"},
      {"2147483648", Adaptor::TYPE_INT, "2147483648"},
      {"18446744073709551615", Adaptor::TYPE_UINT, "18446744073709551615"},
      {"18446744073709551616", Adaptor::TYPE_REAL, "1.8446744073709552e+19"},
      {"\"s\"", Adaptor::TYPE_STRING, "\"s\""},
      {"[]", Adaptor::TYPE_ARRAY, "[]"},
      {"null", Adaptor::TYPE_NULL, "null"},
      {mebibyte, Adaptor::TYPE_STRING, mebibyte},
      {entries, Adaptor::TYPE_ARRAY, entries}};
  for (const auto& document : documents) {
    const Adaptor adaptor = Adaptor::Create(document.text);
    EXPECT_EQ(adaptor.Type(), document.type) << document.text;
    EXPECT_EQ(adaptor.ToString(false), document.compact);
  }
  EXPECT_EQ(Adaptor::Create(R"("x\u0000y")").asString(), std::string("x\0y", 3));
  EXPECT_TRUE(LoggedExactly({}));
}

TEST_F(JsonValueAdaptorTest, KeepsWhatWasParsedBeforeAnErrorAndLogsItOnce) {
  const std::string deep(100'000, '[');
  const std::vector<std::pair<std::string, std::string>> table = {
      {"hello", "null"},
      {"", "null"},
      {R"({"a":1,"b":[2,)", R"({"a":1,"b":[2,null]})"},
      {deep, ""}};
  for (const auto& [text, compact] : table) {
    platform.ClearTrace();
    Adaptor result;
    EXPECT_NO_THROW(result = Adaptor::Create(text));
    EXPECT_TRUE(LoggedExactly({ExceptionLine("[] json exception: " + ParseError(text) + "\n",
                                             "[%s] json exception: %s\n")}));
    std::string written;
    EXPECT_NO_THROW(written = result.ToString(false));
    if (text != deep) {
      EXPECT_EQ(written, compact);
    }
  }
}

TEST_F(JsonValueAdaptorTest, RunsAJobOnceAndLogsWhatItThrows) {
  const std::string noFunction = std::bad_function_call().what();
  int runs = 0;
  const struct {
    std::function<void()> job;
    std::vector<ExpectedLog> lines;
  } cases[] = {
      {[&runs] { ++runs; }, {}},
      {[] { throw Json::LogicError("broken"); },
       {ExceptionLine("[%d] json exception: broken\n", "[%s] json exception: %s\n")}},
      {[] { throw std::runtime_error("100%s"); },
       {ExceptionLine("[%d] exception: 100%s\n", "[%s] exception: %s\n")}},
      {[] { throw 1; }, {ExceptionLine("[%d] unknown exception\n", "[%s] unknown exception\n")}},
      {{}, {ExceptionLine("[%d] exception: " + noFunction + "\n", "[%s] exception: %s\n")}}};
  for (const auto& one : cases) {
    platform.ClearTrace();
    EXPECT_NO_THROW(Adaptor::HandleException(one.job, "%d"));
    EXPECT_TRUE(LoggedExactly(one.lines));
  }
  EXPECT_EQ(runs, 1);
}

}  // namespace
}  // namespace ThingCommon
