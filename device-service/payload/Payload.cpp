#include "payload/Payload.h"

#include <algorithm>
#include <charconv>
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
  if (IsJson(text)) {
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

// `appendMember` appends the value of one member.
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

// Code that reads C strings would see only the part before it.
bool hasNul(std::string_view text) {
  return text.find('\0') != std::string_view::npos;
}

std::string readPayload(std::string_view payload, const JsonVisitor& visit) {
  if (payload.size() > kMaxRequestBytes) {
    return DescribeTooLarge();
  }
  return ReadJson(payload, visit);
}

std::string tooManyProperties() {
  return "more than " + std::to_string(kMaxRequestProperties) + " properties";
}

struct Member {
  JsonItem value;
  std::optional<JsonItem> bytes;  // the Base64, when the value is {"$bytes": "base64"}
};
using Members = std::map<std::string_view, Member>;

Decoded<PropertyValue> decodeInteger(std::string_view digits) {
  int number = 0;
  const char* const end = digits.data() + digits.size();
  if (std::from_chars(digits.data(), end, number).ec != std::errc()) {
    return {std::nullopt, "an integer outside 32 bits"};
  }
  return {number, {}};
}

Decoded<PropertyValue> decodeBytes(const JsonItem& base64) {
  std::optional<std::string> bytes;
  if (base64.kind == JsonKind::String) bytes = DecodeBase64(base64.text);
  if (!bytes) return {std::nullopt, "$bytes is not base64"};
  return {Bytes{std::move(*bytes)}, {}};
}

// The value, or why no property can hold it.
Decoded<PropertyValue> decodeValue(const Member& member) {
  const JsonItem& value = member.value;
  switch (value.kind) {
    case JsonKind::Bool:
      return {value.text == "true", {}};
    case JsonKind::Integer:
      return decodeInteger(value.text);
    case JsonKind::Real:
      return {value.real, {}};
    case JsonKind::String:
      if (hasNul(value.text)) return {std::nullopt, "a text with U+0000"};
      return {std::string(value.text), {}};
    case JsonKind::Object:
      if (member.bytes) return decodeBytes(*member.bytes);
      return {JsonText{std::string(value.text)}, {}};
    case JsonKind::Array:
      return {JsonText{std::string(value.text)}, {}};
    case JsonKind::Null:
    default:
      return {std::nullopt, "null"};
  }
}

Decoded<Properties> decodeMembers(const Members& members) {
  if (members.size() > kMaxRequestProperties) return {std::nullopt, tooManyProperties()};
  Properties properties;
  properties.reserve(members.size());
  for (const auto& [name, member] : members) {
    if (hasNul(name)) return {std::nullopt, kNameWithNul};
    Decoded<PropertyValue> decoded = decodeValue(member);
    if (!decoded.value) return {std::nullopt, Abbreviate(name) + ": " + decoded.error};
    properties.push_back({std::string(name), std::move(*decoded.value)});
  }
  return {std::move(properties), {}};
}

}  // namespace

std::string DescribeTooLarge() {
  return "more than " + std::to_string(kMaxRequestBytes) + " bytes";
}

Decoded<std::vector<std::string>> DecodeNames(std::string_view payload) {
  std::vector<std::string> names;
  bool areNames = true;
  std::string error = readPayload(payload, [&](const JsonItem& item) {
    if (item.depth == 0) {
      areNames = areNames && item.kind == JsonKind::Array;
    } else if (item.depth == 1 && item.kind == JsonKind::String) {
      names.emplace_back(item.text);
    } else {
      areNames = false;
    }
  });
  if (!error.empty()) return {std::nullopt, std::move(error)};
  if (!areNames) return {std::nullopt, "not a JSON array of names"};
  if (names.size() > kMaxRequestProperties) return {std::nullopt, tooManyProperties()};
  if (std::any_of(names.begin(), names.end(), hasNul)) return {std::nullopt, kNameWithNul};
  return {std::move(names), {}};
}

Decoded<Properties> DecodeProperties(std::string_view payload) {
  Members members;
  std::optional<JsonItem> bytes;  // of the value at depth 1 that is being read
  bool hasOthers = false;         // it holds something else
  Decoded<Properties> properties;
  std::string error = readPayload(payload, [&](const JsonItem& item) {
    if (item.depth == 2) {
      if (item.name == kBytesMember) {
        bytes = item;
      } else {
        hasOthers = true;
      }
    } else if (item.depth == 1) {
      members.insert_or_assign(item.name, Member{item, hasOthers ? std::nullopt : bytes});
      bytes.reset();
      hasOthers = false;
    } else if (item.depth == 0 && item.kind == JsonKind::Object) {
      properties = decodeMembers(members);  // while the names are valid
    } else if (item.depth == 0) {
      properties.error = "not a JSON object of names and values";
    }
  });
  if (!error.empty()) return {std::nullopt, std::move(error)};
  return properties;
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
