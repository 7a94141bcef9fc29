// TLS and credentials, with authorities and passwords made for the test.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "Broker.h"
#include "CapturedLog.h"
#include "Certificates.h"
#include "PlugIn.h"
#include "Program.h"
#include "TemporaryFolder.h"
#include "WaitUntil.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

constexpr const char* kHere = "IP:127.0.0.1,DNS:localhost";
constexpr const char* kUnknown = "no known authority has signed it";

class MqttSecurityTest : public ::testing::Test {
 protected:
  MqttSecurityTest() { CapturedLog::Get().Take(); }

  static std::string tlsListener(const Certificates& certificates, const std::string& name) {
    return "allow_anonymous true\nlog_type all\n" + certificates.ListenerLines(name);
  }
  static std::string tlsAddress(const Broker& broker, const std::string& host = "127.0.0.1") {
    return "mqtts://" + host + ":" + std::to_string(broker.Port());
  }

  // Waits until the log has an error line with this text in it.
  static std::string waitForError(const std::string& text) {
    std::string errors;
    WaitUntil([&] {
      for (const CapturedLog::Line& line : CapturedLog::Get().Take()) errors += line.message;
      return errors.find(text) != std::string::npos;
    });
    return errors;
  }
  // That it does not get through, and why.
  static std::string errorOfConnecting(const std::string& expected) {
    const PlugIn plugIn;
    EXPECT_NE(plugIn.Service(), nullptr);
    std::string error = waitForError(expected);
    EXPECT_THAT(error, HasSubstr(expected));
    waitForError("next attempt in");
    EXPECT_TRUE(plugIn.Statuses().empty());
    return error;
  }
  // That it leaves a broker with this certificate, before it has told it who it is.
  static void expectRefused(const Certificates& certificates, const std::string& name,
                            const std::string& fault, const std::string& host = "127.0.0.1") {
    SCOPED_TRACE(name + " at " + host);
    const Broker broker(tlsListener(certificates, name));
    const Variable address("LUMO_BROKER", tlsAddress(broker, host));
    errorOfConnecting("the broker's certificate is refused: " + fault + "; ");
    EXPECT_THAT(broker.Log(), HasSubstr("New connection from 127.0.0.1"));
    EXPECT_THAT(broker.Log(), Not(HasSubstr("New client connected")));
    EXPECT_THAT(broker.Log(), Not(HasSubstr("tv:service")));
  }
  static void expectOneErrorLineAndNoService(const std::string& variable) {
    CapturedLog::Get().Take();
    const PlugIn plugIn;
    EXPECT_EQ(plugIn.Service(), nullptr);
    const auto lines = CapturedLog::Get().Take();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines.front().priority, 6);
    EXPECT_THAT(lines.front().message, ::testing::StartsWith(variable + ": "));
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
  m_right.SelfSign("self-signed", kHere);
  m_right.SignExpired("expired", kHere);
  m_right.Sign("other-host", "IP:127.0.0.2,DNS:other.example.com");
  m_right.Sign("thing", kHere, "clientAuth");
  const Variable authority("LUMO_BROKER_CA", m_right.Path("ca.crt"));
  expectRefused(wrong, "broker", kUnknown);
  expectRefused(m_right, "self-signed", kUnknown);
  expectRefused(m_right, "expired", "it has expired");
  expectRefused(m_right, "other-host", "it is for another host");
  expectRefused(m_right, "other-host", "it is for another host", "localhost");
  expectRefused(m_right, "thing", "it is not for servers");
}

TEST_F(MqttSecurityTest, RefusesABrokerThatOnlyAnUnknownAuthorityHasSignedByDefault) {
  m_right.Sign("broker", kHere);
  expectRefused(m_right, "broker", kUnknown);
}

TEST_F(MqttSecurityTest, RefusesABrokerWithoutTls) {
  const Broker broker;
  const Variable address("LUMO_BROKER", tlsAddress(broker));
  errorOfConnecting("cannot connect to 127.0.0.1");
  EXPECT_THAT(broker.Log(), Not(HasSubstr("New client connected")));
}

