// A system that has nothing left to give: descriptors, threads, room on the disk.
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <thread>

#include "ChannelTest.h"
#include "TcpProxy.h"

namespace {

namespace fs = std::filesystem;

constexpr rlim_t kPlenty = 256;  // descriptors
constexpr const char* kSanitizerOpensFiles =
    "UndefinedBehaviorSanitizer opens pipes to look at an object's type";

class ResourceFaultsTest : public ChannelTest {
 protected:
  static std::size_t Descriptors(const HostProcess& host) {
    const fs::directory_iterator open("/proc/" + std::to_string(host.Pid()) + "/fd");
    return static_cast<std::size_t>(std::distance(begin(open), end(open)));
  }

  static std::size_t Threads(const HostProcess& host) {
    const fs::directory_iterator tasks("/proc/" + std::to_string(host.Pid()) + "/task");
    return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
  }

  // The host may open no file with this number or a higher one.
  static void LimitDescriptors(const HostProcess& host, rlim_t limit) {
    rlimit current{};
    ASSERT_EQ(0, prlimit(host.Pid(), RLIMIT_NOFILE, nullptr, &current));
    current.rlim_cur = limit;
    ASSERT_EQ(0, prlimit(host.Pid(), RLIMIT_NOFILE, &current, nullptr));
  }

  static rlim_t LowestFreeDescriptor(const HostProcess& host) {
    const std::string folder = "/proc/" + std::to_string(host.Pid()) + "/fd/";
    rlim_t number = 0;
    while (fs::is_symlink(fs::symlink_status(folder + std::to_string(number)))) ++number;
    return number;
  }

  // Runs the host by way of another program, which becomes the host.
  std::unique_ptr<HostProcess> StartBy(std::vector<std::string> command,
                                       const HostProcess::Environment& changes = {}) {
    HostProcess::Environment variables = changes;
    variables.merge(ChannelVariables());
    command.insert(command.end(), {ADC_HOST_FILE, ADC_PLUGIN_FILE});
    return std::make_unique<HostProcess>(command, variables);
  }

