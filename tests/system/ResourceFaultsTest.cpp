// A system that has nothing left to give: descriptors, threads, room on the disk.
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "ChannelTest.h"
#include "ProcessUse.h"
#include "TcpProxy.h"

namespace {

namespace fs = std::filesystem;

class ResourceFaultsTest : public ChannelTest {
 protected:
  // Runs the host by way of another program, which becomes the host.
  void StartBy(Lines command, const HostProcess::Environment& changes = {}) {
    command.insert(command.end(), {ADC_HOST_FILE, ADC_PLUGIN_FILE});
    channel.Run(command, changes);
  }
  HostProcess::Environment ByProxy() const {
    return {{"LUMO_BROKER", "mqtt://127.0.0.1:" + std::to_string(proxy.Port())}};
  }

  TcpProxy proxy{broker.Port()};
};

// A host that may open no further file.
class NoDescriptorsTest : public ResourceFaultsTest {
 protected:
  void SetUp() override {
    if (ADC_SANITIZER_OPENS_FILES) {
      GTEST_SKIP() << "UndefinedBehaviorSanitizer opens pipes to check an object's type";
    }
    StartChannel(ByProxy());
  }
  void TakeDescriptors() { ProcessUse::TakeDescriptors(Host().Pid()); }
  void GiveDescriptorsBack() {
    ProcessUse::LimitDescriptors(Host().Pid(), ProcessUse::kPlentyOfDescriptors);
  }
};

TEST_F(ResourceFaultsTest, SixtyFourDescriptorsAreEnoughForGood) {
  constexpr unsigned kCuts = 4;  // the waits between them double
  constexpr unsigned kBusRestarts = 5;
  constexpr int kApps = 100;
  StartBy({"prlimit", "--nofile=64:64"}, ByProxy());
  ASSERT_TRUE(Host().WaitForOutput(kReadyLine));
  ASSERT_TRUE(cloud.WaitFor("status", kOnline));
  ExpectWorkingChannel("first");
  const ProcessUse before = ProcessUse::Of(Host().Pid());
  {
    std::vector<std::unique_ptr<BusClient>> apps;
    for (int i = 0; i < kApps; ++i) apps.push_back(NewClient());
    for (const auto& one : apps) EXPECT_EQ("(0,)", Register(*one, "qz"));
  }
  for (unsigned i = 1; i <= kCuts; ++i) {
    proxy.Cut();
    ASSERT_TRUE(Host().WaitForError("lost the connection", i));
    const std::string data = "cut " + std::to_string(i);
    EXPECT_EQ("(0,)", SendData(*NewClient(), "qz", data));
    EXPECT_TRUE(WaitForValueOfQz(data));
  }
  for (unsigned i = 1; i <= kBusRestarts; ++i) {
    LoseBus(i);
    BringBusBack(i + 1);
  }
  ASSERT_TRUE(cloud.WaitFor("status", kOnline));
  ExpectWorkingChannel("last");
  const auto now = [this] { return ProcessUse::Of(Host().Pid()); };
  EXPECT_TRUE(WaitUntil([&] { return now().descriptors <= before.descriptors; }));
  EXPECT_TRUE(WaitUntil([&] { return now().threads <= before.threads; }));
  RecordProperty("Descriptors", static_cast<int>(before.descriptors));
  RecordProperty("Threads", static_cast<int>(before.threads));
}

TEST_F(NoDescriptorsTest, ALostBusIsWaitedFor) {
  TakeDescriptors();
  Bus().Kill();
  ASSERT_TRUE(Host().WaitForError("no file descriptors are left for the bus", 2));
  Bus().Start();
  GiveDescriptorsBack();
  ASSERT_TRUE(Host().WaitForOutput(kReadyLine, 2));
  ExpectWorkingChannel("after");
}

TEST_F(NoDescriptorsTest, TheHostEndsAsAlways) {
  TakeDescriptors();
  EXPECT_EQ(0, Host().End(SIGTERM));
  EXPECT_TRUE(Host().WaitForError("destroyed"));
  EXPECT_TRUE(cloud.WaitFor("status", kOffline));
}

// The spare ones are taken again when the bus has gone.
TEST_F(NoDescriptorsTest, TheHostEndsAfterALostBus) {
  LoseBus();
  BringBusBack();
  TakeDescriptors();
  EXPECT_EQ(0, Host().End(SIGTERM));
}

TEST_F(NoDescriptorsTest, AppsAreServedAndTheCloudIsTriedAgain) {
  TakeDescriptors();
  ExpectWorkingChannel("none left");

  proxy.Cut();
  ASSERT_TRUE(Host().WaitForError("lost the connection"));
  TakeDescriptors();  // nor what the lost connection has given back
  ASSERT_TRUE(Host().WaitForError("cannot connect"));
  EXPECT_EQ("(0,)", SendData(*NewClient(), "qz", "meanwhile"));

  GiveDescriptorsBack();
  EXPECT_TRUE(WaitForValueOfQz("meanwhile"));
  ExpectWorkingChannel("after");
}

TEST_F(ResourceFaultsTest, AFullDiskOfTheSettingsStopsNothingButTheSettings) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can mount a disk that is full";
  const std::string folder = channel.Variables().at("VCONF_DIR");
  fs::create_directory(folder);
  // Its own mount, which nobody else sees and which goes with it. A setting needs room for its old
  // and its new file.
  StartBy({"unshare", "--mount", "sh", "-ec",
           "mount -t tmpfs -o size=8k none \"$VCONF_DIR\";"
           " head -c 8192 /dev/zero > \"$VCONF_DIR/occupied\"; exec \"$@\"",
           "sh"});
  ASSERT_TRUE(Host().WaitForError("fail to vconf_set_int"));
  ASSERT_TRUE(cloud.WaitFor("status", kOnline));
  ExpectWorkingChannel("full");
  EXPECT_EQ("", Host().Output());
  const fs::path seenByHost = "/proc/" + std::to_string(Host().Pid()) + "/root" + folder;
  ASSERT_TRUE(fs::exists(seenByHost / "occupied"));
  std::size_t files = 0;
  for (const auto& entry : fs::recursive_directory_iterator(seenByHost)) {
    if (entry.is_regular_file()) ++files;
  }
  EXPECT_EQ(1U, files);  // no part of a setting is left

