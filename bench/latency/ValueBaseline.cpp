#include "ValueBaseline.h"

#include "Environment.h"
#include "Names.h"

namespace Latency {

ValueBaseline::ValueBaseline()
    : m_broker(BrokerPort(), {}),
      m_bus(BusAddress(), [this](GDBusMessage& signal) { passOn(signal); }) {}

ValueBaseline::~ValueBaseline() {
  publish({});
}

void ValueBaseline::passOn(GDBusMessage& signal) {
  if (g_strcmp0(g_dbus_message_get_member(&signal), kData) != 0) return;
  const char* data = nullptr;
  g_variant_get(g_dbus_message_get_body(&signal), "(&s&s)", nullptr, &data);
  publish('"' + std::string(data) + '"');
}

void ValueBaseline::publish(const std::string& payload) {
  constexpr int kQos = 1;
  m_broker.Publish({kBaselineValueTopic, payload, kQos, /*retain=*/true});
}

}  // namespace Latency
