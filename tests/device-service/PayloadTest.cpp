#include "payload/Payload.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <variant>
#include <vector>

namespace {

using namespace Lumo;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

template <typename Value>
Value valueOf(const std::string& json) {
  Decoded<Properties> decoded = DecodeProperties("{\"n\":" + json + "}");
  EXPECT_TRUE(decoded.value) << json << ": " << decoded.error;
  if (!decoded.value || decoded.value->size() != 1) return {};
  EXPECT_EQ(decoded.value->front().name, "n");
  const Value* value = std::get_if<Value>(&decoded.value->front().value);
  EXPECT_NE(value, nullptr) << json;
  return value == nullptr ? Value() : *value;
}

std::string errorOfSet(const std::string& payload) {
  const Decoded<Properties> decoded = DecodeProperties(payload);
  EXPECT_FALSE(decoded.value) << payload;
  return decoded.error;
}

std::string errorOfValue(const std::string& json) {
  return errorOfSet("{\"n\":" + json + "}");
}

std::string errorOfNames(const std::string& payload) {
  const auto decoded = DecodeNames(payload);
  EXPECT_FALSE(decoded.value) << payload;
  return decoded.error;
}

// The properties of a set of integers, in their order.
std::vector<std::string> describe(const std::string& payload) {
  const Decoded<Properties> decoded = DecodeProperties(payload);
  EXPECT_TRUE(decoded.value) << decoded.error;
  std::vector<std::string> properties;
  for (const Property& property : decoded.value.value_or(Properties())) {
    properties.push_back(property.name + "=" + std::to_string(std::get<int>(property.value)));
  }
  return properties;
}

TEST(PayloadTest, ASetValueTakesTheTypeOfItsJson) {
  EXPECT_EQ(valueOf<bool>("true"), true);
  EXPECT_EQ(valueOf<bool>("false"), false);
  EXPECT_EQ(valueOf<int>("-7"), -7);
  EXPECT_EQ(valueOf<int>("2147483647"), 2147483647);
  EXPECT_EQ(valueOf<int>("-2147483648"), -2147483647 - 1);
  EXPECT_EQ(valueOf<double>("1.0"), 1.0);
  EXPECT_EQ(valueOf<double>("-2.75"), -2.75);
  EXPECT_EQ(valueOf<double>("1e20"), 1e20);
  EXPECT_EQ(valueOf<double>("1E2"), 100);
  EXPECT_EQ(valueOf<std::string>("\"\""), "");
  EXPECT_EQ(valueOf<std::string>(R"("a\u0001\u00e9")"), "a\x01\xC3\xA9");
}

TEST(PayloadTest, AnObjectOrArrayOfASetStaysTheTextThatItIs) {
  EXPECT_EQ(valueOf<JsonText>("{}").text, "{}");
  EXPECT_EQ(valueOf<JsonText>("[ 1, 1.10 ]").text, "[ 1, 1.10 ]");
  EXPECT_EQ(valueOf<JsonText>(R"({ "b":99999999999999999999, "a":null })").text,
            R"({ "b":99999999999999999999, "a":null })");
  EXPECT_EQ(valueOf<JsonText>(R"({"$bytes":"Zg==","more":1})").text,
            R"({"$bytes":"Zg==","more":1})");
  EXPECT_EQ(valueOf<JsonText>(R"(["\u0000",{"\u0000":1,"a":2,"a":3}])").text,
            R"(["\u0000",{"\u0000":1,"a":2,"a":3}])");
}

TEST(PayloadTest, RefusesANulThatReadersOfCStringsWouldNotSeeBeyond) {
  EXPECT_EQ(errorOfValue(R"("a\u0000b")"), "n: a text with U+0000");
  EXPECT_EQ(errorOfValue(R"("\u0000")"), "n: a text with U+0000");
  EXPECT_EQ(errorOfSet(R"({"a":1,"b\u0000c":1})"), "a name with U+0000");
  EXPECT_EQ(errorOfSet(R"({"\u0000":null})"), "a name with U+0000");
  EXPECT_EQ(errorOfNames(R"(["a","b\u0000c"])"), "a name with U+0000");
  EXPECT_EQ(errorOfNames(R"(["\u0000"])"), "a name with U+0000");
}

TEST(PayloadTest, QuotesOnlyTheBeginningOfALongName) {
  const std::string name(250'000, 'x');
  EXPECT_EQ(errorOfSet("{\"" + name + "\":null}"), std::string(100, 'x') + "\xE2\x80\xA6: null");
}

TEST(PayloadTest, BytesOfASetAreBase64) {
  EXPECT_EQ(valueOf<Bytes>(R"({"$bytes":"QQBC"})").data, std::string("A\0B", 3));
  EXPECT_EQ(valueOf<Bytes>(R"({"$bytes":""})").data, "");
  EXPECT_EQ(errorOfValue(R"({"$bytes":"Q"})"), "n: $bytes is not base64");
  EXPECT_EQ(errorOfValue(R"({"$bytes":5})"), "n: $bytes is not base64");
}

TEST(PayloadTest, RefusesASetValueThatNoPropertyCanHave) {
  EXPECT_EQ(errorOfValue("null"), "n: null");
  for (const char* number : {"2147483648", "-2147483649", "4294967295", "9223372036854775808",
                             "18446744073709551616", "-99999999999999999999"}) {
    EXPECT_EQ(errorOfValue(number), "n: an integer outside 32 bits");
  }
  EXPECT_EQ(errorOfValue("1e999"), "a number beyond a double");
  EXPECT_EQ(errorOfValue("\"\\udc00\""), "not a Unicode text");
  EXPECT_EQ(errorOfSet("{\"\\udc00\":1}"), "not a Unicode text");
}

TEST(PayloadTest, RefusesASetThatIsNoObject) {
  for (const char* payload : {"[]", "1", "\"a\"", "null", "true"}) {
    EXPECT_EQ(errorOfSet(payload), "not a JSON object of names and values");
  }
  EXPECT_THAT(errorOfSet(""), HasSubstr("not valid JSON"));
  EXPECT_THAT(errorOfSet("{\"a\":1"), HasSubstr("not valid JSON"));
  EXPECT_EQ(errorOfSet("{\"a\":\"\xFF\"}"), "not UTF-8");
}

TEST(PayloadTest, RefusesWhatIsHiddenInAComment) {
  EXPECT_THAT(errorOfSet(R"({"qz":"x"/*"*/,"a":01/*"*/})"), HasSubstr("not valid JSON"));
  EXPECT_THAT(errorOfValue("{\"a\":1/*\"*/,\"b\":+1/*\"*/}"), HasSubstr("not valid JSON"));
}

TEST(PayloadTest, PropertiesComeInTheOrderOfTheirNames) {
  EXPECT_THAT(describe(R"({"b":1,"":2,"a\u0061":3,"B":4,"a":5,"b":6,"\u00e9":7})"),
              ElementsAre("=2", "B=4", "a=5", "aa=3", "b=6", "\xC3\xA9=7"));
}

TEST(PayloadTest, OnlyTheValueThatCountsIsJudged) {
  EXPECT_EQ(valueOf<int>(R"(null,"n":99999999999,"n":1)"), 1);
  EXPECT_EQ(errorOfValue(R"(1,"n":null)"), "n: null");
  EXPECT_THAT(errorOfValue(R"(01,"n":1)"), HasSubstr("not valid JSON"));
}

TEST(PayloadTest, OnlyAnObjectOfBytesAloneIsBytes) {
  EXPECT_EQ(valueOf<Bytes>(R"({"\u0024bytes":"QQ=="})").data, "A");
  EXPECT_EQ(valueOf<Bytes>(R"({"$bytes":"QQ=="},"n":[2],"n":{"$bytes":"Qg=="})").data, "B");
  for (const char* json : {R"([{"$bytes":"QQ=="}])", R"({"a":{"$bytes":"QQ=="}})",
                           R"({"a":1,"$bytes":"QQ=="})", R"([{"$bytes":"QQ=="},2])"}) {
    EXPECT_EQ(valueOf<JsonText>(json).text, json);
  }
  EXPECT_EQ(errorOfValue(R"({"$bytes":{"$bytes":"QQ=="}})"), "n: $bytes is not base64");
  EXPECT_EQ(errorOfValue(R"({"$bytes":["QQ=="]})"), "n: $bytes is not base64");
  EXPECT_EQ(errorOfValue(R"({"$bytes":"QQ==","$bytes":null})"), "n: $bytes is not base64");
}

TEST(PayloadTest, TheLastOfSeveralMembersWithOneNameCounts) {
  EXPECT_EQ(valueOf<std::string>(R"({"x":1},"n":"last")"), "last");
  EXPECT_EQ(valueOf<JsonText>(R"({"x":1},"n":{"y":[2]})").text, R"({"y":[2]})");
  EXPECT_EQ(valueOf<Bytes>(R"({"$bytes":5,"$bytes":"QQ=="})").data, "A");
}

TEST(PayloadTest, PassesNamesOnWhateverTheyAre) {
  EXPECT_THAT(describe(R"({"":1,"a/b":2,"#":3,"\u0001":4})"),
              ::testing::UnorderedElementsAre("=1", "a/b=2", "#=3", "\x01=4"));
  EXPECT_THAT(DecodeNames(R"(["a/b","","a/b"])").value.value(), ElementsAre("a/b", "", "a/b"));
  EXPECT_THAT(describe("{}"), IsEmpty());
  EXPECT_THAT(DecodeNames("[]").value.value(), IsEmpty());
}

TEST(PayloadTest, RefusesAGetThatIsNoArrayOfNames) {
  for (const char* payload :
       {"{}", "\"a\"", "[1]", "[\"a\",null]", "[[\"a\"]]", "[[]]", "[{\"a\":1}]"}) {
    EXPECT_EQ(errorOfNames(payload), "not a JSON array of names");
  }
  EXPECT_THAT(errorOfNames("["), HasSubstr("not valid JSON"));
  EXPECT_EQ(errorOfNames("[\"\\udc00\"]"), "not a Unicode text");
}

TEST(PayloadTest, RefusesARequestThatIsTooLarge) {
  const std::string frame = R"({"a":""})";
  const std::string text(kMaxRequestBytes - frame.size(), 'x');
  EXPECT_TRUE(DecodeProperties(R"({"a":")" + text + R"("})").value);
  EXPECT_EQ(errorOfSet(R"({"a":"x)" + text + R"("})"), "more than 262144 bytes");
  EXPECT_EQ(errorOfNames(std::string(kMaxRequestBytes + 1, ' ')), "more than 262144 bytes");
}

TEST(PayloadTest, RefusesARequestWithTooManyProperties) {
  std::string names = "\"0\"";
  std::string properties = "\"0\":0";
  for (std::size_t i = 1; i < kMaxRequestProperties; ++i) {
    names += ",\"" + std::to_string(i) + "\"";
    properties += ",\"" + std::to_string(i) + "\":0";
  }
  EXPECT_TRUE(DecodeNames("[" + names + "]").value);
  EXPECT_TRUE(DecodeProperties("{" + properties + "}").value);
  EXPECT_EQ(errorOfNames("[" + names + ",\"0\"]"), "more than 1000 properties");
  EXPECT_EQ(errorOfSet("{" + properties + ",\"last\":0}"), "more than 1000 properties");
}

TEST(PayloadTest, EncodesAValueOfEachType) {
  EXPECT_EQ(EncodeValue(true), "true");
  EXPECT_EQ(EncodeValue(-2147483647 - 1), "-2147483648");
  EXPECT_EQ(EncodeValue(2.0), "2.0");
  EXPECT_EQ(EncodeValue(std::nan("")), "null");
  EXPECT_EQ(EncodeValue(std::string("a\"b")), R"("a\"b")");
  EXPECT_EQ(EncodeValue(JsonText{"{ \"a\" : [1] }"}), "{ \"a\" : [1] }");
  EXPECT_EQ(EncodeValue(Bytes{"foob"}), R"({"$bytes":"Zm9vYg=="})");
}

TEST(PayloadTest, EncodesAsAStringAJsonPropertyThatIsNoJson) {
  EXPECT_EQ(EncodeValue(JsonText{""}), "\"\"");
  EXPECT_EQ(EncodeValue(JsonText{"{\"a\""}), R"("{\"a\"")");
  EXPECT_EQ(EncodeValue(JsonText{"1 2"}), "\"1 2\"");
  EXPECT_EQ(EncodeValue(JsonText{"\"\xFF\""}), "\"\\\"\xEF\xBF\xBD\\\"\"");
}

TEST(PayloadTest, NamesTheTypesOfTheDescription) {
  EXPECT_EQ(EncodeDescription({}), "{}");
  EXPECT_EQ(EncodeDescription({{"a", 0}, {"b", 1}, {"c", 2}, {"d", 3}, {"e", 4}, {"f", 5}}),
            R"({"a":{"type":"bool"},"b":{"type":"int"},"c":{"type":"double"},)"
            R"("d":{"type":"string"},"e":{"type":"json"},"f":{"type":"bytes"}})");
  EXPECT_EQ(EncodeDescription({{"real", 6}}), R"({"real":{"type":"double"}})");
}

TEST(PayloadTest, EncodesResultsAndErrors) {
  EXPECT_EQ(EncodeResult(0, {}), R"({"result":0,"properties":{}})");
  EXPECT_EQ(EncodeResult(-6, {{"b", 1}, {"a", std::string("x")}, {"b", false}}),
            R"({"result":-6,"properties":{"a":"x","b":false}})");
  EXPECT_EQ(EncodeError("a \"b\""), R"({"error":"a \"b\""})");
}

}  // namespace
