#include "World.h"

#include <utility>

#include "AppDataChannelCore.h"
#include "Channel.h"
#include "InProcessBus.h"
#include "Require.h"

namespace fuzz {
namespace {

using AppDataChannel::AppDataChannelCore;

constexpr const char* kStatusKey = "memory/iot/thing/thing_status";
constexpr int kRefused = -100;

Outcome reply(std::string argument) {
  return {BusMessage{"", {std::move(argument)}}, {}};
}

}  // namespace

std::string Show(const Outcome& outcome) {
  return Show(outcome.reply) + " " + Show(outcome.response);
}

void Trace::Add(BusMessage signal) {
  const std::string key = signal.name == "send_event" ? signal.arguments.at(0) : signal.name;
  signals[key].push_back(std::move(signal));
}

void World::SetFailure(Failure failure, unsigned count) {
  m_failures[failure] = count;
  tellFailures();
}

void World::ClearFailures() {
  m_failures = {};
  tellFailures();
}

void World::Create() {
  if (m_created) return;
  m_setting = 0;
  if (fails(kCreateService)) return;
  for (const char* name : {"signinStatus", "signupInfo"}) registerProperty(name);
  m_created = true;
  m_hasOwner = !fails(kOwnName);
  if (!m_hasOwner) Destroy();
}

void World::Destroy() {
  if (!m_created) return;
  m_setting = 0;
  m_created = m_hasOwner = m_hasObject = m_ready = false;
  for (const char* name : {"signinStatus", "signupInfo"}) unregisterProperty(name);
  m_registered.clear();
  m_model.DropAll();
}

void World::AcquireBus() {
  if (!m_hasObject) m_hasObject = !fails(kRegisterObject);
}

void World::AcquireName(Trace& trace) {
  m_ready = true;
  emit({"dbus_server_ready", {}}, trace);
  m_setting = 1;
}

Outcome World::Perform(const Action& action, Trace& trace) {
  switch (action.letter) {
    case 'r':
      return reply(std::to_string(registerApp(action.app)));
    case 'u':
      return reply(std::to_string(unregisterApp(action.app)));
    case 's': {
      const int code = m_model.Send(action.app, action.data);
      if (code == 0) {
        trace.notifications[action.app].push_back(
            {action.app, LUMO_PROPERTY_TYPE_STRING, 0, action.data, false});
      }
      return reply(std::to_string(code));
    }
    case 'q':
      return reply(m_model.IsConnected() ? "true" : "false");
    case 'i':
      return reply(m_model.Information());
    case 'x':
      return {};
    default:
      return request(action, trace);
  }
}

void World::Check() const {
  RequireEqual(AppDataChannelCore::GetInstance().IsInitialized(), m_created,
               "the plug-in is created when the model says");
  RequireEqual(Platform::Get().HasService(), m_created, "a service lives as long as the plug-in");
  RequireEqual(InProcessBus::Get().HasOwner(), m_hasOwner, "the name is owned as long");
  RequireEqual(InProcessBus::Get().HasObject(), m_hasObject, "the object is there as long");
  RequireEqual(Platform::Get().Setting(kStatusKey), m_setting, "the setting says so");
  RequireEqual(Platform::Get().Registered(), m_registered, "the service has these properties");
  RequireEqual(Channel::Apps(), m_model.Apps(), "these applications are registered");
}

void World::tellFailures() const {
  Platform::Get().Fail(Platform::kCreateService, m_failures[kCreateService]);
  Platform::Get().Fail(Platform::kRegisterProperty, m_failures[kRegisterProperty]);
  Platform::Get().Fail(Platform::kUnregisterProperty, m_failures[kUnregisterProperty]);
  InProcessBus::Get().Fail(InProcessBus::kOwnName, m_failures[kOwnName]);
  InProcessBus::Get().Fail(InProcessBus::kRegisterObject, m_failures[kRegisterObject]);
  InProcessBus::Get().Fail(InProcessBus::kEmitSignal, m_failures[kEmitSignal]);
}

bool World::fails(Failure failure) {
  if (m_failures[failure] == 0) return false;
  --m_failures[failure];
  return true;
}

bool World::tryThrice(Failure failure, const std::function<bool()>& change) {
  for (int attempt = 0; attempt < 3; ++attempt) {
    if (!fails(failure) && change()) return true;
  }
  return false;
}

bool World::registerProperty(const std::string& name) {
  lumo_property_type type = LUMO_PROPERTY_TYPE_STRING;
  if (name == "signinStatus") type = LUMO_PROPERTY_TYPE_BOOL;
  if (name == "signupInfo") type = LUMO_PROPERTY_TYPE_JSON_STRING;
  return tryThrice(kRegisterProperty, [&] { return m_registered.emplace(name, type).second; });
}

bool World::unregisterProperty(const std::string& name) {
  return tryThrice(kUnregisterProperty, [&] { return m_registered.erase(name) == 1; });
}

int World::registerApp(const std::string& app) {
  const int code = m_model.Register(app);
  if (code != 0 || m_model.Apps().at(app).count > 1 || registerProperty(app)) return code;
  m_model.Drop(app);
  return kRefused;
}

// Each successful call takes the property away, also when registrations are left.
int World::unregisterApp(const std::string& app) {
  const int code = m_model.Unregister(app);
  if (code == 0) unregisterProperty(app);
  return code;
}

void World::emit(BusMessage signal, Trace& trace) {
  if (m_ready && !fails(kEmitSignal)) trace.Add(std::move(signal));
}

Outcome World::request(const Action& action, Trace& trace) {
  const bool isSet = action.letter != 'g';
  const std::vector<Json::Value> items = ChannelModel::ToItems(action.properties);
  std::vector<BusMessage> signals;
  const std::optional<ChannelModel::Answer> answer =
      isSet ? m_model.Set(items, signals) : m_model.Get(items);
  for (BusMessage& signal : signals) emit(std::move(signal), trace);
  Outcome outcome;
  if (answer) outcome.response = ChannelModel::ToResponse(isSet, *answer);
  return outcome;
}

}  // namespace fuzz
