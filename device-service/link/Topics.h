#ifndef DEVICE_SERVICE_LINK_TOPICS_H
#define DEVICE_SERVICE_LINK_TOPICS_H

#include <optional>
#include <string>
#include <string_view>

namespace Lumo {

// The payloads of the status topic.
inline constexpr std::string_view kOnline = "\"online\"";
inline constexpr std::string_view kOffline = "\"offline\"";

// The topics of one service of a thing, all of them below things/<id>/. Constant after
// construction.
class Topics {
 public:
  // Both must be levels.
  Topics(std::string_view thingId, std::string_view service);

  const std::string& Status() const { return m_status; }
  const std::string& Health() const { return m_health; }
  const std::string& Description() const { return m_description; }
  const std::string& Get() const { return m_get; }
  const std::string& Set() const { return m_set; }
  const std::string& Cancel() const { return m_cancel; }
  std::string Value(std::string_view property) const { return m_values + std::string(property); }
  // The filter for all value topics.
  std::string AllValues() const { return m_values + "+"; }

  // Nothing when the topic is not that of a value.
  std::optional<std::string> PropertyOf(std::string_view topic) const;

  // False for a Response Topic that must not get an answer: one that cannot be published to, one
  // below this service, and all that any thing publishes or subscribes to, where an answer would be
  // taken for a value, a status or a request.
  bool MayAnswerTo(std::string_view topic) const;

 private:
  const std::string m_status;
  const std::string m_health;
  const std::string m_service;  // ends with '/'
  const std::string m_description;
  const std::string m_values;  // ends with '/'
  const std::string m_get;
  const std::string m_set;
  const std::string m_cancel;
};

}  // namespace Lumo

#endif  // DEVICE_SERVICE_LINK_TOPICS_H
