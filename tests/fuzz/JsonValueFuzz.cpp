// JSON text through JsonValueAdaptor::Create, and back through ToString. The input is the text.
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "JsonValueAdaptor.h"
#include "Platform.h"
#include "Require.h"
#include "payload/Json.h"
#include "values/Utf8.h"

namespace {

using namespace fuzz;
using ThingCommon::JsonValueAdaptor;

JsonValueAdaptor::_Type expectedType(const Json::Value& value) {
  static const std::map<Json::ValueType, JsonValueAdaptor::_Type> kTypes = {
      {Json::nullValue, JsonValueAdaptor::TYPE_NULL},
      {Json::booleanValue, JsonValueAdaptor::TYPE_BOOL},
      {Json::intValue, JsonValueAdaptor::TYPE_INT},
      {Json::uintValue, JsonValueAdaptor::TYPE_UINT},
      {Json::realValue, JsonValueAdaptor::TYPE_REAL},
      {Json::stringValue, JsonValueAdaptor::TYPE_STRING},
      {Json::arrayValue, JsonValueAdaptor::TYPE_ARRAY},
      {Json::objectValue, JsonValueAdaptor::TYPE_OBJECT}};
  return kTypes.at(value.type());
}

struct Traits {
  bool hasComments = false;
  bool isUnicode = true;  // every text in it is one
};

// Checks every value in the value.
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

Json::Value valueOf(const Lumo::JsonItem& item) {
  const std::string text(item.text);
  if (item.kind == Lumo::JsonKind::Null) return {};
  if (item.kind == Lumo::JsonKind::Bool) return text == "true";
  if (item.kind == Lumo::JsonKind::Real) return item.real;
  if (item.kind == Lumo::JsonKind::String) return text;
  if (item.kind == Lumo::JsonKind::Array) return Json::arrayValue;
  if (item.kind == Lumo::JsonKind::Object) return Json::objectValue;
  errno = 0;
  const Json::Int64 number = std::strtoll(text.c_str(), nullptr, 10);
  if (errno == 0) return number;
  errno = 0;
  const Json::UInt64 unsignedNumber = std::strtoull(text.c_str(), nullptr, 10);
  if (errno == 0 && text.front() != '-') return unsignedNumber;
  return std::strtod(text.c_str(), nullptr);
}

// What the device service's strict reader makes of the text.
std::optional<Json::Value> readStrictly(std::string_view text) {
  // By depth: the names and values in the array or object there that is being read.
  std::vector<std::vector<std::pair<std::string, Json::Value>>> open(1);
  const std::string error = Lumo::ReadJson(text, [&open](const Lumo::JsonItem& item) {
    if (open.size() < item.depth + 2) open.resize(item.depth + 2);
    Json::Value value = valueOf(item);
    for (auto& [name, member] : open[item.depth + 1]) {
      if (value.isArray()) {
        value.append(std::move(member));
      } else {
        value[name] = std::move(member);
      }
    }
    open[item.depth + 1].clear();
    open[item.depth].emplace_back(item.name, std::move(value));
  });
  if (!error.empty()) return std::nullopt;
  return std::move(open[0].at(0).second);
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
  Platform::Forget();
  const std::string_view text(reinterpret_cast<const char*>(data), size);

  const JsonValueAdaptor value = JsonValueAdaptor::Create(std::string(text));
  const std::size_t errors = countErrors();
  Require(errors <= 1, "a text that is no JSON is logged once");
  const std::optional<Json::Value> strict = readStrictly(text);
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
