#include "Application.h"

#include <cstdio>
#include <exception>

#include "Environment.h"
#include "Names.h"

namespace Latency {

Application::Application(Arrival& events)
    : m_arrival(events), m_bus(BusAddress(), [this](GDBusMessage& signal) { takeSignal(signal); }) {
  const std::string ofApp = std::string(",arg0='") + kApp + "'";
  m_bus.Match(MatchRule(kInterface, kEvent, kObjectPath) + ofApp);
  m_bus.Match(MatchRule(kBaselineInterface, kEvent, kBaselinePath) + ofApp);
  call("register_app");
}

Application::~Application() {
  try {
    call("unregister_app");
  } catch (const std::exception& error) {
    std::fprintf(stderr, "channel-latency: %s\n", error.what());
  }
}

void Application::SendData(const std::string& data) {
  const BusClient::MessagePtr message(
      g_dbus_message_new_method_call(kBusName, kObjectPath, kInterface, kData));
  g_dbus_message_set_flags(message.get(), G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
  g_dbus_message_set_body(message.get(), g_variant_new("(ss)", kApp, data.c_str()));
  m_bus.Post(*message);
}

void Application::SendToBaseline(const std::string& connection, const std::string& data) {
  const BusClient::MessagePtr message(
      g_dbus_message_new_signal(kBaselinePath, kBaselineInterface, kData));
  g_dbus_message_set_destination(message.get(), connection.c_str());
  g_dbus_message_set_body(message.get(), g_variant_new("(ss)", kApp, data.c_str()));
  m_bus.Post(*message);
}

void Application::call(const char* method) {
  const BusClient::VariantPtr reply = m_bus.CallHere(method, g_variant_new("(s)", kApp), "(i)");
  int result = -1;
  g_variant_get(reply.get(), "(i)", &result);
  Require(result == 0, std::string(method) + " gives " + std::to_string(result));
}

void Application::takeSignal(GDBusMessage& signal) {
  if (g_strcmp0(g_dbus_message_get_member(&signal), kEvent) != 0) return;
  const char* data = nullptr;
  g_variant_get(g_dbus_message_get_body(&signal), "(&s&s)", nullptr, &data);
  ++m_events;
  m_arrival.Arrived(data);
}

}  // namespace Latency
