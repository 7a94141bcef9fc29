// The channel under loads, as it ships.
#include <thread>

#include "ChannelTest.h"
#include "DeafListener.h"
#include "MemoryLimit.h"

namespace {

constexpr std::size_t kLongValue = 1 << 20;     // bytes
constexpr std::size_t kLongEvent = 100 * 1024;  // bytes

class ChannelLoadTest : public ChannelTest {
 protected:
  void SetUp() override {
    // No request times out while it waits, however slow the machine is.
    StartWithApp({{"LUMO_REQUEST_TIMEOUT_MS", "60000"}});
    other = NewClient();
    EXPECT_EQ("(0,)", Register(*other, "qmap"));
    memory = std::make_unique<MemoryLimit>(Host());
  }

  // That the other application and the cloud get their answers.
  void ExpectAnswersToOthers(const std::string& data) {
    EXPECT_EQ("(0,)", SendData(*other, "qmap", data));
    EXPECT_EQ(data, cloud.Request("get", R"(["qmap"])")["properties"]["qmap"].asString());
  }
  std::vector<int> SendSets(int count, const std::string& set) {
    std::vector<int> requests;
    for (int i = 0; i < count; ++i) requests.push_back(cloud.Send("set", set));
    return requests;
  }
  // Replies with thing information will be as long as this.
  void MakeInformationLong() {
    EXPECT_EQ(0, cloud.Result("set", R"({"signupInfo": {"id": ")" + longInfo + R"("}})"));
  }

  const std::string longInfo = std::string(std::size_t{200} * 1024, 'x');
  std::unique_ptr<BusClient> other;
  std::unique_ptr<MemoryLimit> memory;
};

// Listeners that never read their signals.
class DeafListenersTest : public ChannelLoadTest {
 protected:
  // Up to this the bus keeps what a listener does not read (max_outgoing_bytes of the policy): so
  // many events.
  static constexpr std::size_t kEventsKept = (std::size_t{32} * 1024 * 1024) / kLongEvent + 2;

  void AddDeafOne() { deaf.push_back(std::make_unique<DeafListener>(Bus().Address())); }

  // As many deaf listeners, each with other events, as it takes for the bus to read no more from
  // the host: it does so when it keeps 127 MiB of it (max_incoming_bytes).
  void MakeTheBusReadNoMore() {
    constexpr std::size_t kDeafOnes = 4;
    for (std::size_t i = 0; i < kDeafOnes; ++i) {
      AddDeafOne();
      const std::size_t events = i + 1 < kDeafOnes ? kEventsKept : kEventsKept - 10;
      for (std::size_t j = 0; j < events; ++j) {
        ASSERT_EQ(0, cloud.Result("set", set)) << i << " " << j;
        ++sent;
        // Whoever reads is not to fall behind so far that the bus drops what it should get.
        if (j % 50 == 0) {
          ASSERT_EQ(sent, WaitForEvents(*app, sent).size());
        }
      }
    }
  }

