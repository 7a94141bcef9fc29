#include "mqtt/CertificateUse.h"

#include <cstddef>
#include <optional>

namespace Lumo::Mqtt {
namespace {

using namespace std::string_view_literals;

// Tags of ASN.1's DER, in which certificates (RFC 5280) are written.
constexpr unsigned char kSequence = 0x30;
constexpr unsigned char kOctets = 0x04;
constexpr unsigned char kIdentifier = 0x06;
constexpr unsigned char kExtensions = 0xA3;

constexpr std::string_view kExtendedKeyUsage = "\x55\x1D\x25"sv;               // 2.5.29.37
constexpr std::string_view kAnyUse = "\x55\x1D\x25\x00"sv;                     // 2.5.29.37.0
constexpr std::string_view kServerUse = "\x2B\x06\x01\x05\x05\x07\x03\x01"sv;  // id-kp-serverAuth

struct Element {
  unsigned char tag;
  std::string_view content;
};

// Removes the next element from the front; nothing when there is none, or it is truncated.
std::optional<Element> take(std::string_view& text) {
  constexpr std::size_t kLongForm = 0x80;
  constexpr std::size_t kMaxLengthBytes = 3;
  if (text.size() < 2) return std::nullopt;
  const auto byteAt = [&text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char tag = byteAt(0);
  std::size_t length = byteAt(1);
  std::size_t start = 2;
  if (length >= kLongForm) {
    const std::size_t lengthBytes = length - kLongForm;
    if (lengthBytes == 0 || lengthBytes > kMaxLengthBytes || text.size() < 2 + lengthBytes) {
      return std::nullopt;
    }
    length = 0;
    for (; start < 2 + lengthBytes; ++start) length = length << 8U | byteAt(start);
  }
  if (text.size() - start < length) return std::nullopt;
  const Element element{tag, text.substr(start, length)};
  text.remove_prefix(start + length);
  return element;
}

// Removes the next element with this tag, and those before it.
std::optional<std::string_view> find(std::string_view& text, unsigned char tag) {
  while (const std::optional<Element> element = take(text)) {
    if (element->tag == tag) return element->content;
  }
  return std::nullopt;
}

bool allowsServers(std::string_view value) {
  std::optional<std::string_view> uses = find(value, kSequence);
  if (!uses) return false;
  while (const auto use = find(*uses, kIdentifier)) {
    if (*use == kServerUse || *use == kAnyUse) return true;
  }
  return false;
}

}  // namespace

bool IsGoodForServers(std::string_view certificate) {
  std::optional<std::string_view> whole = find(certificate, kSequence);
  if (!whole) return false;
  std::optional<std::string_view> body = find(*whole, kSequence);
  if (!body) return false;
  std::optional<std::string_view> wrapped = find(*body, kExtensions);
  if (!wrapped) return true;
  std::optional<std::string_view> extensions = find(*wrapped, kSequence);
  if (!extensions) return false;
  while (std::optional<std::string_view> extension = find(*extensions, kSequence)) {
    if (find(*extension, kIdentifier) != kExtendedKeyUsage) continue;
    std::optional<std::string_view> value = find(*extension, kOctets);
    return value && allowsServers(*value);
  }
  return true;
}

}  // namespace Lumo::Mqtt
