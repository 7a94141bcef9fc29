#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "LumoWrapper.h"
#include "PlatformTest.h"

namespace ThingCommon {
namespace {

using fake::Property;
using Adaptor = JsonValueAdaptor;

constexpr std::size_t kMebibyte = 1 << 20;
constexpr int kManyProperties = 10'000;

ExpectedLog ErrorLine(const std::string& function, const std::string& message, int line) {
  return {6, "THING_COMMON", "LumoWrapper.cpp", function, message, line};
}

const ExpectedLog kListException =
    ErrorLine("convertPropertyToLumoList", "exception occurred\n", 336);
const ExpectedLog kPropertyException = ErrorLine("convertProperty", "exception occurred\n", 307);
const ExpectedLog kNoName = ErrorLine("getProperty", "fail to lumo_property_get_name\n", 174);

// `start`, a NUL and `rest`.
std::string WithNul(const std::string& start, const std::string& rest) {
  return start + std::string(1, '\0') + rest;
}

// Conversions in both directions. What the platform does with handles is checked on the way: a
// property or list that is lost, or used when it must not be, fails the test.
class LumoWrapperConversionTest : public PlatformTest {
 protected:
  // What the library is given for {name: value}; none for a null handle.
  std::optional<Property> Convert(const std::string& name, const Json::Value& value) {
    void* const property = LumoWrapper::convertProperty(name, value);
    if (property == nullptr) return std::nullopt;
    const Property result = platform.ReadProperty(property);
    platform.DisposeProperty(property);
    return result;
  }

  double ConvertReal(double value) {
    const auto property = Convert("x", value);
    if (!property || property->type != LUMO_PROPERTY_TYPE_DOUBLE) {
      ADD_FAILURE() << value << " is no double property";
      return 0;
    }
    return property->number;
  }

  std::vector<Property> ConvertList(const Json::Value& value) {
    void* const list = LumoWrapper::convertPropertyToLumoList(value);
    if (list == nullptr) {
      ADD_FAILURE() << "no list";
      return {};
    }
    std::vector<Property> properties = platform.ReadList(list);
    platform.DisposeList(list);
    return properties;
  }

  std::vector<Json::Value> Read(const std::vector<Property>& properties) {
    void* const list = platform.MakeLibraryList(properties);
    const std::vector<Adaptor> values = LumoWrapper::getPropertyListFromLumoList(list);
    platform.DisposeList(list);
    return {values.begin(), values.end()};
  }

  // What the one property becomes; null when it is dropped.
  Json::Value ReadOne(const Property& property) {
    const std::vector<Json::Value> values = Read({property});
    return values.empty() ? Json::Value() : values[0];
  }

