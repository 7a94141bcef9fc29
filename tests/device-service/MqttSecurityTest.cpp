// TLS and credentials, with authorities and passwords made for the test.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "Broker.h"
#include "Certificates.h"
#include "MqttTest.h"
#include "Program.h"
#include "TemporaryFolder.h"
#include "WaitUntil.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

constexpr const char* kUnknown = "no known authority has signed it";

class MqttSecurityTest : public ::testing::Test {
 protected:
  MqttSecurityTest() : m_thing("LUMO_THING_ID", "tv") { CapturedLog::Get().Take(); }

  static std::string url(const std::string& scheme, const std::string& host, const Broker& broker) {
    return scheme + "://" + host + ":" + std::to_string(broker.Port());
  }

  static std::string tlsListener(const Certificates& certificates, const std::string& name) {
    return "allow_anonymous true\nlog_type all\n" + certificates.ListenerLines(name);
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

  // That it leaves a broker for what is wrong with its certificate, before it has said who it is.
  static void expectRefused(const Broker& broker, const std::string& host,
                            const std::string& fault) {
    const Variable address("LUMO_BROKER", url("mqtts", host, broker));
    errorOfConnecting("the broker's certificate is refused: " + fault + "; ");
    EXPECT_THAT(broker.Log(), HasSubstr("New connection from 127.0.0.1"));
    EXPECT_THAT(broker.Log(), Not(HasSubstr("New client connected")));
    EXPECT_THAT(broker.Log(), Not(HasSubstr("tv:service")));
  }
  // The same, of a broker with this certificate.
  static void expectRefused(const Certificates& certificates, const std::string& name,
                            const std::string& fault) {
    const Variable authority("LUMO_BROKER_CA", certificates.Path("ca.crt"));
    expectRefused(Broker(tlsListener(certificates, name)), "127.0.0.1", fault);
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

  const Variable m_thing;
  const TemporaryFolder m_folder;  // of authorities
};

TEST_F(MqttSecurityTest, ConnectsToABrokerThatTheAuthorityHasSigned) {
  const Certificates certificates(m_folder.Path(), "right");
  certificates.Sign("broker", "IP:127.0.0.1,DNS:localhost");
  const Broker broker(tlsListener(certificates, "broker"));
  const Variable authority("LUMO_BROKER_CA", certificates.Path("ca.crt"));
  for (const char* host : {"127.0.0.1", "localhost"}) {
    const Variable address("LUMO_BROKER", url("mqtts", host, broker));
    PlugIn plugIn;
    EXPECT_TRUE(plugIn.WaitForStatus("mqtt=1")) << host;
    plugIn.Register("a");
    plugIn.Notify("a", std::string(100'000, 'x'));  // more than one record of TLS
    plugIn.Destroy();
  }
  EXPECT_THAT(broker.Log(), HasSubstr("'things/tv/service/value/a', ... (100002 bytes)"));
}

TEST_F(MqttSecurityTest, RefusesABrokerOfAnotherAuthority) {
  const Certificates right(m_folder.Path(), "right");
  const Certificates wrong(m_folder.Path(), "wrong");
  wrong.Sign("broker", "IP:127.0.0.1");
  const Broker broker(tlsListener(wrong, "broker"));
  const Variable authority("LUMO_BROKER_CA", right.Path("ca.crt"));
  expectRefused(broker, "127.0.0.1", kUnknown);
}

TEST_F(MqttSecurityTest, RefusesABrokerThatOnlyAnUnknownAuthorityHasSignedByDefault) {
  const Certificates certificates(m_folder.Path(), "unknown");
  certificates.Sign("broker", "IP:127.0.0.1");
  const Broker broker(tlsListener(certificates, "broker"));
  expectRefused(broker, "127.0.0.1", kUnknown);
}

TEST_F(MqttSecurityTest, RefusesABrokerWhoseCertificateIsForAnotherHost) {
  const Certificates certificates(m_folder.Path(), "right");
  certificates.Sign("broker", "IP:127.0.0.2,DNS:other.example.com");
  const Broker broker(tlsListener(certificates, "broker"));
  const Variable authority("LUMO_BROKER_CA", certificates.Path("ca.crt"));
  for (const char* host : {"127.0.0.1", "localhost"}) {
    expectRefused(broker, host, "it is for another host");
  }
}

TEST_F(MqttSecurityTest, RefusesABrokerWhoseCertificateHasExpired) {
  const Certificates certificates(m_folder.Path(), "right");
  certificates.SignExpired("broker", "IP:127.0.0.1");
  expectRefused(certificates, "broker", "it has expired");
}

TEST_F(MqttSecurityTest, RefusesABrokerThatHasSignedItsCertificateItself) {
  const Certificates certificates(m_folder.Path(), "right");
  certificates.SelfSign("broker", "IP:127.0.0.1");
  expectRefused(certificates, "broker", kUnknown);
}

TEST_F(MqttSecurityTest, RefusesABrokerWithACertificateForClients) {
  const Certificates certificates(m_folder.Path(), "right");
  certificates.Sign("thing", "IP:127.0.0.1", "clientAuth");
  expectRefused(certificates, "thing", "it is not for servers");
}

TEST_F(MqttSecurityTest, RefusesABrokerWithoutTls) {
  const Broker broker;
  const Variable address("LUMO_BROKER", url("mqtts", "127.0.0.1", broker));
  errorOfConnecting("cannot connect to 127.0.0.1");
  EXPECT_THAT(broker.Log(), Not(HasSubstr("New client connected")));
}

TEST_F(MqttSecurityTest, ShowsItsCertificateToABrokerThatWantsOne) {
  const Certificates certificates(m_folder.Path(), "right");
  certificates.Sign("broker", "IP:127.0.0.1");
  certificates.Sign("thing", "DNS:tv");
  const Broker broker(tlsListener(certificates, "broker") + "require_certificate true\n");
  const Variable address("LUMO_BROKER", url("mqtts", "127.0.0.1", broker));
  const Variable authority("LUMO_BROKER_CA", certificates.Path("ca.crt"));
  errorOfConnecting("cannot connect to 127.0.0.1");
  const Variable certificate("LUMO_BROKER_CERT", certificates.Path("thing.crt"));
  const Variable key("LUMO_BROKER_KEY", certificates.Path("thing.key"));
  PlugIn plugIn;
  EXPECT_TRUE(plugIn.WaitForStatus("mqtt=1"));
}

TEST_F(MqttSecurityTest, AKeyThatDoesNotBelongToTheCertificateDoesNotGetThrough) {
  const Certificates certificates(m_folder.Path(), "right");
  certificates.Sign("broker", "IP:127.0.0.1");
  certificates.Sign("thing", "DNS:tv");
  certificates.Sign("other", "DNS:tv");
  const Broker broker(tlsListener(certificates, "broker") + "require_certificate true\n");
  const Variable address("LUMO_BROKER", url("mqtts", "127.0.0.1", broker));
  const Variable authority("LUMO_BROKER_CA", certificates.Path("ca.crt"));
  const Variable certificate("LUMO_BROKER_CERT", certificates.Path("thing.crt"));
  const Variable key("LUMO_BROKER_KEY", certificates.Path("other.key"));
  errorOfConnecting("cannot connect to 127.0.0.1");
  EXPECT_THAT(broker.Log(), Not(HasSubstr("New client connected")));
}

TEST_F(MqttSecurityTest, AWrongTlsFileIsOneErrorLineAndNoService) {
  struct Case {
    const char* wrong;
    const char* authorities;
    const char* certificate;
    const char* key;
  };
  const Certificates certificates(m_folder.Path(), "right");
  certificates.Sign("thing", "DNS:tv");
  RunToEnd({"openssl", "ec", "-aes256", "-passout", "pass:secret", "-in",
            certificates.Path("thing.key"), "-out", certificates.Path("locked.key")});
  const Variable address("LUMO_BROKER", "mqtts://127.0.0.1");
  for (const Case& files : {Case{"LUMO_BROKER_CA", "thing.key", "thing.crt", "thing.key"},
                            Case{"LUMO_BROKER_CERT", "ca.crt", "thing.key", "thing.key"},
                            Case{"LUMO_BROKER_KEY", "ca.crt", "thing.crt", "locked.key"}}) {
    const Variable authority("LUMO_BROKER_CA", certificates.Path(files.authorities));
    const Variable certificate("LUMO_BROKER_CERT", certificates.Path(files.certificate));
    const Variable key("LUMO_BROKER_KEY", certificates.Path(files.key));
    expectOneErrorLineAndNoService(files.wrong);
  }
}

TEST_F(MqttSecurityTest, AWrongPasswordIsRefusedAndNeverLogged) {
  const TemporaryFolder folder;
  const std::string passwords = folder.Path() / "passwords";
  RunToEnd({"mosquitto_passwd", "-c", "-b", passwords, "me", "right-one"});
  const Broker broker("allow_anonymous false\npassword_file " + passwords + "\n");
  const Variable address("LUMO_BROKER", url("mqtt", "127.0.0.1", broker));
  EXPECT_THAT(errorOfConnecting("refused: "), Not(HasSubstr("right-one")));

  const Variable user("LUMO_BROKER_USER", "me");
  const Variable password("LUMO_BROKER_PASSWORD_FILE", folder.Write("password", "wrong-one\n"));
  EXPECT_THAT(errorOfConnecting("refused: "), Not(HasSubstr("wrong-one")));

  folder.Write("password", "right-one\n");
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
