// A message bus that stops without an end.
#include <algorithm>
#include <chrono>
#include <csignal>
#include <future>
#include <thread>

#include "ChannelTest.h"
#include "MemoryLimit.h"

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr seconds kStop(5);

class BusFaultsTest : public ChannelTest {
 protected:
  // 80 KiB: 256 that wait in the service and those that wait in the host are together no more than
  // the bus keeps for a listener that reads slowly (32 MiB).
  static constexpr std::size_t kLongEvent = std::size_t{80} * 1024;
  static constexpr std::size_t kUnreadEvents = 100;  // of kLongEvent, which the host lets wait

  ~BusFaultsTest() override { Bus().Thaw(); }

  // Sets of qz whose values begin with their request's number.
  std::vector<int> SendLongSets(std::size_t count) {
    std::vector<int> requests;
    for (std::size_t i = 0; i < count; ++i) {
      const std::string data = std::to_string(++m_lastSet) + " " + std::string(kLongEvent, 'x');
      requests.push_back(cloud.Send("set", R"({"qz": ")" + data + R"("})"));
    }
    return requests;
  }
  // The numbers of the sets whose events the application has received.
  static std::vector<int> NumbersIn(const std::vector<std::string>& events) {
    std::vector<int> numbers;
    for (const std::string& event : events) numbers.push_back(std::stoi(event.substr(8)));
    return numbers;
  }
  // How many of the requests have been answered so far.
  std::size_t CountAnswered(const std::vector<int>& requests) {
    return static_cast<std::size_t>(
        std::count_if(requests.begin(), requests.end(),
                      [this](int request) { return !cloud.AnswersTo(request).empty(); }));
  }
  // With the bus stopped: returns when sets wait because of events that the bus does not read.
  void LetEventsWait() {
    const std::vector<int> requests = SendLongSets(kUnreadEvents + 20);
    EXPECT_TRUE(WaitUntil([&] { return CountAnswered(requests) >= kUnreadEvents - 2; }));
    EXPECT_LE(CountAnswered(requests), kUnreadEvents + 2);
  }

 private:
  int m_lastSet = 0;
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

TEST_F(BusFaultsTest, ABusThatDoesNotReadTakesLittleMemoryAndNoEventThatWasAnsweredIsLost) {
  constexpr std::size_t kSets = kIsSanitized ? 600 : 2000;  // 160 MB
  const auto host = StartChannel({{"LUMO_REQUEST_TIMEOUT_MS", "60000"}});
  const auto app = NewClient();
  ASSERT_EQ("(0,)", Register(*app, "qz"));
  const MemoryLimit memory(*host);

  Bus().Freeze();
  const std::vector<int> requests = SendLongSets(kSets);
  // The last one is refused, as those before it wait.
  EXPECT_EQ(R"({"error":"busy"})", cloud.WaitForAnswer(std::to_string(requests.back())));
  std::size_t done = 0;
  for (const int request : requests) {
    for (const std::string& answer : cloud.AnswersTo(request)) {
      if (ParseJson(answer)["result"] == 0) ++done;
    }
  }
  EXPECT_LE(done, kUnreadEvents + 2);
  EXPECT_GE(done, kUnreadEvents - 2);
  memory.Expect();
  Bus().Thaw();

  std::vector<int> expected;
  for (std::size_t i = 0; i < kSets; ++i) {
    const std::string answer = cloud.WaitForAnswer(std::to_string(requests[i]));
    if (ParseJson(answer)["result"] == 0) {
      expected.push_back(static_cast<int>(i) + 1);
    } else {
      EXPECT_EQ(R"({"error":"busy"})", answer);
    }
  }
  EXPECT_GT(expected.size(), done);
  EXPECT_EQ(expected, NumbersIn(WaitForEvents(*app, expected.size())));
  memory.Expect();
  EXPECT_EQ(0, host->End(SIGTERM)) << host->Errors();
}

// The plug-in still holds a set that has timed out.
TEST_F(BusFaultsTest, ABusThatDoesNotReadTakesLittleMemoryThoughRequestsTimeOutMeanwhile) {
  constexpr std::size_t kSetsAtATime = 300;
  constexpr std::chrono::milliseconds kTimeOut(500);
  const auto host = StartChannel({{"LUMO_REQUEST_TIMEOUT_MS", std::to_string(kTimeOut.count())}});
  const auto app = NewClient();
  ASSERT_EQ("(0,)", Register(*app, "qz"));
  const MemoryLimit memory(*host);

  Bus().Freeze();
  const auto end = steady_clock::now() + seconds(8);
  while (steady_clock::now() < end) {
    SendLongSets(kSetsAtATime);
    std::this_thread::sleep_for(kTimeOut);  // the next ones come when these have timed out
  }
  memory.Expect();
}

TEST_F(BusFaultsTest, ABusThatIsLostWhileEventsWaitForItIsUsedAgainOnceItIsBack) {
  const auto host = StartChannel();
  auto app = NewClient();
  ASSERT_EQ("(0,)", Register(*app, "qz"));
  Bus().Freeze();
  LetEventsWait();
  app.reset();
  Bus().Kill();
  Bus().Start();
  ASSERT_TRUE(host->WaitForOutput(kReadyLine, 2)) << host->Errors();
  app = NewClient();
  EXPECT_EQ("(0,)", Register(*app, "qz"));
  ASSERT_TRUE(WaitUntil([this] { return cloud.Result("set", R"({"qz": "after"})") == 0; }));
  EXPECT_TRUE(WaitUntil([&app] {
    const std::vector<std::string> events = Received(*app, "send_event");
    return !events.empty() && events.back() == "('qz', 'after')";
  }));
  EXPECT_EQ(0, host->End(SIGTERM)) << host->Errors();
}

// GIO asks the bus to take the name back, and waits 25 seconds for it.
TEST_F(BusFaultsTest, TheHostEndsWhileTheBusIsStoppedAndEventsWaitForIt) {
  const auto host = StartChannel();
  const auto app = NewClient();
  ASSERT_EQ("(0,)", Register(*app, "qz"));
  Bus().Freeze();
  LetEventsWait();
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
