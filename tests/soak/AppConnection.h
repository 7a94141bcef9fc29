#ifndef TESTS_SOAK_APPCONNECTION_H
#define TESTS_SOAK_APPCONNECTION_H

#include <cstdint>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "BusClient.h"
#include "SetLog.h"
#include "Tally.h"
#include "WaitUntil.h"
#include "Watched.h"

namespace Soak {

// One connection of an application to the message bus. It gets the events of its application and
// the changes of the cloud connection on GDBus's thread, and checks their order there. One thread
// at a time uses it; failures are thrown as std::runtime_error.
class AppConnection {
 public:
  // The tally outlives every message, and so every connection.
  AppConnection(const std::string& address, const std::string& app, Tally& tally)
      : m_app(app),
        m_tally(tally),
        m_bus(address, [app, &tally, inbox = m_inbox](GDBusMessage& signal) {
          if (g_strcmp0(g_dbus_message_get_interface(&signal), kInterface) != 0) return;
          ++tally.signals;
          std::string wrong;
          inbox->Change([&](Inbox& all) { wrong = all.Take(signal, app); });
          if (!wrong.empty()) tally.Mismatch(app + ": " + wrong);
        }) {}

  // Listens to changes of the cloud connection from the end of the call on, or to events as well.
  void Subscribe(bool toEvents) {
    const std::string rule = std::string("type='signal',interface='") + kInterface + "',member='";
    m_bus.Match(rule + "cloud_connection_changed'");
    if (toEvents) m_bus.Match(rule + "send_event',arg0='" + m_app + "'");
  }

  // Calls a method that takes strings; the reply as BusClient prints it: "(0,)".
  std::string Call(const char* method, const std::vector<std::string>& arguments = {}) {
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE_TUPLE);
    for (const std::string& argument : arguments) {
      g_variant_builder_add(&builder, "s", argument.c_str());
    }
    std::string reply = m_bus.CallHere(method, g_variant_builder_end(&builder));
    ++m_tally.calls;
    return reply;
  }
  // A call of the message bus itself, which takes as long as the bus does.
  void CallBus() { m_bus.Sync(); }

  // Cuts the connection with a send_data in flight; returns once the bus has noticed, which another
  // connection is asked for. It is of no use any more.
  void Kill(const std::string& data, AppConnection& other) {
    const std::string name = m_bus.UniqueName();
    m_bus.PostCall("send_data", g_variant_new("(ss)", m_app.c_str(), data.c_str()));
    m_bus.Cut();
    if (!WaitUntil([&] { return other.m_bus.OwnerOf(name).empty(); })) {
      throw std::runtime_error("the bus does not notice that a connection is gone");
    }
    ++m_tally.kills;
  }

  // The events that have come since the last time, and all changes of the cloud connection.
  struct Received {
    std::vector<SetLog::Id> events;
    unsigned signinChanges = 0;
    std::string lastSignin;  // as a reply
  };
  Received Take() {
    Received received;
    m_inbox->Change([&received](Inbox& inbox) {
      received = inbox.received;
      inbox.received.events.clear();
    });
    return received;
  }

 private:
  struct Inbox {
    // Returns what is wrong; empty when nothing is.
    std::string Take(GDBusMessage& signal, const std::string& app) {
      const std::string member = g_dbus_message_get_member(&signal);
      if (member == "send_event") return TakeEvent(g_dbus_message_get_body(&signal), app);
      if (member != "cloud_connection_changed") return {};
      const std::string signin = BusClient::Print(g_dbus_message_get_body(&signal));
      ++received.signinChanges;
      // They are set in turn.
      const bool isOther = std::exchange(received.lastSignin, signin) != signin;
      return isOther ? "" : "a sign-in is lost or doubled";
    }

    std::string TakeEvent(GVariant* body, const std::string& app) {
      const char* name = nullptr;
      const char* text = nullptr;
      g_variant_get(body, "(&s&s)", &name, &text);
      const SetLog::Id id = SetLog::IdIn(text);
      if (name != app || id == 0) {
        return std::string("an event is for ") + name + ": " + std::string(text, 0, 80);
      }
      received.events.push_back(id);
      const SetLog::Id last = std::exchange(lastEvents[SetLog::RequesterOf(id)], id);
      if (id > last) return {};
      return "event " + std::to_string(id) + " comes after " + std::to_string(last);
    }

    Received received;
    std::map<std::uint64_t, SetLog::Id> lastEvents;  // by requester
  };

  const std::string m_app;
  Tally& m_tally;
  // A connection that was cut may still hand over what it has read.
  const std::shared_ptr<Watched<Inbox>> m_inbox = std::make_shared<Watched<Inbox>>();
  BusClient m_bus;
};

}  // namespace Soak

#endif  // TESTS_SOAK_APPCONNECTION_H
