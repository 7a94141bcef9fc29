#include "AppConnection.h"

#include <map>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "WaitUntil.h"

namespace Soak {

struct AppConnection::Inbox {
  Inbox(std::string itsApp, Tally& itsTally) : app(std::move(itsApp)), tally(itsTally) {}

  void TakeEvent(GVariant* body) {
    const char* name = nullptr;
    const char* text = nullptr;
    g_variant_get(body, "(&s&s)", &name, &text);
    const SetLog::Id id = SetLog::IdIn(text);
    if (name != app || id == 0) {
      tally.Mismatch("an event for " + app + " is for " + name + ": " + std::string(text, 0, 80));
      return;
    }
    SetLog::Id& last = lastEvents[SetLog::RequesterOf(id)];
    if (id <= last) {
      tally.Mismatch(app + ": event " + std::to_string(id) + " comes after " +
                     std::to_string(last));
    }
    last = id;
    received.events.push_back(id);
  }

  void TakeSignin(GVariant* body) {
    gboolean value = FALSE;
    g_variant_get(body, "(b)", &value);
    const bool connected = value != FALSE;
    // They are set in turn.
    if (received.lastSignin == connected) tally.Mismatch(app + ": a sign-in is lost or doubled");
    received.lastSignin = connected;
    ++received.signinChanges;
  }

  // On GDBus's thread.
  void Take(GDBusMessage& signal) {
    if (g_strcmp0(g_dbus_message_get_interface(&signal), kInterface) != 0) return;
    const std::string member = g_dbus_message_get_member(&signal);
    const std::lock_guard<std::mutex> lock(mutex);
    if (member == "send_event") TakeEvent(g_dbus_message_get_body(&signal));
    if (member == "cloud_connection_changed") TakeSignin(g_dbus_message_get_body(&signal));
    ++tally.signals;
  }

  const std::string app;
  Tally& tally;
  std::mutex mutex;
  Received received;                               // guarded by mutex
  std::map<std::uint64_t, SetLog::Id> lastEvents;  // by requester; guarded by mutex
};

AppConnection::AppConnection(const std::string& address, const std::string& app, Tally& tally)
    : m_tally(tally),
      m_inbox(std::make_shared<Inbox>(app, tally)),
      m_bus(address, [inbox = m_inbox](GDBusMessage& signal) { inbox->Take(signal); }) {}

void AppConnection::Subscribe(Listening listening) {
  const std::string rule = std::string("type='signal',interface='") + kInterface + "',member='";
  m_bus.Match(rule + "cloud_connection_changed'");
  if (listening == Listening::ToAll) m_bus.Match(rule + "send_event',arg0='" + m_inbox->app + "'");
}

int AppConnection::Call(const char* method, const std::vector<std::string>& arguments) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE_TUPLE);
  for (const std::string& argument : arguments) {
    g_variant_builder_add(&builder, "s", argument.c_str());
  }
  int result = 0;
  g_variant_get(call(method, g_variant_builder_end(&builder), "(i)").get(), "(i)", &result);
  return result;
}

bool AppConnection::CloudConnection() {
  gboolean connected = FALSE;
  g_variant_get(call("get_cloud_connection", nullptr, "(b)").get(), "(b)", &connected);
  return connected != FALSE;
}

std::string AppConnection::ThingInformation() {
  const BusClient::VariantPtr reply = call("get_thing_information", nullptr, "(s)");
  const char* info = nullptr;
  g_variant_get(reply.get(), "(&s)", &info);
  return info;
}

void AppConnection::Kill(const std::string& app, const std::string& data, AppConnection& other) {
  const std::string name = m_bus.UniqueName();
  m_bus.PostCall("send_data", g_variant_new("(ss)", app.c_str(), data.c_str()));
  m_bus.Cut();
  if (!WaitUntil([&] { return other.m_bus.OwnerOf(name).empty(); })) {
    throw std::runtime_error("the bus does not notice that a connection is gone");
  }
  ++m_tally.kills;
}

AppConnection::Received AppConnection::Take() {
  const std::lock_guard<std::mutex> lock(m_inbox->mutex);
  Received received = m_inbox->received;
  m_inbox->received.events.clear();
  return received;
}

BusClient::VariantPtr AppConnection::call(const char* method, GVariant* parameters,
                                          const char* type) {
  BusClient::VariantPtr reply = m_bus.CallHere(method, parameters, type);
  ++m_tally.calls;
  return reply;
}

}  // namespace Soak
