#include <algorithm>
#include <csignal>
#include <fstream>
#include <thread>

#include "ChannelTest.h"

namespace {

using Lines = std::vector<std::string>;

constexpr std::size_t kLongValue = 1 << 20;     // bytes
constexpr std::size_t kLongEvent = 100 * 1024;  // bytes

// The host takes no more memory than this on top of what it had, as long as values have at most
// kLongValue. It has several copies of a value at a time.
constexpr std::size_t kMaxMemoryKib = std::size_t{64} * 1024;

class ChannelLoadTest : public ChannelTest {
 protected:
  ChannelLoadTest() {
    EXPECT_EQ("(0,)", Register(*app, "qz"));
    EXPECT_EQ("(0,)", Register(*other, "qmap"));
    m_before = memory("VmRSS:");
  }

  // That the other application and the cloud get their answers.
  void ExpectAnswersToOthers(const std::string& data) {
    EXPECT_EQ("(0,)", SendData(*other, "qmap", data));
    EXPECT_EQ(data, cloud.Request("get", R"(["qmap"])")["properties"]["qmap"].asString());
  }
  void ExpectLittleMemory() { EXPECT_LE(memory("VmHWM:"), m_before + kMaxMemoryKib); }

  const std::unique_ptr<HostProcess> host = StartChannel();
  const std::unique_ptr<BusClient> app = NewClient();
  const std::unique_ptr<BusClient> other = NewClient();

 private:
  std::size_t memory(const std::string& wanted) const {
    std::ifstream status("/proc/" + std::to_string(host->Pid()) + "/status");
    std::string key;
    std::size_t kib = 0;
    while (status >> key) {
      if (key == wanted) status >> kib;
    }
    EXPECT_NE(0U, kib);
    return kib;
  }

