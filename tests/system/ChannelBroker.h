#ifndef TESTS_SYSTEM_CHANNELBROKER_H
#define TESTS_SYSTEM_CHANNELBROKER_H

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "Broker.h"
#include "CloudClient.h"
#include "EjabberdBroker.h"
#include "Federation.h"
#include "TemporaryFolder.h"

// What stands between the thing and the cloud of a channel. The environment variable
// ADC_TEST_BROKER says which; the thing is at one end, the cloud at the other:
//
//   (none)            one mosquitto
//   bridge            two mosquittos, an edge and a hub, joined by the shipped files
//   ejabberd          one node of ejabberd
//   ejabberd-cluster  two nodes of ejabberd that have joined
//
// Only a mosquitto of the thing can be stopped and configured; else these functions throw
// std::logic_error, and a test that needs one says so with NOT_WITH_EJABBERD. Other failures are
// thrown as std::runtime_error.
class ChannelBroker {
 public:
  enum class Kind { Mosquitto, Bridge, Ejabberd, Cluster };
  static Kind KindOfTests();
  static bool IsEjabberd() {
    return KindOfTests() == Kind::Ejabberd || KindOfTests() == Kind::Cluster;
  }

  ChannelBroker();
  ChannelBroker(const ChannelBroker&) = delete;
  ChannelBroker& operator=(const ChannelBroker&) = delete;

  // The thing's.
  int Port() const { return m_ofThing ? m_ofThing->Port() : m_nodeOfThing->Port(); }
  std::string Address() const { return addressOf(Port()); }
  // The cloud's, and who the cloud and the thing have to be.
  int CloudPort() const;
  std::string CloudAddress() const { return addressOf(CloudPort()); }
  CloudClient::Credentials Login() const;
  bool WaitForCloudLog(const std::string& text) const;
  // Of both ends; empty with ejabberd.
  std::string Logs() const;

  // As Broker's, for the thing's.
  void Guard(const std::string& lines) { mosquitto().Guard(lines); }
  std::string GuardedAddress(const std::string& scheme) {
    return mosquitto().GuardedAddress(scheme);
  }
  void Start() {
    if (m_ofThing) m_ofThing->Start();
  }
  void CallOnStart(std::function<void()> onStart) {
    if (m_ofThing) m_ofThing->CallOnStart(std::move(onStart));
  }
  void Stop() { mosquitto().Stop(); }
  void Kill() { mosquitto().Kill(); }
  void Forget() { mosquitto().Forget(); }
  void Freeze() { mosquitto().Freeze(); }
  void Thaw() {
    if (m_ofThing) m_ofThing->Thaw();
  }

 private:
  static std::string addressOf(int port) { return "mqtt://127.0.0.1:" + std::to_string(port); }
  Broker& mosquitto();

  const TemporaryFolder m_folder;     // of the nodes
  std::unique_ptr<Broker> m_ofThing;  // null with ejabberd
  std::unique_ptr<Broker> m_ofCloud;  // null: the thing's
  std::unique_ptr<Federation> m_federation;
  std::unique_ptr<ErlangNames> m_names;
  std::unique_ptr<EjabberdBroker> m_nodeOfThing;
  std::unique_ptr<EjabberdBroker> m_nodeOfCloud;  // null: the thing's
};

// Skips the test, for a reason, with these brokers.
#define NOT_WITH_EJABBERD(why)                                                 \
  do {                                                                         \
    if (ChannelBroker::IsEjabberd()) GTEST_SKIP() << "with ejabberd: " << why; \
  } while (false)
#define NOT_WITH_A_CLUSTER(why)                                       \
  do {                                                                \
    if (ChannelBroker::KindOfTests() == ChannelBroker::Kind::Cluster) \
      GTEST_SKIP() << "with two nodes of ejabberd: " << why;          \
  } while (false)

#endif  // TESTS_SYSTEM_CHANNELBROKER_H
