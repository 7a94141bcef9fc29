#ifndef TESTS_SYSTEM_CHANNEL_H
#define TESTS_SYSTEM_CHANNEL_H

#include <memory>
#include <string>
#include <vector>

#include "ChannelBroker.h"
#include "CloudClient.h"
#include "ContractWatcher.h"
#include "HostProcess.h"
#include "PrivateBus.h"
#include "TemporaryFolder.h"

inline constexpr const char* kReadyLine = "qivo-thing: ready\n";
inline constexpr const char* kStatusKey = "memory/iot/thing/thing_status";
inline constexpr const char* kOnline = "\"online\"";
inline constexpr const char* kOffline = "\"offline\"";

// The channel of a thing: a message bus with the shipped policy, in which the user of this process
// stands for the service's; a folder for the settings; a broker, once it is asked for; the host.
// All end with the object, and with the thread that made it. One thread uses it, the one that made
// it before there was another. Failures are thrown as std::runtime_error.
class Channel {
 public:
  static constexpr const char* kThing = "tv";

  // Starts the bus.
  Channel();

  PrivateBus& Bus() { return m_bus; }
  // Every message of the broker is held against the contract, from its first start on, where the
  // thing is and where the cloud is.
  ChannelBroker& Broker();
  // Where the thing is.
  ContractWatcher& Watcher() { return *m_watcher; }
  // What was wrong with all that the broker has had since the last time, a line for each fault.
  // Starts the broker when it is stopped. Nothing without a broker.
  std::vector<std::string> TakeContractViolations();
  const TemporaryFolder& Folder() const { return m_folder; }
  // What the host, and a program that uses the channel, needs to know, with these changes. The
  // broker is in it once it was asked for; nothing else comes from this process's environment.
  HostProcess::Environment Variables(HostProcess::Environment changes = {}) const;

  // Runs this command as the host, with these changes of the variables, and returns at once.
  HostProcess& Run(const std::vector<std::string>& command,
                   const HostProcess::Environment& changes = {});
  // Starts the host with these plug-ins, and returns at once.
  HostProcess& Launch(const HostProcess::Environment& changes = {},
                      std::vector<std::string> plugins = {ADC_PLUGIN_FILE});
  // Returns once applications can use the channel.
  HostProcess& StartLocally(const HostProcess::Environment& changes = {});
  // Returns once this cloud, or a new one, can use it as well.
  HostProcess& Start(CloudClient& cloud, const HostProcess::Environment& changes = {});
  HostProcess& Start(const HostProcess::Environment& changes = {});
  // The last one that was started.
  HostProcess& Host() { return *m_host; }
  const HostProcess& Host() const { return *m_host; }
  bool HasHost() const { return m_host != nullptr; }
  // With SIGTERM; its status must be 0.
  void EndHost();
  // Of the host and the brokers, as far as there are any: for a test that fails.
  std::string Logs() const;

 private:
  const TemporaryFolder m_folder;
  PrivateBus m_bus;
  std::unique_ptr<ChannelBroker> m_broker;     // null until it is asked for
  std::unique_ptr<ContractWatcher> m_watcher;  // likewise
  std::unique_ptr<ContractWatcher>
      m_watcherOfCloud;  // null, too, where the cloud is with the thing
  std::unique_ptr<HostProcess> m_host;
};

#endif  // TESTS_SYSTEM_CHANNEL_H
