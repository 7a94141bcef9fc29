#ifndef TESTS_PLATFORM_LUMO_BROKERTEST_H
#define TESTS_PLATFORM_LUMO_BROKERTEST_H

#include "Broker.h"
#include "MqttTest.h"
#include "Requester.h"

namespace Detail {

struct BrokerHolder {
  Broker m_broker{"allow_anonymous true\nlog_type all\n"};
};

}  // namespace Detail

// A test with a real broker, and the cloud's side at it.
class BrokerTest : protected Detail::BrokerHolder, public MqttTest {
 protected:
  BrokerTest() : MqttTest(m_broker.Port()), m_requester(m_broker.Port()) {}

  Requester m_requester;
};

#endif  // TESTS_PLATFORM_LUMO_BROKERTEST_H
