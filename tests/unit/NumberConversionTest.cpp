// What each number becomes on its way between JSON text, values and the device service's
// properties. The results stand here to the bit, so that processors that calculate otherwise show.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iterator>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "CapturedLog.h"
#include "JsonValueAdaptor.h"
#include "LumoWrapper.h"
#include "api/Library.h"
#include "payload/Payload.h"

namespace ThingCommon {
namespace {

using Adaptor = JsonValueAdaptor;

constexpr Adaptor::_Type kNull = Adaptor::TYPE_NULL;
constexpr Adaptor::_Type kInt = Adaptor::TYPE_INT;
constexpr Adaptor::_Type kUint = Adaptor::TYPE_UINT;
constexpr Adaptor::_Type kReal = Adaptor::TYPE_REAL;
constexpr const char* kNone = nullptr;

struct Number {
  const char* text;
  Adaptor::_Type type;   // of the value that the text is read as; null: not a number for the reader
  std::uint64_t bits;    // of that value: an integer in two's complement, a real number in IEEE 754
  const char* written;   // the value as text
  const char* sent;      // what the value is on the wire when it is notified; none: it is left out
  const char* received;  // what a set to the text is on the wire when it is notified; none: refused
};

constexpr const char* kSame = "the text itself";
// The smallest number of 32 bits, which stands for those outside.
constexpr const char* kMin = "-2147483648.0";

constexpr Number kNumbers[] = {
    // Integers, and where they end: 32 bits, 53 bits, 64 bits.
    {"0", kInt, 0x0000000000000000, kSame, kSame, kSame},
    {"-0", kInt, 0x0000000000000000, "0", "0", "0"},
    {"1", kInt, 0x0000000000000001, kSame, kSame, kSame},
    {"-1", kInt, 0xFFFFFFFFFFFFFFFF, kSame, kSame, kSame},
    {"2147483647", kInt, 0x000000007FFFFFFF, kSame, kSame, kSame},
    {"2147483648", kInt, 0x0000000080000000, kSame, kNone, kNone},
    {"-2147483648", kInt, 0xFFFFFFFF80000000, kSame, kSame, kSame},
    {"-2147483649", kInt, 0xFFFFFFFF7FFFFFFF, kSame, kNone, kNone},
    {"4294967295", kInt, 0x00000000FFFFFFFF, kSame, kNone, kNone},
    {"4294967296", kInt, 0x0000000100000000, kSame, kNone, kNone},
    {"9007199254740991", kInt, 0x001FFFFFFFFFFFFF, kSame, kNone, kNone},
    {"9007199254740992", kInt, 0x0020000000000000, kSame, kNone, kNone},
    {"9007199254740993", kInt, 0x0020000000000001, kSame, kNone, kNone},
    {"-9007199254740993", kInt, 0xFFDFFFFFFFFFFFFF, kSame, kNone, kNone},
    {"9223372036854775807", kInt, 0x7FFFFFFFFFFFFFFF, kSame, kNone, kNone},
    {"9223372036854775808", kUint, 0x8000000000000000, kSame, kNone, kNone},
    {"-9223372036854775808", kInt, 0x8000000000000000, kSame, kNone, kNone},
    {"-9223372036854775809", kReal, 0xC3E0000000000000, "-9.2233720368547758e+18", kMin, kNone},
    {"18446744073709551615", kUint, 0xFFFFFFFFFFFFFFFF, kSame, kNone, kNone},
    {"18446744073709551616", kReal, 0x43F0000000000000, "1.8446744073709552e+19", kMin, kNone},
    {"100000000000000000000000", kReal, 0x44B52D02C7E14AF6, "9.9999999999999992e+22", kMin, kNone},
    // Zeros, also those that a number too small for a double becomes.
    {"0.0", kReal, 0x0000000000000000, kSame, kSame, kSame},
    {"-0.0", kReal, 0x8000000000000000, kSame, "0.0", kSame},
    {"0e9", kReal, 0x0000000000000000, "0.0", "0.0", "0.0"},
    {"-0E-9", kReal, 0x8000000000000000, "-0.0", "0.0", "-0.0"},
    {"1e-400", kReal, 0x0000000000000000, "0.0", "0.0", "0.0"},
    {"-1e-400", kReal, 0x8000000000000000, "-0.0", "0.0", "-0.0"},
    {"2.4703282292062327e-324", kReal, 0x0000000000000000, "0.0", "0.0", "0.0"},
    // The smallest numbers; the last denormal and the first normal one.
    {"2.4703282292062328e-324", kReal, 0x0000000000000001, "4.9406564584124654e-324", "0.0",
     "5e-324"},
    {"5e-324", kReal, 0x0000000000000001, "4.9406564584124654e-324", "0.0", kSame},
    {"-5e-324", kReal, 0x8000000000000001, "-4.9406564584124654e-324", "0.0", kSame},
    {"1e-323", kReal, 0x0000000000000002, "9.8813129168249309e-324", "0.0", kSame},
    {"1e-310", kReal, 0x000012688B70E62B, "9.9999999999999694e-311", "0.0", kSame},
    {"2.2250738585072009e-308", kReal, 0x000FFFFFFFFFFFFF, kSame, "0.0", "2.225073858507201e-308"},
    {"2.2250738585072011e-308", kReal, 0x000FFFFFFFFFFFFF, "2.2250738585072009e-308", "0.0",
     "2.225073858507201e-308"},
    {"2.2250738585072012e-308", kReal, 0x0010000000000000, "2.2250738585072014e-308", "0.0",
     "2.2250738585072014e-308"},
    {"2.2250738585072014e-308", kReal, 0x0010000000000000, kSame, "0.0", kSame},
    {"3e-308", kReal, 0x00159283684DBA77, "3.0000000000000002e-308", "0.0", kSame},
    // The largest ones, and those beyond, which are no JSON numbers for the parser.
    {"1e308", kReal, 0x7FE1CCF385EBC8A0, "1e+308", kMin, "1e+308"},
    {"-1e308", kReal, 0xFFE1CCF385EBC8A0, "-1e+308", kMin, "-1e+308"},
    {"1.7976931348623157e308", kReal, 0x7FEFFFFFFFFFFFFF, "1.7976931348623157e+308", kMin,
     "1.7976931348623157e+308"},
    {"1.7976931348623158e308", kReal, 0x7FEFFFFFFFFFFFFF, "1.7976931348623157e+308", kMin,
     "1.7976931348623157e+308"},
    {"1.7976931348623159e308", kNull, 0, "null", kNone, kNone},
    {"1e309", kNull, 0, "null", kNone, kNone},
    {"-1e309", kNull, 0, "null", kNone, kNone},
    {"1e999999", kNull, 0, "null", kNone, kNone},
    // Fractions, most of which no double is.
    {"0.1", kReal, 0x3FB999999999999A, "0.10000000000000001", "0.0", kSame},
    {"0.2", kReal, 0x3FC999999999999A, "0.20000000000000001", "0.0", kSame},
    {"0.3", kReal, 0x3FD3333333333333, "0.29999999999999999", "0.0", kSame},
    {"0.30000000000000004", kReal, 0x3FD3333333333334, kSame, "0.0", kSame},
    {"0.5", kReal, 0x3FE0000000000000, kSame, "0.0", kSame},
    {"-0.5", kReal, 0xBFE0000000000000, kSame, "0.0", kSame},
    {"0.3333333333333333", kReal, 0x3FD5555555555555, "0.33333333333333331", "0.0", kSame},
    {"0.33333333333333331", kReal, 0x3FD5555555555555, kSame, "0.0", "0.3333333333333333"},
    {"0.33333333333333337", kReal, 0x3FD5555555555556, kSame, "0.0", kSame},
    {"0.66666666666666663", kReal, 0x3FE5555555555555, kSame, "0.0", "0.6666666666666666"},
    {"1.1", kReal, 0x3FF199999999999A, "1.1000000000000001", "1.0", kSame},
    {"1.9", kReal, 0x3FFE666666666666, "1.8999999999999999", "1.0", kSame},
    {"-1.9", kReal, 0xBFFE666666666666, "-1.8999999999999999", "-1.0", kSame},
    {"2.675", kReal, 0x4005666666666666, "2.6749999999999998", "2.0", kSame},
    {"3.141592653589793", kReal, 0x400921FB54442D18, "3.1415926535897931", "3.0", kSame},
    {"1.0000000000000002", kReal, 0x3FF0000000000001, kSame, "1.0", kSame},
    // Halfway between two doubles, just below and just above: whoever rounds to the 64 bits of an
    // x87 register first, and to 53 bits then, ends at the wrong one.
    {"1.00000000000000011102230246251565404236316680908203124", kReal, 0x3FF0000000000000, "1.0",
     "1.0", "1.0"},
    {"1.00000000000000011102230246251565404236316680908203125", kReal, 0x3FF0000000000000, "1.0",
     "1.0", "1.0"},
    {"1.00000000000000011102230246251565404236316680908203126", kReal, 0x3FF0000000000001,
     "1.0000000000000002", "1.0", "1.0000000000000002"},
    {"1.00000000000000033306690738754696212708950042724609374", kReal, 0x3FF0000000000001,
     "1.0000000000000002", "1.0", "1.0000000000000002"},
    {"1.00000000000000033306690738754696212708950042724609375", kReal, 0x3FF0000000000002,
     "1.0000000000000004", "1.0", "1.0000000000000004"},
    {"9007199254740993.0", kReal, 0x4340000000000000, "9007199254740992.0", kMin,
     "9007199254740992.0"},
    {"9007199254740993.00000000000000000001", kReal, 0x4340000000000001, "9007199254740994.0", kMin,
     "9007199254740994.0"},
    {"9007199254740992.99999999999999999999", kReal, 0x4340000000000000, "9007199254740992.0", kMin,
     "9007199254740992.0"},
    {"9223372036854776832.0", kReal, 0x43E0000000000000, "9.2233720368547758e+18", kMin,
     "9223372036854775808.0"},
    {"9223372036854776833.0", kReal, 0x43E0000000000001, "9.2233720368547779e+18", kMin,
     "9223372036854777856.0"},
    {"1e23", kReal, 0x44B52D02C7E14AF6, "9.9999999999999992e+22", kMin, "1e+23"},
    {"6.631236846766476e-316", kReal, 0x0000000008000000, kSame, "0.0", "6.63123685e-316"},
    // Exponents as they may be written.
    {"1e0", kReal, 0x3FF0000000000000, "1.0", "1.0", "1.0"},
    {"1E5", kReal, 0x40F86A0000000000, "100000.0", "1e+05", "1e+05"},
    {"1e+5", kReal, 0x40F86A0000000000, "100000.0", "1e+05", "1e+05"},
    {"1e05", kReal, 0x40F86A0000000000, "100000.0", "1e+05", "1e+05"},
    {"100000.0", kReal, 0x40F86A0000000000, kSame, "1e+05", "1e+05"},
    {"12e-1", kReal, 0x3FF3333333333333, "1.2", "1.0", "1.2"},
    {"0.0012e3", kReal, 0x3FF3333333333333, "1.2", "1.0", "1.2"},
    {"1e16", kReal, 0x4341C37937E08000, "10000000000000000.0", kMin, "1e+16"},
    {"1e17", kReal, 0x4376345785D8A000, "1e+17", kMin, "1e+17"},
    {"123456789012345678e-3", kReal, 0x42DC12218377DE6B, "123456789012345.67", kMin,
     "123456789012345.67"},
    {"1e22", kReal, 0x4480F0CF064DD592, "1e+22", kMin, "1e+22"},
    // Around the ends of 32 bits, where reals are cut.
    {"2147483646.5", kReal, 0x41DFFFFFFFA00000, kSame, "2147483646.0", kSame},
    {"2147483647.0", kReal, 0x41DFFFFFFFC00000, kSame, kSame, kSame},
    {"2147483647.5", kReal, 0x41DFFFFFFFE00000, kSame, "2147483647.0", kSame},
    {"2147483647.9999998", kReal, 0x41DFFFFFFFFFFFFF, kSame, "2147483647.0", kSame},
    {"2147483647.9999999", kReal, 0x41E0000000000000, "2147483648.0", kMin, "2147483648.0"},
    {"2147483648.0", kReal, 0x41E0000000000000, kSame, kMin, kSame},
    {"2147483648.5", kReal, 0x41E0000000100000, kSame, kMin, kSame},
    {"4294967296.5", kReal, 0x41F0000000080000, kSame, kMin, kSame},
    {"-2147483647.5", kReal, 0xC1DFFFFFFFE00000, kSame, "-2147483647.0", kSame},
    {"-2147483648.0", kReal, 0xC1E0000000000000, kMin, kMin, kMin},
    {"-2147483648.5", kReal, 0xC1E0000000100000, kSame, kMin, kSame},
    {"-2147483648.9999995", kReal, 0xC1E00000001FFFFF, kSame, kMin, kSame},
    {"-2147483648.9999999", kReal, 0xC1E0000000200000, "-2147483649.0", kMin, "-2147483649.0"},
    {"-2147483649.0", kReal, 0xC1E0000000200000, kSame, kMin, kSame},
    {"-4294967297.0", kReal, 0xC1F0000000100000, kSame, kMin, kSame},
};

std::uint64_t BitsOf(double number) {
  static_assert(sizeof(number) == sizeof(std::uint64_t));
  std::uint64_t bits = 0;
  std::memcpy(&bits, &number, sizeof(bits));
  return bits;
}

double DoubleOf(std::uint64_t bits) {
  double number = 0;
  std::memcpy(&number, &bits, sizeof(number));
  return number;
}

std::uint64_t BitsOf(const Adaptor& value) {
  switch (value.Type()) {
    case kInt:
      return static_cast<std::uint64_t>(value.asInt64());
    case kUint:
      return value.asUInt64();
    case kReal:
      return BitsOf(value.asDouble());
    default:
      return 0;
  }
}

Adaptor Member(const Json::Value& value) {
  Adaptor object(Adaptor::TYPE_OBJECT);
  object["n"] = value;
  return object;
}

// On the wrapper and the device service, without a broker between them.
class NumberConversionTest : public ::testing::Test {
 protected:
  NumberConversionTest() { CapturedLog::Get().Take(); }

