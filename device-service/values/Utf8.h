#ifndef DEVICE_SERVICE_VALUES_UTF8_H
#define DEVICE_SERVICE_VALUES_UTF8_H

#include <cstddef>
#include <string>
#include <string_view>

namespace Lumo {

// The length in bytes of the UTF-8 character at the beginning of the text. 0 when there is none:
// for an empty text, a truncated or overlong sequence, a surrogate, and beyond U+10FFFF.
std::size_t Utf8CharacterLength(std::string_view text);

bool IsUtf8(std::string_view text);

// Shortens a foreign string, such as one that a message quotes: one that is longer than the limit
// becomes its first characters that fit, and "…", which comes on top.
constexpr std::size_t kMaxQuotedBytes = 100;
std::string Abbreviate(std::string_view text, std::size_t maxBytes = kMaxQuotedBytes);

// The text in one line: spaces replace its line breaks.
std::string ToLine(std::string text);

}  // namespace Lumo

#endif  // DEVICE_SERVICE_VALUES_UTF8_H
