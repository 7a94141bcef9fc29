#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "HostProcess.h"
#include "TemporaryFolder.h"

namespace {

namespace fs = std::filesystem;

class VconfCommandTest : public ::testing::Test {
 protected:
  void Store(const std::string& key, const std::string& text) const {
    fs::create_directories((m_folder / "settings" / key).parent_path());
    std::ofstream(m_folder / "settings" / key) << text;
  }

  CommandResult Run(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), ADC_VCONF_FILE);
    return RunCommand(arguments, {{"VCONF_DIR", m_folder / "settings"}});
  }

  void ExpectNotShown(const std::string& key, const std::string& why) const {
    const CommandResult result = Run({"get", key});
    EXPECT_EQ(1, result.status) << key;
    EXPECT_EQ("", result.output) << key;
    EXPECT_EQ("vconf: " + key + ": " + why + "\n", result.errors);
  }

  const TemporaryFolder m_temporary;
  const fs::path& m_folder = m_temporary.Path();
};

TEST_F(VconfCommandTest, PrintsTheNumber) {
  for (const std::string number : {"0", "1", "-20", "2147483647", "-2147483648"}) {
    Store("memory/some/key", number + "\n");
    const CommandResult result = Run({"get", "memory/some/key"});
    EXPECT_EQ(0, result.status);
    EXPECT_EQ(number + "\n", result.output);
    EXPECT_EQ("", result.errors);
  }
}

TEST_F(VconfCommandTest, ASettingThatIsNotThereEndsWith1AndIsNotMade) {
  ExpectNotShown("memory/some/key", "not set");
  EXPECT_TRUE(fs::is_empty(m_folder));
}

// Nor is a file read that is far too long for one.
TEST_F(VconfCommandTest, WhatIsNotANumberEndsWith1) {
  for (const char* text : {"", "\n", "1", "1 \n", "x\n", "2147483648\n", "1\n2\n"}) {
    Store("key", text);
    ExpectNotShown("key", "not a number");
  }
  Store("key", std::string(100'000, '1') + "\n");
  ExpectNotShown("key", "not set");
}

TEST_F(VconfCommandTest, AKeyDoesNotLeadOutOfTheFolderAndAFolderIsNotASetting) {
  Store("memory/key", "1\n");
  std::ofstream(m_folder / "outside") << "1\n";
  fs::create_symlink(m_folder, m_folder / "settings/link");
  fs::create_symlink(m_folder / "outside", m_folder / "settings/file-link");
  for (const char* key :
       {"../outside", "/memory/key", "", "./memory/key", "link/outside", "file-link", "memory"}) {
    ExpectNotShown(key, "not set");
  }
}

TEST_F(VconfCommandTest, SaysHowItIsUsedAndWhichVersionItIs) {
  const CommandResult help = Run({"--help"});
  EXPECT_EQ(0, help.status);
  EXPECT_EQ(0U, help.output.find("Usage: vconf get KEY\n")) << help.output;
  EXPECT_EQ("", help.errors);
  const CommandResult version = Run({"--version"});
  EXPECT_EQ(0, version.status);
  EXPECT_EQ("vconf " ADC_VERSION "\n", version.output);
}

TEST_F(VconfCommandTest, AWrongCommandLineEndsWith2) {
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{}, {"get"}, {"get", "a", "b"}, {"set", "a"}}) {
    const CommandResult result = Run(arguments);
    EXPECT_EQ(2, result.status);
    EXPECT_EQ("", result.output);
    EXPECT_EQ("usage: vconf get KEY\n", result.errors);
  }
}

}  // namespace