  // The property that is sent for {"n": value}; none when the value has none.
  static std::optional<Lumo::PropertyValue> Sent(const Json::Value& value) {
    void* const list = LumoWrapper::convertPropertyToLumoList(Member(value));
    std::optional<Lumo::Properties> properties = Lumo::Library::Get().TakeList(list);
    if (!properties || properties->size() > 1) {
      ADD_FAILURE() << "not a list of one property";
      return std::nullopt;
    }
    if (properties->empty()) return std::nullopt;
    return std::move(properties->front().value);
  }

  // The property that a set of "n" to `text` makes; none when that is refused.
  static std::optional<Lumo::PropertyValue> Received(const std::string& text) {
    auto decoded = Lumo::DecodeProperties("{\"n\":" + text + "}");
    if (!decoded.value) return std::nullopt;
    if (decoded.value->size() != 1) {
      ADD_FAILURE() << "not one property";
      return std::nullopt;
    }
    return std::move(decoded.value->front().value);
  }

  // What the wrapper hands on when it gets the property in a request.
  static Adaptor HandedOn(Lumo::PropertyValue value) {
    Lumo::PropertyItem item({"n", std::move(value)});
    return LumoWrapper::getProperty(&item);
  }

  // The text on the wire; none for no property.
  static std::optional<std::string> Wire(const std::optional<Lumo::PropertyValue>& value) {
    if (!value) return std::nullopt;
    return Lumo::EncodeValue(*value);
  }

