// TLS and credentials between the host and a broker that wants them.
#include "Certificates.h"
#include "ChannelTest.h"

namespace {

const std::string kCertificateRefused = "the broker's certificate is refused: ";
const std::string kAnybody = "allow_anonymous true\n";

// The cloud has a listener of its own at the broker.
class ChannelSecurityTest : public ChannelTest {
 protected:
  using Variables = HostProcess::Environment;

  // The host does not get through to the broker, for this reason, and works without it. Returns
  // what it printed.
  std::string ExpectRefused(const Variables& variables, const std::string& reason) {
    channel.StartLocally(variables);
    EXPECT_TRUE(Host().WaitForError(reason));
    EXPECT_TRUE(Host().WaitForError("next attempt in "));
    const auto local = NewClient();
    EXPECT_EQ("(0,)", Register(*local, "qz"));
    EXPECT_EQ("(0,)", SendData(*local, "qz", "42"));
    EXPECT_EQ(0, Host().End(SIGTERM));
    EXPECT_EQ(0U, CountOf("[mqtt] status: 1", Host().Errors()));
    EXPECT_EQ(Lines{}, cloud.Received("status"));
    return Host().Errors();
  }

  // Much data goes up and comes down.
  void ExpectChannel(const Variables& variables) {
    StartChannel(variables);
    ExpectWorkingChannel(std::string(100'000, 'x'));
    EXPECT_EQ(0, Host().End(SIGTERM));
    EXPECT_TRUE(cloud.WaitFor("status", kOffline));
  }

  Variables Tls() const {
    return {{"LUMO_BROKER", broker.GuardedAddress("mqtts")},
            {"LUMO_BROKER_CA", authority.Path("ca.crt")}};
  }

  const Certificates authority{Folder().Path(), "authority"};
};

TEST_F(ChannelSecurityTest, ABrokerOfAnotherAuthorityIsRefused) {
  NOT_WITH_EJABBERD("the test configures mosquitto");
  const Certificates other(Folder().Path(), "other");
  other.Sign("broker", "IP:127.0.0.1");
  Guard(kAnybody + other.ListenerLines("broker"));
  const std::string unknown = kCertificateRefused + "no known authority has signed it";
  ExpectRefused(Tls(), unknown);
  // Nor do the system's authorities know it.
  ExpectRefused({{"LUMO_BROKER", broker.GuardedAddress("mqtts")}}, unknown);
}

TEST_F(ChannelSecurityTest, ABrokerWithACertificateForAnotherHostIsRefused) {
  NOT_WITH_EJABBERD("the test configures mosquitto");
  authority.Sign("broker", "IP:127.0.0.2,DNS:broker.example");
  Guard(kAnybody + authority.ListenerLines("broker"));
  ExpectRefused(Tls(), kCertificateRefused + "it is for another host");
}

TEST_F(ChannelSecurityTest, ABrokerWithoutTlsIsRefusedWhenTlsIsWanted) {
  NOT_WITH_EJABBERD("the test configures mosquitto");
  Guard(kAnybody);
  ExpectRefused(Tls(), "cannot connect to 127.0.0.1");
}

TEST_F(ChannelSecurityTest, ABrokerThatWantsACertificateGetsOne) {
  NOT_WITH_EJABBERD("the test configures mosquitto");
  authority.Sign("broker", "IP:127.0.0.1");
  authority.Sign("thing", "DNS:tv");
  authority.Sign("other", "DNS:tv");
  Guard("require_certificate true\n" + kAnybody + authority.ListenerLines("broker"));
  Variables variables = Tls();
  ExpectRefused(variables, "cannot connect to 127.0.0.1");
  variables["LUMO_BROKER_CERT"] = authority.Path("thing.crt");
  // GIO does not compare the two before it uses them.
  variables["LUMO_BROKER_KEY"] = authority.Path("other.key");
  ExpectRefused(variables, "cannot connect to 127.0.0.1");
  variables["LUMO_BROKER_KEY"] = authority.Path("thing.key");
  ExpectChannel(variables);
}

TEST_F(ChannelSecurityTest, FilesThatAreOfNoUseAreAnErrorLineAndNoChannel) {
  authority.Sign("thing", "DNS:tv");
  const std::string garbage = Folder().Write("garbage", "no certificate\n");
  const std::string key = authority.Path("thing.key");
  const std::string certificate = authority.Path("thing.crt");
  for (const auto& [wrong, files] :
       {std::pair("LUMO_BROKER_CA", Variables{{"LUMO_BROKER_CA", garbage}}),
        std::pair("LUMO_BROKER_CERT",
                  Variables{{"LUMO_BROKER_CERT", garbage}, {"LUMO_BROKER_KEY", key}}),
        std::pair("LUMO_BROKER_KEY",
                  Variables{{"LUMO_BROKER_CERT", certificate}, {"LUMO_BROKER_KEY", garbage}})}) {
    Variables variables = files;
    variables["LUMO_BROKER"] = "mqtts://127.0.0.1";
    channel.Launch(variables);
    EXPECT_EQ(1, Host().Wait());
    EXPECT_EQ(1U, CountOf("\n", Host().Errors()));
    EXPECT_EQ(0U, Host().Errors().find(std::string("qivo-thing: ") + wrong + ": "));
  }
}

TEST_F(ChannelSecurityTest, OnlyTheRightPasswordIsAccepted) {
  NOT_WITH_EJABBERD("the test configures mosquitto");
  Guard(OnlyMe("right-one"));
  Variables variables{{"LUMO_BROKER", broker.GuardedAddress("mqtt")}};
  ExpectRefused(variables, "refused: ");

  variables["LUMO_BROKER_USER"] = "me";
  variables["LUMO_BROKER_PASSWORD_FILE"] = Folder().Write("password", "wrong-one\n");
  EXPECT_EQ(0U, CountOf("wrong-one", ExpectRefused(variables, "refused: ")));

  Folder().Write("password", "right-one\n");
  variables["LUMO_BROKER_USER"] = "you";
  EXPECT_EQ(0U, CountOf("right-one", ExpectRefused(variables, "refused: ")));

  variables["LUMO_BROKER_USER"] = "me";
  ExpectChannel(variables);
}

TEST_F(ChannelSecurityTest, TheChannelWorksOverTlsWithAndWithoutAPassword) {
  NOT_WITH_EJABBERD("the test configures mosquitto");
  authority.Sign("broker", "IP:127.0.0.1");
  Variables variables;
  for (const std::string& who : {kAnybody, OnlyMe("right-one")}) {
    Guard(who + authority.ListenerLines("broker"));
    variables.merge(Tls());
    variables["LUMO_BROKER"] = broker.GuardedAddress("mqtts");
    ExpectChannel(variables);
    variables["LUMO_BROKER_USER"] = "me";
    variables["LUMO_BROKER_PASSWORD_FILE"] = Folder().Write("password", "right-one");
  }
}

}  // namespace
