#include "link/MessageLabels.h"

#include <glib.h>

#include <utility>

#include "values/GLibHandle.h"
#include "values/TimeText.h"

namespace Lumo {
namespace {

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
  labels.user.emplace_back("time", ToText(published));
  return labels;
}

Mqtt::Labels MessageLabels::Value(const Notified& notified) const {
  Mqtt::Labels labels = State(notified.time);
  labels.user.emplace_back("sequence", std::to_string(notified.sequence));
  return labels;
}

}  // namespace Lumo
