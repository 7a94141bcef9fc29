#include "ChannelBroker.h"

#include <cstdlib>
#include <stdexcept>

ChannelBroker::Kind ChannelBroker::KindOfTests() {
  const char* const name = std::getenv("ADC_TEST_BROKER");
  const std::string kind = name == nullptr ? "" : name;
  if (kind.empty()) return Kind::Mosquitto;
  if (kind == "bridge") return Kind::Bridge;
  if (kind == "ejabberd") return Kind::Ejabberd;
  if (kind == "ejabberd-cluster") return Kind::Cluster;
  throw std::runtime_error("ADC_TEST_BROKER: no broker '" + kind + "'");
}

ChannelBroker::ChannelBroker() {
  switch (KindOfTests()) {
    case Kind::Mosquitto:
      m_ofThing = std::make_unique<Broker>();
      break;
    case Kind::Bridge:
      m_ofThing = std::make_unique<Broker>();
      m_ofCloud = std::make_unique<Broker>();
      m_federation = std::make_unique<Federation>(
          *m_ofCloud, std::vector<Federation::Edge>{{m_ofThing.get(), "edge-1"}});
      break;
    case Kind::Ejabberd:
      m_nodeOfThing = std::make_unique<EjabberdBroker>(m_folder.Path());
      break;
    case Kind::Cluster:
      m_names = std::make_unique<ErlangNames>();
      m_nodeOfThing = std::make_unique<EjabberdBroker>(
          m_folder.Path(), EjabberdBroker::Node{m_names.get(), "thing", nullptr});
      m_nodeOfCloud = std::make_unique<EjabberdBroker>(
          m_folder.Path(), EjabberdBroker::Node{m_names.get(), "cloud", m_nodeOfThing.get()});
      break;
  }
}

int ChannelBroker::CloudPort() const {
  if (m_ofCloud) return m_ofCloud->Port();
  return m_nodeOfCloud ? m_nodeOfCloud->Port() : Port();
}

CloudClient::Credentials ChannelBroker::Login() const {
  if (!m_nodeOfThing) return {};
  return {m_nodeOfThing->User(), m_nodeOfThing->Password()};
}

bool ChannelBroker::WaitForCloudLog(const std::string& text) const {
  return (m_ofCloud ? m_ofCloud : m_ofThing)->WaitForLog(text);
}

std::string ChannelBroker::Logs() const {
  std::string logs;
  if (m_ofThing) logs += "the thing's broker:\n" + m_ofThing->Log();
  if (m_ofCloud) logs += "the cloud's broker:\n" + m_ofCloud->Log();
  return logs;
}

Broker& ChannelBroker::mosquitto() {
  if (!m_ofThing) throw std::logic_error("the thing's broker is no mosquitto");
  return *m_ofThing;
}
