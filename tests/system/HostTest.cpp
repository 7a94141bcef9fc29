#include "HostTest.h"

#include "ShippedPolicy.h"

namespace {

std::unique_ptr<PrivateBus> theBus;

// One bus per process, made before there is a second thread.
class BusEnvironment : public ::testing::Environment {
 public:
  void SetUp() override { theBus = std::make_unique<PrivateBus>(ShippedPolicyForThisUser()); }
  void TearDown() override { theBus.reset(); }
};

// googletest owns its environments.
[[maybe_unused]] const auto* const environment =
    ::testing::AddGlobalTestEnvironment(std::make_unique<BusEnvironment>().release());

}  // namespace

HostTest::HostTest() {
  theBus->Start();
}

HostTest::~HostTest() = default;

PrivateBus& HostTest::Bus() {
  return *theBus;
}

std::unique_ptr<HostProcess> HostTest::StartHost(const std::vector<std::string>& plugins) {
  std::vector<std::string> command{ADC_HOST_FILE};
  if (plugins.empty()) command.push_back(ADC_PLUGIN_FILE);
  command.insert(command.end(), plugins.begin(), plugins.end());
  return std::make_unique<HostProcess>(command, Variables());
}

std::unique_ptr<HostProcess> HostTest::StartReadyHost() {
  auto host = StartHost();
  EXPECT_TRUE(host->WaitForOutput(kReadyLine)) << host->Errors();
  return host;
}

std::string HostTest::Setting(const std::string& key) {
  return RunCommand({ADC_VCONF_FILE, "get", key}, Variables()).output;
}

HostProcess::Environment HostTest::Variables() const {
  return {{"DBUS_SYSTEM_BUS_ADDRESS", theBus->Address()},
          {"VCONF_DIR", m_folder.Path()},
          {"DLOG_LEVEL", "info"}};
}

Reply HostTest::Call(BusClient& client, const std::string& method, const std::string& argument) {
  return client.Call(method, g_variant_new("(s)", argument.c_str())).get();
}
