#ifndef PLATFORM_LUMO_UTF8_H
#define PLATFORM_LUMO_UTF8_H

#include <cstddef>
#include <string_view>

namespace Lumo {

// The length in bytes of the UTF-8 character that the text begins with; 0 when it begins with none:
// at the end of the text, and for what is cut off, too long for its value, a surrogate or beyond
// U+10FFFF.
std::size_t Utf8CharacterLength(std::string_view text);

bool IsUtf8(std::string_view text);

}  // namespace Lumo

#endif  // PLATFORM_LUMO_UTF8_H
