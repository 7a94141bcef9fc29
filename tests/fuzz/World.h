#ifndef TESTS_FUZZ_WORLD_H
#define TESTS_FUZZ_WORLD_H

#include <array>
#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Bus.h"
#include "ChannelModel.h"
#include "Platform.h"

namespace fuzz {

// One thing that an application or the cloud does.
struct Action {
  char letter = '\0';
  std::string app;                   // of r, u, s and t
  std::string data;                  // of s
  std::vector<Property> properties;  // of g, t, z and w

  bool IsCall() const { return std::string("rusqi").find(letter) != std::string::npos; }
};

// What comes of it, at the one who does it.
struct Outcome {
  std::optional<BusMessage> reply;
  std::optional<Response> response;

  bool operator==(const Outcome& other) const {
    return reply == other.reply && response == other.response;
  }
};
std::string Show(const Outcome& outcome);

// What comes of it, at others. In a block its order is one per application only.
struct Trace {
  void Add(BusMessage signal);

  std::map<std::string, std::vector<BusMessage>> signals;
  std::map<std::string, std::vector<Property>> notifications;
};

// The whole of the model: to the channel's own it adds the host, the bus and the service, with
// their failures, and what actions lead to then. One thread.
class World {
 public:
  enum Failure {
    kCreateService,
    kRegisterProperty,
    kUnregisterProperty,
    kOwnName,
    kRegisterObject,
    kEmitSignal,
    kFailureCount
  };

  bool IsCreated() const { return m_created; }
  bool HasObject() const { return m_hasObject; }

  // The next `count` times fail, here and with the plug-in.
  void SetFailure(Failure failure, unsigned count);
  void ClearFailures();

  void Create();
  void Destroy();
  // After a stop in the middle of everything: nobody knows what the cloud has set before.
  void ForgetEverything() { m_model = ChannelModel(); }
  // These two need the plug-in to be created.
  void AcquireBus();
  void AcquireName(Trace& trace);
  Outcome Perform(const Action& action, Trace& trace);

  // Compares the state with the plug-in's.
  void Check() const;

 private:
  void tellFailures() const;
  bool fails(Failure failure);
  // The service is asked three times.
  bool tryThrice(Failure failure, const std::function<bool()>& change);
  bool registerProperty(const std::string& name);
  bool unregisterProperty(const std::string& name);
  int registerApp(const std::string& app);
  int unregisterApp(const std::string& app);
  void emit(BusMessage signal, Trace& trace);
  Outcome request(const Action& action, Trace& trace);

  std::array<unsigned, kFailureCount> m_failures{};
  bool m_created = false;
  bool m_hasOwner = false;
  bool m_hasObject = false;
  bool m_ready = false;
  std::optional<int> m_setting;
  std::map<std::string, lumo_property_type> m_registered;
  ChannelModel m_model;
};

}  // namespace fuzz

#endif  // TESTS_FUZZ_WORLD_H
