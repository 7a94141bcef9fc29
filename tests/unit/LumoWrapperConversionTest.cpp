#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "LumoWrapperFixture.h"

namespace ThingCommon {
namespace {

using Values = std::vector<Json::Value>;
using Properties = std::vector<Property>;

constexpr std::size_t kMebibyte = 1 << 20;
constexpr int kManyProperties = 10'000;

const std::string kException = "exception occurred\n";
const ExpectedLog kListException =
    Line(6, "convertPropertyToLumoList", kException, 336, kException);
const ExpectedLog kPropertyException = Line(6, "convertProperty", kException, 307, kException);

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
};

// --- from the library ----------------------------------------------------------------------------

TEST_F(LumoWrapperConversionTest, ReadsPropertiesInTheOrderOfTheListAndDropsWhatItCannotRead) {
  EXPECT_EQ(Read({Property::String("z", "text"), Property::Bool("a", true),
                  Property::Double("d", 1.5), Property::Raw("six", 6), Property::Bool("f", false),
                  Property::Int("m", 5), Property::Raw("seven", 7), Property::Raw("minus", -1),
                  Property::Int("", 1), Property::Int("m", 6)}),
            (Values{Object("z", "text"), Object("a", true), Object("f", false), Object("m", 5),
                    Object("", 1), Object("m", 6)}));
  EXPECT_TRUE(Read({}).empty());
  EXPECT_TRUE(LumoWrapper::getPropertyListFromLumoList(nullptr).empty());
  EXPECT_TRUE(LumoWrapper::getProperty(nullptr).isNull());
  EXPECT_TRUE(LoggedExactly({}));
}

TEST_F(LumoWrapperConversionTest, ReadsEveryValueAsItIs) {
  const std::string mebibyte(kMebibyte, 'x');
  const std::string invalidUtf8 = "\xff\xc0\x80\xed\xa0\x80";
  std::string allBytes;
  for (int byte = 0; byte < 256; ++byte) allBytes += static_cast<char>(byte);
  const std::vector<std::pair<Property, Json::Value>> table = {
      {Property::Int("a", INT_MAX), INT_MAX},
      {Property::Int("a", INT_MIN), INT_MIN},
      {Property::Int("a", 0), 0},
      // Strings end at the NUL, and a null pointer is the empty one.
      {Property::String("a", WithNul("ab", "cd")), "ab"},
      {Property::Bool(WithNul("a", "cd"), true), true},
      {Property::String("a", ""), ""},
      {Property::String("a", std::nullopt), ""},
      {Property::String("a", mebibyte), mebibyte},
      {Property::Json("a", WithNul("1", "2")), 1},
      {Property::Json("a", "\"text\""), "text"},
      {Property::Json("a", R"({"b":[1,true]})"), Adaptor::Create(R"({"b":[1,true]})")},
      // Bytes have a length.
      {Property::Bytes("a", WithNul("A", "B")), WithNul("A", "B")},
      {Property::Bytes("a", invalidUtf8), invalidUtf8},
      {Property::Bytes("a", allBytes), allBytes},
      {Property::Bytes("a", mebibyte), mebibyte},
      {Property::Bytes("a", ""), ""}};
  for (const auto& [property, value] : table) {
    EXPECT_EQ(Read({property}), Values{Object("a", value)}) << property;
  }
  EXPECT_EQ(Read({Property::Bytes("a", allBytes)})[0]["a"].asString(), allBytes);
  EXPECT_TRUE(Read({Property::Bytes("a", std::nullopt)}).empty()) << "a null pointer is no bytes";
  EXPECT_TRUE(LoggedExactly({}));
}

TEST_F(LumoWrapperConversionTest, KeepsAPropertyWhoseJsonIsNullOrInvalid) {
  EXPECT_EQ(Read({Property::Json("a", std::nullopt), Property::Json("b", "null")}),
            (Values{Object("a", Json::Value()), Object("b", Json::Value())}));
  EXPECT_TRUE(LoggedExactly({}));
  EXPECT_EQ(Read({Property::Json("a", R"({"b":1,)"), Property::Json("c", "hello")}),
            (Values{Object("a", Object("b", 1)), Object("c", Json::Value())}));
  EXPECT_EQ(platform.LogsOf("HandleException").size(), 2U);

  // Nested deeper than the parser allows.
  const auto values = Read({Property::Json("deep", std::string(100'000, '[')),
                            Property::Json("objects", "{\"a\":" + std::string(50'000, '[')),
                            Property::Int("next", 1)});
  ASSERT_EQ(values.size(), 3U);
  EXPECT_TRUE(values[0].isMember("deep"));
  EXPECT_TRUE(values[1].isMember("objects"));
  EXPECT_EQ(values[2], Object("next", 1));
  EXPECT_EQ(platform.CountLogs("  [] json exception: "), 4U);
}

TEST_F(LumoWrapperConversionTest, DropsAPropertyWithoutANameWithALine) {
  platform.GiveNullNameFor("nameless");
  EXPECT_EQ(Read({Property::Int("nameless", 1), Property::Int("a", 2)}), Values{Object("a", 2)});
  EXPECT_TRUE(LoggedExactly({Line(6, "getProperty", "fail to lumo_property_get_name\n", 174)}));
}

TEST_F(LumoWrapperConversionTest, DropsWhatTheLibraryCannotReadWhateverTheSignOfItsCode) {
  const Properties properties = {Property::Bool("b", true), Property::Int("i", 7),
                                 Property::String("s", "text")};
  for (const lumo_error code : {5, 1, -3}) {
    platform.Fail("lumo_property_get_bool", fake::Platform::kAlways, code);
    EXPECT_EQ(Read(properties), (Values{Object("i", 7), Object("s", "text")}));
    platform.ClearFailures();
    platform.Fail("lumo_property_get_int", fake::Platform::kAlways, code);
    EXPECT_EQ(Read(properties), (Values{Object("b", true), Object("s", "text")}));
    platform.ClearFailures();
  }
  platform.Fail("lumo_property_list_get_next");
  EXPECT_EQ(Read(properties), Values{Object("b", true)});
  platform.Fail("lumo_property_list_get_first");
  EXPECT_TRUE(Read(properties).empty());
  EXPECT_TRUE(LoggedExactly({}));
}

TEST_F(LumoWrapperConversionTest, ConvertsTenThousandPropertiesInBothDirections) {
  Properties properties;
  Json::Value object;
  for (int i = 0; i < kManyProperties; ++i) {
    // In the order of their names.
    const std::string name = "p" + std::to_string(kManyProperties + i);
    properties.push_back(Property::Int(name, i));
    object[name] = i;
  }
  const Values values = Read(properties);
  ASSERT_EQ(values.size(), properties.size());
  for (std::size_t i = 0; i < values.size(); ++i) {
    ASSERT_EQ(values[i], Object(properties[i].name, static_cast<int>(i)));
  }
  EXPECT_EQ(ConvertList(object), properties);
}

// --- to the library ------------------------------------------------------------------------------

TEST_F(LumoWrapperConversionTest, ConvertsEachTypeToItsProperty) {
  const std::string mebibyte(kMebibyte, 'x');
  const std::vector<std::pair<Json::Value, Property>> table = {
      {true, Property::Bool("p", true)},
      {false, Property::Bool("p", false)},
      {-5, Property::Int("p", -5)},
      {INT_MAX, Property::Int("p", INT_MAX)},
      {INT_MIN, Property::Int("p", INT_MIN)},
      {5U, Property::Int("p", 5)},
      {2147483647U, Property::Int("p", INT_MAX)},
      // Large unsigned numbers go as negative ones.
      {2147483648U, Property::Int("p", INT_MIN)},
      {4294967295U, Property::Int("p", -1)},
      {1.9, Property::Double("p", 1.0)},
      {"text", Property::String("p", "text")},
      {WithNul("a", "b"), Property::String("p", WithNul("a", "b"))},
      {"\xff\xfe", Property::String("p", "\xff\xfe")},
      {mebibyte, Property::String("p", mebibyte)},
      {Json::Value(Json::objectValue), Property::Json("p", "{}")},
      {Json::Value(Json::arrayValue), Property::Json("p", "[]")}};
  for (const auto& [value, property] : table) {
    EXPECT_EQ(Convert("p", value), property);
    EXPECT_EQ(ConvertList(Object("p", value)), Properties{property});
  }
  EXPECT_EQ(Convert("p", Json::Value()), std::nullopt);
  EXPECT_EQ(ConvertList(Object(WithNul("n", "m"), true)),
            Properties{Property::Bool(WithNul("n", "m"), true)});
  EXPECT_EQ(Convert(WithNul("n", "m"), true), Property::Bool(WithNul("n", "m"), true));
  EXPECT_TRUE(LoggedExactly({}));
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
  for (const auto& [real, cut] : table) {
    EXPECT_EQ(Convert("x", real), Property::Double("x", cut)) << real;
  }
}

TEST_F(LumoWrapperConversionTest, SendsTheSmallestNumberForRealsOutside32Bits) {
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  for (const double real :
       {2147483648.0, 4294967296.0, 1e10, 1e300, -2147483649.0, -4294967297.0, -1e300, kInfinity,
        -kInfinity, std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::max()}) {
    EXPECT_EQ(Convert("x", real), Property::Double("x", -2147483648.0)) << real;
  }
}

TEST_F(LumoWrapperConversionTest, LeavesOutIntsBeyond32BitsWithALineForEach) {
  const Values values = {
      Json::Value(std::int64_t{INT_MAX} + 1), Json::Value(std::int64_t{INT_MIN} - 1),
      Json::Value(std::uint64_t{UINT_MAX} + 1), Json::Value(INT64_MAX), Json::Value(UINT64_MAX)};
  for (const Json::Value& value : values) {
    platform.ClearTrace();
    EXPECT_EQ(Convert("p", value), std::nullopt) << value;
    EXPECT_TRUE(LoggedExactly({kPropertyException}));
  }
}

TEST_F(LumoWrapperConversionTest, ConvertsMembersInTheOrderOfTheirNamesAndObjectsToCompactJson) {
  Json::Value value = Adaptor::Create(
      R"({"d":2,"o": { "k" : [ 1, 2 ] },"b":1,"a":[ {"x": "y z"} ],"B":"","":"e","c":null})");
  value["bb"] = Json::Value(INT64_MAX);  // does not convert, and the next one does
  EXPECT_EQ(ConvertList(value),
            (Properties{Property::String("", "e"), Property::String("B", ""),
                        Property::Json("a", R"([{"x":"y z"}])"), Property::Int("b", 1),
                        Property::Int("d", 2), Property::Json("o", R"({"k":[1,2]})")}));
  EXPECT_TRUE(LoggedExactly({kPropertyException}));
}

TEST_F(LumoWrapperConversionTest, ConvertsWhatHasNoMembersToAnEmptyList) {
  EXPECT_TRUE(ConvertList(Json::Value()).empty());
  EXPECT_TRUE(ConvertList(Json::Value(Json::objectValue)).empty());
  EXPECT_TRUE(LoggedExactly({}));
  for (const std::string text : {"[1]", "1", "\"text\"", "true", "1.5"}) {
    platform.ClearTrace();
    EXPECT_TRUE(ConvertList(Adaptor::Create(text)).empty()) << text;
    EXPECT_TRUE(LoggedExactly({kListException})) << text;
  }
}

TEST_F(LumoWrapperConversionTest, GivesNoListAndALineWhenTheLibraryGivesNone) {
  platform.Fail("lumo_property_list_create");
  EXPECT_EQ(LumoWrapper::convertPropertyToLumoList(Object("a", 1)), nullptr);
  EXPECT_TRUE(LoggedExactly(
      {Line(6, "convertPropertyToLumoList", "fail to lumo_property_list_create\n", 318)}));
}

TEST_F(LumoWrapperConversionTest, LeavesOutSilentlyWhatTheLibraryDoesNotMakeOrRefusesToPush) {
  const std::vector<std::pair<std::string, Json::Value>> makers = {
      {"lumo_property_create_bool", true},
      {"lumo_property_create_int", 1},
      {"lumo_property_create_double", 1.5},
      {"lumo_property_create_string", "text"},
      {"lumo_property_create_json_string", Json::Value(Json::arrayValue)}};
  for (const auto& [maker, value] : makers) {
    platform.Fail(maker);
    EXPECT_EQ(Convert("a", value), std::nullopt) << maker;
    EXPECT_TRUE(ConvertList(Object("a", value)).empty()) << maker;
    platform.ClearFailures();
    EXPECT_EQ(ConvertList(Object("a", value)).size(), 1U) << maker;
  }
  for (const lumo_error code : {5, -3}) {
    platform.Fail("lumo_property_list_push_property", 1, code);
    EXPECT_EQ(ConvertList(Adaptor::Create(R"({"a":1,"b":2})")), Properties{Property::Int("b", 2)});
  }
  EXPECT_TRUE(LoggedExactly({}));
}

// --- the tables of types -------------------------------------------------------------------------

TEST_F(LumoWrapperConversionTest, TurnsTypesIntoTheLibrarysAndBackByItsTables) {
  const std::vector<std::pair<lumo_property_type, Adaptor::_Type>> read = {
      {0, Adaptor::TYPE_BOOL},       {1, Adaptor::TYPE_INT},       {2, Adaptor::TYPE_REAL},
      {3, Adaptor::TYPE_STRING},     {4, Adaptor::TYPE_OBJECT},    {5, Adaptor::TYPE_STRING},
      {6, Adaptor::TYPE_NULL},       {9, Adaptor::TYPE_NULL},      {-1, Adaptor::TYPE_NULL},
      {INT_MAX, Adaptor::TYPE_NULL}, {INT_MIN, Adaptor::TYPE_NULL}};
  for (const auto& [type, expected] : read) {
    EXPECT_EQ(LumoWrapper::getPropertyType(type), expected) << type;
  }
  const std::vector<std::pair<int, lumo_property_type>> registered = {{Adaptor::TYPE_NULL, -1},
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
  for (const auto& [type, expected] : registered) {
    EXPECT_EQ(LumoWrapper::convertPropertyType(static_cast<Adaptor::_Type>(type)), expected)
        << type;
  }
}

}  // namespace
}  // namespace ThingCommon
