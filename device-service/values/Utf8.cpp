#include "values/Utf8.h"

#include <algorithm>

#include "values/Word.h"

namespace Lumo {
namespace {

// The range of the second byte excludes overlong sequences, surrogates and values beyond U+10FFFF.
struct Sequence {
  std::size_t length;
  unsigned char secondFrom;
  unsigned char secondTo;
};

Sequence sequenceThatBeginsWith(unsigned char first) {
  if (first < 0x80) return {1, 0, 0};
  if (first < 0xC2) return {0, 0, 0};
  if (first < 0xE0) return {2, 0x80, 0xBF};
  if (first == 0xE0) return {3, 0xA0, 0xBF};
  if (first == 0xED) return {3, 0x80, 0x9F};
  if (first < 0xF0) return {3, 0x80, 0xBF};
  if (first == 0xF0) return {4, 0x90, 0xBF};
  if (first < 0xF4) return {4, 0x80, 0xBF};
  if (first == 0xF4) return {4, 0x80, 0x8F};
  return {0, 0, 0};
}

}  // namespace

std::size_t Utf8CharacterLength(std::string_view text) {
  if (text.empty()) return 0;
  const auto byteAt = [text](std::size_t index) { return static_cast<unsigned char>(text[index]); };
  const Sequence sequence = sequenceThatBeginsWith(byteAt(0));
  if (sequence.length < 2) return sequence.length;
  if (text.size() < sequence.length) return 0;
  if (byteAt(1) < sequence.secondFrom || byteAt(1) > sequence.secondTo) return 0;
  for (std::size_t i = 2; i < sequence.length; ++i) {
    if (byteAt(i) < 0x80 || byteAt(i) > 0xBF) return 0;
  }
  return sequence.length;
}

bool IsUtf8(std::string_view text) {
  while (!text.empty()) {
    if (text.size() >= kAsciiBlock && IsAsciiBlock(text.data())) {
      text.remove_prefix(kAsciiBlock);
      continue;
    }
    const bool isAscii = static_cast<unsigned char>(text.front()) < 0x80;
    const std::size_t length = isAscii ? 1 : Utf8CharacterLength(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

std::string ToLine(std::string text) {
  const auto isBreak = [](char character) { return character == '\n' || character == '\r'; };
  std::replace_if(text.begin(), text.end(), isBreak, ' ');
  return text;
}

std::string Abbreviate(std::string_view text, std::size_t maxBytes) {
  if (text.size() <= maxBytes) return std::string(text);
  std::size_t end = 0;
  for (std::size_t next = 0; next <= maxBytes;) {
    end = next;
    next += std::max<std::size_t>(Utf8CharacterLength(text.substr(next)), 1);
  }
  return std::string(text.substr(0, end)).append("\xE2\x80\xA6");
}

}  // namespace Lumo