  fs::remove(seenByHost / "occupied");
  LoseBus();
  BringBusBack(1);
}

TEST_F(ResourceFaultsTest, ARefusedThreadIsAnErrorLineAndNoChannel) {
  constexpr int kMostThreads = 20;
  const char* const options = std::getenv("ASAN_OPTIONS");
  int number = 1;
  for (; number <= kMostThreads; ++number) {
    SCOPED_TRACE("thread " + std::to_string(number));
    StartBy({}, {{"LD_PRELOAD", ADC_REFUSED_THREADS_FILE},
                 {"REFUSED_THREAD", std::to_string(number)},
                 {"ASAN_OPTIONS",
                  std::string(options == nullptr ? "" : options) + ":verify_asan_link_order=0"}});
    // Either a thread is refused, or there are no more to refuse.
    ASSERT_TRUE(WaitUntil([&] {
      return CountOf("a thread is refused", Host().Errors()) + CountOf(kReadyLine, Host().Output());
    }));
    if (CountOf("a thread is refused", Host().Errors()) == 0) {
      EXPECT_EQ(0, Host().End(SIGTERM));
      break;
    }
    // The start has failed: the host ends with 1 when the plug-in throws, and says so otherwise.
    ASSERT_TRUE(WaitUntil([&] {
      return CountOf("CreatePlugin threw", Host().Errors()) +
             CountOf("Initialize: false", Host().Errors());
    }));
    const bool threw = CountOf("CreatePlugin threw", Host().Errors()) != 0;
    // By itself in the first case; a signal could come when it no longer waits for one.
    EXPECT_EQ(threw ? 1 : 0, threw ? Host().Wait() : Host().End(SIGTERM));
    EXPECT_EQ("", Host().Output());
    EXPECT_EQ("0\n", Setting(kStatusKey));
    EXPECT_TRUE(cloud.Received("status").empty() || cloud.WaitFor("status", kOffline));
  }
  EXPECT_LE(number, kMostThreads);
  EXPECT_GT(number, 2);  // the plug-in's own thread and one of the device service at least
  RecordProperty("Threads", number - 1);
  // The next start works.
  StartChannel();
  ExpectWorkingChannel("after");
}

}  // namespace
