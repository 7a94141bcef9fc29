// A message bus that stops without an end.
#include <chrono>
#include <csignal>
#include <future>
#include <thread>

#include "ChannelTest.h"

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr seconds kStop(5);

class BusFaultsTest : public ChannelTest {
 protected:
  ~BusFaultsTest() override { Bus().Thaw(); }
};

TEST_F(BusFaultsTest, ABusThatStopsForFiveSecondsLosesNoCallNoEventAndNoRequest) {
  constexpr int kCount = 20;
  const auto host = StartChannel();
  const auto app = NewClient();
  ASSERT_EQ("(0,)", Register(*app, "qz"));
  ASSERT_EQ("(0,)", SendData(*app, "qz", "before"));

  Bus().Freeze();
  const auto end = steady_clock::now() + kStop;
  std::vector<std::future<Reply>> calls;
  std::vector<std::string> expected;
  for (int i = 0; i < kCount; ++i) {
    calls.push_back(app->Call("send_data", g_variant_new("(ss)", "qz", "meanwhile")));
    // The cloud is answered as if nothing were.
    EXPECT_EQ(0, cloud.Result("set", R"({"qz": ")" + std::to_string(i) + R"("})"));
    expected.push_back("('qz', '" + std::to_string(i) + "')");
  }
  EXPECT_EQ("before", cloud.Request("get", R"(["qz"])")["properties"]["qz"].asString());
  EXPECT_LT(steady_clock::now(), end);
  std::this_thread::sleep_until(end);
  for (std::future<Reply>& call : calls) {
    EXPECT_EQ(std::future_status::timeout, call.wait_for(seconds(0)));
  }
  Bus().Thaw();

  for (std::future<Reply>& call : calls) EXPECT_EQ("(0,)", call.get().value);
  EXPECT_EQ(expected, WaitForEvents(*app, expected.size()));
  EXPECT_TRUE(cloud.WaitFor(kValueOfQz, "\"meanwhile\""));
  EXPECT_EQ(0, host->End(SIGTERM)) << host->Errors();
  EXPECT_EQ(kReadyLine, host->Output());
}

// GIO asks the bus to take the name back, and waits 25 seconds for it.
TEST_F(BusFaultsTest, TheHostEndsWhileTheBusIsStopped) {
  const auto host = StartChannel();
  Bus().Freeze();
  const auto start = steady_clock::now();
  EXPECT_EQ(0, host->End(SIGTERM)) << host->Errors();
  const auto duration = steady_clock::now() - start;
  EXPECT_LT(duration, seconds(40));
  RecordProperty("EndMs", static_cast<int>(duration / std::chrono::milliseconds(1)));
  EXPECT_TRUE(cloud.WaitFor("status", kOffline));
  EXPECT_EQ("0\n", Setting(kStatusKey));
}

TEST_F(BusFaultsTest, WhoTakesTheNameFirstKeepsItAndTheChannelComesUpAfterIt) {
  constexpr guint kPrimaryOwner = 1;
  constexpr guint kReplace = 2;
  constexpr guint kInQueue = 2;
  const auto other = NewClient();
  ASSERT_EQ(kPrimaryOwner, other->RequestName(kBusName, 0));
  HostProcess::Environment variables = ChannelVariables();
  HostProcess host({ADC_HOST_FILE, ADC_PLUGIN_FILE}, variables);
  // The cloud's side is there, and the setting says that the applications' is not.
  ASSERT_TRUE(cloud.WaitFor("status", kOnline)) << host.Errors();
  ASSERT_TRUE(WaitUntil([&] { return other->QueuedOwnersOf(kBusName).size() == 2; }));
  EXPECT_EQ("0\n", Setting(kStatusKey));
  EXPECT_EQ("", host.Output());

  other->Close();
  ASSERT_TRUE(host.WaitForOutput(kReadyLine)) << host.Errors();
  const auto app = NewClient();
  const std::string owner = app->OwnerOf(kBusName);
  EXPECT_EQ(kInQueue, app->RequestName(kBusName, kReplace));
  EXPECT_EQ(owner, app->OwnerOf(kBusName));
  EXPECT_EQ("(0,)", Register(*app, "qz"));
  EXPECT_EQ(0, host.End(SIGTERM)) << host.Errors();
}

}  // namespace
