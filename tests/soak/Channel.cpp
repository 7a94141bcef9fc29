#include "Channel.h"

#include <csignal>
#include <cstdlib>
#include <stdexcept>

#include "CloudClient.h"
#include "ShippedPolicy.h"

namespace Soak {

Channel::Channel() : m_bus(ShippedPolicyForThisUser()) {
  for (const char* variable :
       {"LUMO_BROKER_CA", "LUMO_BROKER_CERT", "LUMO_BROKER_KEY", "LUMO_BROKER_USER",
        "LUMO_BROKER_PASSWORD_FILE", "LUMO_REQUEST_TIMEOUT_MS"}) {
    unsetenv(variable);
  }
  setenv("DLOG_LEVEL", "none", /*overwrite=*/0);
  m_host = std::make_unique<HostProcess>(
      std::vector<std::string>{ADC_HOST_FILE, ADC_PLUGIN_FILE},
      HostProcess::Environment{{"DBUS_SYSTEM_BUS_ADDRESS", m_bus.Address()},
                               {"VCONF_DIR", m_settings.Path()},
                               {"LUMO_BROKER", m_broker.Address()},
                               {"LUMO_THING_ID", kThing}});
  if (!m_host->WaitForOutput("qivo-thing: ready\n")) {
    throw std::runtime_error("the host does not start: " + m_host->Errors());
  }
  CloudClient cloud(m_broker.Port(), kThing);
  if (!cloud.WaitFor("status", "\"online\"") || !cloud.WaitForProperty("signupInfo")) {
    throw std::runtime_error("the host does not come to the broker: " + m_host->Errors());
  }
}

void Channel::EndHost() {
  const int status = m_host->End(SIGTERM);
  if (status != 0) {
    throw std::runtime_error("the host ends with " + std::to_string(status) + ": " +
                             m_host->Errors());
  }
}

}  // namespace Soak
