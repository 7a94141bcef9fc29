#include "AppConnection.h"

#include <map>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "WaitUntil.h"

namespace Soak {

// What the connection's messages leave behind.
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
    events.push_back(id);
  }

  void TakeSignin(GVariant* body) {
    gboolean connected = FALSE;
    g_variant_get(body, "(b)", &connected);
    // They are set in turn.
    if (lastSignin == (connected != FALSE)) tally.Mismatch(app + ": a sign-in is lost or doubled");
    lastSignin = connected != FALSE;
    ++signinChanges;
  }

  // On GDBus's thread.
  void Take(GDBusMessage& signal) {
    GVariant* const body = g_dbus_message_get_body(&signal);
    if (body == nullptr) return;
    const std::string member = g_dbus_message_get_member(&signal);
    const std::lock_guard<std::mutex> lock(mutex);
    if (member == "send_event") TakeEvent(body);
    if (member == "cloud_connection_changed") TakeSignin(body);
    if (g_strcmp0(g_dbus_message_get_interface(&signal), kInterface) == 0) ++tally.signals;
  }

  const std::string app;
  Tally& tally;
  std::mutex mutex;
  // All guarded by mutex:
  std::vector<SetLog::Id> events;
  std::map<std::uint64_t, SetLog::Id> lastEvents;  // by requester
  std::optional<bool> lastSignin;
  unsigned signinChanges = 0;
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

int AppConnection::Register(const std::string& app) {
  return callForResult("register_app", g_variant_new("(s)", app.c_str()));
}

int AppConnection::Unregister(const std::string& app) {
  return callForResult("unregister_app", g_variant_new("(s)", app.c_str()));
}

int AppConnection::SendData(const std::string& app, const std::string& data) {
  return callForResult("send_data", g_variant_new("(ss)", app.c_str(), data.c_str()));
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
  const BusClient::MessagePtr message(
      g_dbus_message_new_method_call(kBusName, kObjectPath, kInterface, "send_data"));
  g_dbus_message_set_flags(message.get(), G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
  g_dbus_message_set_body(message.get(), g_variant_new("(ss)", app.c_str(), data.c_str()));
  m_bus.Post(*message);
  m_bus.Cut();
  if (!WaitUntil([&] { return other.m_bus.OwnerOf(name).empty(); })) {
    throw std::runtime_error("the bus does not notice that a connection is gone");
  }
  ++m_tally.kills;
}

std::vector<SetLog::Id> AppConnection::TakeEvents() {
  const std::lock_guard<std::mutex> lock(m_inbox->mutex);
  return std::exchange(m_inbox->events, {});
}

unsigned AppConnection::SigninChanges() const {
  const std::lock_guard<std::mutex> lock(m_inbox->mutex);
  return m_inbox->signinChanges;
}

std::optional<bool> AppConnection::LastSignin() const {
  const std::lock_guard<std::mutex> lock(m_inbox->mutex);
  return m_inbox->lastSignin;
}

BusClient::VariantPtr AppConnection::call(const char* method, GVariant* parameters,
                                          const char* type) {
  BusClient::VariantPtr reply = m_bus.CallHere(method, parameters, type);
  ++m_tally.calls;
  return reply;
}

int AppConnection::callForResult(const char* method, GVariant* parameters) {
  int result = 0;
  g_variant_get(call(method, parameters, "(i)").get(), "(i)", &result);
  return result;
}

}  // namespace Soak
