// A message bus that stops without an end.
#include <chrono>
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

  // Sets of qz whose values begin with their request's number.
  std::vector<int> SendLongSets(std::size_t count) {
    std::vector<int> requests;
    for (std::size_t i = 0; i < count; ++i) {
      const std::string data = std::to_string(++m_lastSet) + " " + std::string(kLongEvent, 'x');
      requests.push_back(cloud.Send("set", SetOfQz(data)));
    }
    return requests;
  }
  // The numbers of the sets whose events the application has received.
  static std::vector<int> NumbersIn(const Lines& events) {
    std::vector<int> numbers;
    for (const std::string& event : events) numbers.push_back(std::stoi(event.substr(8)));
    return numbers;
  }
  // How many of the requests have succeeded so far.
  std::size_t CountDone(const std::vector<int>& requests) {
    std::size_t done = 0;
    for (const int request : requests) {
      for (const std::string& answer : cloud.AnswersTo(request)) {
        if (ParseJson(answer)["result"] == 0) ++done;
      }
    }
    return done;
  }
  // Stops the bus and returns when sets wait because of events that the bus does not read.
  void LetEventsWait() {
    Bus().Freeze();
    const std::vector<int> requests = SendLongSets(kUnreadEvents + 20);
    EXPECT_TRUE(WaitUntil([&] { return CountDone(requests) >= kUnreadEvents - 2; }));
    EXPECT_LE(CountDone(requests), kUnreadEvents + 2);
  }

 private:
  int m_lastSet = 0;
};

TEST_F(BusFaultsTest, ABusThatStopsForFiveSecondsLosesNoCallNoEventAndNoRequest) {
  constexpr int kCount = 20;
  StartWithApp();
  ASSERT_EQ("(0,)", SendData(*app, "qz", "before"));

  Bus().Freeze();
  const auto end = steady_clock::now() + kStop;
  std::vector<std::future<Reply>> calls;
  Lines expected;
  for (int i = 0; i < kCount; ++i) {
    calls.push_back(app->Call("send_data", g_variant_new("(ss)", "qz", "meanwhile")));
    // The cloud is answered as if nothing were.
    EXPECT_EQ(0, cloud.Result("set", SetOfQz(i)));
    expected.push_back(EventOfQz(i));
  }
  EXPECT_EQ("before", GetOfQz());
  EXPECT_LT(steady_clock::now(), end);
  std::this_thread::sleep_until(end);
  for (std::future<Reply>& call : calls) {
    EXPECT_EQ(std::future_status::timeout, call.wait_for(seconds(0)));
  }
  Bus().Thaw();

  for (std::future<Reply>& call : calls) EXPECT_EQ("(0,)", call.get().value);
  EXPECT_EQ(expected, WaitForEvents(*app, expected.size()));
  EXPECT_TRUE(WaitForValueOfQz("meanwhile"));
  EXPECT_EQ(0, Host().End(SIGTERM));
  EXPECT_EQ(kReadyLine, Host().Output());
}

TEST_F(BusFaultsTest, ABusThatDoesNotReadTakesLittleMemoryAndNoEventThatWasAnsweredIsLost) {
  constexpr std::size_t kSets = kIsSanitized ? 600 : 2000;  // 160 MB
  StartWithApp({{"LUMO_REQUEST_TIMEOUT_MS", "60000"}});
  const MemoryLimit memory(Host());

  Bus().Freeze();
  const std::vector<int> requests = SendLongSets(kSets);
  // The last one is refused, as those before it wait.
  EXPECT_EQ(R"({"error":"busy"})", cloud.WaitForAnswer(std::to_string(requests.back())));
  const std::size_t done = CountDone(requests);
  EXPECT_LE(done, kUnreadEvents + 2);
  EXPECT_GE(done, kUnreadEvents - 2);
  memory.Expect();
  Bus().Thaw();

  std::vector<int> expected;
  for (const std::size_t i : WaitForSuccesses(requests)) {
    expected.push_back(static_cast<int>(i) + 1);
  }
  EXPECT_GT(expected.size(), done);
  EXPECT_EQ(expected, NumbersIn(WaitForEvents(*app, expected.size())));
  memory.Expect();
}

// The plug-in still holds a set that has timed out.
TEST_F(BusFaultsTest, ABusThatDoesNotReadTakesLittleMemoryThoughRequestsTimeOutMeanwhile) {
  constexpr std::size_t kSetsAtATime = 300;
  constexpr std::chrono::milliseconds kTimeOut(500);
  StartWithApp({{"LUMO_REQUEST_TIMEOUT_MS", std::to_string(kTimeOut.count())}});
  const MemoryLimit memory(Host());

  Bus().Freeze();
  const auto end = steady_clock::now() + seconds(8);
  while (steady_clock::now() < end) {
    SendLongSets(kSetsAtATime);
    std::this_thread::sleep_for(kTimeOut);  // the next ones come when these have timed out
  }
  memory.Expect();
  Bus().Thaw();
}

TEST_F(BusFaultsTest, ABusThatIsLostWhileEventsWaitForItIsUsedAgainOnceItIsBack) {
  StartWithApp();
  LetEventsWait();
  app.reset();
  Bus().Kill();
  BringBusBack();
  app = NewClient();
  EXPECT_EQ("(0,)", Register(*app, "qz"));
  ASSERT_TRUE(WaitUntil([this] { return cloud.Result("set", SetOfQz("after")) == 0; }));
  EXPECT_TRUE(WaitUntil([this] {
    const Lines events = Received(*app);
    return !events.empty() && events.back() == EventOfQz("after");
  }));
}

// GIO asks the bus to take the name back, and waits 25 seconds for it.
TEST_F(BusFaultsTest, TheHostEndsWhileTheBusIsStoppedAndEventsWaitForIt) {
  StartWithApp();
  LetEventsWait();
  const auto start = steady_clock::now();
  EXPECT_EQ(0, Host().End(SIGTERM));
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
  channel.Launch();
  // The cloud's side is there, and the setting says that the applications' is not.
  ASSERT_TRUE(cloud.WaitFor("status", kOnline));
  ASSERT_TRUE(WaitUntil([&] { return other->QueuedOwnersOf(kBusName).size() == 2; }));
  EXPECT_EQ("0\n", Setting(kStatusKey));
  EXPECT_EQ("", Host().Output());

  other->Close();
  ASSERT_TRUE(Host().WaitForOutput(kReadyLine));
  app = NewClient();
  const std::string owner = app->OwnerOf(kBusName);
  EXPECT_EQ(kInQueue, app->RequestName(kBusName, kReplace));
  EXPECT_EQ(owner, app->OwnerOf(kBusName));
  EXPECT_EQ("(0,)", Register(*app, "qz"));
}

}  // namespace
