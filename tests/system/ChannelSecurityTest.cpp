// TLS and credentials between the host and a broker that wants them.
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>

#include "Certificates.h"
#include "ChannelTest.h"

namespace {

using Lines = std::vector<std::string>;

const std::string kRefused = "the broker's certificate is refused: ";

// The cloud has a listener of its own at the broker.
class ChannelSecurityTest : public ChannelTest {
 protected:
  void Guard(const std::string& lines) {
    cloud.Leave();
    broker.Guard(lines);
    cloud.ComeBack();
  }

  std::string Write(const std::string& name, const std::string& content) const {
    return Folder().Write(name, content);
  }

  // The lines that let only "me" with the password "right-one" in.
  std::string OnlyMe() const {
    const std::string file = Folder().Path() / "passwords";
    const CommandResult made =
        RunCommand({"mosquitto_passwd", "-c", "-b", file, "me", "right-one"});
    EXPECT_EQ(0, made.status) << made.errors;
    return "allow_anonymous false\npassword_file " + file + "\n";
  }

  // The host does not get through to the broker, for this reason, and works without it. Returns
  // what it printed.
  std::string ExpectRefused(const HostProcess::Environment& variables, const std::string& reason) {
    const auto host = StartLocally(variables);
    EXPECT_TRUE(host->WaitForError(reason)) << host->Errors();
    EXPECT_TRUE(host->WaitForError("next attempt in ")) << host->Errors();
    const auto app = NewClient();
    EXPECT_EQ("(0,)", Register(*app, "qz"));
    EXPECT_EQ("(0,)", SendData(*app, "qz", "42"));
    EXPECT_EQ(0, host->End(SIGTERM)) << host->Errors();
    EXPECT_EQ(0U, CountOf("[mqtt] status: 1", host->Errors())) << host->Errors();
    EXPECT_EQ(Lines{}, cloud.Received("status"));
    return host->Errors();
  }