  std::size_t m_before = 0;
};

TEST_F(ChannelLoadTest, AppsThatNeverReadTheirSignalsSilenceNobodyAndTakeNoMemoryOfTheHost) {
  constexpr std::size_t kEvents = 2000;
  constexpr std::size_t kEventsBeforeTheSecond = 700;  // so that the two keep different ones
  std::vector<std::unique_ptr<HostProcess>> deaf;
  std::size_t sent = 0;
  const auto send = [this, &sent](const std::string& data) {
    ++sent;
    return cloud.Result("set", R"({"qz": ")" + data + R"("})");
  };
  const auto addDeafOne = [&] {
    deaf.push_back(std::make_unique<HostProcess>(std::vector<std::string>{
        "gdbus", "monitor", "--address", Bus().Address(), "--dest", kBusName}));
    ASSERT_TRUE(deaf.back()->WaitForOutput("is owned by")) << deaf.back()->Errors();
    ASSERT_TRUE(WaitUntil([&] {  // it says so before it listens
      EXPECT_EQ(0, send("heard"));
      return deaf.back()->Output().find("heard") != std::string::npos;
    }));
    deaf.back()->Send(SIGSTOP);
  };
  const std::string event(kLongEvent, 'x');
  for (std::size_t i = 0; i < kEvents; ++i) {
    if (i == 0 || i == kEventsBeforeTheSecond) addDeafOne();
    ASSERT_EQ(0, send(event)) << i;
    if (i % 100 == 0) ExpectAnswersToOthers(std::to_string(i));
  }
  EXPECT_EQ(sent, WaitForEvents(*app, sent).size());
  ExpectLittleMemory();
}

TEST_F(ChannelLoadTest, AnAppThatSendsLongValuesInALoopHoldsUpNobody) {
  constexpr int kValues = 100;
  const std::string value(kLongValue, 'x');
  std::thread load([this, &value] {
    for (int i = 0; i < kValues; ++i) {
      EXPECT_EQ("(0,)", SendData(*app, "qz", value + std::to_string(i)));
    }
  });
  for (int i = 0; i < kValues; ++i) ExpectAnswersToOthers(std::to_string(i));
  load.join();
  EXPECT_TRUE(cloud.WaitFor(kValueOfQz, "\"" + value + std::to_string(kValues - 1) + "\""));
  ExpectLittleMemory();
}

TEST_F(ChannelLoadTest, AnAppThatDoesNotWaitForRepliesTakesLittleMemoryOfTheHost) {
  constexpr int kValues = 200;
  const std::string value(kLongValue, 'x');
  std::thread load([this, &value] {
    for (int i = 0; i < kValues; ++i) {
      app->Send("send_data", g_variant_new("(ss)", "qz", (value + std::to_string(i)).c_str()));
    }
  });
  for (int i = 0; i < kValues / 10; ++i) ExpectAnswersToOthers(std::to_string(i));
  load.join();
  EXPECT_TRUE(cloud.WaitFor(kValueOfQz, "\"" + value + std::to_string(kValues - 1) + "\""));
  ExpectLittleMemory();
}

TEST_F(ChannelLoadTest, RequestsOfManyPropertiesTakeLittleMemoryOfTheHost) {
  constexpr int kRequests = 100;
  const auto setOf = [](int properties) {
    std::string set = "{\"0\":0";
    for (int i = 1; i < properties; ++i) set += ",\"" + std::to_string(i) + "\":0";
    return set + "}";
  };
  const CloudClient::Manner unanswered{1, false, ""};
  for (const std::string& set : {setOf(1000), setOf(20'000)}) {
    for (int i = 0; i < kRequests; ++i) cloud.Publish("set", set, unanswered);
    ExpectAnswersToOthers("after " + std::to_string(set.size()));
  }
  ExpectLittleMemory();
}

TEST_F(ChannelLoadTest, TenThousandSetsAtOnceAreAllAnsweredAndAllOthersToo) {
  constexpr int kSets = 10'000;
  constexpr int kCalls = 100;
  std::vector<int> requests;
  requests.reserve(kSets);
  for (int i = 0; i < kSets; ++i) requests.push_back(cloud.Send("set", R"({"qz": "1"})"));
  for (int i = 0; i < kCalls; ++i) {
    EXPECT_EQ("(0,)", SendData(*other, "qmap", std::to_string(i)));
  }
  ExpectAnswersToOthers("between");
  std::size_t done = 0;
  for (const int request : requests) {
    const std::string answer = cloud.WaitForAnswer(std::to_string(request));
    if (ParseJson(answer)["result"] == 0) {
      ++done;
    } else {
      ASSERT_EQ(R"({"error":"busy"})", answer);
    }
  }
  EXPECT_NE(0U, done);
  EXPECT_EQ(done, WaitForEvents(*app, done).size());
  ExpectLittleMemory();
}

// Each answer carries what the application sent before: more in a second than the broker takes.
TEST_F(ChannelLoadTest, SetsWhoseAnswersAreLongAreAllAnswered) {
  constexpr int kSets = 1000;
  EXPECT_EQ("(0,)", SendData(*app, "qz", std::string(std::size_t{1024} * 1024, 'x')));
  std::vector<int> requests;
  requests.reserve(kSets);
  for (int i = 0; i < kSets; ++i) requests.push_back(cloud.Send("set", R"({"qz": "1"})"));
  std::size_t done = 0;
  for (const int request : requests) {
    const std::string answer = cloud.WaitForAnswer(std::to_string(request));
    if (answer.rfind(R"({"result":0,)", 0) == 0) {
      ++done;
    } else {
      const std::vector<std::string> refusals = {
          R"({"error":"busy"})", R"({"error":"too many answers wait for the broker"})"};
      ASSERT_NE(refusals.end(), std::find(refusals.begin(), refusals.end(), answer))
          << answer.substr(0, 100);
    }
  }
  EXPECT_NE(0U, done);
  ExpectLittleMemory();
}

}  // namespace