  const std::string set = SetOfQz(std::string(kLongEvent, 'x'));
  std::vector<std::unique_ptr<DeafListener>> deaf;
  std::size_t sent = 0;
};

TEST_F(DeafListenersTest, SilenceNobodyAndTakeNoMemoryOfTheHost) {
  constexpr std::size_t kEvents = 2000;
  constexpr std::size_t kEventsBeforeTheSecond = 700;  // so that the two keep different ones
  for (std::size_t i = 0; i < kEvents; ++i) {
    if (i == 0 || i == kEventsBeforeTheSecond) AddDeafOne();
    ASSERT_EQ(0, cloud.Result("set", set)) << i;
    ++sent;
    if (i % 100 == 0) ExpectAnswersToOthers(std::to_string(i));
  }
  EXPECT_EQ(sent, WaitForEvents(*app, sent).size());
  memory->Expect();
}

TEST_F(DeafListenersTest, FourOfThemHoldTheEventsUpAndTakeLittleMemoryOfTheHost) {
  constexpr int kSets = 2000;  // 200 MB
  MakeTheBusReadNoMore();
  const std::vector<int> requests = SendSets(kSets, set);
  EXPECT_EQ(R"({"error":"busy"})", cloud.WaitForAnswer(std::to_string(requests.back())));
  memory->Expect();

  deaf.clear();
  sent += WaitForSuccesses(requests).size();
  EXPECT_EQ(sent, WaitForEvents(*app, sent).size());
  ExpectAnswersToOthers("afterwards");
  memory->Expect();
}

// The bus still brings calls when it reads no more.
TEST_F(DeafListenersTest, RepliesThatTheBusDoesNotReadTakeLittleMemoryOfTheHost) {
  constexpr int kCallers = 20;
  constexpr int kCallsOfEach = 100;
  MakeInformationLong();
  MakeTheBusReadNoMore();
  SendSets(200, set);
  std::vector<std::unique_ptr<BusClient>> callers;
  for (int i = 0; i < kCallers; ++i) {
    callers.push_back(NewClient());
    for (int j = 0; j < kCallsOfEach; ++j) callers.back()->Send("get_thing_information");
  }
  // The last of the calls, which is not answered in time.
  EXPECT_NE(
      "(0,)",
      app->Call("register_app", g_variant_new("(s)", "qz"), std::chrono::seconds(1)).get().value);
  memory->Expect();

  deaf.clear();
  EXPECT_TRUE(WaitUntil([this] { return SendData(*app, "qz", "afterwards") == "(0,)"; }));
  EXPECT_LT(longInfo.size(), ThingInformation(*app).size());
  memory->Expect();
}

// Many times what may wait at a time.
TEST_F(ChannelLoadTest, LongRepliesToAppsThatReadThemAllArrive) {
  constexpr int kCallers = 4;
  constexpr int kCallsOfEach = 50;
  MakeInformationLong();
  std::vector<std::thread> callers;
  for (int i = 0; i < kCallers; ++i) {
    callers.emplace_back([this] {
      const auto caller = NewClient();
      for (int j = 0; j < kCallsOfEach; ++j) {
        EXPECT_LT(longInfo.size(), ThingInformation(*caller).size());
      }
    });
  }
  for (std::thread& caller : callers) caller.join();
  memory->Expect();
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
  EXPECT_TRUE(WaitForValueOfQz(value + std::to_string(kValues - 1)));
  memory->Expect();
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
  EXPECT_TRUE(WaitForValueOfQz(value + std::to_string(kValues - 1)));
  memory->Expect();
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
  memory->Expect();
}

TEST_F(ChannelLoadTest, TenThousandSetsInARowAreAllAnsweredAndAllOthersToo) {
  constexpr int kSets = 10'000;
  constexpr int kCalls = 100;
  const std::vector<int> requests = SendSets(kSets, SetOfQz(1));
  for (int i = 0; i < kCalls; ++i) {
    EXPECT_EQ("(0,)", SendData(*other, "qmap", std::to_string(i)));
  }
  // A get may be refused as busy until then.
  EXPECT_NE("", cloud.WaitForAnswer(std::to_string(requests.back())));
  ExpectAnswersToOthers("afterwards");
  const std::size_t done = WaitForSuccesses(requests).size();
  EXPECT_NE(0U, done);
  EXPECT_EQ(done, WaitForEvents(*app, done).size());
  memory->Expect();
}

// Each answer carries what the application sent before: more in a second than the broker takes.
TEST_F(ChannelLoadTest, SetsWhoseAnswersAreLongAreAllAnswered) {
  EXPECT_EQ("(0,)", SendData(*app, "qz", std::string(kLongValue, 'x')));
  const Lines refusals = {R"({"error":"busy"})",
                          R"({"error":"too many answers wait for the broker"})"};
  EXPECT_NE(0U, WaitForSuccesses(SendSets(1000, SetOfQz(1)), refusals).size());
  memory->Expect();
}

}  // namespace
