#ifndef PLATFORM_LUMO_BASE64_H
#define PLATFORM_LUMO_BASE64_H

#include <optional>
#include <string>
#include <string_view>

namespace Lumo {

// The usual alphabet with '+' and '/', padded with '='.
std::string EncodeBase64(std::string_view bytes);

// Nothing unless the text is exactly what EncodeBase64 gives for some bytes.
std::optional<std::string> DecodeBase64(std::string_view text);

}  // namespace Lumo

#endif  // PLATFORM_LUMO_BASE64_H
