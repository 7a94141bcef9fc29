#include "HostTest.h"

namespace {

constexpr const char* kOneLife =
    "first created\nsecond created\nsecond destroyed\nfirst destroyed\n";

// The test's plug-ins print a line whenever they are created or destroyed.
class HostLifecycleTest : public HostTest {
 protected:
  void Start(const Lines& plugins, const std::string& line) {
    ASSERT_TRUE(channel.Launch({}, plugins).WaitForOutput(line));
  }
  void ExpectStartError(const std::string& what, const std::string& where) {
    EXPECT_EQ(1, Host().Wait());
    const std::string line = "qivo-thing: " + where + ": " + what + "\n";
    EXPECT_EQ(1U, CountOf(line, Host().Errors()));
    EXPECT_EQ(1U, CountOf("qivo-thing: ", Host().Errors()));
  }
};

TEST_F(HostLifecycleTest, ASignalDestroysThePluginsInReverseAndEndsWith0WithALineForEach) {
  for (const int signal : {SIGINT, SIGTERM}) {
    Start({PLUGIN_FIRST, PLUGIN_SECOND}, "second created\n");
    EXPECT_EQ(0, Host().End(signal));
    EXPECT_EQ(kOneLife, Host().Output());
    for (const std::string plugin : {PLUGIN_FIRST, PLUGIN_SECOND}) {
      EXPECT_EQ(1U, CountOf("[" + plugin + "] created\n", Host().Errors()));
      EXPECT_EQ(1U, CountOf("[" + plugin + "] destroyed\n", Host().Errors()));
    }
    EXPECT_EQ(CountOf("\n", Host().Errors()), CountOf(" QIVO_THING: ", Host().Errors()));
  }
}

TEST_F(HostLifecycleTest, SignalsAfterTheFirstDoNotCutTheEndShort) {
  constexpr int kRounds = 5;
  for (int i = 0; i < kRounds; ++i) {
    Start({PLUGIN_FIRST, PLUGIN_SECOND}, "second created\n");
    while (!Host().HasEnded()) Host().Send(SIGTERM);
    EXPECT_EQ(0, Host().Wait());
    EXPECT_EQ(kOneLife, Host().Output());
  }
}

TEST_F(HostLifecycleTest, SaysReadyWheneverTheSettingBecomes1AndForNothingElse) {
  // It sets the setting to 1, 1, 2, 0 and 1, and others to 1.
  Start({PLUGIN_SETTING}, "setting created\n");
  EXPECT_EQ(std::string(kReadyLine) + kReadyLine + "setting created\n", Host().Output());
  EXPECT_EQ("1\n", Setting(kStatusKey));
  EXPECT_EQ("1\n", Setting("memory/iot/thing/thing"));
}

TEST_F(HostLifecycleTest, AChannelThatIsNotUpAfterSomeSecondsEndsItWith1AndWhatToChange) {
  Start({PLUGIN_FIRST}, "first created\n");
  EXPECT_EQ(1, Host().Wait());
  EXPECT_EQ("first created\nfirst destroyed\n", Host().Output());
  EXPECT_EQ(1U, CountOf("qivo-thing: not ready after 5 s: nobody owns org.tizen.qivo_thing: "
                        "correct the errors above, or install the bus policy for this user and "
                        "reload the bus\n",
                        Host().Errors()));
}

TEST_F(HostLifecycleTest, AFurtherSignalDoesNotCutTheEndShort) {
  // Its DestroyPlugin sends both signals to the host.
  Start({PLUGIN_FIRST, PLUGIN_SIGNALLING}, "signalling created\n");
  EXPECT_EQ(0, Host().End(SIGTERM));
  EXPECT_EQ("first created\nsignalling created\nsignalling destroyed\nfirst destroyed\n",
            Host().Output());
}

TEST_F(HostLifecycleTest, ACreateThatFailsEndsWith1AndDestroysWhatWasCreated) {
  for (const auto& [plugin, what] :
       {std::pair(PLUGIN_REFUSING, "CreatePlugin returned false"),
        std::pair(PLUGIN_THROWING, "CreatePlugin threw: no memory left")}) {
    channel.Launch({}, {PLUGIN_FIRST, plugin, PLUGIN_SECOND});
    ExpectStartError(what, plugin);
    EXPECT_EQ("first created\nfirst destroyed\n", Host().Output());
  }
}

TEST_F(HostLifecycleTest, ADestroyThatFailsDoesNotKeepTheOthersFromTheirs) {
  Start({PLUGIN_FIRST, PLUGIN_STUBBORN}, "stubborn created\n");
  EXPECT_EQ(0, Host().End(SIGTERM));
  EXPECT_EQ("first created\nstubborn created\nfirst destroyed\n", Host().Output());
  EXPECT_TRUE(Host().WaitForError("DestroyPlugin threw: will not go"));
}

TEST_F(HostLifecycleTest, PluginsAreDestroyedInReverseWhenTheBusGoesAndCreatedWhenItIsBack) {
  Start({PLUGIN_FIRST, PLUGIN_SECOND}, "second created\n");
  Bus().Kill();
  ASSERT_TRUE(Host().WaitForOutput("first destroyed\n"));
  Bus().Start();
  ASSERT_TRUE(Host().WaitForOutput("second created\n", 2));
  EXPECT_EQ(0, Host().End(SIGTERM));
  EXPECT_EQ(std::string(kOneLife) + kOneLife, Host().Output());
}

TEST_F(HostLifecycleTest, ACreateThatFailsWhenTheBusIsBackEndsWith1) {
  Start({PLUGIN_FIRST, PLUGIN_ONCE}, "once created\n");
  Bus().Kill();
  ASSERT_TRUE(Host().WaitForOutput("first destroyed\n"));
  Bus().Start();
  ExpectStartError("CreatePlugin returned false", PLUGIN_ONCE);
  EXPECT_EQ(
      "first created\nonce created\nonce destroyed\nfirst destroyed\n"
      "first created\nfirst destroyed\n",
      Host().Output());
}

}  // namespace
