#ifndef DEVICE_SERVICE_VALUES_PROPERTY_H
#define DEVICE_SERVICE_VALUES_PROPERTY_H

#include <string>
#include <variant>
#include <vector>

#include "lumo.h"

namespace Lumo {

// Plug-ins register a real number under this type, which has no name in the C interface.
constexpr lumo_property_type kRegisteredReal = 6;

struct JsonText {
  std::string text;
};

struct Bytes {
  std::string data;  // any bytes
};

// The alternatives stand in the order of LUMO_PROPERTY_TYPE_*.
using PropertyValue = std::variant<bool, int, double, std::string, JsonText, Bytes>;

struct Property {
  std::string name;
  PropertyValue value;

  lumo_property_type Type() const { return static_cast<lumo_property_type>(value.index()); }
};

using Properties = std::vector<Property>;

}  // namespace Lumo

#endif  // DEVICE_SERVICE_VALUES_PROPERTY_H
