#include "Bus.h"

#include <string_view>

#include "Require.h"

namespace fuzz {
namespace {

GLogWriterOutput breakOnWarning(GLogLevelFlags level, const GLogField* fields, gsize count,
                                gpointer /*userData*/) {
  if ((level & (G_LOG_LEVEL_WARNING | G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_ERROR)) != 0) {
    std::string text;
    for (gsize i = 0; i < count; ++i) {
      if (std::string_view(fields[i].key) == "MESSAGE")
        text = static_cast<const char*>(fields[i].value);
    }
    Break("GLib has nothing to complain about", text);
  }
  return G_LOG_WRITER_HANDLED;
}

std::string toText(GVariant* value) {
  if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING)) {
    return g_variant_get_string(value, nullptr);
  }
  if (g_variant_is_of_type(value, G_VARIANT_TYPE_BOOLEAN)) {
    return g_variant_get_boolean(value) != FALSE ? "true" : "false";
  }
  Require(g_variant_is_of_type(value, G_VARIANT_TYPE_INT32), "the interface has no other types");
  return std::to_string(g_variant_get_int32(value));
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const BusMessage& message) {
  return out << message.name << Show(message.arguments);
}

BusMessage ToBusMessage(const std::string& name, GVariant* arguments) {
  BusMessage message{name, {}};
  for (gsize i = 0; arguments != nullptr && i < g_variant_n_children(arguments); ++i) {
    const VariantPtr argument(g_variant_get_child_value(arguments, i), g_variant_unref);
    message.arguments.push_back(toText(argument.get()));
  }
  return message;
}

bool IsBusText(const std::string& text) {
  return g_utf8_validate_len(text.data(), text.size(), nullptr) != FALSE;
}

void BreakOnGLibWarnings() {
  g_log_set_writer_func(breakOnWarning, nullptr, nullptr);
}

}  // namespace fuzz
