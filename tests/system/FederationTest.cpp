// Televisions at edges and the cloud at a hub, joined by the shipped files, while the link fails
// and while a television moves. The rest of the channel over a bridge: ctest -R
// channel-over-bridge.
#include <chrono>
#include <cstdlib>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "ChannelTest.h"
#include "Federation.h"
#include "TcpProxy.h"
#include "Watched.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr const char* kSetTopic = "things/tv/appdatachannel/set";

// Two brokers with a network between them.
struct Link {
  Broker hub;
  Broker edge;
  TcpProxy up{hub.Port()};
  TcpProxy down{edge.Port()};
  Federation federation{hub, {{&edge, "edge-1", up.Port(), down.Port()}}};
};

std::vector<std::string> withoutRepeats(const std::vector<std::string>& all) {
  std::vector<std::string> once;
  for (const std::string& one : all) {
    if (std::find(once.begin(), once.end(), one) == once.end()) once.push_back(one);
  }
  return once;
}

// A television at the edge: a client with a session that lasts.
class Television {
 public:
  explicit Television(int port)
      : m_peer(port, options(), [this](const MqttPeer::Message& message) {
          m_sets.Change([&](auto& sets) { sets.emplace_back(message.payload); });
        }) {}
  bool WaitForSets(std::size_t count) {
    return m_sets.WaitFor(
        [count](const auto& sets) { return withoutRepeats(sets).size() >= count; });
  }
  std::vector<std::string> Sets() { return m_sets.Get(); }
  void Answer(const std::string& correlation) {
    m_peer.Publish({"answers/cloud", "done", 1, false, {}, correlation});
  }

 private:
  static MqttPeer::Options options() {
    MqttPeer::Options options;
    options.id = "tv:appdatachannel";
    options.filters = {kSetTopic};
    options.wantsRetained = false;
    return options;
  }
  Watched<std::vector<std::string>> m_sets;
  MqttPeer m_peer;
};

// --- The link is cut

using Cut = std::tuple<TcpProxy::Direction, std::size_t>;
class FederationCutTest : public ::testing::TestWithParam<Cut> {};

// In the set on its way down, and in its acknowledgement.
TEST_P(FederationCutTest, LosesNoSetAtWhicheverByteOfTheWayDown) {
  const auto& [direction, bytes] = GetParam();
  Link link;
  Television television(link.edge.Port());
  MqttPeer cloud(link.hub.Port(), {});
  std::vector<std::string> sent;
  link.down.CutAfter(direction, bytes);
  for (int i = 0; i < 3; ++i) {
    sent.push_back(std::to_string(i));
    cloud.Publish({kSetTopic, sent.back()});
    ASSERT_TRUE(cloud.WaitUntilPublished());
    ASSERT_TRUE(television.WaitForSets(sent.size())) << link.hub.Log();
  }
  EXPECT_EQ(1U, link.down.Cuts());
  EXPECT_EQ(sent, withoutRepeats(television.Sets()));
  // Only what was cut may come twice.
  EXPECT_LE(television.Sets().size(), sent.size() + 1);
}

std::string nameOfCut(const ::testing::TestParamInfo<Cut>& cut) {
  const bool isDown = std::get<0>(cut.param) == TcpProxy::kToServer;
  return std::string(isDown ? "Down" : "Back") + std::to_string(std::get<1>(cut.param));
}

INSTANTIATE_TEST_SUITE_P(Bytes, FederationCutTest,
                         ::testing::Values(Cut(TcpProxy::kToServer, 1),
                                           Cut(TcpProxy::kToServer, 20),
                                           Cut(TcpProxy::kToClient, 1), Cut(TcpProxy::kToClient, 4),
                                           Cut(TcpProxy::kToClient, 8)),
                         nameOfCut);

// How long the link is away: ADC_CUT_SECONDS, by default a few.
seconds cutTime() {
  const char* const text = std::getenv("ADC_CUT_SECONDS");
  return seconds(text == nullptr ? 3 : std::atoi(text));
}

