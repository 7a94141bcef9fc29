#include <algorithm>
#include <fstream>

#include "HostTest.h"

namespace {

class HostCommandLineTest : public HostTest {
 protected:
  CommandResult Run(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), ADC_HOST_FILE);
    return RunCommand(arguments, Variables());
  }

  // Expects one line on standard error with all that, nothing else anywhere, and the exit status.
  static void ExpectError(const CommandResult& result, int status, const std::string& what,
                          const std::string& where = "") {
    EXPECT_EQ(status, result.status);
    EXPECT_EQ("", result.output);
    EXPECT_EQ(0U, result.errors.find("qivo-thing: ")) << result.errors;
    EXPECT_EQ(1U, CountOf("\n", result.errors)) << result.errors;
    EXPECT_EQ('\n', result.errors.back());
    EXPECT_NE(std::string::npos, result.errors.find(what)) << result.errors;
    EXPECT_NE(std::string::npos, result.errors.find(where)) << result.errors;
  }
};

TEST_F(HostCommandLineTest, HelpSaysHowToCallItAndEndsWith0) {
  const CommandResult result = Run({"--help"});
  EXPECT_EQ(0, result.status);
  EXPECT_EQ("", result.errors);
  EXPECT_NE(std::string::npos, result.output.find("qivo-thing [OPTION…] PLUGIN.so…"));
  EXPECT_NE(std::string::npos, result.output.find("--version"));
}

TEST_F(HostCommandLineTest, VersionPrintsTheProjectsAndEndsWith0) {
  const CommandResult result = Run({"--version"});
  EXPECT_EQ(0, result.status);
  EXPECT_EQ("qivo-thing " ADC_VERSION "\n", result.output);
  EXPECT_EQ("", result.errors);
}

TEST_F(HostCommandLineTest, AnUnknownOptionEndsWith2) {
  ExpectError(Run({"--nonsense", ADC_PLUGIN_FILE}), 2, "--nonsense");
}

TEST_F(HostCommandLineTest, NoPluginAtAllEndsWith2) {
  ExpectError(Run({}), 2, "no plug-in");
}

TEST_F(HostCommandLineTest, AMissingFileEndsWith1) {
  ExpectError(Run({"/nowhere/plugin.so"}), 1, "No such file", "/nowhere/plugin.so");
}

TEST_F(HostCommandLineTest, ANameWithoutASlashIsAFileOfTheCurrentFolder) {
  ExpectError(Run({"libvconf.so"}), 1, "No such file", "./libvconf.so");
}

TEST_F(HostCommandLineTest, AFileThatIsNoSharedObjectEndsWith1) {
  ExpectError(Run({ADC_POLICY_FILE}), 1, "ELF", ADC_POLICY_FILE);
}

TEST_F(HostCommandLineTest, APluginWithoutCreatePluginEndsWith1) {
  ExpectError(Run({PLUGIN_WITHOUT_CREATE}), 1, "CreatePlugin", PLUGIN_WITHOUT_CREATE);
}

TEST_F(HostCommandLineTest, APluginWithoutDestroyPluginEndsWith1) {
  ExpectError(Run({PLUGIN_WITHOUT_DESTROY}), 1, "DestroyPlugin", PLUGIN_WITHOUT_DESTROY);
}

TEST_F(HostCommandLineTest, NoPluginIsCreatedWhenOneCannotBeLoaded) {
  // Whatever the first one prints would be on standard output.
  ExpectError(Run({PLUGIN_FIRST, "/nowhere/plugin.so"}), 1, "No such file", "/nowhere/plugin.so");
}

}  // namespace
