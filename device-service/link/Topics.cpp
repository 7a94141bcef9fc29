#include "link/Topics.h"

#include <algorithm>
#include <cstddef>

#include "values/TopicText.h"

namespace Lumo {
namespace {

constexpr std::string_view kThings = "things/";
constexpr std::string_view kGet = "get";
constexpr std::string_view kSet = "set";
constexpr std::string_view kCancel = "cancel";
constexpr std::size_t kMaxTopicBytes = 65535;

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

// things/<id>/<service>/get and so on, of whichever thing and service.
bool isRequestTopic(std::string_view topic) {
  if (!startsWith(topic, kThings) || std::count(topic.begin(), topic.end(), '/') != 3) return false;
  const std::string_view last = topic.substr(topic.rfind('/') + 1);
  return last == kGet || last == kSet || last == kCancel;
}

}  // namespace

Topics::Topics(std::string_view thingId, std::string_view service)
    : m_status(std::string(kThings).append(thingId).append("/status")),
      m_health(std::string(kThings).append(thingId).append("/health")),
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
      topic.find_first_of("+#") == std::string_view::npos && IsTopicText(topic);
  return canBePublishedTo && topic != m_status && topic != m_health &&
         !startsWith(topic, m_service) && !isRequestTopic(topic);
}

}  // namespace Lumo