TEST(FederationTest, AnEdgeWhoseLinksAreCutForAWhileLosesNoSetAndNoAnswer) {
  constexpr std::size_t kSets = 3000;
  Link link;
  Television television(link.edge.Port());
  Watched<std::vector<std::string>> answers;
  MqttPeer::Options options;
  options.filters = {"answers/cloud"};
  MqttPeer cloud(link.hub.Port(), options, [&](const MqttPeer::Message& message) {
    answers.Change([&](auto& all) { all.push_back(message.correlation); });
  });
  std::vector<std::string> sent;
  const auto send = [&](std::size_t count) {
    while (sent.size() < count) {
      sent.push_back(std::to_string(sent.size()));
      cloud.Publish({kSetTopic, sent.back()});
      television.Answer(sent.back());
    }
    ASSERT_TRUE(cloud.WaitUntilPublished());
  };
  // Some are on their way when it happens.
  send(kSets / 10);
  for (TcpProxy* proxy : {&link.up, &link.down}) {
    proxy->Close();
    proxy->Cut();
  }
  const auto end = std::chrono::steady_clock::now() + cutTime();
  send(kSets);
  std::this_thread::sleep_until(end);
  EXPECT_LT(television.Sets().size(), kSets);
  const Federation::Marks cut = link.federation.Mark();
  link.up.Open();
  link.down.Open();
  link.federation.WaitUntilJoined(cut);
  EXPECT_TRUE(television.WaitForSets(kSets));
  EXPECT_EQ(sent, withoutRepeats(television.Sets()));
  EXPECT_TRUE(answers.WaitFor([](const auto& all) { return withoutRepeats(all).size() >= kSets; }));
  ::testing::Test::RecordProperty("SetsTwice", static_cast<int>(television.Sets().size() - kSets));
}

// A bridge sends what is published while it connects ahead of what has waited.
TEST(FederationTest, AfterACutTheHubHasTheLastStatusHealthAndPropertiesAndNoValueThatWasRemoved) {
  const std::string value = "things/tv/appdatachannel/value/qz";
  const std::vector<std::string> state = {"things/tv/status", "things/tv/health",
                                          "things/tv/appdatachannel/properties"};
  Link link;
  Watched<std::map<std::string, std::string>> last;  // of each topic, at the hub
  MqttPeer::Options options;
  options.filters = {"things/#", "answers/#"};
  const MqttPeer cloud(link.hub.Port(), options, [&](const MqttPeer::Message& message) {
    last.Change([&](auto& all) { all[std::string(message.topic)] = message.payload; });
  });
  MqttPeer television(link.edge.Port(), {});
  const auto say = [&](const std::string& text) {
    for (const std::string& topic : state) television.Publish({topic, text, 1, true});
    ASSERT_TRUE(television.WaitUntilPublished());
  };
  const auto hears = [&](const std::string& topic, const std::string& text) {
    return last.WaitFor([&](const auto& all) {
      const auto found = all.find(topic);
      return found != all.end() && found->second == text;
    });
  };
  television.Publish({value, "1", 1, true});
  say("before");
  ASSERT_TRUE(hears(state.back(), "before"));
  const Federation::Marks cut = link.federation.Mark();
  link.up.Close();
  link.up.Cut();
  ASSERT_TRUE(link.edge.WaitForLog("Client bridge-up closed its connection", cut.edges[0]));
  television.Publish({value, "", 1, true});
  say("meanwhile");

  link.up.Stall(true);
  const std::size_t opened = link.federation.Mark().edges[0];
  link.up.Open();
  ASSERT_TRUE(link.edge.WaitForLog("(step 2) up", opened));
  say("after");
  link.up.Stall(false);
  for (const std::string& topic : state) EXPECT_TRUE(hears(topic, "after")) << topic;
  EXPECT_TRUE(hears(value, ""));
  television.Publish({"answers/cloud", "all is here", 1});
  ASSERT_TRUE(hears("answers/cloud", "all is here"));

  last.Change([](auto& all) { all.clear(); });
  const MqttPeer late(link.hub.Port(), options, [&](const MqttPeer::Message& message) {
    if (!message.retained) return;
    last.Change([&](auto& all) { all[std::string(message.topic)] = message.payload; });
  });
  for (const std::string& topic : state) EXPECT_TRUE(hears(topic, "after")) << topic;
  EXPECT_EQ(state.size(), last.Get().size());
}

