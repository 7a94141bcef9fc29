#ifndef DEVICE_SERVICE_VALUES_WORD_H
#define DEVICE_SERVICE_VALUES_WORD_H

#include <cstddef>
#include <cstring>

namespace Lumo {

// As many bytes of a text as the processor takes at once. Without vector instructions, which not
// every processor has.
using Word = std::size_t;

constexpr Word RepeatByte(unsigned char byte) {
  return ~Word{0} / 0xFF * byte;
}

// `text` need not be aligned.
inline Word LoadWord(const char* text) {
  Word word = 0;
  std::memcpy(&word, text, sizeof word);
  return word;
}

// The highest bit of each byte.
constexpr Word kHighBits = RepeatByte(0x80);

// Whether the first kAsciiBlock bytes, which `text` has, are ASCII.
constexpr std::size_t kAsciiBlock = 4 * sizeof(Word);
inline bool IsAsciiBlock(const char* text) {
  const Word first = LoadWord(text) | LoadWord(text + sizeof(Word));
  const Word second = LoadWord(text + 2 * sizeof(Word)) | LoadWord(text + 3 * sizeof(Word));
  return ((first | second) & kHighBits) == 0;
}

}  // namespace Lumo

#endif  // DEVICE_SERVICE_VALUES_WORD_H
