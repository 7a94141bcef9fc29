#include "Channel.h"

#include <unistd.h>

#include <csignal>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace {

std::string shippedPolicyForThisUser() {
  std::ifstream file(ADC_POLICY_FILE);
  std::string text((std::istreambuf_iterator<char>(file)), {});
  const std::string user = "user=\"qivo-thing\"";
  const auto at = text.find(user);
  if (at == std::string::npos) throw std::runtime_error("the policy does not name the user");
  return text.replace(at, user.size(), "user=\"" + std::to_string(getuid()) + "\"");
}

}  // namespace

Channel::Channel() : m_bus(shippedPolicyForThisUser()) {}

ChannelBroker& Channel::Broker() {
  if (!m_broker) {
    m_broker = std::make_unique<ChannelBroker>();
    const auto& [user, password] = m_broker->Login();
    m_watcher = std::make_unique<ContractWatcher>(m_broker->Port(), user, password);
    if (m_broker->CloudPort() != m_broker->Port()) {
      const bool isBridge = ChannelBroker::KindOfTests() == ChannelBroker::Kind::Bridge;
      m_watcherOfCloud = std::make_unique<ContractWatcher>(
          m_broker->CloudPort(), user, password,
          isBridge ? ContractWatcher::Place::BehindBridge : ContractWatcher::Place::WithThing);
    }
    // A message that comes before the watcher is back would be missed if the broker has forgotten
    // it.
    m_broker->CallOnStart([this] { m_watcher->CatchUp(); });
  }
  return *m_broker;
}

std::vector<std::string> Channel::TakeContractViolations() {
  if (!m_broker) return {};
  m_broker->Thaw();
  m_broker->Start();
  m_watcher->CatchUp();
  std::vector<std::string> all = m_watcher->TakeViolations();
  if (m_watcherOfCloud) {
    m_watcherOfCloud->CatchUp();
    for (const std::string& violation : m_watcherOfCloud->TakeViolations()) {
      all.push_back("where the cloud is: " + violation);
    }
  }
  return all;
}

HostProcess::Environment Channel::Variables(HostProcess::Environment changes) const {
  changes.merge(HostProcess::Environment{
      {"DBUS_SYSTEM_BUS_ADDRESS", m_bus.Address()},
      {"VCONF_DIR", m_folder.Path() / "vconf"},
      {"DLOG_LEVEL", "info"},
      {"LUMO_BROKER", m_broker ? m_broker->Address() : ""},
      {"LUMO_THING_ID", kThing},
  });
  if (m_broker && !m_broker->Login().user.empty()) {
    changes.emplace("LUMO_BROKER_USER", m_broker->Login().user);
    changes.emplace("LUMO_BROKER_PASSWORD_FILE",
                    m_folder.Write("broker-password", m_broker->Login().password));
  }
  ClearInherited(changes, "LUMO_");
  return changes;
}

HostProcess& Channel::Run(const std::vector<std::string>& command,
                          const HostProcess::Environment& changes) {
  m_host.reset();
  m_host = std::make_unique<HostProcess>(command, Variables(changes));
  return *m_host;
}

HostProcess& Channel::Launch(const HostProcess::Environment& changes,
                             std::vector<std::string> plugins) {
  plugins.insert(plugins.begin(), ADC_HOST_FILE);
  return Run(plugins, changes);
}

HostProcess& Channel::StartLocally(const HostProcess::Environment& changes) {
  if (!Launch(changes).WaitForOutput(kReadyLine)) {
    throw std::runtime_error("the host does not start: " + m_host->Errors());
  }
  return *m_host;
}

HostProcess& Channel::Start(CloudClient& cloud, const HostProcess::Environment& changes) {
  StartLocally(changes);
  if (!cloud.WaitFor("status", kOnline) || !cloud.WaitForProperty("signupInfo")) {
    throw std::runtime_error("the host does not come to the broker: " + m_host->Errors());
  }
  return *m_host;
}

HostProcess& Channel::Start(const HostProcess::Environment& changes) {
  CloudClient cloud(Broker().CloudPort(), kThing, Broker().Login());
  return Start(cloud, changes);
}

void Channel::EndHost() {
  const int status = m_host->End(SIGTERM);
  if (status != 0) {
    throw std::runtime_error("the host ends with " + std::to_string(status) + ": " +
                             m_host->Errors());
  }
}

std::string Channel::Logs() const {
  return (m_host ? m_host->Errors() : std::string()) +
         (m_broker ? m_broker->Logs() : std::string());
}
