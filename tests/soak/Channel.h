#ifndef TESTS_SOAK_CHANNEL_H
#define TESTS_SOAK_CHANNEL_H

#include <memory>
#include <string>

#include "Broker.h"
#include "HostProcess.h"
#include "PrivateBus.h"
#include "TemporaryFolder.h"

namespace Soak {

// The whole channel of a thing named kThing: a message bus with the shipped policy, a broker that
// remembers everything, and the host. All end with the object, and with the thread that made it.
// One thread uses it, the one that made it before there was another. Failures are thrown as
// std::runtime_error.
class Channel {
 public:
  static constexpr const char* kThing = "tv";

  // Returns once the channel is up. The host logs nothing unless DLOG_LEVEL says otherwise.
  Channel();

  const std::string& BusAddress() const { return m_bus.Address(); }
  int BrokerPort() const { return m_broker.Port(); }
  pid_t HostPid() const { return m_host->Pid(); }

  void StopBroker() { m_broker.Stop(); }
  void StartBroker() { m_broker.Start(); }
  // Ends the host in order.
  void EndHost();
  // What the host has written.
  std::string HostErrors() const { return m_host->Errors(); }

 private:
  const TemporaryFolder m_settings;
  PrivateBus m_bus;
  Broker m_broker;
  std::unique_ptr<HostProcess> m_host;
};

}  // namespace Soak

#endif  // TESTS_SOAK_CHANNEL_H