  // Data goes up and comes down.
  void ExpectChannel(const HostProcess::Environment& variables) {
    const auto host = StartChannel(variables);
    const auto app = NewClient();
    EXPECT_EQ("(0,)", Register(*app, "qz"));
    const std::string large(100'000, 'x');
    EXPECT_EQ("(0,)", SendData(*app, "qz", large));
    EXPECT_TRUE(cloud.WaitFor(kValueOfQz, '"' + large + '"')) << host->Errors();
    EXPECT_EQ(0, cloud.Result("set", R"({"qz": ")" + large + R"("})"));
    EXPECT_TRUE(Lines{"('qz', '" + large + "')"} == WaitForEvents(*app, 1)) << host->Errors();
    EXPECT_EQ(0, host->End(SIGTERM)) << host->Errors();
    EXPECT_TRUE(cloud.WaitFor("status", kOffline));
  }

  HostProcess::Environment Tls() const {
    return {{"LUMO_BROKER", broker.GuardedAddress("mqtts")},
            {"LUMO_BROKER_CA", authority.Path("ca.crt")}};
  }

  const Certificates authority{Folder().Path(), "authority"};
};

TEST_F(ChannelSecurityTest, TheChannelWorksOverTls) {
  authority.Sign("broker", "IP:127.0.0.1");
  Guard("allow_anonymous true\n" + authority.ListenerLines("broker"));
  ExpectChannel(Tls());
}

TEST_F(ChannelSecurityTest, ABrokerOfAnotherAuthorityIsRefused) {
  const Certificates other(Folder().Path(), "other");
  other.Sign("broker", "IP:127.0.0.1");
  Guard("allow_anonymous true\n" + other.ListenerLines("broker"));
  const std::string unknown = kRefused + "no known authority has signed it";
  ExpectRefused(Tls(), unknown);
  // Nor do the system's authorities know it.
  ExpectRefused({{"LUMO_BROKER", broker.GuardedAddress("mqtts")}}, unknown);
}

TEST_F(ChannelSecurityTest, ABrokerWithACertificateForAnotherHostIsRefused) {
  authority.Sign("broker", "IP:127.0.0.2,DNS:broker.example");
  Guard("allow_anonymous true\n" + authority.ListenerLines("broker"));
  ExpectRefused(Tls(), kRefused + "it is for another host");
}

TEST_F(ChannelSecurityTest, ABrokerWithoutTlsIsRefusedWhenTlsIsWanted) {
  Guard("allow_anonymous true\n");
  ExpectRefused(Tls(), "cannot connect to 127.0.0.1");
}

TEST_F(ChannelSecurityTest, ABrokerThatWantsACertificateGetsOne) {
  authority.Sign("broker", "IP:127.0.0.1");
  authority.Sign("thing", "DNS:tv");
  Guard("require_certificate true\nallow_anonymous true\n" + authority.ListenerLines("broker"));
  HostProcess::Environment variables = Tls();
  ExpectRefused(variables, "cannot connect to 127.0.0.1");
  variables["LUMO_BROKER_CERT"] = authority.Path("thing.crt");
  // GIO does not compare the two before it uses them.
  authority.Sign("other", "DNS:tv");
  variables["LUMO_BROKER_KEY"] = authority.Path("other.key");
  ExpectRefused(variables, "cannot connect to 127.0.0.1");
  variables["LUMO_BROKER_KEY"] = authority.Path("thing.key");
  ExpectChannel(variables);
}

TEST_F(ChannelSecurityTest, FilesThatAreOfNoUseAreAnErrorLineAndNoChannel) {
  authority.Sign("thing", "DNS:tv");
  const std::string garbage = Write("garbage", "no certificate\n");
  const std::string certificate = authority.Path("thing.crt");
  const auto expectError = [this](const std::string& variable, const std::string& authorityFile,
                                  const std::string& certificateFile, const std::string& keyFile) {
    HostProcess::Environment variables = ChannelVariables();
    variables["LUMO_BROKER"] = "mqtts://127.0.0.1";
    variables["LUMO_BROKER_CA"] = authorityFile;
    variables["LUMO_BROKER_CERT"] = certificateFile;
    variables["LUMO_BROKER_KEY"] = keyFile;
    HostProcess host({ADC_HOST_FILE, ADC_PLUGIN_FILE}, variables);
    EXPECT_TRUE(host.WaitForError("Initialize: false\n")) << host.Errors();
    EXPECT_EQ(1U, CountOf(" E LUMO: ", host.Errors())) << host.Errors();
    EXPECT_EQ(1U, CountOf(" E LUMO: " + variable + ": ", host.Errors())) << host.Errors();
  };
  expectError("LUMO_BROKER_CA", garbage, "", "");
  expectError("LUMO_BROKER_CERT", "", garbage, authority.Path("thing.key"));
  expectError("LUMO_BROKER_KEY", "", certificate, garbage);
}

TEST_F(ChannelSecurityTest, OnlyTheRightPasswordIsAccepted) {
  Guard(OnlyMe());
  HostProcess::Environment variables{{"LUMO_BROKER", broker.GuardedAddress("mqtt")}};
  ExpectRefused(variables, "refused: ");

  variables["LUMO_BROKER_USER"] = "me";
  variables["LUMO_BROKER_PASSWORD_FILE"] = Write("password", "wrong-one\n");
  EXPECT_EQ(0U, CountOf("wrong-one", ExpectRefused(variables, "refused: ")));

  Write("password", "right-one\n");
  variables["LUMO_BROKER_USER"] = "you";
  EXPECT_EQ(0U, CountOf("right-one", ExpectRefused(variables, "refused: ")));

  variables["LUMO_BROKER_USER"] = "me";
  ExpectChannel(variables);
}

TEST_F(ChannelSecurityTest, ThePasswordIsAcceptedOverTls) {
  authority.Sign("broker", "IP:127.0.0.1");
  Guard(OnlyMe() + authority.ListenerLines("broker"));
  HostProcess::Environment variables = Tls();
  variables["LUMO_BROKER_USER"] = "me";
  variables["LUMO_BROKER_PASSWORD_FILE"] = Write("password", "right-one");
  ExpectChannel(variables);
}

}  // namespace
