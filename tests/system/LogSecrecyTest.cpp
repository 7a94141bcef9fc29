// What passes through the channel is nobody's business who only reads the log. Two lines show a
// value on purpose: what the cloud writes to an application, and to the thing's own properties.
#include <sstream>

#include "ChannelTest.h"

namespace {

constexpr const char* kSecret = "S3CRET";  // begins every value that is not to be seen
// A number that cannot be read, or taken, is as much of a secret as a string.
constexpr const char* kSecretNumber = "47114711";

class LogSecrecyTest : public ChannelTest {
 protected:
  static std::string secret(const std::string& name) { return kSecret + ("-" + name); }

  // The lines of the host's two streams that have this in them.
  Lines LinesWith(const std::string& part) {
    Lines lines;
    std::istringstream stream(Host().Output() + Host().Errors());
    for (std::string line; std::getline(stream, line);) {
      if (line.find(part) != std::string::npos) lines.push_back(line);
    }
    return lines;
  }

  // Ends the host.
  void ExpectNoSecret() {
    EXPECT_EQ(0, Host().End(SIGTERM));
    EXPECT_EQ(Lines{}, LinesWith(kSecret));
    EXPECT_EQ(Lines{}, LinesWith(kSecretNumber));
    EXPECT_FALSE(LinesWith(" TVCONTROL_A: ").empty());  // there are lines at all
  }
  // The same, but there is one line with a secret, which has both of these.
  void ExpectOneSecret(const std::string& source, const std::string& rest) {
    EXPECT_EQ(0, Host().End(SIGTERM));
    const Lines lines = LinesWith(kSecret);
    ASSERT_EQ(1U, lines.size());
    EXPECT_EQ(1U, CountOf(" I TVCONTROL_A: " + source + "(", lines[0]));
    EXPECT_EQ(1U, CountOf(")  " + rest, lines[0]));
  }
};

TEST_F(LogSecrecyTest, ThePasswordIsInNoLineOfAnyLevelWhetherItIsRightOrWrong) {
  Guard(OnlyMe(secret("password")));
  const HostProcess::Environment variables{
      {"LUMO_BROKER", broker.GuardedAddress("mqtt")},
      {"LUMO_BROKER_USER", "me"},
      {"LUMO_BROKER_PASSWORD_FILE", Folder().Write("password", secret("password") + "\n")},
      {"DLOG_LEVEL", "verbose"}};
  StartChannel(variables);
  ExpectNoSecret();

  Folder().Write("password", secret("wrong") + "\n");
  channel.StartLocally(variables);
  EXPECT_TRUE(Host().WaitForError("refused: "));
  ExpectNoSecret();
}

TEST_F(LogSecrecyTest, APasswordInTheWrongPlaceIsInNoLine) {
  for (const std::string& address :
       {"mqtt://me:" + secret("password") + "@127.0.0.1", secret("user") + "@127.0.0.1"}) {
    channel.Launch({{"LUMO_BROKER", address}, {"DLOG_LEVEL", "verbose"}});
    EXPECT_EQ(1, Host().Wait());
    EXPECT_EQ(1U, CountOf("qivo-thing: LUMO_BROKER: ", Host().Errors()));
    EXPECT_EQ(Lines{}, LinesWith(kSecret));
  }
}

TEST_F(LogSecrecyTest, WhatApplicationsSendAndTheCloudReadsIsInNoLine) {
  StartWithApp();
  EXPECT_EQ("(0,)", SendData(*app, "qz", secret("data")));
  EXPECT_TRUE(WaitForValueOfQz(secret("data")));
  EXPECT_EQ(secret("data"), GetOfQz());
  // Nor what is refused: not registered, too long to come back, not what the method takes.
  EXPECT_EQ("(-20,)", SendData(*app, "none", secret("of nobody")));
  EXPECT_EQ("org.freedesktop.DBus.Error.InvalidArgs",
            app->Call("send_data", g_variant_new("(s)", secret("argument").c_str())).get().error);
  EXPECT_EQ("(0,)", SendData(*app, "qz", secret("with %s %n in it\n")));
  EXPECT_EQ("(0,)", Unregister(*app, "qz"));
  ExpectNoSecret();
}

TEST_F(LogSecrecyTest, WhatTheCloudSendsAndIsRefusedIsInNoLine) {
  StartWithApp();
  const std::string quoted = '"' + secret("value") + '"';
  const std::string number = kSecretNumber;
  const Lines refused{
      // no JSON, as a string and as a number
      "{\"qz\": " + quoted,
      "{\"qz\": " + quoted + " " + quoted + "}",
      "{\"qz\": " + secret("value") + "}",
      "{\"qz\": " + number + "e}",
      "{\"qz\": " + number + ".}",
      "{\"qz\": 0" + number + "}",
      "{\"qz\": " + number + "e999}",
      "{\"qz\": \"" + secret("\x01") + "\"}",
      "{\"qz\": \"" + secret("\xFF") + "\"}",
      "{\"qz\": \"" + secret(R"(\q)") + "\"}",
      // JSON, but no value
      "[" + quoted + "]",
      quoted,
      "{\"qz\": " + number + number + "}",
      "{\"qz\": \"" + secret(R"(\u0000)") + "\"}",
      R"({"qz": {"$bytes": ")" + secret("value") + "\"}}",
      // too much
      "{\"qz\": \"" + secret(std::string(300'000, 'x')) + "\"}",
  };
  for (const std::string& payload : refused) {
    EXPECT_TRUE(cloud.Request("set", payload).isMember("error")) << payload.substr(0, 100);
  }
  // The plug-in's own: no such application.
  EXPECT_EQ(6, cloud.Result("set", "{\"none\": " + quoted + "}"));
  // A get takes names; what is in one that cannot be read is no name.
  EXPECT_TRUE(cloud.Request("get", "{\"qz\": " + quoted + "}").isMember("error"));
  EXPECT_TRUE(cloud.Request("get", "[" + quoted).isMember("error"));
  EXPECT_TRUE(cloud.Request("get", "[" + number + "e]").isMember("error"));
  ExpectNoSecret();
}

TEST_F(LogSecrecyTest, WhatTheCloudWritesToAnApplicationIsInOneLine) {
  StartWithApp();
  EXPECT_EQ(0, cloud.Result("set", SetOfQz(secret("value"))));
  WaitForEvents(*app, 1);
  ExpectOneSecret("DBusServer.cpp : SendSetRequest", "[qz] data: " + secret("value"));
}

TEST_F(LogSecrecyTest, WhatTheCloudWritesToTheThingIsInOneLineAndWhatApplicationsReadOfItInNone) {
  StartWithApp();
  EXPECT_EQ(0, cloud.Result("set", R"({"signupInfo": {"token": ")" + secret("value") + R"("}})"));
  EXPECT_EQ(1U, CountOf(secret("value"), ThingInformation(*app)));
  ExpectOneSecret("AppDataChannelControl.cpp : setHandler", "thing property: {");
}

}  // namespace
