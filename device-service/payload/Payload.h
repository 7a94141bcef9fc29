#ifndef DEVICE_SERVICE_PAYLOAD_PAYLOAD_H
#define DEVICE_SERVICE_PAYLOAD_PAYLOAD_H

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "values/Property.h"

// The payloads of the service's topics: JSON in UTF-8.
namespace Lumo {

// A request that is larger is refused.
constexpr std::size_t kMaxRequestBytes = 256UL * 1024;
// So is one with more properties: each takes many times its bytes, and a line of the log, until it
// is answered.
constexpr std::size_t kMaxRequestProperties = 1000;

// What is wrong with a request that is too large.
std::string DescribeTooLarge();

// The value, or what is wrong with the payload: a short string that may quote some of it.
template <typename Value>
struct Decoded {
  std::optional<Value> value;
  std::string error;  // when there is no value
};

// ["name", ...]; a name may be any string without U+0000.
Decoded<std::vector<std::string>> DecodeNames(std::string_view payload);

// {"name": value, ...}. Of a name that occurs several times the last value counts; the properties
// are sorted by name. A number is an int when it is written without fraction and exponent, so 1.0
// is a double. An object or array keeps its JSON text, except {"$bytes": "base64"}. Names and
// strings have no U+0000.
Decoded<Properties> DecodeProperties(std::string_view payload);

// A JSON property is its own text when that is JSON, otherwise a string.
std::string EncodeValue(const PropertyValue& value);

// {"name": {"type": "bool"}, ...}
std::string EncodeDescription(const std::map<std::string, lumo_property_type>& types);

// {"result": code, "properties": {"name": value, ...}}; of one name the last value counts.
std::string EncodeResult(lumo_error code, const Properties& properties);

// {"error": "text"}
std::string EncodeError(std::string_view text);

}  // namespace Lumo

#endif  // DEVICE_SERVICE_PAYLOAD_PAYLOAD_H
