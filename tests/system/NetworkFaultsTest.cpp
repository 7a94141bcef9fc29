// A network between the thing and its broker that delays, stalls, and breaks in the middle of a
// packet.
#include <chrono>
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
    StartWithApp({{"LUMO_BROKER", "mqtt://127.0.0.1:" + std::to_string(proxy.Port())}});
    ASSERT_TRUE(cloud.WaitForProperty("qz"));
  }

  // The cloud sets the next number, which becomes an event, and the application sends its own.
  void SendBothWays() {
    const std::string number = std::to_string(expected.size());
    requests.push_back(cloud.Send("set", SetOfQz(number)));
    expected.push_back(EventOfQz(number));
    const auto start = steady_clock::now();
    ASSERT_EQ("(0,)", SendData(*app, "qz", number));
    longestCall = std::max(longestCall, steady_clock::now() - start);
  }
  void SendManyBothWays() {
    for (int i = 0; i < 20; ++i) SendBothWays();
  }

  // Every set has become an event once, in order, and been answered once; the value that was sent
  // last is at the broker.
  void ExpectNothingLost() {
    EXPECT_EQ(expected, WaitForEvents(*app, expected.size()));
    SendBothWays();
    EXPECT_TRUE(WaitForValueOfQz(std::to_string(expected.size() - 1)));
    for (const int request : requests) EXPECT_TRUE(WaitForAnswerTo(request)) << request;
    // Had something come twice, it would have been before this.
    EXPECT_EQ(expected, WaitForEvents(*app, expected.size()));
  }

  TcpProxy proxy{broker.Port()};
  Lines expected;
  std::vector<int> requests;
  steady_clock::duration longestCall{0};
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
    SendBothWays();
    ASSERT_EQ(expected, WaitForEvents(*app, expected.size()));
  }
  ExpectNothingLost();
  EXPECT_EQ(1U, CountOf("lost the connection", Host().Errors()));
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
  constexpr milliseconds kDelay(200);
  proxy.Delay(kDelay);
  const auto start = steady_clock::now();
  SendManyBothWays();
  ExpectNothingLost();
  EXPECT_GE(steady_clock::now() - start, 2 * kDelay);  // it is on the way
  proxy.Delay(milliseconds(0));
}

TEST_F(NetworkFaultsTest, FiveSecondsWithoutASingleByteLoseNothingAndHoldNoAppUp) {
  proxy.Stall(true);
  const auto end = steady_clock::now() + seconds(5);
  SendManyBothWays();
  EXPECT_LT(longestCall, seconds(1));
  std::this_thread::sleep_until(end);
  EXPECT_TRUE(Received(*app).empty());
  proxy.Stall(false);
  ExpectNothingLost();
}

TEST_F(NetworkFaultsTest, ANetworkThatIsAwayIsTriedAgainAndEverythingIsMadeUpFor) {
  proxy.Close();
  proxy.Cut();
  ASSERT_TRUE(Host().WaitForError("lost the connection"));
  SendManyBothWays();
  proxy.Open();
  ExpectNothingLost();
  EXPECT_TRUE(cloud.WaitFor("status", kOnline));
}

TEST_F(NetworkFaultsTest, TheHostEndsInTimeWhileNothingIsCarried) {
  proxy.Stall(true);
  SendBothWays();
  const auto start = steady_clock::now();
  EXPECT_EQ(0, Host().End(SIGTERM));
  const auto duration = steady_clock::now() - start;
  EXPECT_LT(duration, seconds(10));
  RecordProperty("EndMs", static_cast<int>(duration / milliseconds(1)));
}

}  // namespace
