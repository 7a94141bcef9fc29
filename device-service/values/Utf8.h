#ifndef DEVICE_SERVICE_VALUES_UTF8_H
#define DEVICE_SERVICE_VALUES_UTF8_H

#include <cstddef>
#include <string>
#include <string_view>

namespace Lumo {

// The length in bytes of the UTF-8 character that the text begins with; 0 when it begins with none:
// at the end of the text, and for what is cut off, too long for its value, a surrogate or beyond
// U+10FFFF.
std::size_t Utf8CharacterLength(std::string_view text);

bool IsUtf8(std::string_view text);

// A text of somebody else's, to be quoted in a message: when it is longer than this, its first
// characters that fit and "…".
constexpr std::size_t kMaxQuotedBytes = 100;
std::string Abbreviate(std::string_view text);

}  // namespace Lumo

#endif  // DEVICE_SERVICE_VALUES_UTF8_H
