// A JSON value through convertPropertyToLumoList, against the rules written down once more.
//
// The input is JSON text, in which NaN, Infinity and -Infinity are numbers. Lines before it:
//   !3   the library refuses the third property; !0: the list
//   u    whole numbers are unsigned as far as they can be, which the text alone does not make them
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Input.h"
#include "JsonValueAdaptor.h"
#include "LumoWrapper.h"
#include "Platform.h"
#include "Require.h"

namespace {

using namespace fuzz;
using ThingCommon::JsonValueAdaptor;
using ThingCommon::LumoWrapper;

struct Script {
  bool refuseList = false;
  std::optional<unsigned> refusedProperty;  // counted from 0
  bool makeUnsigned = false;
};

Script takeScript(Input& input) {
  Script script;
  if (input.Rest().substr(0, 1) == "!") {
    input.Letter();
    const int number = input.Number();
    input.Line();
    script.refuseList = number == 0;
    if (number > 0) script.refusedProperty = static_cast<unsigned>(number - 1);
  }
  if (input.Rest().substr(0, 2) == "u\n") {
    input.Line();
    script.makeUnsigned = true;
  }
  return script;
}

void makeUnsigned(Json::Value& value) {
  if (value.type() == Json::intValue && value.isUInt64()) value = value.asLargestUInt();
  for (Json::Value& member : value) makeUnsigned(member);
}

Json::Value parse(std::string_view text) {
  Json::CharReaderBuilder builder;
  builder["allowSpecialFloats"] = true;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  try {
    reader->parse(text.data(), text.data() + text.size(), &value, nullptr);
  } catch (const Json::Exception&) {
    // Nested too deeply: what has been read so far is as good.
  }
  return value;
}

bool isFinite(const Json::Value& value) {
  if (value.type() == Json::realValue) return std::isfinite(value.asDouble());
  return std::all_of(value.begin(), value.end(), isFinite);
}

double cutToInt32(double value) {
  constexpr double kSmallest = -2147483648.0;
  if (std::isnan(value)) return kSmallest;
  const double whole = std::trunc(value);
  return whole < kSmallest || whole > 2147483647.0 ? kSmallest : whole + 0.0;
}

// Nothing where a value has no property.
std::optional<Property> expectedProperty(const std::string& name, const Json::Value& value) {
  const auto numeric = [&name](lumo_property_type type, double number) {
    return Property{name, type, number, std::nullopt, false};
  };
  switch (value.type()) {
    case Json::booleanValue:
      return numeric(LUMO_PROPERTY_TYPE_BOOL, value == Json::Value(true) ? 1 : 0);
    case Json::intValue: {
      const Json::LargestInt number = value.asLargestInt();
      if (number < INT32_MIN || number > INT32_MAX) return std::nullopt;
      return numeric(LUMO_PROPERTY_TYPE_INT, static_cast<double>(number));
    }
    case Json::uintValue: {
      const Json::LargestUInt number = value.asLargestUInt();
      if (number > UINT32_MAX) return std::nullopt;
      const double tooMuch = number > INT32_MAX ? 4294967296.0 : 0;
      return numeric(LUMO_PROPERTY_TYPE_INT, static_cast<double>(number) - tooMuch);
    }
    case Json::realValue:
      return numeric(LUMO_PROPERTY_TYPE_DOUBLE, cutToInt32(value.asDouble()));
    case Json::stringValue: {
      const char* begin = nullptr;
      const char* end = nullptr;
      Require(value.getString(&begin, &end), "a string is a string");
      return StringProperty(name, {begin, end});
    }
    case Json::arrayValue:
    case Json::objectValue:  // compared by what it stands for
      return Property{name, LUMO_PROPERTY_TYPE_JSON_STRING, 0, "", false};
    case Json::nullValue:
    default:
      return std::nullopt;
  }
}

void checkProperty(Property actual, const Property& expected, const Json::Value& value) {
  if (expected.type == LUMO_PROPERTY_TYPE_JSON_STRING && actual.text) {
    Require(actual.text->find('\n') == std::string::npos, "JSON in a property is one line");
    const JsonValueAdaptor read = JsonValueAdaptor::Create(*actual.text);
    if (isFinite(value)) {
      RequireEqual(read.ToString(false).size() <= actual.text->size(), true,
                   "JSON in a property can be read");
      RequireEqual(read.size(), value.size(), "JSON in a property has all of the value");
      RequireEqual<int>(read.type(), value.type(), "JSON in a property has the value's type");
    }
    actual.text = "";
  }
  RequireEqual(actual, expected, "a property is what its member is");
}

void checkMember(const std::string& name, const Json::Value& value) {
  const std::optional<Property> expected = expectedProperty(name, value);
  void* const property = LumoWrapper::convertProperty(name, JsonValueAdaptor(value));
  RequireEqual(property != nullptr, expected.has_value(), "what has a property gets one");
  if (property != nullptr) checkProperty(Platform::TakeProperty(property), *expected, value);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Platform::Forget();
  Input input(data, size);
  const Script script = takeScript(input);
  Json::Value value = parse(input.Rest());
  if (script.makeUnsigned) makeUnsigned(value);

  if (script.refuseList) Platform::Fail(Platform::kCreateList, 1);
  if (script.refusedProperty) Platform::Fail(Platform::kCreateProperty, 1, *script.refusedProperty);
  void* const list = LumoWrapper::convertPropertyToLumoList(JsonValueAdaptor(value));
  const std::vector<Property> properties = Platform::TakeList(list);
  Platform::Fail(Platform::kCreateProperty, 0);

  RequireEqual(list == nullptr, script.refuseList, "there is a list unless the library has none");
  if (list == nullptr) return 0;
  if (!value.isObject() && !value.isNull()) {
    Require(properties.empty(), "what is no object has no properties");
    RequireEqual<std::size_t>(
        Platform::CountLogs("convertPropertyToLumoList", "exception occurred"), 1,
        "what is no object is logged");
    return 0;
  }

  std::vector<std::string> names = value.getMemberNames();
  std::sort(names.begin(), names.end());
  std::size_t found = 0;
  unsigned created = 0;
  std::size_t exceptions = 0;
  for (const std::string& name : names) {
    const std::optional<Property> expected = expectedProperty(name, value[name]);
    if (!expected) {
      if (!value[name].isNull()) ++exceptions;
      continue;
    }
    if (script.refusedProperty == created++) continue;
    Require(found < properties.size(), "every member that converts is in the list");
    checkProperty(properties[found++], *expected, value[name]);
  }
  RequireEqual(found, properties.size(), "nothing else is in the list");
  RequireEqual(Platform::CountLogs("convertProperty", "exception occurred"), exceptions,
               "a number that does not fit is logged");
  for (const std::string& name : names) checkMember(name, value[name]);
  return 0;
}
