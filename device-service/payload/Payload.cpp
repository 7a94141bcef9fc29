#include "payload/Payload.h"

#include <json/json.h>

#include <algorithm>
#include <utility>
#include <variant>

#include "payload/Base64.h"
#include "payload/Json.h"
#include "values/Utf8.h"

namespace Lumo {
namespace {

constexpr const char* kBytesMember = "$bytes";
constexpr const char* kNameWithNul = "a name with U+0000";

const char* nameOf(lumo_property_type type) {
  switch (type) {
    case LUMO_PROPERTY_TYPE_BOOL:
      return "bool";
    case LUMO_PROPERTY_TYPE_INT:
      return "int";
    case LUMO_PROPERTY_TYPE_STRING:
      return "string";
    case LUMO_PROPERTY_TYPE_JSON_STRING:
      return "json";
    case LUMO_PROPERTY_TYPE_BYTES:
      return "bytes";
    case LUMO_PROPERTY_TYPE_DOUBLE:
    case kRegisteredReal:
    default:
      return "double";
  }
}

void appendJsonText(std::string& out, const std::string& text) {
  if (ParseJson(text, nullptr)) {
    out.append(text);
  } else {
    AppendJsonString(out, text);
  }
}

void appendValue(std::string& out, const PropertyValue& value) {
  struct Appender {
    std::string& out;
    void operator()(bool flag) const { out.append(flag ? "true" : "false"); }
    void operator()(int number) const { out.append(std::to_string(number)); }
    void operator()(double number) const { AppendJsonNumber(out, number); }
    void operator()(const std::string& text) const { AppendJsonString(out, text); }
    void operator()(const JsonText& json) const { appendJsonText(out, json.text); }
    void operator()(const Bytes& bytes) const {
      out.append("{\"").append(kBytesMember).append("\":\"");
      out.append(EncodeBase64(bytes.data)).append("\"}");
    }
  };
  std::visit(Appender{out}, value);
}

// `appendMember` appends what belongs to a key of the map.
template <typename Map, typename Function>
void appendObject(std::string& out, const Map& members, const Function& appendMember) {
  out.push_back('{');
  bool first = true;
  for (const auto& [name, member] : members) {
    if (!std::exchange(first, false)) out.push_back(',');
    AppendJsonString(out, name);
    out.push_back(':');
    appendMember(member);
  }
  out.push_back('}');
}

Decoded<Json::Value> parsePayload(std::string_view payload, const JsonReader& reader) {
  if (payload.size() > kMaxRequestBytes) {
    return {std::nullopt, DescribeTooLarge()};
  }
  Decoded<Json::Value> document;
  document.value = reader.Read(payload, &document.error);
  return document;
}

// Where the value stands in the text that it was parsed from.
std::string_view textOf(const Json::Value& value, std::string_view document) {
  const auto start = static_cast<std::size_t>(value.getOffsetStart());
  return document.substr(start, static_cast<std::size_t>(value.getOffsetLimit()) - start);
}

bool isWrittenAsInteger(std::string_view number) {
  return number.find_first_of(".eE") == std::string_view::npos;
}

// Readers of C strings would see only what stands before it.
bool hasNul(std::string_view text) {
  return text.find('\0') != std::string_view::npos;
}

// A value that has no property gives what is wrong with it.
Decoded<PropertyValue> decodeObject(const Json::Value& object, std::string_view document) {
  if (object.size() != 1 || !object.isMember(kBytesMember)) {
    return {JsonText{std::string(textOf(object, document))}, {}};
  }
  const Json::Value& text = object[kBytesMember];
  std::optional<std::string> bytes;
  if (text.isString()) bytes = DecodeBase64(text.asString());
  if (!bytes) return {std::nullopt, "$bytes is not base64"};
  return {Bytes{std::move(*bytes)}, {}};
}

Decoded<PropertyValue> decodeText(std::string text) {
  // An escape may stand for half a surrogate pair.
  if (!IsUtf8(text)) return {std::nullopt, "not a Unicode text"};
  if (hasNul(text)) return {std::nullopt, "a text with U+0000"};
  return {std::move(text), {}};
}

Decoded<PropertyValue> decodeValue(const Json::Value& value, std::string_view document) {
  constexpr const char* kOutOfRange = "an integer outside 32 bits";
  switch (value.type()) {
    case Json::booleanValue:
      return {value.asBool(), {}};
    case Json::intValue:
    case Json::uintValue:
      if (!value.isInt()) return {std::nullopt, kOutOfRange};
      return {value.asInt(), {}};
    case Json::realValue:
      // The parser makes a real number of an integer that is too large for it.
      if (isWrittenAsInteger(textOf(value, document))) return {std::nullopt, kOutOfRange};
      return {value.asDouble(), {}};
    case Json::stringValue:
      return decodeText(value.asString());
    case Json::arrayValue:
      return {JsonText{std::string(textOf(value, document))}, {}};
    case Json::objectValue:
      return decodeObject(value, document);
    case Json::nullValue:
    default:
      return {std::nullopt, "null"};
  }
}

std::string tooManyProperties() {
  return "more than " + std::to_string(kMaxRequestProperties) + " properties";
}

}  // namespace

std::string DescribeTooLarge() {
  return "more than " + std::to_string(kMaxRequestBytes) + " bytes";
}

Decoded<std::vector<std::string>> DecodeNames(std::string_view payload, const JsonReader& reader) {
  const Decoded<Json::Value> document = parsePayload(payload, reader);
  if (!document.value) return {std::nullopt, document.error};
  const auto isName = [](const Json::Value& element) {
    return element.isString() && IsUtf8(element.asString());
  };
  if (!document.value->isArray() ||
      !std::all_of(document.value->begin(), document.value->end(), isName)) {
    return {std::nullopt, "not a JSON array of names"};
  }
  if (document.value->size() > kMaxRequestProperties) return {std::nullopt, tooManyProperties()};
  std::vector<std::string> names;
  names.reserve(document.value->size());
  for (const Json::Value& element : *document.value) {
    names.push_back(element.asString());
    if (hasNul(names.back())) return {std::nullopt, kNameWithNul};
  }
  return {std::move(names), {}};
}

Decoded<Properties> DecodeProperties(std::string_view payload, const JsonReader& reader) {
  const Decoded<Json::Value> document = parsePayload(payload, reader);
  if (!document.value) return {std::nullopt, document.error};
  if (!document.value->isObject()) {
    return {std::nullopt, "not a JSON object of names and values"};
  }
  if (document.value->size() > kMaxRequestProperties) return {std::nullopt, tooManyProperties()};
  Properties properties;
  properties.reserve(document.value->size());
  for (auto member = document.value->begin(); member != document.value->end(); ++member) {
    std::string name = member.name();
    if (!IsUtf8(name)) return {std::nullopt, "a name is not a Unicode text"};
    if (hasNul(name)) return {std::nullopt, kNameWithNul};
    Decoded<PropertyValue> decoded = decodeValue(*member, payload);
    if (!decoded.value) return {std::nullopt, Abbreviate(name) + ": " + decoded.error};
    properties.push_back({std::move(name), std::move(*decoded.value)});
  }
  return {std::move(properties), {}};
}

std::string EncodeValue(const PropertyValue& value) {
  std::string json;
  appendValue(json, value);
  return json;
}

std::string EncodeDescription(const std::map<std::string, lumo_property_type>& types) {
  std::string json;
  appendObject(json, types, [&json](lumo_property_type type) {
    json.append("{\"type\":\"").append(nameOf(type)).append("\"}");
  });
  return json;
}

std::string EncodeResult(lumo_error code, const Properties& properties) {
  std::map<std::string_view, const PropertyValue*> values;
  for (const Property& property : properties) values[property.name] = &property.value;
  std::string json = "{\"result\":" + std::to_string(code) + ",\"properties\":";
  appendObject(json, values, [&json](const PropertyValue* value) { appendValue(json, *value); });
  json.push_back('}');
  return json;
}

std::string EncodeError(std::string_view text) {
  std::string json = "{\"error\":";
  AppendJsonString(json, text);
  json.push_back('}');
  return json;
}

}  // namespace Lumo
