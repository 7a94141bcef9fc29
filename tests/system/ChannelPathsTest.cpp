#include <csignal>

#include "ChannelTest.h"

namespace {

using Lines = std::vector<std::string>;

class ChannelPathsTest : public ChannelTest {
 protected:
  const std::unique_ptr<HostProcess> host = StartChannel({{"LUMO_REQUEST_TIMEOUT_MS", "1000"}});
  const std::unique_ptr<BusClient> app = NewClient();
};

TEST_F(ChannelPathsTest, ARegisteredAppIsAPropertyInTheCloudUntilItUnregisters) {
  EXPECT_EQ("(0,)", Register(*app, "qz"));
  EXPECT_TRUE(cloud.WaitForProperty("qz"));
  EXPECT_EQ("(0,)", SendData(*app, "qz", "42"));
  EXPECT_TRUE(cloud.WaitFor(kValueOfQz, "\"42\""));
  EXPECT_EQ("(0,)", Unregister(*app, "qz"));
  EXPECT_TRUE(cloud.WaitForProperty("qz", false));
  EXPECT_TRUE(cloud.WaitFor(kValueOfQz, ""));
  EXPECT_EQ("(-20,)", SendData(*app, "qz", "43"));
}

TEST_F(ChannelPathsTest, DataThatAnAppSendsIsItsValueInTheCloud) {
  EXPECT_EQ("(0,)", Register(*app, "qz"));
  for (const std::string data : {"42", "", "\"quoted\" \\ and\nbroken", "Lautstärke 7"}) {
    EXPECT_EQ("(0,)", SendData(*app, "qz", data));
    EXPECT_TRUE(WaitUntil([this, &data] {
      const Lines values = cloud.Received(kValueOfQz);
      return !values.empty() && ParseJson(values.back()) == Json::Value(data);
    })) << data;
  }
}

TEST_F(ChannelPathsTest, ASetBecomesAnEventWhichTheAppConfirms) {
  EXPECT_EQ("(0,)", Register(*app, "qz"));
  EXPECT_EQ("(0,)", SendData(*app, "qz", "42"));
  // The answer carries what the application has sent before.
  EXPECT_EQ(ParseJson(R"({"result": 0, "properties": {"qz": "42"}})"),
            cloud.Request("set", R"({"qz": "43"})"));
  EXPECT_EQ(Lines{"('qz', '43')"}, WaitForEvents(*app, 1));
  EXPECT_EQ("(0,)", SendData(*app, "qz", "43"));
  EXPECT_TRUE(cloud.WaitFor(kValueOfQz, "\"43\""));
  EXPECT_EQ(ParseJson(R"({"result": 0, "properties": {"qz": "43"}})"),
            cloud.Request("get", R"(["qz"])"));
}

TEST_F(ChannelPathsTest, ASigninIsAnnouncedAndAnswered) {
  EXPECT_EQ("(false,)", CloudConnection(*app));
  EXPECT_EQ(0, cloud.Result("set", R"({"signinStatus": true})"));
  EXPECT_EQ(Lines{"(true,)"}, WaitForEvents(*app, 1, "cloud_connection_changed"));
  EXPECT_EQ("(true,)", CloudConnection(*app));
  EXPECT_EQ(0, cloud.Result("set", R"({"signinStatus": false})"));
  EXPECT_EQ((Lines{"(true,)", "(false,)"}), WaitForEvents(*app, 2, "cloud_connection_changed"));
  EXPECT_EQ("(false,)", CloudConnection(*app));
}

TEST_F(ChannelPathsTest, TheSignupInformationReachesTheApps) {
  EXPECT_EQ("('',)", app->Call("get_thing_information").get().value);
  EXPECT_EQ(0, cloud.Result("set", R"({"signupInfo": {"user": "u1"}})"));
  EXPECT_EQ("('{\\n\\t\"user\" : \"u1\"\\n}\\n',)", app->Call("get_thing_information").get().value);
}

TEST_F(ChannelPathsTest, AGetIsAnsweredWithWhatTheAppsHaveSent) {
  EXPECT_EQ("(0,)", Register(*app, "qz"));
  EXPECT_EQ("(0,)", Register(*app, "qmap"));
  EXPECT_EQ("(0,)", SendData(*app, "qz", "42"));
  EXPECT_EQ(
      ParseJson(R"({"result": 0, "properties": {"qz": "42", "qmap": "", "signinStatus": ""}})"),
      cloud.Request("get", R"(["qz", "qmap", "signinStatus"])"));
}

TEST_F(ChannelPathsTest, AnAppOffTheListIsRefused) {
  EXPECT_EQ("(-20,)", Register(*app, "nobody"));
  EXPECT_EQ("(-20,)", SendData(*app, "nobody", "42"));
  EXPECT_EQ("(-20,)", Unregister(*app, "nobody"));
}

TEST_F(ChannelPathsTest, AnUnknownPropertyHasTheResult6) {
  EXPECT_EQ("(0,)", Register(*app, "qz"));
  EXPECT_EQ("(0,)", SendData(*app, "qz", "42"));
  // Known ones of the same request are dealt with.
  EXPECT_EQ(ParseJson(R"({"result": 6, "properties": {"qz": "42"}})"),
            cloud.Request("set", R"({"nobody": "1", "qz": "43"})"));
  EXPECT_EQ(Lines{"('qz', '43')"}, WaitForEvents(*app, 1));
  EXPECT_EQ(ParseJson(R"({"result": 6, "properties": {"qz": "42"}})"),
            cloud.Request("get", R"(["nobody", "qz"])"));
}

TEST_F(ChannelPathsTest, ASetThatThePluginDoesNotAnswerEndsByTimeOut) {
  EXPECT_EQ("(0,)", Register(*app, "qz"));
  const int unanswered = cloud.Send("set", R"({"qz": {"volume": 9}})");
  ASSERT_TRUE(WaitUntil([this, unanswered] { return !cloud.AnswersTo(unanswered).empty(); }));
  EXPECT_EQ(R"({"error":"the request was not answered in time"})", cloud.AnswersTo(unanswered)[0]);
  EXPECT_TRUE(host->WaitForError("cancel: ")) << host->Errors();
  // The next one is none the worse for it.
  EXPECT_EQ(0, cloud.Result("set", R"({"qz": "43"})"));
  EXPECT_EQ(Lines{"('qz', '43')"}, WaitForEvents(*app, 1));
  EXPECT_EQ(1U, cloud.AnswersTo(unanswered).size());
}

TEST_F(ChannelPathsTest, AnOrderlyEndLeavesTheThingOffline) {
  EXPECT_EQ(0, host->End(SIGTERM)) << host->Errors();
  EXPECT_TRUE(cloud.WaitFor("status", kOffline));
  EXPECT_EQ("0\n", Setting(kStatusKey));
}

}  // namespace