  void ExpectWorkingChannel(const std::string& data) {
    const auto app = NewClient();
    EXPECT_EQ("(0,)", Register(*app, "qz"));
    EXPECT_EQ("(0,)", SendData(*app, "qz", data));
    EXPECT_TRUE(cloud.WaitFor(kValueOfQz, "\"" + data + "\""));
    EXPECT_EQ(0, cloud.Result("set", R"({"qz": ")" + data + R"("})"));
    EXPECT_EQ(std::vector<std::string>{"('qz', '" + data + "')"}, WaitForEvents(*app, 1));
  }
};

TEST_F(ResourceFaultsTest, SixtyFourDescriptorsAreEnoughForGood) {
  constexpr int kCuts = 4;  // the waits between them double
  constexpr unsigned kBusRestarts = 5;
  constexpr int kApps = 100;
  TcpProxy proxy(broker.Port());
  const auto host = StartBy({"prlimit", "--nofile=64:64"},
                            {{"LUMO_BROKER", "mqtt://127.0.0.1:" + std::to_string(proxy.Port())}});
  ASSERT_TRUE(host->WaitForOutput(kReadyLine)) << host->Errors();
  ASSERT_TRUE(cloud.WaitFor("status", kOnline));
  ExpectWorkingChannel("first");
  const std::size_t descriptors = Descriptors(*host);
  const std::size_t threads = Threads(*host);
  {
    std::vector<std::unique_ptr<BusClient>> apps;
    for (int i = 0; i < kApps; ++i) apps.push_back(NewClient());
    for (const auto& app : apps) EXPECT_EQ("(0,)", Register(*app, "qz"));
  }
  for (int i = 1; i <= kCuts; ++i) {
    proxy.Cut();
    ASSERT_TRUE(host->WaitForError("lost the connection", static_cast<unsigned>(i)));
    const std::string data = "cut " + std::to_string(i);
    EXPECT_EQ("(0,)", SendData(*NewClient(), "qz", data));
    EXPECT_TRUE(cloud.WaitFor(kValueOfQz, "\"" + data + "\""));
  }
  for (unsigned i = 1; i <= kBusRestarts; ++i) {
    Bus().Kill();
    ASSERT_TRUE(host->WaitForError("waiting for the bus", i)) << host->Errors();
    Bus().Start();
    ASSERT_TRUE(host->WaitForOutput(kReadyLine, i + 1)) << host->Errors();
  }
  ASSERT_TRUE(cloud.WaitFor("status", kOnline));
  ExpectWorkingChannel("last");
  EXPECT_TRUE(WaitUntil([&] { return Descriptors(*host) <= descriptors; })) << Descriptors(*host);
  EXPECT_TRUE(WaitUntil([&] { return Threads(*host) <= threads; })) << Threads(*host);
  RecordProperty("Descriptors", static_cast<int>(descriptors));
  RecordProperty("Threads", static_cast<int>(threads));
  EXPECT_EQ(0, host->End(SIGTERM)) << host->Errors();
}

TEST_F(ResourceFaultsTest, WithoutAnyDescriptorALostBusIsWaitedFor) {
  if (ADC_SANITIZER_OPENS_FILES) GTEST_SKIP() << kSanitizerOpensFiles;
  const auto host = StartChannel();
  LimitDescriptors(*host, LowestFreeDescriptor(*host));
  Bus().Kill();
  ASSERT_TRUE(host->WaitForError("no file descriptors are left for the bus", 2)) << host->Errors();
  Bus().Start();
  LimitDescriptors(*host, kPlenty);
  ASSERT_TRUE(host->WaitForOutput(kReadyLine, 2)) << host->Errors();
  ExpectWorkingChannel("after");
  EXPECT_EQ(0, host->End(SIGTERM)) << host->Errors();
}

TEST_F(ResourceFaultsTest, WithoutAnyDescriptorTheHostEndsAsAlways) {
  if (ADC_SANITIZER_OPENS_FILES) GTEST_SKIP() << kSanitizerOpensFiles;
  const auto host = StartChannel();
  LimitDescriptors(*host, LowestFreeDescriptor(*host));
  EXPECT_EQ(0, host->End(SIGTERM)) << host->Errors();
  EXPECT_TRUE(host->WaitForError("destroyed")) << host->Errors();
  EXPECT_TRUE(cloud.WaitFor("status", kOffline));
}

// The spare ones are taken again when the bus has gone.
TEST_F(ResourceFaultsTest, WithoutAnyDescriptorTheHostEndsAfterALostBus) {
  if (ADC_SANITIZER_OPENS_FILES) GTEST_SKIP() << kSanitizerOpensFiles;
  const auto host = StartChannel();
  Bus().Kill();
  ASSERT_TRUE(host->WaitForError("waiting for the bus")) << host->Errors();
  Bus().Start();
  ASSERT_TRUE(host->WaitForOutput(kReadyLine, 2)) << host->Errors();
  LimitDescriptors(*host, LowestFreeDescriptor(*host));
  EXPECT_EQ(0, host->End(SIGTERM)) << host->Errors();
}

TEST_F(ResourceFaultsTest, WithoutAnyDescriptorAppsAreServedAndTheCloudIsTriedAgain) {
  if (ADC_SANITIZER_OPENS_FILES) GTEST_SKIP() << kSanitizerOpensFiles;
  TcpProxy proxy(broker.Port());
  const auto host =
      StartChannel({{"LUMO_BROKER", "mqtt://127.0.0.1:" + std::to_string(proxy.Port())}});
  LimitDescriptors(*host, LowestFreeDescriptor(*host));
  ExpectWorkingChannel("none left");

  proxy.Cut();
  ASSERT_TRUE(host->WaitForError("lost the connection")) << host->Errors();
  // Nor what the lost connection has given back.
  LimitDescriptors(*host, LowestFreeDescriptor(*host));
  ASSERT_TRUE(host->WaitForError("cannot connect")) << host->Errors();
  EXPECT_EQ("(0,)", SendData(*NewClient(), "qz", "meanwhile"));

  LimitDescriptors(*host, kPlenty);
  EXPECT_TRUE(cloud.WaitFor(kValueOfQz, "\"meanwhile\""));
  ExpectWorkingChannel("after");
  EXPECT_EQ(0, host->End(SIGTERM)) << host->Errors();
}

TEST_F(ResourceFaultsTest, AFullDiskOfTheSettingsStopsNothingButTheSettings) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can mount a disk that is full";
  const std::string folder = Folder().Path() / "vconf";
  fs::create_directory(folder);
  // Its own mount, which nobody else sees and which goes with it. A setting needs room for its old
  // and its new file.
  const auto host = StartBy({"unshare", "--mount", "sh", "-ec",
                             "mount -t tmpfs -o size=8k none \"$VCONF_DIR\";"
                             " head -c 8192 /dev/zero > \"$VCONF_DIR/occupied\"; exec \"$@\"",
                             "sh"},
                            {{"VCONF_DIR", folder}});
  ASSERT_TRUE(host->WaitForError("fail to vconf_set_int")) << host->Errors();
  ASSERT_TRUE(cloud.WaitFor("status", kOnline)) << host->Errors();
  ExpectWorkingChannel("full");
  EXPECT_EQ("", host->Output());
  const fs::path seenByHost = "/proc/" + std::to_string(host->Pid()) + "/root" + folder;
  ASSERT_TRUE(fs::exists(seenByHost / "occupied"));
  std::size_t files = 0;
  for (const auto& entry : fs::recursive_directory_iterator(seenByHost)) {
    if (entry.is_regular_file()) ++files;
  }
  EXPECT_EQ(1U, files);  // nothing is left half-written