TEST_F(MqttSecurityTest, ShowsItsCertificateAndProvesItToABrokerThatWantsOne) {
  m_right.Sign("broker", kHere);
  for (const char* name : {"thing", "other"}) m_right.Sign(name, "DNS:tv");
  const Broker broker(tlsListener(m_right, "broker") + "require_certificate true\n");
  const Variable address("LUMO_BROKER", tlsAddress(broker));
  const Variable authority("LUMO_BROKER_CA", m_right.Path("ca.crt"));
  errorOfConnecting("cannot connect to 127.0.0.1");
  const Variable certificate("LUMO_BROKER_CERT", m_right.Path("thing.crt"));
  {
    const Variable key("LUMO_BROKER_KEY", m_right.Path("other.key"));
    errorOfConnecting("cannot connect to 127.0.0.1");
    EXPECT_THAT(broker.Log(), Not(HasSubstr("New client connected")));
  }
  const Variable key("LUMO_BROKER_KEY", m_right.Path("thing.key"));
  PlugIn plugIn;
  EXPECT_TRUE(plugIn.WaitForStatus("mqtt=1"));
}

TEST_F(MqttSecurityTest, AWrongTlsFileIsOneErrorLineAndNoService) {
  struct Case {
    const char* wrong;
    const char* authorities;
    const char* certificate;
    const char* key;
  };
  m_right.Sign("thing", "DNS:tv");
  RunToEnd({"openssl", "ec", "-aes256", "-passout", "pass:secret", "-in", m_right.Path("thing.key"),
            "-out", m_right.Path("locked.key")});
  const Variable address("LUMO_BROKER", "mqtts://127.0.0.1");
  for (const Case& files : {Case{"LUMO_BROKER_CA", "thing.key", "thing.crt", "thing.key"},
                            Case{"LUMO_BROKER_CERT", "ca.crt", "thing.key", "thing.key"},
                            Case{"LUMO_BROKER_KEY", "ca.crt", "thing.crt", "locked.key"}}) {
    const Variable authority("LUMO_BROKER_CA", m_right.Path(files.authorities));
    const Variable certificate("LUMO_BROKER_CERT", m_right.Path(files.certificate));
    const Variable key("LUMO_BROKER_KEY", m_right.Path(files.key));
    expectOneErrorLineAndNoService(files.wrong);
  }
}

TEST_F(MqttSecurityTest, AWrongPasswordIsRefusedAndNeverLogged) {
  const std::string passwords = m_folder.Path() / "passwords";
  RunToEnd({"mosquitto_passwd", "-c", "-b", passwords, "me", "right-one"});
  const Broker broker("allow_anonymous false\npassword_file " + passwords + "\n");
  const Variable address("LUMO_BROKER", broker.Address());
  EXPECT_THAT(errorOfConnecting("refused: "), Not(HasSubstr("right-one")));

  const Variable user("LUMO_BROKER_USER", "me");
  const Variable password("LUMO_BROKER_PASSWORD_FILE", m_folder.Write("password", "wrong-one\n"));
  EXPECT_THAT(errorOfConnecting("refused: "), Not(HasSubstr("wrong-one")));

  m_folder.Write("password", "right-one\n");
  PlugIn plugIn;
  EXPECT_TRUE(plugIn.WaitForStatus("mqtt=1"));
}

TEST_F(MqttSecurityTest, AWrongVariableIsOneErrorLineAndNoService) {
  for (const auto& [name, value] :
       {std::pair("LUMO_BROKER", "http://localhost"), std::pair("LUMO_BROKER", "mqtt://10.0.0.1"),
        std::pair("LUMO_THING_ID", "a/b"), std::pair("LUMO_BROKER_CA", "/nowhere"),
        std::pair("LUMO_REQUEST_TIMEOUT_MS", "soon")}) {
    const Variable variable(name, value);
    expectOneErrorLineAndNoService(name);
  }
}

}  // namespace
