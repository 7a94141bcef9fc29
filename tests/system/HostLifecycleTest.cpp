#include <csignal>

#include "HostTest.h"

namespace {

// The test's plug-ins print a line whenever they are created or destroyed.
class HostLifecycleTest : public HostTest {
 protected:
  static void ExpectStartError(HostProcess& host, const std::string& what,
                               const std::string& where) {
    EXPECT_EQ(1, host.Wait());
    const std::string line = "qivo-thing: " + where + ": " + what + "\n";
    EXPECT_EQ(1U, CountOf(line, host.Errors())) << host.Errors();
    EXPECT_EQ(1U, CountOf("qivo-thing: ", host.Errors())) << host.Errors();
  }
};

TEST_F(HostLifecycleTest, ASignalDestroysThePluginsInReverseAndEndsWith0) {
  for (const int signal : {SIGINT, SIGTERM}) {
    const auto host = StartHost({PLUGIN_FIRST, PLUGIN_SECOND});
    ASSERT_TRUE(host->WaitForOutput("second created\n")) << host->Errors();
    EXPECT_EQ(0, host->End(signal)) << host->Errors();
    EXPECT_EQ("first created\nsecond created\nsecond destroyed\nfirst destroyed\n", host->Output());
  }
}

TEST_F(HostLifecycleTest, LogsOneLineForEachCreatedAndDestroyedPlugin) {
  const auto host = StartHost({PLUGIN_FIRST, PLUGIN_SECOND});
  ASSERT_TRUE(host->WaitForOutput("second created\n")) << host->Errors();
  EXPECT_EQ(0, host->End(SIGTERM));
  for (const std::string plugin : {PLUGIN_FIRST, PLUGIN_SECOND}) {
    EXPECT_EQ(1U, CountOf("[" + plugin + "] created\n", host->Errors())) << host->Errors();
    EXPECT_EQ(1U, CountOf("[" + plugin + "] destroyed\n", host->Errors())) << host->Errors();
  }
  EXPECT_EQ(CountOf("\n", host->Errors()), CountOf(" QIVO_THING: ", host->Errors()));
}

TEST_F(HostLifecycleTest, SaysReadyWheneverTheSettingBecomes1AndForNothingElse) {
  // It sets the setting to 1, 1, 2, 0 and 1, and others to 1.
  const auto host = StartHost({PLUGIN_SETTING});
  ASSERT_TRUE(host->WaitForOutput("setting created\n")) << host->Errors();
  EXPECT_EQ(std::string(kReadyLine) + kReadyLine + "setting created\n", host->Output());
  EXPECT_EQ("1\n", Setting(kStatusKey));
  EXPECT_EQ("1\n", Setting("memory/iot/thing/thing"));
}

TEST_F(HostLifecycleTest, SaysWhenTheChannelIsNotUpAfterSomeSeconds) {
  const auto host = StartHost({PLUGIN_FIRST});
  EXPECT_TRUE(host->WaitForError("not ready after 5 s")) << host->Errors();
  EXPECT_EQ(0, host->End(SIGTERM));
}

TEST_F(HostLifecycleTest, AFurtherSignalDoesNotCutTheEndShort) {
  // Its DestroyPlugin sends both signals to the host.
  const auto host = StartHost({PLUGIN_FIRST, PLUGIN_SIGNALLING});
  ASSERT_TRUE(host->WaitForOutput("signalling created\n")) << host->Errors();
  EXPECT_EQ(0, host->End(SIGTERM)) << host->Errors();
  EXPECT_EQ("first created\nsignalling created\nsignalling destroyed\nfirst destroyed\n",
            host->Output());
}

TEST_F(HostLifecycleTest, ACreateThatReturnsFalseEndsWith1AndDestroysWhatWasCreated) {
  const auto host = StartHost({PLUGIN_FIRST, PLUGIN_REFUSING, PLUGIN_SECOND});
  ExpectStartError(*host, "CreatePlugin returned false", PLUGIN_REFUSING);
  EXPECT_EQ("first created\nfirst destroyed\n", host->Output());
}

TEST_F(HostLifecycleTest, ACreateThatThrowsEndsWith1AndDestroysWhatWasCreated) {
  const auto host = StartHost({PLUGIN_FIRST, PLUGIN_THROWING, PLUGIN_SECOND});
  ExpectStartError(*host, "CreatePlugin threw: no memory left", PLUGIN_THROWING);
  EXPECT_EQ("first created\nfirst destroyed\n", host->Output());
}

TEST_F(HostLifecycleTest, ADestroyThatFailsDoesNotKeepTheOthersFromTheirs) {
  const auto host = StartHost({PLUGIN_FIRST, PLUGIN_STUBBORN});
  ASSERT_TRUE(host->WaitForOutput("stubborn created\n")) << host->Errors();
  EXPECT_EQ(0, host->End(SIGTERM)) << host->Errors();
  EXPECT_EQ("first created\nstubborn created\nfirst destroyed\n", host->Output());
  EXPECT_TRUE(host->WaitForError("DestroyPlugin threw: will not go"));
}

TEST_F(HostLifecycleTest, PluginsAreDestroyedInReverseWhenTheBusGoesAndCreatedWhenItIsBack) {
  const auto host = StartHost({PLUGIN_FIRST, PLUGIN_SECOND});
  ASSERT_TRUE(host->WaitForOutput("second created\n")) << host->Errors();
  Bus().Kill();
  ASSERT_TRUE(host->WaitForOutput("first destroyed\n")) << host->Errors();
  Bus().Start();
  ASSERT_TRUE(host->WaitForOutput("second created\n", 2)) << host->Errors();
  EXPECT_EQ(0, host->End(SIGTERM));
  EXPECT_EQ(
      "first created\nsecond created\nsecond destroyed\nfirst destroyed\n"
      "first created\nsecond created\nsecond destroyed\nfirst destroyed\n",
      host->Output());
}

TEST_F(HostLifecycleTest, ACreateThatFailsWhenTheBusIsBackEndsWith1) {
  const auto host = StartHost({PLUGIN_FIRST, PLUGIN_ONCE});
  ASSERT_TRUE(host->WaitForOutput("once created\n")) << host->Errors();
  Bus().Kill();
  ASSERT_TRUE(host->WaitForOutput("first destroyed\n")) << host->Errors();
  Bus().Start();
  ExpectStartError(*host, "CreatePlugin returned false", PLUGIN_ONCE);
  EXPECT_EQ(
      "first created\nonce created\nonce destroyed\nfirst destroyed\n"
      "first created\nfirst destroyed\n",
      host->Output());
}

}  // namespace
