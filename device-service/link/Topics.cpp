#include "link/Topics.h"

#include <algorithm>
#include <cstddef>

#include "values/TopicText.h"

namespace Lumo {
namespace {

constexpr std::string_view kThings = "things/";
constexpr std::string_view kStatus = "/status";
constexpr std::string_view kHealth = "/health";
constexpr std::string_view kDescription = "properties";
constexpr std::string_view kValue = "value/";
constexpr std::string_view kGet = "get";
constexpr std::string_view kSet = "set";
constexpr std::string_view kCancel = "cancel";
constexpr std::size_t kMaxTopicBytes = 65535;

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

// What a thing publishes or subscribes to, of whichever id and service.
bool isTopicOfAThing(std::string_view topic) {
  if (!startsWith(topic, kThings)) return false;
  topic.remove_prefix(std::min(topic.size(), topic.find('/', kThings.size())));
  if (topic == kStatus || topic == kHealth) return true;
  const std::size_t service = topic.find('/', 1);
  if (service == std::string_view::npos) return false;
  const std::string_view last = topic.substr(service + 1);
  return last == kGet || last == kSet || last == kCancel || last == kDescription ||
         (startsWith(last, kValue) && last.find('/', kValue.size()) == std::string_view::npos);
}

}  // namespace

Topics::Topics(std::string_view thingId, std::string_view service)
    : m_status(std::string(kThings).append(thingId).append(kStatus)),
      m_health(std::string(kThings).append(thingId).append(kHealth)),
      m_service(std::string(kThings).append(thingId).append("/").append(service).append("/")),
      m_description(std::string(m_service).append(kDescription)),
      m_values(std::string(m_service).append(kValue)),
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
      topic.find_first_of("+#") == std::string_view::npos && IsTopicText(topic);
  return canBePublishedTo && !startsWith(topic, m_service) && !isTopicOfAThing(topic);
}

}  // namespace Lumo
