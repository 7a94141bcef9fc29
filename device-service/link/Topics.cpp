#include "link/Topics.h"

#include <algorithm>
#include <cstddef>

#include "values/Utf8.h"

namespace Lumo {
namespace {

constexpr std::string_view kThings = "things/";
constexpr std::string_view kGet = "get";
constexpr std::string_view kSet = "set";
constexpr std::string_view kCancel = "cancel";
constexpr std::size_t kMaxLevelBytes = 256;
constexpr std::size_t kMaxTopicBytes = 65535;

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

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

bool isFitText(std::string_view text) {
  while (!text.empty()) {
    const std::size_t length = Utf8CharacterLength(text);
    if (length == 0 || isUnfit(text.substr(0, length))) return false;
    text.remove_prefix(length);
  }
  return true;
}

// things/<id>/<service>/get and so on, of whichever thing and service.
bool isRequestTopic(std::string_view topic) {
  if (!startsWith(topic, kThings) || std::count(topic.begin(), topic.end(), '/') != 3) return false;
  const std::string_view last = topic.substr(topic.rfind('/') + 1);
  return last == kGet || last == kSet || last == kCancel;
}

}  // namespace

bool Topics::IsLevel(std::string_view text) {
  return !text.empty() && text.size() <= kMaxLevelBytes &&
         text.find_first_of("/+#") == std::string_view::npos && isFitText(text);
}

Topics::Topics(std::string_view thingId, std::string_view service)
    : m_status(std::string(kThings).append(thingId).append("/status")),
      m_service(std::string(kThings).append(thingId).append("/").append(service).append("/")),
      m_description(m_service + "properties"),
      m_values(m_service + "value/"),
      m_get(std::string(m_service).append(kGet)),
      m_set(std::string(m_service).append(kSet)),
      m_cancel(std::string(m_service).append(kCancel)) {}

std::optional<std::string> Topics::PropertyOf(std::string_view topic) const {
  if (!startsWith(topic, m_values)) return std::nullopt;
  return std::string(topic.substr(m_values.size()));
}

bool Topics::MayAnswerTo(std::string_view topic) const {
  const bool canBePublishedTo =
      !topic.empty() && topic.size() <= kMaxTopicBytes && topic.front() != '$' &&
      topic.find_first_of("+#") == std::string_view::npos && isFitText(topic);
  return canBePublishedTo && topic != m_status && !startsWith(topic, m_service) &&
         !isRequestTopic(topic);
}

}  // namespace Lumo
