#include <algorithm>
#include <csignal>
#include <optional>
#include <thread>

#include "ChannelTest.h"
#include "MemoryLimit.h"

namespace {

using Lines = std::vector<std::string>;

constexpr std::size_t kLongValue = 1 << 20;     // bytes
constexpr std::size_t kLongEvent = 100 * 1024;  // bytes

class ChannelLoadTest : public ChannelTest {
 protected:
  ChannelLoadTest() {
    EXPECT_EQ("(0,)", Register(*app, "qz"));
    EXPECT_EQ("(0,)", Register(*other, "qmap"));
    m_memory.emplace(*host);
  }

  // That the other application and the cloud get their answers.
  void ExpectAnswersToOthers(const std::string& data) {
    EXPECT_EQ("(0,)", SendData(*other, "qmap", data));
    EXPECT_EQ(data, cloud.Request("get", R"(["qmap"])")["properties"]["qmap"].asString());
  }
  void ExpectLittleMemory() { m_memory->Expect(); }

  // No request times out while it waits, however slow the machine is.
  const std::unique_ptr<HostProcess> host = StartChannel({{"LUMO_REQUEST_TIMEOUT_MS", "60000"}});
  const std::unique_ptr<BusClient> app = NewClient();
  const std::unique_ptr<BusClient> other = NewClient();

 private:
  std::optional<MemoryLimit> m_memory;  // from the end of the constructor on
};

// Listeners that never read their signals.
class DeafListenersTest : public ChannelLoadTest {
 protected:
  // Up to this the bus keeps what a listener does not read (max_outgoing_bytes of the policy): so
  // many events.
  static constexpr std::size_t kEventsKept = (std::size_t{32} * 1024 * 1024) / kLongEvent + 2;

  std::optional<int> Send(const std::string& data) { return cloud.Result("set", setOf(data)); }
  static std::string setOf(const std::string& data) { return R"({"qz": ")" + data + R"("})"; }

  void AddDeafOne() {
    deaf.push_back(std::make_unique<HostProcess>(std::vector<std::string>{
        "gdbus", "monitor", "--address", Bus().Address(), "--dest", kBusName}));
    ASSERT_TRUE(deaf.back()->WaitForOutput("is owned by")) << deaf.back()->Errors();
    ASSERT_TRUE(WaitUntil([&] {  // it says so before it listens
      EXPECT_EQ(0, Send("heard"));
      ++sent;
      return deaf.back()->Output().find("heard") != std::string::npos;
    }));
    deaf.back()->Send(SIGSTOP);
  }

  // As many deaf listeners, each with other events, as it takes for the bus to read no more from
  // the host: it does so when it keeps 127 MiB of it (max_incoming_bytes).
  void MakeTheBusReadNoMore() {
    constexpr std::size_t kDeafOnes = 4;
    for (std::size_t i = 0; i < kDeafOnes; ++i) {
      AddDeafOne();
      const std::size_t events = i + 1 < kDeafOnes ? kEventsKept : kEventsKept - 10;
      for (std::size_t j = 0; j < events; ++j) {
        ASSERT_EQ(0, Send(event)) << i << " " << j;
        ++sent;
        // Whoever reads is not to fall behind so far that the bus drops what it should get.
        if (j % 50 == 0) {
          ASSERT_EQ(sent, WaitForEvents(*app, sent).size());
        }
      }
    }
  }

