#ifndef TESTS_FUZZ_BUS_H
#define TESTS_FUZZ_BUS_H

#include <gio/gio.h>

#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace fuzz {

using VariantPtr = std::unique_ptr<GVariant, void (*)(GVariant*)>;

// A signal or a reply: its name, and its arguments as strings (a boolean is "true" or "false").
struct BusMessage {
  std::string name;
  std::vector<std::string> arguments;

  bool operator==(const BusMessage& other) const {
    return name == other.name && arguments == other.arguments;
  }
};
std::ostream& operator<<(std::ostream& out, const BusMessage& message);

// Of a tuple of strings, booleans and numbers; null stands for an empty one.
BusMessage ToBusMessage(const std::string& name, GVariant* arguments);

// Whether D-Bus can carry the string: UTF-8 without a NUL, as GLib sees it.
bool IsBusText(const std::string& text);

// Has every warning and critical of GLib be a finding. Once per process.
void BreakOnGLibWarnings();

}  // namespace fuzz

#endif  // TESTS_FUZZ_BUS_H
