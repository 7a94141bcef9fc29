// What passes through the channel is nobody's business who only reads the log. Two lines show a
// value on purpose: what the cloud writes to an application, and to the thing's own properties.
#include <csignal>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "ChannelTest.h"

namespace {

constexpr const char* kSecret = "S3CRET";  // begins every value that is not to be seen
// A number that cannot be read, or taken, is as much of a secret as a text.
constexpr const char* kSecretNumber = "47114711";

class LogSecrecyTest : public ChannelTest {
 protected:
  static std::string secret(const std::string& name) { return kSecret + ("-" + name); }

  std::string Write(const std::string& name, const std::string& content) const {
    return Folder().Write(name, content);
  }

  // A listener that lets only "me" with that password in, and what the host needs to be let in.
  HostProcess::Environment Guard(const std::string& password) {
    const std::string file = Folder().Path() / "passwords";
    const CommandResult made = RunCommand({"mosquitto_passwd", "-c", "-b", file, "me", password});
    EXPECT_EQ(0, made.status) << made.errors;
    cloud.Leave();
    broker.Guard("allow_anonymous false\npassword_file " + file + "\n");
    cloud.ComeBack();
    return {{"LUMO_BROKER", broker.GuardedAddress("mqtt")},
            {"LUMO_BROKER_USER", "me"},
            {"LUMO_BROKER_PASSWORD_FILE", Write("password", password + "\n")}};
  }

  // The lines of the host's two streams that have the text in them.
  static std::vector<std::string> LinesWith(const std::string& text, const HostProcess& host) {
    std::vector<std::string> lines;
    std::istringstream stream(host.Output() + host.Errors());
    for (std::string line; std::getline(stream, line);) {
      if (line.find(text) != std::string::npos) lines.push_back(line);
    }
    return lines;
  }

  static void ExpectNoSecret(const HostProcess& host) {
    EXPECT_EQ((std::vector<std::string>{}), LinesWith(kSecret, host));
    EXPECT_EQ((std::vector<std::string>{}), LinesWith(kSecretNumber, host));
    // It was looked for where there is something.
    EXPECT_FALSE(LinesWith(" TVCONTROL_A: ", host).empty());
  }

  const std::unique_ptr<BusClient> app = NewClient();
};

TEST_F(LogSecrecyTest, ThePasswordIsInNoLineOfAnyLevelWhetherItIsRightOrWrong) {
  HostProcess::Environment variables = Guard(secret("password"));
  variables["DLOG_LEVEL"] = "verbose";
  const auto host = StartChannel(variables);
  EXPECT_EQ(0, host->End(SIGTERM));
  ExpectNoSecret(*host);

  Write("password", secret("wrong") + "\n");
  const auto refused = StartLocally(variables);
  EXPECT_TRUE(refused->WaitForError("refused: "));
  EXPECT_EQ(0, refused->End(SIGTERM));
  ExpectNoSecret(*refused);
}

TEST_F(LogSecrecyTest, APasswordInTheWrongPlaceIsInNoLine) {
  for (const std::string& address :
       {"mqtt://me:" + secret("password") + "@127.0.0.1", secret("user") + "@127.0.0.1"}) {
    HostProcess::Environment variables = ChannelVariables();
    variables["LUMO_BROKER"] = address;
    variables["DLOG_LEVEL"] = "verbose";
    HostProcess host({ADC_HOST_FILE, ADC_PLUGIN_FILE}, variables);
    EXPECT_TRUE(host.WaitForError(" E LUMO: LUMO_BROKER: ")) << host.Errors();
    host.End(SIGTERM);
    ExpectNoSecret(host);
  }
}

TEST_F(LogSecrecyTest, WhatApplicationsSendAndTheCloudReadsIsInNoLine) {
  const auto host = StartChannel();
  ASSERT_EQ("(0,)", Register(*app, "qz"));
  EXPECT_EQ("(0,)", SendData(*app, "qz", secret("data")));
  EXPECT_TRUE(cloud.WaitFor(kValueOfQz, '"' + secret("data") + '"'));
  EXPECT_EQ(secret("data"), cloud.Request("get", R"(["qz"])")["properties"]["qz"].asString());
  // Nor what is refused: not registered, too long to come back, not what the method takes.
  EXPECT_EQ("(-20,)", SendData(*app, "none", secret("of nobody")));
  EXPECT_EQ("org.freedesktop.DBus.Error.InvalidArgs",
            Call(*app, "send_data", secret("argument")).error);
  EXPECT_EQ("(0,)", SendData(*app, "qz", secret("with %s %n in it\n")));
  EXPECT_EQ("(0,)", Unregister(*app, "qz"));
  EXPECT_EQ(0, host->End(SIGTERM));
  ExpectNoSecret(*host);
}

TEST_F(LogSecrecyTest, WhatTheCloudSendsAndIsRefusedIsInNoLine) {
  const auto host = StartChannel();
  ASSERT_EQ("(0,)", Register(*app, "qz"));
  const std::string quoted = '"' + secret("value") + '"';
  const std::string number = kSecretNumber;
  const std::vector<std::string> refused{
      // no JSON, as a text and as a number
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
  EXPECT_EQ(0, host->End(SIGTERM));
  ExpectNoSecret(*host);
}

TEST_F(LogSecrecyTest, WhatTheCloudWritesToAnApplicationIsInOneLine) {
  const auto host = StartChannel();
  ASSERT_EQ("(0,)", Register(*app, "qz"));
  EXPECT_EQ(0, cloud.Result("set", R"({"qz": ")" + secret("value") + R"("})"));
  WaitForEvents(*app, 1);
  EXPECT_EQ(0, host->End(SIGTERM));
  const auto lines = LinesWith(kSecret, *host);
  ASSERT_EQ(1U, lines.size());
  EXPECT_EQ(1U, CountOf(" I TVCONTROL_A: DBusServer.cpp : SendSetRequest(", lines[0]));
  EXPECT_EQ(1U, CountOf(")  [qz] data: " + secret("value"), lines[0]));
}

TEST_F(LogSecrecyTest, WhatTheCloudWritesToTheThingIsInOneLineAndWhatApplicationsReadOfItInNone) {
  const auto host = StartChannel();
  EXPECT_EQ(0, cloud.Result("set", R"({"signupInfo": {"token": ")" + secret("value") + R"("}})"));
  EXPECT_EQ(1U, CountOf(secret("value"), app->Call("get_thing_information").get().value));
  EXPECT_EQ(0, host->End(SIGTERM));
  const auto lines = LinesWith(kSecret, *host);
  ASSERT_EQ(1U, lines.size());
  EXPECT_EQ(1U, CountOf(" I TVCONTROL_A: AppDataChannelControl.cpp : setHandler(", lines[0]));
  EXPECT_EQ(1U, CountOf(")  thing property: {", lines[0]));
}

}  // namespace
