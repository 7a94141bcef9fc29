// TLS, with authorities made for the test.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "Broker.h"
#include "CapturedLog.h"
#include "Certificates.h"
#include "PlugIn.h"
#include "TemporaryFolder.h"
#include "WaitUntil.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

constexpr const char* kHere = "IP:127.0.0.1,DNS:localhost";
constexpr const char* kUnknown = "no known authority has signed it";

class MqttSecurityTest : public ::testing::Test {
 protected:
  static std::string tlsListener(const Certificates& certificates, const std::string& name) {
    return "allow_anonymous true\nlog_type all\n" + certificates.ListenerLines(name);
  }
  static std::string tlsAddress(const Broker& broker, const std::string& host) {
    return "mqtts://" + host + ":" + std::to_string(broker.Port());
  }
  // That the service leaves a broker with this certificate, before it has told it who it is.
  static void expectRefused(const Certificates& certificates, const std::string& name,
                            const std::string& fault, const std::string& host = "127.0.0.1") {
    SCOPED_TRACE(name + " at " + host);
    const Broker broker(tlsListener(certificates, name));
    const Variable address("LUMO_BROKER", tlsAddress(broker, host));
    CapturedLog::Get().Take();
    const PlugIn plugIn;
    std::string log;
    EXPECT_TRUE(WaitUntil([&] {
      for (const CapturedLog::Line& line : CapturedLog::Get().Take()) log += line.message;
      return log.find("the broker's certificate is refused: " + fault + "; next attempt in") !=
             std::string::npos;
    })) << log;
    EXPECT_TRUE(plugIn.Statuses().empty());
    EXPECT_TRUE(broker.WaitForLog("New connection from 127.0.0.1")) << broker.Log();
    EXPECT_THAT(broker.Log(), Not(HasSubstr("New client connected")));
    EXPECT_THAT(broker.Log(), Not(HasSubstr("tv:service")));
  }

  const Variable m_thing{"LUMO_THING_ID", "tv"};
  const TemporaryFolder m_folder;  // of authorities
  const Certificates m_right{m_folder.Path(), "right"};
};

TEST_F(MqttSecurityTest, ConnectsToABrokerThatTheAuthorityHasSigned) {
  m_right.Sign("broker", kHere);
  const Broker broker(tlsListener(m_right, "broker"));
  const Variable authority("LUMO_BROKER_CA", m_right.Path("ca.crt"));
  for (const char* host : {"127.0.0.1", "localhost"}) {
    const Variable address("LUMO_BROKER", tlsAddress(broker, host));
    PlugIn plugIn;
    EXPECT_TRUE(plugIn.WaitForStatus("mqtt=1")) << host;
    plugIn.Register("a");
    plugIn.Notify("a", std::string(100'000, 'x'));  // more than one record of TLS
    plugIn.Destroy();
  }
  EXPECT_THAT(broker.Log(), HasSubstr("'things/tv/service/value/a', ... (100002 bytes)"));
}

TEST_F(MqttSecurityTest, RefusesABrokerWhoseCertificateIsFalse) {
  const Certificates wrong(m_folder.Path(), "wrong");
  wrong.Sign("broker", kHere);
  m_right.Sign("broker", kHere);
  m_right.SelfSign("self-signed", kHere);
  m_right.SignExpired("expired", kHere);
  m_right.Sign("other-host", "IP:127.0.0.2,DNS:other.example.com");
  m_right.Sign("thing", kHere, "clientAuth");
  expectRefused(m_right, "broker", kUnknown);  // to the system's authorities
  const Variable authority("LUMO_BROKER_CA", m_right.Path("ca.crt"));
  expectRefused(wrong, "broker", kUnknown);
  expectRefused(m_right, "self-signed", kUnknown);
  expectRefused(m_right, "expired", "it has expired");
  expectRefused(m_right, "other-host", "it is for another host");
  expectRefused(m_right, "other-host", "it is for another host", "localhost");
  expectRefused(m_right, "thing", "it is not for servers");
}

}  // namespace
