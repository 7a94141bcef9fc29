#include "values/TopicText.h"

#include <cstddef>

#include "values/Utf8.h"

namespace Lumo {
namespace {

constexpr std::size_t kMaxLevelBytes = 256;

// Brokers may refuse these, and close the connection: control characters and U+FFFE, U+FFFF and
// their like on the other planes.
bool isUnfit(std::string_view character) {
  const auto byteAt = [character](std::size_t index) {
    return static_cast<unsigned char>(character[index]);
  };
  switch (character.size()) {
    case 1:
      return byteAt(0) < 0x20 || byteAt(0) == 0x7F;
    case 2:
      return byteAt(0) == 0xC2 && byteAt(1) < 0xA0;
    case 3:
      return byteAt(0) == 0xEF && ((byteAt(1) == 0xBF && byteAt(2) >= 0xBE) ||
                                   (byteAt(1) == 0xB7 && byteAt(2) >= 0x90 && byteAt(2) < 0xB0));
    default:
      return (byteAt(1) & 0x0F) == 0x0F && byteAt(2) == 0xBF && byteAt(3) >= 0xBE;
  }
}

}  // namespace

bool IsTopicText(std::string_view text) {
  while (!text.empty()) {
    const std::size_t length = Utf8CharacterLength(text);
    if (length == 0 || isUnfit(text.substr(0, length))) return false;
    text.remove_prefix(length);
  }
  return true;
}

bool IsTopicLevel(std::string_view text) {
  return !text.empty() && text.size() <= kMaxLevelBytes &&
         text.find_first_of("/+#") == std::string_view::npos && IsTopicText(text);
}

}  // namespace Lumo