  fs::remove(seenByHost / "occupied");
  Bus().Kill();
  ASSERT_TRUE(host->WaitForError("waiting for the bus")) << host->Errors();
  Bus().Start();
  EXPECT_TRUE(host->WaitForOutput(kReadyLine)) << host->Errors();
  EXPECT_EQ(0, host->End(SIGTERM)) << host->Errors();
}

TEST_F(ResourceFaultsTest, ARefusedThreadIsAnErrorLineAndNoChannel) {
  constexpr int kMostThreads = 20;
  const char* const options = std::getenv("ASAN_OPTIONS");
  int number = 1;
  for (; number <= kMostThreads; ++number) {
    SCOPED_TRACE("thread " + std::to_string(number));
    const auto host = StartBy({}, {{"LD_PRELOAD", ADC_REFUSED_THREADS_FILE},
                                   {"REFUSED_THREAD", std::to_string(number)},
                                   {"ASAN_OPTIONS", std::string(options == nullptr ? "" : options) +
                                                        ":verify_asan_link_order=0"}});
    // Either a thread is refused, or there are no more to refuse.
    ASSERT_TRUE(WaitUntil([&] {
      return CountOf("a thread is refused", host->Errors()) + CountOf(kReadyLine, host->Output());
    })) << host->Errors();
    if (CountOf("a thread is refused", host->Errors()) == 0) {
      EXPECT_EQ(0, host->End(SIGTERM)) << host->Errors();
      break;
    }
    // The start has failed: the host ends with 1 when the plug-in throws, and says so otherwise.
    ASSERT_TRUE(WaitUntil([&] {
      return CountOf("CreatePlugin threw", host->Errors()) +
             CountOf("Initialize: false", host->Errors());
    })) << host->Errors();
    const bool threw = CountOf("CreatePlugin threw", host->Errors()) != 0;
    // By itself in the first case; a signal could come when it no longer looks out for one.
    EXPECT_EQ(threw ? 1 : 0, threw ? host->Wait() : host->End(SIGTERM)) << host->Errors();
    EXPECT_EQ("", host->Output());
    EXPECT_EQ("0\n", Setting(kStatusKey));
    const std::vector<std::string> statuses = cloud.Received("status");
    EXPECT_TRUE(statuses.empty() || cloud.WaitFor("status", kOffline));
  }
  EXPECT_LE(number, kMostThreads);
  EXPECT_GT(number, 2);  // the plug-in's own thread and one of the device service at least
  RecordProperty("Threads", number - 1);
  // The next start works.
  const auto host = StartChannel();
  ExpectWorkingChannel("after");
  EXPECT_EQ(0, host->End(SIGTERM)) << host->Errors();
}

}  // namespace
