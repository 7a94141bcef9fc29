#ifndef TESTS_SOAK_CHANNEL_H
#define TESTS_SOAK_CHANNEL_H

#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "Broker.h"
#include "CloudClient.h"
#include "HostProcess.h"
#include "PrivateBus.h"
#include "ShippedPolicy.h"
#include "TemporaryFolder.h"

namespace Soak {

// The whole channel of a thing named kThing: a message bus with the shipped policy, a broker that
// remembers everything, and the host. All end with the object, and with the thread that made it.
// One thread uses it, the one that made it before there was another. Failures are thrown as
// std::runtime_error.
struct Channel {
  static constexpr const char* kThing = "tv";

  // Returns once the channel is up. The host logs nothing unless DLOG_LEVEL says otherwise.
  Channel() {
    CloudClient cloud(broker.Port(), kThing);
    if (!host.WaitForOutput("qivo-thing: ready\n") || !cloud.WaitFor("status", "\"online\"") ||
        !cloud.WaitForProperty("signupInfo")) {
      throw std::runtime_error("the host does not come to bus and broker: " + host.Errors());
    }
  }

  // A clean shutdown.
  void EndHost() {
    const int status = host.End(SIGTERM);
    if (status != 0) throw std::runtime_error("the host ends with " + std::to_string(status));
  }

  const TemporaryFolder settings;
  PrivateBus bus{ShippedPolicyForThisUser()};
  Broker broker;
  HostProcess host{{ADC_HOST_FILE, ADC_PLUGIN_FILE}, variables()};

 private:
  HostProcess::Environment variables() const {
    for (const char* variable :
         {"LUMO_BROKER_CA", "LUMO_BROKER_CERT", "LUMO_BROKER_KEY", "LUMO_BROKER_USER",
          "LUMO_BROKER_PASSWORD_FILE", "LUMO_REQUEST_TIMEOUT_MS"}) {
      unsetenv(variable);
    }
    setenv("DLOG_LEVEL", "none", /*overwrite=*/0);
    return {{"DBUS_SYSTEM_BUS_ADDRESS", bus.Address()},
            {"VCONF_DIR", settings.Path()},
            {"LUMO_BROKER", broker.Address()},
            {"LUMO_THING_ID", kThing}};
  }
};

}  // namespace Soak

#endif  // TESTS_SOAK_CHANNEL_H
