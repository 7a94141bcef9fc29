// What `cmake --install` installs, and that it works from there.
#include <gio/gio.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>

#include "HostTest.h"

namespace {

namespace fs = std::filesystem;

using Names = std::set<std::string>;
using NodeInfoPtr = std::unique_ptr<GDBusNodeInfo, void (*)(GDBusNodeInfo*)>;

std::string contentOf(const fs::path& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

bool isInstalled(const std::string& tool) {
  return RunCommand({"sh", "-c", "command -v " + tool}).status == 0;
}

// The interface as GLib writes what it has read, without comments and layout; empty when that is
// none.
std::string normalise(const std::string& xml) {
  const NodeInfoPtr node(g_dbus_node_info_new_for_xml(xml.c_str(), nullptr),
                         g_dbus_node_info_unref);
  if (!node) return {};
  GDBusInterfaceInfo* const interface = g_dbus_node_info_lookup_interface(node.get(), kInterface);
  if (interface == nullptr) return {};
  const std::unique_ptr<GString, void (*)(GString*)> text(
      g_string_new(nullptr), [](GString* string) { g_string_free(string, TRUE); });
  g_dbus_interface_info_generate_xml(interface, 0, text.get());
  return text->str;
}

constexpr bool kManPages = ADC_MAN_PAGES != 0;

// What the first group of the expression matches in the text.
Names allOf(const std::string& text, const std::string& expression) {
  const std::regex regex(expression, std::regex::multiline);
  Names names;
  for (std::sregex_iterator match(text.begin(), text.end(), regex), end; match != end; ++match) {
    names.insert((*match)[1]);
  }
  return names;
}

class PackagingTest : public HostTest {
 protected:
  void Install(std::vector<std::string> options = {}) {
    options.insert(options.begin(),
                   {ADC_CMAKE, "--install", ADC_BUILD_FOLDER, "--prefix", m_prefix.string()});
    const CommandResult result = RunCommand(options);
    ASSERT_EQ(0, result.status) << result.output << result.errors;
  }

  // The files below the prefix.
  Names InstalledFiles() const {
    Names names;
    for (const auto& entry : fs::recursive_directory_iterator(m_prefix)) {
      if (!entry.is_directory()) names.insert(fs::relative(entry.path(), m_prefix).string());
    }
    return names;
  }

  fs::path Unit() const { return m_prefix / "lib/systemd/system/qivo-thing.service"; }

  // Runs systemd-analyze on the installed unit.
  void ExpectAnalyzed(Lines arguments) {
    Install();
    arguments.insert(arguments.begin(), "systemd-analyze");
    arguments.push_back(Unit());
    const CommandResult result = RunCommand(arguments);
    EXPECT_EQ(0, result.status) << result.output << result.errors;
    EXPECT_EQ(std::string::npos, result.errors.find("qivo-thing")) << result.errors;
  }

  const TemporaryFolder m_folder;
  const fs::path& m_prefix = m_folder.Path();
};

const Names kServiceFiles{"bin/qivo-thing",
                          "lib/qivo-thing/plugins/libappdatachannel.so",
                          "lib/systemd/system/qivo-thing.service",
                          "lib/sysusers.d/qivo-thing.conf",
                          "share/bash-completion/completions/qivo-thing",
                          "share/dbus-1/interfaces/org.tizen.qivo_thing.service.xml",
                          "share/dbus-1/system.d/org.tizen.qivo_thing.conf",
                          "share/doc/qivo-thing/examples/environment"};
const Names kStandInFiles{"bin/vconf",
                          "lib/qivo-thing/libdlog.so",
                          "lib/qivo-thing/liblumo.so",
                          "lib/qivo-thing/libvconf.so",
                          "share/appdatachannel/asyncapi.yaml",
                          "share/appdatachannel/broker/access",
                          "share/appdatachannel/broker/bridge-down.conf",
                          "share/appdatachannel/broker/bridge-up.conf",
                          "share/appdatachannel/broker/enrol",
                          "share/appdatachannel/broker/mosquitto.conf",
                          "share/appdatachannel/broker/openssl.cnf"};
const Names kDevelopmentFiles{"include/appdatachannel/dlog.h",  "include/appdatachannel/lumo.h",
                              "include/appdatachannel/vconf.h", "share/pkgconfig/dlog.pc",
                              "share/pkgconfig/lumo.pc",        "share/pkgconfig/vconf.pc"};
constexpr const char* kSample = "share/doc/qivo-thing/examples/environment";
constexpr const char* kSettingsPage = "share/man/man5/qivo-thing-environment.5";

TEST_F(PackagingTest, InstallsTheServiceAloneOrWithTheStandInsForThePlatformsLibraries) {
  Names expected = kServiceFiles;
  if (kManPages) expected.insert({"share/man/man8/qivo-thing.8", kSettingsPage});
  Install({"--component", "service"});
  EXPECT_EQ(expected, InstalledFiles());
  expected.insert(kStandInFiles.begin(), kStandInFiles.end());
  expected.insert(kDevelopmentFiles.begin(), kDevelopmentFiles.end());
  if (kManPages) expected.insert("share/man/man1/vconf.1");
  // The page is built only where Node.js is.
  if (fs::exists(ADC_PAGE_FILE)) expected.insert("share/appdatachannel/console/index.html");
  Install();
  EXPECT_EQ(expected, InstalledFiles());
}

TEST_F(PackagingTest, WhatIsInstalledRunsFromThere) {
  Install();
  const std::string command =
      RunCommand({"sh", "-c", "sed -n 's/^ExecStart=//p' '" + Unit().string() + "'"}).output;
  std::istringstream words(command);
  const std::vector<std::string> arguments((std::istream_iterator<std::string>(words)), {});
  ASSERT_EQ(2U, arguments.size()) << command;
  for (const std::string& file : arguments) {
    EXPECT_EQ(0U, file.find(m_prefix.string())) << file;
  }
  ASSERT_TRUE(channel.Run(arguments).WaitForOutput(kReadyLine));
  EXPECT_EQ("1\n",
            RunCommand({m_prefix / "bin/vconf", "get", kStatusKey}, channel.Variables()).output);

  // Nothing of it comes from the folder that it was built in.
  const std::string maps = contentOf("/proc/" + std::to_string(Host().Pid()) + "/maps");
  EXPECT_NE(std::string::npos, maps.find(m_prefix / "lib/qivo-thing/liblumo.so"));
  EXPECT_EQ(std::string::npos, maps.find(ADC_BUILD_FOLDER "/"));
}

TEST_F(PackagingTest, TheInterfaceFileIsWhatTheRunningServiceAnswers) {
  channel.StartLocally();
  const auto client = NewClient();
  const Reply reply = client
                          ->Call("Introspect", nullptr, BusClient::kCallLimit, kBusName,
                                 kObjectPath, "org.freedesktop.DBus.Introspectable")
                          .get();
  const BusClient::VariantPtr answer(
      g_variant_parse(G_VARIANT_TYPE("(s)"), reply.value.c_str(), nullptr, nullptr, nullptr));
  ASSERT_NE(nullptr, answer) << reply.error;
  const char* xml = nullptr;
  g_variant_get(answer.get(), "(&s)", &xml);
  const std::string expected = normalise(contentOf(ADC_INTERFACE_FILE));
  EXPECT_NE(std::string::npos, expected.find("register_app")) << expected;
  EXPECT_EQ(expected, normalise(xml));
}

TEST_F(PackagingTest, TheSampleOfTheSettingsHasEachThatTheDocumentationHasAndSetsNone) {
  Install();
  const std::string guide = contentOf(ADC_SOURCE_FOLDER "/docs/integration.md");
  const std::size_t start = guide.find("\n## Configure\n");
  ASSERT_NE(std::string::npos, start);
  Names documented =
      allOf(guide.substr(start, guide.find("\n## ", start + 1) - start), "^\\| `([A-Z_]+)`");
  for (const std::string& second :
       allOf(guide.substr(start), "^\\| `LUMO_[A-Z_]+`, `(LUMO_[A-Z_]+)`")) {
    documented.insert(second);
  }
  documented.erase("NO_COLOR");  // for a terminal
  const std::string sample = contentOf(m_prefix / kSample);
  EXPECT_EQ(documented, allOf(sample, "^#([A-Z_]+)="));
  EXPECT_EQ(Names{}, allOf(sample, "^([^#\n].*)$"));
}

TEST_F(PackagingTest, TheManPagesSayWhatTheProgramsAndTheSampleSay) {
  if (!kManPages) GTEST_SKIP() << "no help2man, or an instrumented build";
  Install();
  EXPECT_EQ(allOf(contentOf(m_prefix / kSample), "^#([A-Z_]+)="),
            allOf(contentOf(m_prefix / kSettingsPage), "^\\.BI ([A-Z_]+)= "));
  for (const auto& [program, page] :
       {std::pair("bin/qivo-thing", "man8/qivo-thing.8"), std::pair("bin/vconf", "man1/vconf.1")}) {
    std::string text = contentOf(m_prefix / "share/man" / page);
    text = std::regex_replace(text, std::regex(R"(\\f[BIR]|\\(?=-))"), "");
    const Names options = allOf(RunCommand({m_prefix / program, "--help"}).output, "(--[a-z]+)");
    EXPECT_LE(2U, options.size()) << program;
    for (const std::string& option : options) {
      EXPECT_NE(std::string::npos, text.find(option)) << page << ": " << option;
    }
  }
}

TEST_F(PackagingTest, APlugInBuildsWithWhatIsInstalledAndNeedsThePlatformsLibrariesByName) {
  if (!isInstalled("pkg-config")) GTEST_SKIP() << "pkg-config is not installed";
  Install();
  std::ofstream(m_prefix / "plugin.cpp")
      << "#include <dlog.h>\n#include <lumo.h>\n#include <vconf.h>\n"
         "void use() {\n"
         "  dlog_print(4, \"TEST\", \"%d\", vconf_set_int(\"key\", 1));\n"
         "  lumo_property_list_create();\n"
         "}\n";
  const CommandResult built =
      RunCommand({"sh", "-c",
                  "cd '" + m_prefix.string() +
                      "' && export PKG_CONFIG_PATH=$PWD/share/pkgconfig && " ADC_CXX_COMPILER
                      " -shared -fPIC -o plugin.so plugin.cpp $(pkg-config --cflags --libs lumo "
                      "dlog vconf) && " ADC_READELF " -d plugin.so"});
  ASSERT_EQ(0, built.status) << built.errors;
  const Names needed = allOf(built.output, R"(\(NEEDED\).*\[(lib(?:lumo|dlog|vconf)\..*)\])");
  EXPECT_EQ((Names{"libdlog.so", "liblumo.so", "libvconf.so"}), needed);
}

TEST_F(PackagingTest, TheDebianPackagesHaveTheVersionOfTheProject) {
  const std::string changelog = contentOf(ADC_SOURCE_FOLDER "/debian/changelog");
  EXPECT_EQ(0U, changelog.find("appdatachannel (" ADC_VERSION ") ")) << changelog;
}

TEST_F(PackagingTest, TheUnitHasNothingThatSystemdComplainsAbout) {
  if (!isInstalled("systemd-analyze")) GTEST_SKIP() << "systemd-analyze is not installed";
  ExpectAnalyzed({"--man=no", "verify"});
}

TEST_F(PackagingTest, TheUnitLeavesTheServiceLittleToAttack) {
  if (!isInstalled("systemd-analyze")) GTEST_SKIP() << "systemd-analyze is not installed";
  // Of 10, with 0 for the least exposed; a service without any protection has 9.6.
  ExpectAnalyzed({"security", "--offline=yes", "--no-pager", "--threshold=15"});
}

TEST_F(PackagingTest, TheUnitStartsTheServiceAgainHoweverOftenItHasEnded) {
  Install();
  const std::string unit = contentOf(Unit());
  const auto service = unit.find("\n[Service]\n");
  ASSERT_NE(std::string::npos, service);
  EXPECT_EQ(1U, CountOf("\nStartLimitIntervalSec=0\n", unit.substr(0, service + 1)));
  EXPECT_EQ(1U, CountOf("\nRestart=on-failure\n", unit.substr(service)));
  // Not at once, as it goes on for ever.
  EXPECT_EQ(1U, CountOf("\nRestartSec=2s\n", unit.substr(service)));
}

TEST_F(PackagingTest, AMainLoopThatHangsIsRestartedWithinAMinuteWhetherTheStartIsOverOrNot) {
  Install();
  const std::string unit = contentOf(Unit());
  EXPECT_EQ(1U, CountOf("\nType=notify\n", unit));
  const auto secondsOf = [&unit](const std::string& setting) {
    const auto at = unit.find("\n" + setting + "=");
    return at == std::string::npos ? 1000 : std::stoi(unit.substr(at + setting.size() + 2));
  };
  for (const char* const time : {"WatchdogSec", "TimeoutStartSec"}) {
    EXPECT_LT(secondsOf(time) + secondsOf("TimeoutAbortSec") + secondsOf("RestartSec"), 60);
  }
  // The first message that extends the start comes at once, the next ones twice in this time.
  EXPECT_GT(secondsOf("TimeoutStartSec"), secondsOf("WatchdogSec") / 2);
}

TEST_F(PackagingTest, TheUserOfTheUnitIsTheOneThatIsMadeAndThatMayOwnTheName) {
  Install();
  EXPECT_EQ(1U, CountOf("\nUser=qivo-thing\n", contentOf(Unit())));
  EXPECT_EQ(1U,
            CountOf("\nu qivo-thing - \"", contentOf(m_prefix / "lib/sysusers.d/qivo-thing.conf")));
  const std::string policy =
      contentOf(m_prefix / "share/dbus-1/system.d/org.tizen.qivo_thing.conf");
  EXPECT_EQ(1U, CountOf("<policy user=", policy));
  EXPECT_EQ(1U, CountOf("<policy user=\"qivo-thing\">", policy));
}

}  // namespace