// --- A television moves

class FederationMoveTest : public ChannelTest {
 protected:
  HostProcess::Environment At(const Broker& edge) const {
    return {{"LUMO_BROKER", edge.Address()}};
  }
  // What the guide has: the session and what is retained of the television at the edge.
  static void Clear(const Broker& edge) {
    for (const char* topic :
         {"status", "health", "appdatachannel/properties", "appdatachannel/value/qz"}) {
      RunToEnd({"mosquitto_pub", "-p", std::to_string(edge.Port()), "-V", "5", "-i",
                "tv:appdatachannel", "-q", "1", "-r", "-n", "-t",
                std::string("things/tv/") + topic});
    }
  }
  Broker hub;
  Broker first;
  Broker second;
  Federation federation{hub, {{&first, "edge-1"}, {&second, "edge-2"}}};
  CloudClient atHub{hub.Port(), kThing};
};

TEST_F(FederationMoveTest, ATelevisionThatMovesToAnotherEdgeKeepsItsIdentity) {
  channel.Start(atHub, At(first));
  app = NewClient();
  EXPECT_EQ("(0,)", Register(*app, "qz"));
  EXPECT_EQ(0, atHub.Result("set", SetOfQz(1)));
  EXPECT_EQ("(0,)", SendData(*app, "qz", "before"));
  EXPECT_TRUE(atHub.WaitFor(kValueOfQz, "\"before\""));
  EXPECT_EQ(0, Host().End(SIGTERM));
  EXPECT_TRUE(atHub.WaitFor("status", kOffline));
  Clear(first);
  EXPECT_TRUE(atHub.WaitFor(kValueOfQz, ""));

  channel.Start(atHub, At(second));
  EXPECT_EQ("(0,)", Register(*app, "qz"));
  EXPECT_EQ(0, atHub.Result("set", SetOfQz(2)));
  EXPECT_EQ("(0,)", SendData(*app, "qz", "after"));
  EXPECT_TRUE(atHub.WaitFor(kValueOfQz, "\"after\""));
  EXPECT_EQ((Lines{EventOfQz(1), EventOfQz(2)}), WaitForEvents(*app, 2));
  EXPECT_EQ(0, Host().End(SIGTERM));
  EXPECT_TRUE(atHub.WaitFor("status", kOffline));

  // Nothing of the time away waits at the first edge.
  channel.Start(atHub, At(first));
  EXPECT_EQ("(0,)", Register(*app, "qz"));
  EXPECT_EQ(0, atHub.Result("set", SetOfQz(3)));
  EXPECT_EQ((Lines{EventOfQz(1), EventOfQz(2), EventOfQz(3)}), WaitForEvents(*app, 3));
}

// Why the guide clears the session.
TEST_F(FederationMoveTest, WhatIsNotClearedAtTheOldEdgeIsCarriedOutAgainWhenTheTelevisionReturns) {
  channel.Start(atHub, At(first));
  EXPECT_EQ(0, Host().End(SIGTERM));
  channel.Start(atHub, At(second));
  app = NewClient();
  EXPECT_EQ("(false,)", CloudConnection(*app));
  EXPECT_EQ(0, atHub.Result("set", R"({"signinStatus": true})"));
  EXPECT_EQ("(true,)", CloudConnection(*app));
  EXPECT_EQ(0, Host().End(SIGTERM));
  channel.Start(atHub, At(first));
  EXPECT_TRUE(WaitUntil([this] { return CloudConnection(*app) == "(true,)"; }));
}

}  // namespace
