#ifndef TESTS_SOAK_APPCONNECTION_H
#define TESTS_SOAK_APPCONNECTION_H

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "BusClient.h"
#include "SetLog.h"
#include "Tally.h"

namespace Soak {

// One connection of an application to the message bus. It gets the events of its application and
// the changes of the cloud connection on GDBus's thread, and checks their order there. One thread
// at a time uses it; failures are thrown as std::runtime_error.
class AppConnection {
 public:
  // The tally outlives every message, and so every connection.
  AppConnection(const std::string& address, const std::string& app, Tally& tally);

  // Listens to changes of the cloud connection from the end of the call on, or to events as well.
  enum class Listening { ToSignins, ToAll };
  void Subscribe(Listening listening);

  // The calls, each with what comes back. The first is any that takes strings and gives a number.
  int Call(const char* method, const std::vector<std::string>& arguments);
  bool CloudConnection();
  std::string ThingInformation();
  // A call of the message bus itself, which takes as long as the bus does.
  void CallBus() { m_bus.Sync(); }

  // Cuts the connection with a send_data under way; returns once the bus has noticed, which another
  // connection is asked for. It is of no use any more.
  void Kill(const std::string& app, const std::string& data, AppConnection& other);

  // The events that have come since the last time, and all changes of the cloud connection.
  struct Received {
    std::vector<SetLog::Id> events;
    unsigned signinChanges = 0;
    std::optional<bool> lastSignin;
  };
  Received Take();

 private:
  struct Inbox;

  BusClient::VariantPtr call(const char* method, GVariant* parameters, const char* type);

  Tally& m_tally;
  std::shared_ptr<Inbox> m_inbox;
  BusClient m_bus;
};

}  // namespace Soak

#endif  // TESTS_SOAK_APPCONNECTION_H
