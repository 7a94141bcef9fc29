// Ends at the worst moment.
#include <chrono>
#include <filesystem>
#include <set>
#include <thread>

#include "ChannelTest.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr int kMilliseconds = 201;  // 0 to 200
constexpr int kQuarters = 4;
#ifdef __SANITIZE_THREAD__
constexpr int kEvery = 4;  // a start takes a second, and four run at a time
#else
constexpr int kEvery = 1;
#endif

class EndDuringStartTest : public ChannelTest, public ::testing::WithParamInterface<int> {
 protected:
  void ExpectNothingLeft() {
    const auto probe = NewClient();
    EXPECT_EQ("", probe->OwnerOf(kBusName));
    const std::string folder = channel.Variables().at("VCONF_DIR");
    std::error_code none;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder, none)) {
      if (entry.is_regular_file()) {
        EXPECT_EQ("thing_status", entry.path().filename());
      }
    }
    const CommandResult setting =
        RunCommand({ADC_VCONF_FILE, "get", kStatusKey}, channel.Variables());
    EXPECT_TRUE(setting.status == 1 || setting.output == "0\n") << setting.output;
    EXPECT_TRUE(cloud.Received("status").empty() || cloud.WaitFor("status", kOffline));
  }
};

TEST_P(EndDuringStartTest, AtEveryMillisecondLeavesNothing) {
  int untouched = 0;
  for (int ms = GetParam(); ms < kMilliseconds; ms += kQuarters * kEvery) {
    SCOPED_TRACE(std::to_string(ms) + " ms");
    const auto start = steady_clock::now();
    channel.Launch();
    std::this_thread::sleep_until(start + milliseconds(ms));
    const int status = Host().End(SIGTERM);
    // Before the host handles signals it has done nothing yet.
    const bool early = status == -SIGTERM;
    untouched += early ? 1 : 0;
    EXPECT_TRUE(early || status == 0) << status << "\n";
    EXPECT_TRUE(!early || Host().Errors().empty());
    ExpectNothingLeft();
    ASSERT_FALSE(HasFailure());
  }
  RecordProperty("EndedBeforeItsHandlers", untouched);
  // And the next one starts as if there had been none.
  StartWithApp();
}

INSTANTIATE_TEST_SUITE_P(Quarters, EndDuringStartTest, ::testing::Range(0, kQuarters));

class EndFaultsTest : public ChannelTest {};

// Every set is answered exactly once and becomes an event at most once. One that succeeds is an
// event, unless it came when the bus's side had stopped and the cloud's had not: then the log says
// so.
TEST_F(EndFaultsTest, AStormOfRequestsWhileTheHostEndsLosesNothingUnheard) {
  constexpr int kLives = 3;
  constexpr int kSets = 400;
  app = NewClient();
  std::vector<int> requests;
  std::size_t unsent = 0;
  for (int life = 1; life <= kLives; ++life) {
    StartChannel();
    ASSERT_EQ("(0,)", Register(*app, "qz"));
    const std::size_t before = Received(*app).size();
    for (int i = 0; i < kSets; ++i) {
      requests.push_back(cloud.Send("set", SetOfQz(static_cast<int>(requests.size()))));
    }
    ASSERT_TRUE(WaitUntil([&] { return Received(*app).size() > before + 20; }));
    const auto start = steady_clock::now();
    EXPECT_EQ(0, Host().End(SIGTERM));
    EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(20));
    unsent += CountUnsent(Host().Errors());
  }
  ASSERT_TRUE(cloud.WaitUntilSent());
  // The last life takes what the broker has kept.
  StartChannel();
  for (const int request : requests) EXPECT_TRUE(WaitForAnswerTo(request)) << request;
  EXPECT_EQ(0, Host().End(SIGTERM));
  unsent += CountUnsent(Host().Errors());

  const Lines events = Received(*app);
  const std::set<std::string> eventsOnce(events.begin(), events.end());
  EXPECT_EQ(eventsOnce.size(), events.size());
  std::vector<int> succeededUnheard;
  for (int i = 0; i < static_cast<int>(requests.size()); ++i) {
    const Lines answers = cloud.AnswersTo(requests[static_cast<std::size_t>(i)]);
    EXPECT_EQ(1U, answers.size()) << i;
    const bool succeeded = !answers.empty() && ParseJson(answers[0])["result"] == 0;
    if (succeeded && eventsOnce.count(EventOfQz(i)) == 0) succeededUnheard.push_back(i);
  }
  EXPECT_LE(succeededUnheard.size(), unsent) << ::testing::PrintToString(succeededUnheard);
  RecordProperty("Sets", static_cast<int>(requests.size()));
  RecordProperty("Events", static_cast<int>(events.size()));
}

}  // namespace
