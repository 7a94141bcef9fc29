// Ends at the worst moment.
#include <chrono>
#include <csignal>
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
  // The files of the settings store.
  std::vector<std::string> Files() {
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(Folder().Path())) {
      if (entry.path().string().find("/vconf/") != std::string::npos && entry.is_regular_file()) {
        files.push_back(entry.path().filename().string());
      }
    }
    return files;
  }
};

TEST_P(EndDuringStartTest, AtEveryMillisecondLeavesNothing) {
  const auto probe = NewClient();
  HostProcess::Environment variables = ChannelVariables();
  variables["VCONF_DIR"] = Folder().Path() / "vconf";
  int untouched = 0;
  for (int ms = GetParam(); ms < kMilliseconds; ms += kQuarters * kEvery) {
    SCOPED_TRACE(std::to_string(ms) + " ms");
    const auto start = steady_clock::now();
    HostProcess host({ADC_HOST_FILE, ADC_PLUGIN_FILE}, variables);
    std::this_thread::sleep_until(start + milliseconds(ms));
    const int status = host.End(SIGTERM);
    // Before the host handles signals it has done nothing yet.
    const bool early = status == -SIGTERM;
    untouched += early ? 1 : 0;
    EXPECT_TRUE(early || status == 0) << status << "\n" << host.Errors();
    EXPECT_TRUE(!early || host.Errors().empty()) << host.Errors();
    EXPECT_EQ("", probe->OwnerOf(kBusName));
    for (const std::string& file : Files()) EXPECT_EQ("thing_status", file);
    const CommandResult setting = RunCommand({ADC_VCONF_FILE, "get", kStatusKey}, variables);
    EXPECT_TRUE(setting.status == 1 || setting.output == "0\n") << setting.output;
    const std::vector<std::string> statuses = cloud.Received("status");
    EXPECT_TRUE(statuses.empty() || cloud.WaitFor("status", kOffline));
    ASSERT_FALSE(HasFailure());
  }
  RecordProperty("EndedBeforeItsHandlers", untouched);
  // And the next one starts as if there had been none.
  const auto host = StartChannel();
  EXPECT_EQ("(0,)", Register(*probe, "qz"));
  EXPECT_EQ(0, host->End(SIGTERM)) << host->Errors();
}

INSTANTIATE_TEST_SUITE_P(Quarters, EndDuringStartTest, ::testing::Range(0, kQuarters));

class EndFaultsTest : public ChannelTest {};

// How often the host has said that it had nobody to send an event to.
std::size_t countUnsent(const std::string& log) {
  std::size_t count = 0;
  std::istringstream lines(log);
  for (std::string line; std::getline(lines, line);) {
    const bool isOfAnEvent = line.find("SendSetRequest") != std::string::npos;
    if (isOfAnEvent && line.find("not initialized") != std::string::npos) ++count;
  }
  return count;
}

// Every set is answered exactly once and becomes an event at most once. One that succeeds is an
// event, unless it came when the bus's side had stopped and the cloud's had not: then the log says
// so.
TEST_F(EndFaultsTest, AStormOfRequestsWhileTheHostEndsLosesNothingUnheard) {
  constexpr int kLives = 3;
  constexpr int kSets = 400;
  const auto app = NewClient();
  std::vector<int> requests;
  std::size_t unsent = 0;
  for (int life = 1; life <= kLives; ++life) {
    const auto host = StartChannel();
    ASSERT_EQ("(0,)", Register(*app, "qz"));
    const std::size_t before = Received(*app, "send_event").size();
    for (int i = 0; i < kSets; ++i) {
      requests.push_back(
          cloud.Send("set", R"({"qz": ")" + std::to_string(requests.size()) + R"("})"));
    }
    ASSERT_TRUE(WaitUntil([&] { return Received(*app, "send_event").size() > before + 20; }));
    const auto start = steady_clock::now();
    EXPECT_EQ(0, host->End(SIGTERM)) << host->Errors();
    EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(20));
    unsent += countUnsent(host->Errors());
  }
  ASSERT_TRUE(cloud.WaitUntilSent());
  // The last life takes what the broker has kept.
  const auto host = StartChannel();
  const auto isAnswered = [this](int request) { return !cloud.AnswersTo(request).empty(); };
  for (const int request : requests) {
    EXPECT_TRUE(WaitUntil([&] { return isAnswered(request); })) << request;
  }
  EXPECT_EQ(0, host->End(SIGTERM)) << host->Errors();
  unsent += countUnsent(host->Errors());

  const std::vector<std::string> events = Received(*app, "send_event");
  const std::set<std::string> eventsOnce(events.begin(), events.end());
  EXPECT_EQ(eventsOnce.size(), events.size());
  std::vector<std::size_t> succeededUnheard;
  for (std::size_t i = 0; i < requests.size(); ++i) {
    const std::vector<std::string> answers = cloud.AnswersTo(requests[i]);
    EXPECT_EQ(1U, answers.size()) << i;
    const bool succeeded = !answers.empty() && ParseJson(answers[0])["result"] == 0;
    const bool isEvent = eventsOnce.count("('qz', '" + std::to_string(i) + "')") != 0;
    if (succeeded && !isEvent) succeededUnheard.push_back(i);
  }
  EXPECT_LE(succeededUnheard.size(), unsent) << ::testing::PrintToString(succeededUnheard);
  RecordProperty("Sets", static_cast<int>(requests.size()));
  RecordProperty("Events", static_cast<int>(events.size()));
}

}  // namespace