  const std::string event = std::string(kLongEvent, 'x');
  std::vector<std::unique_ptr<HostProcess>> deaf;
  std::size_t sent = 0;
};

TEST_F(DeafListenersTest, SilenceNobodyAndTakeNoMemoryOfTheHost) {
  constexpr std::size_t kEvents = 2000;
  constexpr std::size_t kEventsBeforeTheSecond = 700;  // so that the two keep different ones
  for (std::size_t i = 0; i < kEvents; ++i) {
    if (i == 0 || i == kEventsBeforeTheSecond) AddDeafOne();
    ASSERT_EQ(0, Send(event)) << i;
    ++sent;
    if (i % 100 == 0) ExpectAnswersToOthers(std::to_string(i));
  }
  EXPECT_EQ(sent, WaitForEvents(*app, sent).size());
  ExpectLittleMemory();
}

TEST_F(DeafListenersTest, FourOfThemHoldTheEventsUpAndTakeLittleMemoryOfTheHost) {
  constexpr int kSets = 2000;  // 200 MB
  const std::string set = setOf(event);
  MakeTheBusReadNoMore();
  std::vector<int> requests;
  for (int i = 0; i < kSets; ++i) requests.push_back(cloud.Send("set", set));
  EXPECT_EQ(R"({"error":"busy"})", cloud.WaitForAnswer(std::to_string(requests.back())));
  ExpectLittleMemory();

  deaf.clear();
  for (const int request : requests) {
    const std::string answer = cloud.WaitForAnswer(std::to_string(request));
    if (ParseJson(answer)["result"] == 0) {
      ++sent;
    } else {
      ASSERT_EQ(R"({"error":"busy"})", answer);
    }
  }
  EXPECT_EQ(sent, WaitForEvents(*app, sent).size());
  ExpectAnswersToOthers("afterwards");
  ExpectLittleMemory();
}

// The bus still brings calls when it reads no more.
TEST_F(DeafListenersTest, RepliesThatTheBusDoesNotReadTakeLittleMemoryOfTheHost) {
  constexpr int kCallers = 20;
  constexpr int kCallsOfEach = 100;
  const std::string info(std::size_t{200} * 1024, 'x');
  EXPECT_EQ(0, cloud.Result("set", R"({"signupInfo": {"id": ")" + info + R"("}})"));
  MakeTheBusReadNoMore();
  for (int i = 0; i < 200; ++i) cloud.Send("set", setOf(event));
  std::vector<std::unique_ptr<BusClient>> callers;
  for (int i = 0; i < kCallers; ++i) {
    callers.push_back(NewClient());
    for (int j = 0; j < kCallsOfEach; ++j) callers.back()->Send("get_thing_information");
  }
  // The last of the calls, which is not answered in time.
  EXPECT_NE(
      "(0,)",
      app->Call("register_app", g_variant_new("(s)", "qz"), std::chrono::seconds(1)).get().value);
  ExpectLittleMemory();

  deaf.clear();
  EXPECT_TRUE(WaitUntil([this] { return SendData(*app, "qz", "afterwards") == "(0,)"; }));
  const Reply reply = app->Call("get_thing_information").get();
  EXPECT_LT(info.size(), reply.value.size()) << reply.error;
  ExpectLittleMemory();
}

// Many times what may wait at a time.
TEST_F(ChannelLoadTest, LongRepliesToAppsThatReadThemAllArrive) {
  constexpr int kCallers = 4;
  constexpr int kCallsOfEach = 50;
  const std::string info(std::size_t{200} * 1024, 'x');
  EXPECT_EQ(0, cloud.Result("set", R"({"signupInfo": {"id": ")" + info + R"("}})"));
  std::vector<std::thread> callers;
  for (int i = 0; i < kCallers; ++i) {
    callers.emplace_back([&info] {
      const auto caller = NewClient();
      for (int j = 0; j < kCallsOfEach; ++j) {
        const Reply reply = caller->Call("get_thing_information").get();
        EXPECT_LT(info.size(), reply.value.size()) << reply.error;
      }
    });
  }
  for (std::thread& caller : callers) caller.join();
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
  // The bus refuses calls, also those of others, while it keeps more than 32 MiB for the host.
  constexpr int kValuesAtATime = 16;
  const std::string value(kLongValue, 'x');
  std::thread load([this, &value] {
    for (int i = 0; i < kValues; ++i) {
      const std::string data = value + std::to_string(i);
      if (i % kValuesAtATime == 0) {
        EXPECT_EQ("(0,)", SendData(*app, "qz", data));
      } else {
        app->Send("send_data", g_variant_new("(ss)", "qz", data.c_str()));
      }
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

TEST_F(ChannelLoadTest, TenThousandSetsInARowAreAllAnsweredAndAllOthersToo) {
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
