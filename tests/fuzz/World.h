#ifndef TESTS_FUZZ_WORLD_H
#define TESTS_FUZZ_WORLD_H

#include <array>
#include <functional>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "AppDataChannelCore.h"
#include "Bus.h"
#include "Channel.h"
#include "ChannelModel.h"
#include "InProcessBus.h"
#include "Platform.h"
#include "Require.h"

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
  friend std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
    return out << Show(outcome.reply) << " " << Show(outcome.response);
  }
};

// What comes of it, at others. In a block its order is one per application only.
struct Trace {
  void Add(BusMessage signal) {
    const std::string key = signal.name == "send_event" ? signal.arguments.at(0) : signal.name;
    signals[key].push_back(std::move(signal));
  }

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
  void SetFailure(Failure failure, unsigned count) {
    m_failures[failure] = count;
    tellFailures();
  }
  void ClearFailures() {
    m_failures = {};
    tellFailures();
  }

  void Create() {
    if (m_created) return;
    m_setting = 0;
    if (fails(kCreateService)) return;
    for (const char* name : {"signinStatus", "signupInfo"}) registerProperty(name);
    m_created = true;
    m_hasOwner = !fails(kOwnName);
    if (!m_hasOwner) Destroy();
  }

  void Destroy() {
    if (!m_created) return;
    m_setting = 0;
    m_created = m_hasOwner = m_hasObject = m_ready = false;
    for (const char* name : {"signinStatus", "signupInfo"}) unregisterProperty(name);
    m_registered.clear();
    m_model.DropAll();
  }

  // After a stop in the middle of everything: nobody knows what the cloud has set before.
  void ForgetEverything() { m_model = ChannelModel(); }

  // These two need the plug-in to be created.
  void AcquireBus() { m_hasObject = m_hasObject || !fails(kRegisterObject); }
  void AcquireName(Trace& trace) {
    m_ready = true;
    emit({"dbus_server_ready", {}}, trace);
    m_setting = 1;
  }

  Outcome Perform(const Action& action, Trace& trace) {
    switch (action.letter) {
      case 'r':
        return {CodeReply(registerApp(action.app)), {}};
      case 'u':
        return {CodeReply(unregisterApp(action.app)), {}};
      case 's': {
        const int code = m_model.Send(action.app, action.data);
        if (code == 0) {
          trace.notifications[action.app].push_back(StringProperty(action.app, action.data));
        }
        return {CodeReply(code), {}};
      }
      case 'q':
        return {m_model.Connection(), {}};
      case 'i':
        return {m_model.Information(), {}};
      case 'x':
        return {};
      default:
        return request(action, trace);
    }
  }

  // Compares the state with the plug-in's.
  void Check() const {
    RequireEqual(AppDataChannel::AppDataChannelCore::GetInstance().IsInitialized(), m_created,
                 "the plug-in is created when the model says");
    RequireEqual(Platform::HasService(), m_created, "a service lives as long as the plug-in");
    RequireEqual(InProcessBus::HasOwner(), m_hasOwner, "the name is owned as long");
    RequireEqual(InProcessBus::HasObject(), m_hasObject, "the object is there as long");
    RequireEqual(Platform::Setting("memory/iot/thing/thing_status"), m_setting,
                 "the setting says so");
    RequireEqual(Platform::Registered(), m_registered, "the service has these properties");
    RequireEqual(Channel::Apps(), m_model.Apps(), "these applications are registered");
  }

 private:
  void tellFailures() const {
    Platform::Fail(Platform::kCreateService, m_failures[kCreateService]);
    Platform::Fail(Platform::kRegisterProperty, m_failures[kRegisterProperty]);
    Platform::Fail(Platform::kUnregisterProperty, m_failures[kUnregisterProperty]);
    InProcessBus::Fail(InProcessBus::kOwnName, m_failures[kOwnName]);
    InProcessBus::Fail(InProcessBus::kRegisterObject, m_failures[kRegisterObject]);
    InProcessBus::Fail(InProcessBus::kEmitSignal, m_failures[kEmitSignal]);
  }

  bool fails(Failure failure) { return m_failures[failure] > 0 && m_failures[failure]-- > 0; }

  // The service is asked three times.
  bool tryThrice(Failure failure, const std::function<bool()>& change) {
    for (int attempt = 0; attempt < 3; ++attempt) {
      if (!fails(failure) && change()) return true;
    }
    return false;
  }

  bool registerProperty(const std::string& name) {
    lumo_property_type type = LUMO_PROPERTY_TYPE_STRING;
    if (name == "signinStatus") type = LUMO_PROPERTY_TYPE_BOOL;
    if (name == "signupInfo") type = LUMO_PROPERTY_TYPE_JSON_STRING;
    return tryThrice(kRegisterProperty, [&] { return m_registered.emplace(name, type).second; });
  }

  bool unregisterProperty(const std::string& name) {
    return tryThrice(kUnregisterProperty, [&] { return m_registered.erase(name) == 1; });
  }

  int registerApp(const std::string& app) {
    constexpr int kRefused = -100;
    const int code = m_model.Register(app);
    if (code != 0 || m_model.Apps().at(app).count > 1 || registerProperty(app)) return code;
    m_model.Drop(app);
    return kRefused;
  }

  // Each successful call takes the property away, also when registrations are left.
  int unregisterApp(const std::string& app) {
    const int code = m_model.Unregister(app);
    if (code == 0) unregisterProperty(app);
    return code;
  }

  void emit(BusMessage signal, Trace& trace) {
    if (m_ready && !fails(kEmitSignal)) trace.Add(std::move(signal));
  }

  Outcome request(const Action& action, Trace& trace) {
    std::vector<BusMessage> signals;
    const Outcome outcome{{}, m_model.Request(action.letter != 'g', action.properties, signals)};
    for (BusMessage& signal : signals) emit(std::move(signal), trace);
    return outcome;
  }

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
