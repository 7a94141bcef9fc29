#include "payload/Base64.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace Lumo {
namespace {

constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::size_t kGroupBytes = 3;  // they become four characters of six bits each
constexpr std::size_t kGroupCharacters = 4;

constexpr unsigned shiftOf(std::size_t character) {
  return static_cast<unsigned>(6 * (kGroupCharacters - 1 - character));
}

constexpr unsigned shiftOfByte(std::size_t byte) {
  return static_cast<unsigned>(8 * (kGroupBytes - 1 - byte));
}

}  // namespace

std::string EncodeBase64(std::string_view bytes) {
  std::string text;
  text.reserve((bytes.size() + kGroupBytes - 1) / kGroupBytes * kGroupCharacters);
  for (std::size_t start = 0; start < bytes.size(); start += kGroupBytes) {
    const std::string_view group = bytes.substr(start, kGroupBytes);
    std::uint32_t bits = 0;
    for (std::size_t i = 0; i < group.size(); ++i) {
      bits |= std::uint32_t{static_cast<unsigned char>(group[i])} << shiftOfByte(i);
    }
    for (std::size_t i = 0; i < kGroupCharacters; ++i) {
      text.push_back(i <= group.size() ? kAlphabet[bits >> shiftOf(i) & 0x3F] : '=');
    }
  }
  return text;
}

std::optional<std::string> DecodeBase64(std::string_view text) {
  if (text.size() % kGroupCharacters != 0) return std::nullopt;
  const std::size_t padding = text.size() - text.substr(0, text.find_last_not_of('=') + 1).size();
  if (padding >= kGroupBytes) return std::nullopt;

  std::string bytes;
  bytes.reserve(text.size() / kGroupCharacters * kGroupBytes);
  for (std::size_t start = 0; start < text.size(); start += kGroupCharacters) {
    const bool last = start + kGroupCharacters == text.size();
    const std::size_t characters = kGroupCharacters - (last ? padding : 0);
    std::uint32_t bits = 0;
    for (std::size_t i = 0; i < characters; ++i) {
      const std::size_t value = kAlphabet.find(text[start + i]);
      if (value == std::string_view::npos) return std::nullopt;
      bits |= static_cast<std::uint32_t>(value) << shiftOf(i);
    }
    for (std::size_t i = 0; i + 1 < characters; ++i) {
      bytes.push_back(static_cast<char>(bits >> shiftOfByte(i) & 0xFF));
    }
    // What the padding stands for is zero, so that every text of bytes is the only one.
    // There are two characters at least, which the analyzer does not see.
    // NOLINTNEXTLINE(clang-analyzer-core.UndefinedBinaryOperatorResult)
    const std::uint32_t unused = (std::uint32_t{1} << shiftOfByte(characters - 2)) - 1;
    if (characters < kGroupCharacters && (bits & unused) != 0) return std::nullopt;
  }
  return bytes;
}

}  // namespace Lumo
