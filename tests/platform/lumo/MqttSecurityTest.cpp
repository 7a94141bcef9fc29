// TLS and credentials, with authorities and passwords made for the test.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "Broker.h"
#include "MqttTest.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

// A folder with an authority "ca" and certificates that it has signed.
class Certificates {
 public:
  explicit Certificates(const std::string& authority) {
    RunToEnd({"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
              "-nodes", "-keyout", Path("ca.key"), "-out", Path("ca.crt"), "-subj",
              "/CN=" + authority, "-days", "2"});
  }

  std::string Path(const std::string& file) const { return m_folder.Path() / file; }

  // Makes `name`.key and `name`.crt for an address or host like "IP:127.0.0.1".
  void Sign(const std::string& name, const std::string& subject) const {
    RunToEnd({"openssl", "req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
              "-keyout", Path(name + ".key"), "-out", Path(name + ".csr"), "-subj", "/CN=" + name});
    const std::string extensions =
        m_folder.Write(name + ".ext", "subjectAltName=" + subject + "\n");
    RunToEnd({"openssl", "x509", "-req", "-in", Path(name + ".csr"), "-CA", Path("ca.crt"),
              "-CAkey", Path("ca.key"), "-CAcreateserial", "-out", Path(name + ".crt"), "-days",
              "2", "-extfile", extensions});
  }

 private:
  Folder m_folder;
};

class MqttSecurityTest : public ::testing::Test {
 protected:
  MqttSecurityTest() : m_thing("LUMO_THING_ID", "tv") { CapturedLog::Get().Take(); }

  static std::string url(const std::string& scheme, const std::string& host, const Broker& broker) {
    return scheme + "://" + host + ":" + std::to_string(broker.Port());
  }

  static std::string tlsListener(const Certificates& certificates, const std::string& name) {
    return "allow_anonymous true\ncafile " + certificates.Path("ca.crt") + "\ncertfile " +
           certificates.Path(name + ".crt") + "\nkeyfile " + certificates.Path(name + ".key") +
           "\n";
  }

  // Waits until the log has an error line with this text in it.
  static std::string waitForError(const std::string& text) {
    std::string errors;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (errors.find(text) == std::string::npos) {
      if (std::chrono::steady_clock::now() > deadline) return errors;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
      for (const CapturedLog::Line& line : CapturedLog::Get().Take()) errors += line.message;
    }
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

  const Variable m_thing;
};

TEST_F(MqttSecurityTest, ConnectsToABrokerThatTheAuthorityHasSigned) {
  const Certificates certificates("right");
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
  const Certificates right("right");
  const Certificates wrong("wrong");
  wrong.Sign("broker", "IP:127.0.0.1");
  const Broker broker(tlsListener(wrong, "broker"));
  const Variable authority("LUMO_BROKER_CA", right.Path("ca.crt"));
  const Variable address("LUMO_BROKER", url("mqtts", "127.0.0.1", broker));
  errorOfConnecting("certificate verify failed");
}

TEST_F(MqttSecurityTest, RefusesABrokerThatOnlyAnUnknownAuthorityHasSignedByDefault) {
  const Certificates certificates("unknown");
  certificates.Sign("broker", "IP:127.0.0.1");
  const Broker broker(tlsListener(certificates, "broker"));
  const Variable address("LUMO_BROKER", url("mqtts", "127.0.0.1", broker));
  errorOfConnecting("certificate verify failed");
}

TEST_F(MqttSecurityTest, RefusesABrokerWhoseCertificateIsForAnotherHost) {
  const Certificates certificates("right");
  certificates.Sign("broker", "IP:127.0.0.2,DNS:other.example.com");
  const Broker broker(tlsListener(certificates, "broker"));
  const Variable authority("LUMO_BROKER_CA", certificates.Path("ca.crt"));
  for (const char* host : {"127.0.0.1", "localhost"}) {
    const Variable address("LUMO_BROKER", url("mqtts", host, broker));
    errorOfConnecting("host name verification failed");
  }
  EXPECT_THAT(broker.Log(), Not(HasSubstr("New client connected")));
}

TEST_F(MqttSecurityTest, RefusesABrokerWithoutTls) {
  const Broker broker;
  const Variable address("LUMO_BROKER", url("mqtts", "127.0.0.1", broker));
  errorOfConnecting("cannot connect to 127.0.0.1");
  EXPECT_THAT(broker.Log(), Not(HasSubstr("New client connected")));
}

TEST_F(MqttSecurityTest, ShowsItsCertificateToABrokerThatWantsOne) {
  const Certificates certificates("right");
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

TEST_F(MqttSecurityTest, NeverAsksForThePasswordOfAKey) {
  const Certificates certificates("right");
  certificates.Sign("broker", "IP:127.0.0.1");
  certificates.Sign("thing", "DNS:tv");
  RunToEnd({"openssl", "ec", "-aes256", "-passout", "pass:secret", "-in",
            certificates.Path("thing.key"), "-out", certificates.Path("locked.key")});
  const Broker broker(tlsListener(certificates, "broker"));
  const Variable address("LUMO_BROKER", url("mqtts", "127.0.0.1", broker));
  const Variable authority("LUMO_BROKER_CA", certificates.Path("ca.crt"));
  const Variable certificate("LUMO_BROKER_CERT", certificates.Path("thing.crt"));
  const Variable key("LUMO_BROKER_KEY", certificates.Path("locked.key"));
  errorOfConnecting("Unable to load client key file");
}

TEST_F(MqttSecurityTest, AWrongPasswordIsRefusedAndNeverLogged) {
  const Folder folder;
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
    std::optional<Variable> variable(std::in_place, name, value);
    CapturedLog::Get().Take();
    const PlugIn plugIn;
    EXPECT_EQ(plugIn.Service(), nullptr);
    const auto lines = CapturedLog::Get().Take();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines.front().priority, 6);
    EXPECT_THAT(lines.front().message, ::testing::StartsWith(std::string(name) + ": "));
  }
}

}  // namespace