  static std::optional<std::string> Optional(const char* text) {
    if (text == nullptr) return std::nullopt;
    return text;
  }

  // Does `check` for each of the numbers.
  static void ForEachNumber(const std::function<void(const Number&)>& check) {
    for (Number number : kNumbers) {
      SCOPED_TRACE(number.text);
      for (const char** text : {&number.written, &number.sent, &number.received}) {
        if (*text == kSame) *text = number.text;
      }
      check(number);
    }
  }
};

TEST_F(NumberConversionTest, ReadsAndWritesTextsToTheBit) {
  ForEachNumber([](const Number& number) {
    const Adaptor value = Adaptor::Create(number.text);
    EXPECT_EQ(value.Type(), number.type);
    EXPECT_EQ(BitsOf(value), number.bits);
    EXPECT_EQ(CapturedLog::Get().Take().size(), number.type == kNull ? 1U : 0U);

    EXPECT_EQ(value.ToString(false), number.written);
    EXPECT_EQ(value.ToString(true), std::string(number.written) + "\n");
    // What an application gets that is sent a number.
    EXPECT_EQ(value.asString(), number.type == kNull ? "" : number.written);

    const Adaptor back = Adaptor::Create(number.written);
    EXPECT_EQ(back.Type(), number.type);
    EXPECT_EQ(BitsOf(back), number.bits);
  });
}

TEST_F(NumberConversionTest, SendsValuesAsTheirProperties) {
  ForEachNumber([](const Number& number) {
    const Adaptor value = Adaptor::Create(number.text);
    CapturedLog::Get().Take();
    EXPECT_EQ(Wire(Sent(value)), Optional(number.sent));
    // An integer that the library has no room for is left out with a line; a null, without.
    EXPECT_EQ(CapturedLog::Get().Take().size(),
              number.sent == kNone && number.type != kNull ? 1U : 0U);
    for (const char* wire : {number.sent, number.received}) {
      if (wire != kNone) {
        EXPECT_EQ(Wire(Received(wire)), Optional(wire));
      }
    }
  });
}

TEST_F(NumberConversionTest, ReceivesPropertiesToTheBitAndHandsAllButRealsOn) {
  ForEachNumber([](const Number& number) {
    const std::optional<Lumo::PropertyValue> property = Received(number.text);
    EXPECT_EQ(Wire(property), Optional(number.received));
    if (!property) return;
    const Adaptor handedOn = HandedOn(*property);
    if (number.type == kReal) {
      ASSERT_TRUE(std::holds_alternative<double>(*property));
      EXPECT_EQ(BitsOf(std::get<double>(*property)), number.bits);
      EXPECT_TRUE(handedOn.isNull());
    } else {
      ASSERT_TRUE(std::holds_alternative<int>(*property));
      EXPECT_EQ(BitsOf(Adaptor(Json::Value(std::get<int>(*property)))), number.bits);
      EXPECT_EQ(BitsOf(Adaptor(handedOn["n"])), number.bits);
    }
  });
}

TEST_F(NumberConversionTest, KeepsNumbersInsideAJsonProperty) {
  Json::Value array(Json::arrayValue);
  std::string text;
  ForEachNumber([&](const Number& number) {
    array.append(Adaptor::Create(number.text));
    text += (text.empty() ? "[" : ",") + std::string(number.written);
  });
  text += "]";
  const std::optional<std::string> wire = Wire(Sent(array));
  ASSERT_EQ(wire, text);
  const Adaptor back = HandedOn(*Received(*wire))["n"];
  ASSERT_EQ(back.size(), std::size(kNumbers));
  for (Json::ArrayIndex i = 0; i < back.size(); ++i) {
    EXPECT_EQ(BitsOf(Adaptor(back[i])), kNumbers[i].bits) << kNumbers[i].text;
  }
}

TEST_F(NumberConversionTest, KeepsRealsOfEveryExponent) {
  constexpr std::uint64_t kExponents = 2047;  // one more stands for what is no number
  constexpr std::uint64_t kMantissaBits = 52;
  constexpr std::uint64_t kMantissas[] = {0, 1, 0x5555555555555, 0xFFFFFFFFFFFFF};
  for (std::uint64_t exponent = 0; exponent < kExponents; ++exponent) {
    for (const std::uint64_t mantissa : kMantissas) {
      const std::uint64_t bits = exponent << kMantissaBits | mantissa;
      const double number = DoubleOf(bits);
      const std::string written = Adaptor::ToString(Json::Value(number), false);
      ASSERT_EQ(BitsOf(Adaptor::Create(written)), bits) << written;
      const std::string wire = Lumo::EncodeValue(number);
      const auto received = Received(wire);
      ASSERT_TRUE(received && std::holds_alternative<double>(*received)) << wire;
      ASSERT_EQ(BitsOf(std::get<double>(*received)), bits) << wire;
    }
  }
}

}  // namespace
}  // namespace ThingCommon