  static Json::Value Member(const std::string& name, const Json::Value& value) {
    Json::Value object(Json::objectValue);
    object[name] = value;
    return object;
  }
};

// --- from the library ----------------------------------------------------------------------------

TEST_F(LumoWrapperConversionTest, ReadsPropertiesInTheOrderOfTheList) {
  const auto values = Read({Property::String("z", "text"), Property::Bool("a", true),
                            Property::Bool("f", false), Property::Int("m", 5)});
  EXPECT_EQ(values, (std::vector<Json::Value>{Member("z", "text"), Member("a", true),
                                              Member("f", false), Member("m", 5)}));
}

TEST_F(LumoWrapperConversionTest, ReadsAnEmptyListAndANullOneAsNothing) {
  EXPECT_TRUE(Read({}).empty());
  EXPECT_TRUE(LumoWrapper::getPropertyListFromLumoList(nullptr).empty());
  EXPECT_TRUE(platform.Logs().empty());
}

TEST_F(LumoWrapperConversionTest, ReadsTheWholeRangeOfInts) {
  EXPECT_EQ(ReadOne(Property::Int("a", INT_MAX)), Member("a", INT_MAX));
  EXPECT_EQ(ReadOne(Property::Int("a", INT_MIN)), Member("a", INT_MIN));
  EXPECT_EQ(ReadOne(Property::Int("a", 0)), Member("a", 0));
}

TEST_F(LumoWrapperConversionTest, DropsDoublesAndTypesItDoesNotKnow) {
  EXPECT_EQ(Read({Property::Double("d", 1.5), Property::Raw("six", 6), Property::Int("a", 1),
                  Property::Raw("seven", 7), Property::Raw("minus", -1)}),
            std::vector<Json::Value>{Member("a", 1)});
  EXPECT_TRUE(platform.Logs().empty());
}

TEST_F(LumoWrapperConversionTest, ReadsTextUpToTheNul) {
  EXPECT_EQ(ReadOne(Property::String("a", WithNul("ab", "cd"))), Member("a", "ab"));
  EXPECT_EQ(ReadOne(Property::String("a", "")), Member("a", ""));
  EXPECT_EQ(ReadOne(Property::Json("a", WithNul("1", "2"))), Member("a", 1));
  EXPECT_EQ(ReadOne(Property::Bool(WithNul("ab", "cd"), true)), Member("ab", true));
}

TEST_F(LumoWrapperConversionTest, ReadsANullTextAsTheEmptyOne) {
  EXPECT_EQ(ReadOne(Property::String("a", std::nullopt)), Member("a", ""));
}

TEST_F(LumoWrapperConversionTest, ReadsAJsonTextAsItsValue) {
  EXPECT_EQ(ReadOne(Property::Json("a", R"({"b":[1,true]})")).toStyledString(),
            Member("a", Adaptor::Create(R"({"b":[1,true]})")).toStyledString());
  EXPECT_EQ(ReadOne(Property::Json("a", "\"text\"")), Member("a", "text"));
}

TEST_F(LumoWrapperConversionTest, KeepsAPropertyWhoseJsonTextIsNull) {
  EXPECT_EQ(Read({Property::Json("a", std::nullopt), Property::Json("b", "null")}),
            (std::vector<Json::Value>{Member("a", Json::Value()), Member("b", Json::Value())}));
  EXPECT_TRUE(platform.Logs().empty());
}

TEST_F(LumoWrapperConversionTest, KeepsWhatWasParsedOfInvalidJson) {
  EXPECT_EQ(Read({Property::Json("a", R"({"b":1,)"), Property::Json("c", "hello")}),
            (std::vector<Json::Value>{Member("a", Member("b", 1)), Member("c", Json::Value())}));
  EXPECT_EQ(platform.CountLogs("HandleException"), 2U);
  EXPECT_EQ(platform.CountLogs("  [] json exception: "), 2U);
}

TEST_F(LumoWrapperConversionTest, SurvivesJsonNestedDeeperThanTheParserAllows) {
  const auto values = Read({Property::Json("deep", std::string(100'000, '[')),
                            Property::Json("objects", "{\"a\":" + std::string(50'000, '[')),
                            Property::Int("next", 1)});
  ASSERT_EQ(values.size(), 3U);
  EXPECT_TRUE(values[0].isMember("deep"));
  EXPECT_TRUE(values[1].isMember("objects"));
  EXPECT_EQ(values[2], Member("next", 1));
  EXPECT_EQ(platform.CountLogs("  [] json exception: "), 2U);
}

TEST_F(LumoWrapperConversionTest, ReadsBytesByTheirLengthAsTheyAre) {
  const std::string nul = WithNul("A", "B");
  EXPECT_EQ(ReadOne(Property::Bytes("a", nul)), Member("a", nul));
  EXPECT_EQ(ReadOne(Property::Bytes("a", nul))["a"].asString().size(), 3U);
  const std::string invalidUtf8 = "\xff\xc0\x80\xed\xa0\x80";
  EXPECT_EQ(ReadOne(Property::Bytes("a", invalidUtf8)), Member("a", invalidUtf8));
  std::string all;
  for (int byte = 0; byte < 256; ++byte) all += static_cast<char>(byte);
  EXPECT_EQ(ReadOne(Property::Bytes("a", all))["a"].asString(), all);
}

TEST_F(LumoWrapperConversionTest, ReadsNoBytesAsTheEmptyTextAndANullPointerNotAtAll) {
  EXPECT_EQ(Read({Property::Bytes("empty", ""), Property::Bytes("null", std::nullopt)}),
            std::vector<Json::Value>{Member("empty", "")});
}

TEST_F(LumoWrapperConversionTest, ReadsAnEmptyNameAndOneNameTwice) {
  EXPECT_EQ(Read({Property::Int("", 1), Property::Int("a", 2), Property::Int("a", 3)}),
            (std::vector<Json::Value>{Member("", 1), Member("a", 2), Member("a", 3)}));
}

TEST_F(LumoWrapperConversionTest, DropsAPropertyWithoutANameWithALine) {
  platform.GiveNullNameFor("nameless");
  EXPECT_EQ(Read({Property::Int("nameless", 1), Property::Int("a", 2)}),
            std::vector<Json::Value>{Member("a", 2)});
  ASSERT_EQ(platform.Logs().size(), 1U);
  EXPECT_TRUE(LoggedOnce(kNoName));
}

TEST_F(LumoWrapperConversionTest, ReadsNothingFromANullProperty) {
  EXPECT_TRUE(LumoWrapper::getProperty(nullptr).isNull());
  EXPECT_TRUE(platform.Trace().empty());
}

TEST_F(LumoWrapperConversionTest, DropsWhatTheLibraryCannotReadWhateverTheSignOfItsCode) {
  const std::vector<Property> properties = {Property::Bool("b", true), Property::Int("i", 7),
                                            Property::String("s", "text")};
  for (const lumo_error code : {5, 1, -3}) {
    platform.Fail("lumo_property_get_bool", fake::Platform::kAlways, code);
    EXPECT_EQ(Read(properties), (std::vector<Json::Value>{Member("i", 7), Member("s", "text")}));
    platform.ClearFailures();
    platform.Fail("lumo_property_get_int", fake::Platform::kAlways, code);
    EXPECT_EQ(Read(properties), (std::vector<Json::Value>{Member("b", true), Member("s", "text")}));
    platform.ClearFailures();
  }
  EXPECT_TRUE(platform.Logs().empty());
}

TEST_F(LumoWrapperConversionTest, StopsReadingWhereTheLibraryGivesNoNextProperty) {
  platform.Fail("lumo_property_list_get_next");
  EXPECT_EQ(Read({Property::Int("a", 1), Property::Int("b", 2)}),
            std::vector<Json::Value>{Member("a", 1)});
  platform.Fail("lumo_property_list_get_first");
  EXPECT_TRUE(Read({Property::Int("a", 1)}).empty());
}

TEST_F(LumoWrapperConversionTest, ReadsAMebibyteAndTenThousandProperties) {
  const std::string text(kMebibyte, 'x');
  EXPECT_EQ(ReadOne(Property::String("a", text)), Member("a", text));
  EXPECT_EQ(ReadOne(Property::Bytes("a", text)), Member("a", text));
  std::vector<Property> properties;
  for (int i = 0; i < kManyProperties; ++i) properties.push_back(Property::Int("p", i));
  const auto values = Read(properties);
  ASSERT_EQ(values.size(), properties.size());
  for (int i = 0; i < kManyProperties; ++i) {
    ASSERT_EQ(values[static_cast<std::size_t>(i)], Member("p", i));
  }
}

// --- to the library ------------------------------------------------------------------------------

TEST_F(LumoWrapperConversionTest, ConvertsEachTypeToItsProperty) {
  EXPECT_EQ(Convert("p", true), Property::Bool("p", true));
  EXPECT_EQ(Convert("p", false), Property::Bool("p", false));
  EXPECT_EQ(Convert("p", -5), Property::Int("p", -5));
  EXPECT_EQ(Convert("p", 5U), Property::Int("p", 5));
  EXPECT_EQ(Convert("p", 1.9), Property::Double("p", 1.0));
  EXPECT_EQ(Convert("p", "text"), Property::String("p", "text"));
  EXPECT_EQ(Convert("p", Json::Value(Json::objectValue)), Property::Json("p", "{}"));
  EXPECT_EQ(Convert("p", Json::Value(Json::arrayValue)), Property::Json("p", "[]"));
  EXPECT_EQ(Convert("p", Json::Value()), std::nullopt);
  EXPECT_TRUE(platform.Logs().empty());
}

TEST_F(LumoWrapperConversionTest, CutsRealsTowardZero) {
  const std::vector<std::pair<double, double>> table = {
      {0.0, 0.0},
      {0.5, 0.0},
      {-0.5, 0.0},
      {1.9, 1.0},
      {2.75, 2.0},
      {-2.75, -2.0},
      {2147483646.5, 2147483646.0},
      {2147483647.0, 2147483647.0},
      {2147483647.5, 2147483647.0},
      {2147483647.999, 2147483647.0},
      {-2147483647.25, -2147483647.0},
      {-2147483648.0, -2147483648.0},
      {-2147483648.5, -2147483648.0},
  };
  for (const auto& [real, cut] : table) EXPECT_EQ(ConvertReal(real), cut) << real;
}

TEST_F(LumoWrapperConversionTest, SendsTheSmallestNumberForRealsOutside32Bits) {
  constexpr double kSmallest = -2147483648.0;
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  for (const double real :
       {2147483648.0, 4294967296.0, 1e10, 1e300, -2147483649.0, -4294967297.0, -1e300, kInfinity,
        -kInfinity, std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::max()}) {
    EXPECT_EQ(ConvertReal(real), kSmallest) << real;
  }
}

TEST_F(LumoWrapperConversionTest, ConvertsIntsUpToTheEndsOf32Bits) {
  EXPECT_EQ(Convert("p", INT_MAX), Property::Int("p", INT_MAX));
  EXPECT_EQ(Convert("p", INT_MIN), Property::Int("p", INT_MIN));
  EXPECT_TRUE(platform.Logs().empty());
}

TEST_F(LumoWrapperConversionTest, SendsLargeUnsignedNumbersAsNegativeOnes) {
  EXPECT_EQ(Convert("p", 2147483647U), Property::Int("p", INT_MAX));
  EXPECT_EQ(Convert("p", 2147483648U), Property::Int("p", INT_MIN));
  EXPECT_EQ(Convert("p", 4294967295U), Property::Int("p", -1));
  EXPECT_TRUE(platform.Logs().empty());
}

TEST_F(LumoWrapperConversionTest, LeavesOutIntsBeyond32BitsWithALineForEach) {
  const std::vector<Json::Value> values = {
      Json::Value(std::int64_t{INT_MAX} + 1), Json::Value(std::int64_t{INT_MIN} - 1),
      Json::Value(std::uint64_t{UINT_MAX} + 1), Json::Value(INT64_MAX), Json::Value(UINT64_MAX)};
  for (const Json::Value& value : values) {
    platform.ClearTrace();
    EXPECT_EQ(Convert("p", value), std::nullopt) << value;
    ASSERT_EQ(platform.Logs().size(), 1U);
    EXPECT_TRUE(Matches(platform.Logs()[0], kPropertyException));
    EXPECT_EQ(platform.Logs()[0].format, "%s : %s(%d)  exception occurred\n");
  }
}

TEST_F(LumoWrapperConversionTest, GoesOnWithTheNextMemberAfterOneThatDoesNotConvert) {
  Json::Value value;
  value["a"] = Json::Value(INT64_MAX);
  value["b"] = 1;
  value["c"] = Json::Value();
  value["d"] = 2;
  EXPECT_EQ(ConvertList(value),
            (std::vector<Property>{Property::Int("b", 1), Property::Int("d", 2)}));
  ASSERT_EQ(platform.Logs().size(), 1U);
  EXPECT_TRUE(LoggedOnce(kPropertyException));
}

TEST_F(LumoWrapperConversionTest, SendsTextsAndNamesWithTheNulsInThem) {
  EXPECT_EQ(Convert(WithNul("n", "m"), WithNul("a", "b")),
            Property::String(WithNul("n", "m"), WithNul("a", "b")));
  EXPECT_EQ(ConvertList(Member(WithNul("n", "m"), true)),
            std::vector<Property>{Property::Bool(WithNul("n", "m"), true)});
}

TEST_F(LumoWrapperConversionTest, SendsInvalidUtf8TextAsItIs) {
  EXPECT_EQ(Convert("p", "\xff\xfe"), Property::String("p", "\xff\xfe"));
}

TEST_F(LumoWrapperConversionTest, SendsObjectsAndArraysAsCompactJson) {
  EXPECT_EQ(ConvertList(Adaptor::Create(R"({ "o": { "k" : [ 1, 2 ] }, "a" : [ {"x": "y z"} ] })")),
            (std::vector<Property>{Property::Json("a", R"([{"x":"y z"}])"),
                                   Property::Json("o", R"({"k":[1,2]})")}));
}

TEST_F(LumoWrapperConversionTest, ConvertsMembersInTheOrderOfTheirNames) {
  Json::Value value;
  for (const char* name : {"b", "", "a", "B"}) value[name] = name;
  EXPECT_EQ(ConvertList(value),
            (std::vector<Property>{Property::String("", ""), Property::String("B", "B"),
                                   Property::String("a", "a"), Property::String("b", "b")}));
}

TEST_F(LumoWrapperConversionTest, ConvertsNullToAnEmptyListWithoutALine) {
  EXPECT_TRUE(ConvertList(Json::Value()).empty());
  EXPECT_TRUE(ConvertList(Json::Value(Json::objectValue)).empty());
  EXPECT_TRUE(platform.Logs().empty());
}

TEST_F(LumoWrapperConversionTest, ConvertsWhatHasNoMembersToAnEmptyListWithALine) {
  Json::Value array;
  array.append(1);
  for (const Json::Value& value :
       {array, Json::Value(1), Json::Value("text"), Json::Value(true), Json::Value(1.5)}) {
    platform.ClearTrace();
    EXPECT_TRUE(ConvertList(value).empty());
    ASSERT_EQ(platform.Logs().size(), 1U);
    EXPECT_TRUE(Matches(platform.Logs()[0], kListException));
  }
}

TEST_F(LumoWrapperConversionTest, GivesNoListAndALineWhenTheLibraryGivesNone) {
  platform.Fail("lumo_property_list_create");
  EXPECT_EQ(LumoWrapper::convertPropertyToLumoList(Member("a", 1)), nullptr);
  ASSERT_EQ(platform.Logs().size(), 1U);
  EXPECT_TRUE(LoggedOnce(
      ErrorLine("convertPropertyToLumoList", "fail to lumo_property_list_create\n", 318)));
}

TEST_F(LumoWrapperConversionTest, LeavesOutSilentlyWhatTheLibraryDoesNotMake) {
  const std::vector<std::pair<std::string, Json::Value>> makers = {
      {"lumo_property_create_bool", true},
      {"lumo_property_create_int", 1},
      {"lumo_property_create_double", 1.5},
      {"lumo_property_create_string", "text"},
      {"lumo_property_create_json_string", Json::Value(Json::arrayValue)}};
  for (const auto& [maker, value] : makers) {
    platform.Fail(maker);
    EXPECT_EQ(Convert("a", value), std::nullopt) << maker;
    EXPECT_TRUE(ConvertList(Member("a", value)).empty()) << maker;
    platform.ClearFailures();
    EXPECT_EQ(ConvertList(Member("a", value)).size(), 1U) << maker;
  }
  EXPECT_TRUE(platform.Logs().empty());
}

TEST_F(LumoWrapperConversionTest, IgnoresThatTheLibraryRefusesToPushAProperty) {
  for (const lumo_error code : {5, -3}) {
    platform.Fail("lumo_property_list_push_property", 1, code);
    Json::Value value;
    value["a"] = 1;
    value["b"] = 2;
    EXPECT_EQ(ConvertList(value), std::vector<Property>{Property::Int("b", 2)});
  }
  EXPECT_TRUE(platform.Logs().empty());
}

TEST_F(LumoWrapperConversionTest, SendsAMebibyteAndTenThousandMembers) {
  const std::string text(kMebibyte, 'x');
  EXPECT_EQ(Convert("p", text), Property::String("p", text));
  Json::Value value;
  for (int i = 0; i < kManyProperties; ++i) value["p" + std::to_string(i)] = i;
  const auto properties = ConvertList(value);
  const auto names = value.getMemberNames();
  ASSERT_EQ(properties.size(), names.size());
  for (std::size_t i = 0; i < names.size(); ++i) {
    ASSERT_EQ(properties[i], Property::Int(names[i], value[names[i]].asInt()));
  }
}

// --- the tables of types -------------------------------------------------------------------------

TEST_F(LumoWrapperConversionTest, ReadsTheLibrarysTypesByItsTable) {
  const std::vector<std::pair<lumo_property_type, Adaptor::_Type>> table = {
      {0, Adaptor::TYPE_BOOL},       {1, Adaptor::TYPE_INT},       {2, Adaptor::TYPE_REAL},
      {3, Adaptor::TYPE_STRING},     {4, Adaptor::TYPE_OBJECT},    {5, Adaptor::TYPE_STRING},
      {6, Adaptor::TYPE_NULL},       {9, Adaptor::TYPE_NULL},      {-1, Adaptor::TYPE_NULL},
      {INT_MAX, Adaptor::TYPE_NULL}, {INT_MIN, Adaptor::TYPE_NULL}};
  for (const auto& [type, expected] : table) {
    EXPECT_EQ(LumoWrapper::getPropertyType(type), expected) << type;
  }
}

TEST_F(LumoWrapperConversionTest, RegistersTypesByItsTable) {
  const std::vector<std::pair<int, lumo_property_type>> table = {{Adaptor::TYPE_NULL, -1},
                                                                 {Adaptor::TYPE_BOOL, 0},
                                                                 {Adaptor::TYPE_INT, 1},
                                                                 {Adaptor::TYPE_UINT, 1},
                                                                 {Adaptor::TYPE_REAL, 6},
                                                                 {Adaptor::TYPE_STRING, 3},
                                                                 {Adaptor::TYPE_OBJECT, 4},
                                                                 {Adaptor::TYPE_ARRAY, 4},
                                                                 {8, -1},
                                                                 {-1, -1},
                                                                 {INT_MIN, -1}};
  for (const auto& [type, expected] : table) {
    EXPECT_EQ(LumoWrapper::convertPropertyType(static_cast<Adaptor::_Type>(type)), expected)
        << type;
  }
}

}  // namespace
}  // namespace ThingCommon
