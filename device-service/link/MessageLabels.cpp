#include "link/MessageLabels.h"

#include <glib.h>

#include <array>
#include <cstdio>
#include <ctime>
#include <utility>

#include "values/GLibHandle.h"

namespace Lumo {
namespace {

using std::chrono::milliseconds;

// RFC 3339 in UTC, with milliseconds.
std::string describe(MessageLabels::Time time) {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
  const std::time_t calendarTime = std::chrono::system_clock::to_time_t(seconds);
  std::tm utc{};
  gmtime_r(&calendarTime, &utc);
  std::array<char, 32> text{};
  std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &utc);
  const auto fraction = std::chrono::floor<milliseconds>(time - seconds);
  length += static_cast<std::size_t>(std::snprintf(text.data() + length, text.size() - length,
                                                   ".%03dZ", static_cast<int>(fraction.count())));
  return {text.data(), length};
}

std::string newRun() {
  const TextPtr uuid(g_uuid_string_random());
  return uuid.get();
}

}  // namespace

MessageLabels::MessageLabels() : m_run(newRun()) {}

Mqtt::Labels MessageLabels::Answer() {
  return {"application/json", {}};
}

Mqtt::Labels MessageLabels::Will() const {
  Mqtt::Labels labels = Answer();
  labels.user = {{"run", m_run}, {"version", LUMO_VERSION}};
  return labels;
}

Mqtt::Labels MessageLabels::State(Time published) const {
  Mqtt::Labels labels = Will();
  labels.user.emplace_back("time", describe(published));
  return labels;
}

Mqtt::Labels MessageLabels::Value(const Notified& notified) const {
  Mqtt::Labels labels = State(notified.time);
  labels.user.emplace_back("sequence", std::to_string(notified.sequence));
  return labels;
}

}  // namespace Lumo
