// What applications send reaches the cloud, and what the cloud sends reaches them.
#include "ChannelTest.h"

namespace {

class ChannelPathsTest : public ChannelTest {
 protected:
  void SetUp() override { StartWithApp({{"LUMO_REQUEST_TIMEOUT_MS", "1000"}}); }
};

TEST_F(ChannelPathsTest, DataThatAnAppSendsIsItsValueInTheCloudUntilItUnregisters) {
  for (const std::string data : {"42", "", "\"quoted\" \\ and\nbroken", "Lautstärke 7"}) {
    EXPECT_EQ("(0,)", SendData(*app, "qz", data));
    EXPECT_TRUE(WaitUntil([&] { return ParseJson(cloud.Last(kValueOfQz)) == data; })) << data;
  }
  EXPECT_EQ("(0,)", Unregister(*app, "qz"));
  EXPECT_TRUE(cloud.WaitFor(kValueOfQz, ""));
  EXPECT_EQ("(-20,)", SendData(*app, "qz", "43"));
}

TEST_F(ChannelPathsTest, ASetBecomesAnEventWhichTheAppConfirms) {
  EXPECT_EQ("(0,)", SendData(*app, "qz", "42"));
  // The answer carries what the application has sent before.
  EXPECT_EQ(ParseJson(R"({"result": 0, "properties": {"qz": "42"}})"),
            cloud.Request("set", SetOfQz("43")));
  EXPECT_EQ(Lines{EventOfQz(43)}, WaitForEvents(*app, 1));
  EXPECT_EQ("(0,)", SendData(*app, "qz", "43"));
  EXPECT_TRUE(WaitForValueOfQz("43"));
  EXPECT_EQ("43", GetOfQz());
}

TEST_F(ChannelPathsTest, ASigninIsAnnouncedAndAnswered) {
  EXPECT_EQ("(false,)", CloudConnection(*app));
  Lines announced;
  for (const std::string value : {"true", "false"}) {
    announced.push_back("(" + value + ",)");
    EXPECT_EQ(0, cloud.Result("set", R"({"signinStatus": )" + value + "}"));
    EXPECT_EQ(announced, WaitForEvents(*app, announced.size(), "cloud_connection_changed"));
    EXPECT_EQ(announced.back(), CloudConnection(*app));
  }
}

TEST_F(ChannelPathsTest, AnAppOffTheListIsRefused) {
  EXPECT_EQ("(-20,)", Register(*app, "nobody"));
  EXPECT_EQ("(-20,)", SendData(*app, "nobody", "42"));
  EXPECT_EQ("(-20,)", Unregister(*app, "nobody"));
}

TEST_F(ChannelPathsTest, ASetThatThePluginDoesNotAnswerEndsByTimeOut) {
  const int unanswered = cloud.Send("set", R"({"qz": {"volume": 9}})");
  ASSERT_TRUE(WaitForAnswerTo(unanswered));
  EXPECT_EQ(R"({"error":"the request was not answered in time"})", cloud.AnswersTo(unanswered)[0]);
  EXPECT_TRUE(Host().WaitForError("cancel: "));
  // The next one is none the worse for it.
  EXPECT_EQ(0, cloud.Result("set", SetOfQz("43")));
  EXPECT_EQ(Lines{EventOfQz(43)}, WaitForEvents(*app, 1));
  EXPECT_EQ(1U, cloud.AnswersTo(unanswered).size());
}

}  // namespace
