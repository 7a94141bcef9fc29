#include "payload/Base64.h"

#include <glib.h>

namespace Lumo {

// These fill a string step by step: GLib's simpler functions end the process when memory runs out.

std::string EncodeBase64(std::string_view bytes) {
  std::string text((bytes.size() / 3 + 1) * 4 + 4, '\0');  // GLib wants that much room
  gint state = 0;
  gint rest = 0;
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): unsigned bytes
  const auto* const in = reinterpret_cast<const guchar*>(bytes.data());
  gsize length = g_base64_encode_step(in, bytes.size(), FALSE, text.data(), &state, &rest);
  length += g_base64_encode_close(FALSE, text.data() + length, &state, &rest);
  text.resize(length);
  return text;
}

std::optional<std::string> DecodeBase64(std::string_view text) {
  std::string bytes(text.size() / 4 * 3 + 3, '\0');  // and that much
  gint state = 0;
  guint rest = 0;
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): unsigned bytes
  auto* const out = reinterpret_cast<guchar*>(bytes.data());
  bytes.resize(g_base64_decode_step(text.data(), text.size(), out, &state, &rest));
  // GLib skips what is not Base64.
  if (EncodeBase64(bytes) != text) return std::nullopt;
  return bytes;
}

}  // namespace Lumo
