#ifndef DEVICE_SERVICE_PAYLOAD_BASE64_H
#define DEVICE_SERVICE_PAYLOAD_BASE64_H

#include <optional>
#include <string>
#include <string_view>

namespace Lumo {

// The usual alphabet with '+' and '/', padded with '='.
std::string EncodeBase64(std::string_view bytes);

// Nothing unless the text is exactly what EncodeBase64 gives for some bytes.
std::optional<std::string> DecodeBase64(std::string_view text);

}  // namespace Lumo

#endif  // DEVICE_SERVICE_PAYLOAD_BASE64_H
