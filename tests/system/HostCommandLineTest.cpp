#include "HostTest.h"

namespace {

class HostCommandLineTest : public HostTest {
 protected:
  CommandResult Run(const Lines& arguments) {
    Lines command{ADC_HOST_FILE};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return RunCommand(command, channel.Variables());
  }
};

TEST_F(HostCommandLineTest, HelpSaysHowToCallItAndEndsWith0) {
  const CommandResult result = Run({"--help"});
  EXPECT_EQ(0, result.status);
  EXPECT_EQ("", result.errors);
  EXPECT_NE(std::string::npos, result.output.find("qivo-thing [OPTION…] PLUGIN.so…"));
  EXPECT_NE(std::string::npos, result.output.find("--version"));
  EXPECT_NE(std::string::npos, result.output.find("--check"));
}

TEST_F(HostCommandLineTest, CheckSaysWhenNobodyJudgesTheSettingsAndCreatesNothing) {
  const CommandResult result = Run({"--check", PLUGIN_FIRST});
  EXPECT_EQ(0, result.status);
  EXPECT_EQ("nobody judges the settings here\n", result.output);
  EXPECT_EQ("", result.errors);
}

TEST_F(HostCommandLineTest, VersionPrintsTheProjectsAndEndsWith0) {
  const CommandResult result = Run({"--version"});
  EXPECT_EQ(0, result.status);
  EXPECT_EQ("qivo-thing " ADC_VERSION "\n", result.output);
  EXPECT_EQ("", result.errors);
}

// What any plug-in prints that is created would be on standard output.
TEST_F(HostCommandLineTest, AMistakeIsOneLineThatNamesItAndNoPluginIsCreated) {
  const struct {
    Lines arguments;
    int status;
    std::string what;
    std::string where;
  } mistakes[] = {
      {{"--nonsense", ADC_PLUGIN_FILE}, 2, "--nonsense", ""},
      {{}, 2, "no plug-in", ""},
      {{"--check"}, 2, "no plug-in", ""},
      {{"--check", "/nowhere/plugin.so"}, 1, "No such file", "/nowhere/plugin.so"},
      {{"/nowhere/plugin.so"}, 1, "No such file", "/nowhere/plugin.so"},
      {{ADC_POLICY_FILE}, 1, "ELF", ADC_POLICY_FILE},
      {{PLUGIN_WITHOUT_CREATE}, 1, "CreatePlugin", PLUGIN_WITHOUT_CREATE},
      {{PLUGIN_WITHOUT_DESTROY}, 1, "DestroyPlugin", PLUGIN_WITHOUT_DESTROY},
      {{PLUGIN_FIRST, "/nowhere/plugin.so"}, 1, "No such file", "/nowhere/plugin.so"},
  };
  for (const auto& mistake : mistakes) {
    SCOPED_TRACE(mistake.what + " " + mistake.where);
    const CommandResult result = Run(mistake.arguments);
    EXPECT_EQ(mistake.status, result.status);
    EXPECT_EQ("", result.output);
    EXPECT_EQ(0U, result.errors.find("qivo-thing: ")) << result.errors;
    EXPECT_EQ(1U, CountOf("\n", result.errors)) << result.errors;
    EXPECT_EQ('\n', result.errors.back());
    EXPECT_NE(std::string::npos, result.errors.find(mistake.what)) << result.errors;
    EXPECT_NE(std::string::npos, result.errors.find(mistake.where)) << result.errors;
  }
}

TEST_F(HostCommandLineTest, ANameWithoutASlashIsAFileOfTheCurrentFolder) {
  const CommandResult result = Run({"libvconf.so"});
  EXPECT_EQ(1, result.status);
  EXPECT_EQ(1U, CountOf("\n", result.errors)) << result.errors;
  EXPECT_NE(std::string::npos, result.errors.find("No such file")) << result.errors;
  EXPECT_NE(std::string::npos, result.errors.find("./libvconf.so")) << result.errors;
}

}  // namespace
