// JSON text through JsonValueAdaptor::Create, and back through ToString. The input is the text.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "JsonValueAdaptor.h"
#include "Platform.h"
#include "Require.h"
#include "Target.h"
#include "payload/Json.h"
#include "values/Utf8.h"

namespace {

using fuzz::Platform;
using fuzz::Require;
using fuzz::RequireEqual;
using ThingCommon::JsonValueAdaptor;

JsonValueAdaptor::_Type expectedType(const Json::Value& value) {
  if (value.isBool()) return JsonValueAdaptor::TYPE_BOOL;
  if (value.type() == Json::intValue) return JsonValueAdaptor::TYPE_INT;
  if (value.type() == Json::uintValue) return JsonValueAdaptor::TYPE_UINT;
  if (value.type() == Json::realValue) return JsonValueAdaptor::TYPE_REAL;
  if (value.isString()) return JsonValueAdaptor::TYPE_STRING;
  if (value.type() == Json::objectValue) return JsonValueAdaptor::TYPE_OBJECT;
  if (value.type() == Json::arrayValue) return JsonValueAdaptor::TYPE_ARRAY;
  return JsonValueAdaptor::TYPE_NULL;
}

struct Traits {
  bool hasComments = false;
  bool isUnicode = true;  // every text in it is one
};

// Looks at every value in the value.
void examine(const Json::Value& value, Traits& traits) {
  RequireEqual<int>(JsonValueAdaptor(value).Type(), expectedType(value), "tags fit JSON types");
  RequireEqual<int>(JsonValueAdaptor::ConvertType(JsonValueAdaptor(value).Type()), value.type(),
                    "a tag leads back to its JSON type");
  for (const auto place : {Json::commentBefore, Json::commentAfterOnSameLine, Json::commentAfter}) {
    traits.hasComments = traits.hasComments || value.hasComment(place);
  }
  if (value.isString() && !Lumo::IsUtf8(value.asString())) traits.isUnicode = false;
  for (auto member = value.begin(); member != value.end(); ++member) {
    if (value.isObject() && !Lumo::IsUtf8(member.name())) traits.isUnicode = false;
    examine(*member, traits);
  }
}

std::size_t countErrors() {
  Require(Platform::CountLogs("HandleException", "[%s] exception") == 0 &&
              Platform::CountLogs("HandleException", "unknown") == 0,
          "JSON fails with JSON's own exceptions");
  return Platform::CountLogs("HandleException", "json exception");
}

void checkCompactText(const JsonValueAdaptor& value, const Traits& traits) {
  const std::string text = value.ToString(false);
  Require(!text.empty(), "a value can be written");
  Require(text.find('\n') == std::string::npos, "the compact text is one line");
  const JsonValueAdaptor again = JsonValueAdaptor::Create(text);
  const std::string textAgain = again.ToString(false);
  Require(textAgain.size() <= text.size(), "texts do not grow");
  if (traits.isUnicode) {
    RequireEqual(textAgain, text, "the compact text stands for the value");
    Require(again == value, "the compact text is read as the value");
  }
  RequireEqual(JsonValueAdaptor::Create(textAgain).ToString(false), textAgain,
               "what was read and written once stays as it is");
}

void checkStyledText(const JsonValueAdaptor& value, const Traits& traits) {
  const std::string text = value.ToString(true);
  Require(!text.empty() && text.back() == '\n', "the styled text ends with a line feed");
  // Comments are written out with the value, and JSON has none: such a text is for people.
  if (traits.hasComments || !traits.isUnicode) return;
  const JsonValueAdaptor again = JsonValueAdaptor::Create(text);
  Require(again == value, "the styled text is read as the value");
  RequireEqual(again.ToString(true), text, "the styled text stands for the value");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Platform::Get().Forget();
  const std::string_view text(reinterpret_cast<const char*>(data), size);

  const JsonValueAdaptor value = JsonValueAdaptor::Create(std::string(text));
  const std::size_t errors = countErrors();
  Require(errors <= 1, "a text that is no JSON is logged once");
  const auto strict = Lumo::ParseJson(text, nullptr);
  if (strict) {
    Require(errors == 0, "what a strict parser takes is taken");
    Require(*strict == value, "a strict parser reads the same value");
  }

  Traits traits;
  examine(value, traits);
  checkCompactText(value, traits);
  checkStyledText(value, traits);
  RequireEqual(countErrors(), errors, "what was written can be read");
  return 0;
}
