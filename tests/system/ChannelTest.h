#ifndef TESTS_SYSTEM_CHANNELTEST_H
#define TESTS_SYSTEM_CHANNELTEST_H

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "Broker.h"
#include "CloudClient.h"
#include "HostTest.h"
#include "TemporaryFolder.h"
#include "WaitUntil.h"

// The whole channel: the host on its bus, a broker, and the cloud at the broker.
class ChannelTest : public HostTest {
 protected:
  static constexpr const char* kThing = "tv";
  static constexpr const char* kOnline = "\"online\"";
  static constexpr const char* kOffline = "\"offline\"";
  static constexpr const char* kValueOfQz = "appdatachannel/value/qz";

  ChannelTest();
  ~ChannelTest() override;

  // Starts the host and waits until applications can use the channel.
  std::unique_ptr<HostProcess> StartLocally(HostProcess::Environment variables = {});
  // The same, and the cloud.
  std::unique_ptr<HostProcess> StartChannel(HostProcess::Environment variables = {});
  // What the host, and a program that uses the channel, needs to know.
  HostProcess::Environment ChannelVariables() const;

  // An application's calls; what comes back, or the error.
  static std::string Register(BusClient& app, const std::string& name);
  static std::string Unregister(BusClient& app, const std::string& name);
  static std::string SendData(BusClient& app, const std::string& name, const std::string& data);
  static std::string CloudConnection(BusClient& app);
  // The parameters of the signals with this name that the application has received.
  static std::vector<std::string> Received(const BusClient& app, const std::string& signal);
  // Waits for that many of them.
  static std::vector<std::string> WaitForEvents(const BusClient& app, std::size_t count,
                                                const std::string& signal = "send_event");

 private:
  const TemporaryFolder m_folder;  // the settings, and what else a test writes

 protected:
  const TemporaryFolder& Folder() const { return m_folder; }

  Broker broker;
  CloudClient cloud{broker.Port(), kThing};
};

#endif  // TESTS_SYSTEM_CHANNELTEST_H
