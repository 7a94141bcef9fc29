// A network between the thing and its broker that delays, stalls, and breaks in the middle of a
// packet.
#include <chrono>
#include <csignal>
#include <thread>
#include <tuple>

#include "ChannelTest.h"
#include "TcpProxy.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

class NetworkFaultsTest : public ChannelTest {
 protected:
  void SetUp() override {
    host = StartChannel({{"LUMO_BROKER", "mqtt://127.0.0.1:" + std::to_string(proxy.Port())}});
    app = NewClient();
    ASSERT_EQ("(0,)", Register(*app, "qz"));
    ASSERT_TRUE(cloud.WaitForProperty("qz"));
  }

  // The cloud sets the next number, which becomes an event.
  void SendSet() {
    const std::string number = std::to_string(expected.size());
    requests.push_back(cloud.Send("set", R"({"qz": ")" + number + R"("})"));
    expected.push_back("('qz', '" + number + "')");
  }

  // Every set has become an event once, in order, and been answered once; the value that was sent
  // last is at the broker.
  void ExpectNothingLost() {
    EXPECT_EQ(expected, WaitForEvents(*app, expected.size()));
    EXPECT_EQ("(0,)", SendData(*app, "qz", "last"));
    EXPECT_TRUE(cloud.WaitFor(kValueOfQz, "\"last\""));
    SendSet();
    for (const int request : requests) {
      EXPECT_TRUE(WaitUntil([&] { return !cloud.AnswersTo(request).empty(); })) << request;
    }
    // Had something come twice, it would have been before this.
    EXPECT_EQ(expected, WaitForEvents(*app, expected.size()));
  }

  TcpProxy proxy{broker.Port()};
  std::unique_ptr<HostProcess> host;
  std::unique_ptr<BusClient> app;
  std::vector<std::string> expected;
  std::vector<int> requests;
};

// Direction, and bytes that go through before the cut: within the two bytes of a packet's header,
// its identifier, its topic, its properties and its payload, and behind its end.
class NetworkCutTest
    : public NetworkFaultsTest,
      public ::testing::WithParamInterface<std::tuple<TcpProxy::Direction, std::size_t>> {};

TEST_P(NetworkCutTest, LosesNoSetAndNoValueAndDoublesNoSet) {
  const auto& [direction, bytes] = GetParam();
  proxy.CutAfter(direction, bytes);
  while (proxy.Cuts() == 0) {
    SendSet();
    ASSERT_EQ("(0,)", SendData(*app, "qz", std::to_string(expected.size())));
    ASSERT_EQ(expected, WaitForEvents(*app, expected.size())) << host->Errors();
  }
  ExpectNothingLost();
  EXPECT_EQ(1U, CountOf("lost the connection", host->Errors()));
  EXPECT_EQ(0, host->End(SIGTERM)) << host->Errors();
}

std::string ParameterName(
    const ::testing::TestParamInfo<std::tuple<TcpProxy::Direction, std::size_t>>& info) {
  return std::string(std::get<0>(info.param) == TcpProxy::kToServer ? "ToBroker" : "FromBroker") +
         std::to_string(std::get<1>(info.param));
}

INSTANTIATE_TEST_SUITE_P(
    Bytes, NetworkCutTest,
    ::testing::Combine(::testing::Values(TcpProxy::kToServer, TcpProxy::kToClient),
                       ::testing::Values(1, 2, 3, 5, 8, 13, 21, 34, 55, 89, 144, 233)),
    ParameterName);

TEST_F(NetworkFaultsTest, ADelayOfTwoHundredMillisecondsOnlyDelays) {
  constexpr int kSets = 20;
  constexpr milliseconds kDelay(200);
  proxy.Delay(kDelay);
  const auto start = steady_clock::now();
  for (int i = 0; i < kSets; ++i) {
    SendSet();
    ASSERT_EQ("(0,)", SendData(*app, "qz", std::to_string(i)));
  }
  ExpectNothingLost();
  EXPECT_GE(steady_clock::now() - start, 2 * kDelay);  // it is on the way
  proxy.Delay(milliseconds(0));
  EXPECT_EQ(0, host->End(SIGTERM)) << host->Errors();
}

TEST_F(NetworkFaultsTest, FiveSecondsWithoutASingleByteLoseNothingAndHoldNoAppUp) {
  constexpr int kSets = 20;
  constexpr milliseconds kPromptly(1000);
  proxy.Stall(true);
  const auto end = steady_clock::now() + seconds(5);
  for (int i = 0; i < kSets; ++i) {
    SendSet();
    const auto start = steady_clock::now();
    ASSERT_EQ("(0,)", SendData(*app, "qz", std::to_string(i)));
    EXPECT_LT(steady_clock::now() - start, kPromptly);
  }
  std::this_thread::sleep_until(end);
  EXPECT_TRUE(Received(*app, "send_event").empty());
  proxy.Stall(false);
  ExpectNothingLost();
  EXPECT_EQ(0, host->End(SIGTERM)) << host->Errors();
}

TEST_F(NetworkFaultsTest, ANetworkThatIsAwayIsTriedAgainAndEverythingIsMadeUpFor) {
  constexpr int kSets = 20;
  proxy.Close();
  proxy.Cut();
  ASSERT_TRUE(host->WaitForError("lost the connection")) << host->Errors();
  for (int i = 0; i < kSets; ++i) {
    SendSet();
    ASSERT_EQ("(0,)", SendData(*app, "qz", std::to_string(i)));
  }
  proxy.Open();
  ExpectNothingLost();
  EXPECT_TRUE(cloud.WaitFor("status", kOnline));
  EXPECT_EQ(0, host->End(SIGTERM)) << host->Errors();
}

TEST_F(NetworkFaultsTest, TheHostEndsInTimeWhileNothingIsCarried) {
  proxy.Stall(true);
  SendSet();
  ASSERT_EQ("(0,)", SendData(*app, "qz", "1"));
  const auto start = steady_clock::now();
  EXPECT_EQ(0, host->End(SIGTERM)) << host->Errors();
  const auto duration = steady_clock::now() - start;
  EXPECT_LT(duration, seconds(10));
  RecordProperty("EndMs", static_cast<int>(duration / milliseconds(1)));
}

}  // namespace
