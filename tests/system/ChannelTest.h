#ifndef TESTS_SYSTEM_CHANNELTEST_H
#define TESTS_SYSTEM_CHANNELTEST_H

#include <algorithm>
#include <memory>
#include <string>
#include <utility>

#include "HostTest.h"

// The whole channel: the host on its bus, a broker, and the cloud at the broker, or at another one
// that is joined to it: ChannelBroker has which.
class ChannelTest : public HostTest {
 protected:
  static constexpr const char* kThing = Channel::kThing;
  static constexpr const char* kValueOfQz = "appdatachannel/value/qz";

  const TemporaryFolder& Folder() const { return channel.Folder(); }

  // Starts the host and waits until applications and the cloud can use the channel.
  HostProcess& StartChannel(const HostProcess::Environment& changes = {}) {
    return channel.Start(cloud, changes);
  }
  // The same, and registers an application.
  HostProcess& StartWithApp(const HostProcess::Environment& changes = {}) {
    StartChannel(changes);
    app = NewClient();
    EXPECT_EQ("(0,)", Register(*app, "qz"));
    return Host();
  }

  // Starts the broker again with a second listener, which has these lines of configuration.
  void Guard(const std::string& lines) {
    cloud.Leave();
    broker.Guard(lines);
    cloud.ComeBack();
  }
  // The lines that let only "me" with this password in.
  std::string OnlyMe(const std::string& password) const {
    const std::string file = Folder().Path() / "passwords";
    RunToEnd({"mosquitto_passwd", "-c", "-b", file, "me", password});
    return "allow_anonymous false\npassword_file " + file + "\n";
  }

  static std::string SetOfQz(const std::string& text) { return R"({"qz": ")" + text + R"("})"; }
  static std::string SetOfQz(int number) { return SetOfQz(std::to_string(number)); }
  static std::string EventOfQz(const std::string& text) { return "('qz', '" + text + "')"; }
  static std::string EventOfQz(int number) { return EventOfQz(std::to_string(number)); }
  std::string GetOfQz() { return cloud.Request("get", R"(["qz"])")["properties"]["qz"].asString(); }
  bool WaitForValueOfQz(const std::string& text) {
    return cloud.WaitFor(kValueOfQz, '"' + text + '"');
  }
  bool WaitForAnswerTo(int request) {
    return WaitUntil([&] { return !cloud.AnswersTo(request).empty(); });
  }
  // Waits for all answers. Which requests succeeded; any other was refused, in these words.
  std::vector<std::size_t> WaitForSuccesses(const std::vector<int>& requests,
                                            const Lines& refusals = {R"({"error":"busy"})"}) {
    std::vector<std::size_t> successes;
    for (std::size_t i = 0; i < requests.size(); ++i) {
      const std::string answer = cloud.WaitForAnswer(std::to_string(requests[i]));
      if (answer.rfind(R"({"result":0,)", 0) == 0) {
        successes.push_back(i);
      } else {
        EXPECT_EQ(1, std::count(refusals.begin(), refusals.end(), answer)) << answer.substr(0, 100);
      }
    }
    return successes;
  }
  // What a broker may repeat when it has been stopped: nothing; over a bridge, what it was sent at
  // QoS 1. Each event once, by its first time.
  static Lines WithoutAllowedRepeats(const Lines& events) {
    if (ChannelBroker::KindOfTests() != ChannelBroker::Kind::Bridge) return events;
    Lines once;
    for (const std::string& event : events) {
      if (std::find(once.begin(), once.end(), event) == once.end()) once.push_back(event);
    }
    return once;
  }
  // Waits until that many have come, without those that may be repeated. A bridge that connects may
  // send a request ahead of those that have waited: events of numbers are put in order then.
  Lines WaitForEventsWithoutRepeats(std::size_t count) {
    EXPECT_TRUE(WaitUntil([&] { return WithoutAllowedRepeats(Received(*app)).size() >= count; }));
    Lines events = WithoutAllowedRepeats(Received(*app));
    if (ChannelBroker::KindOfTests() == ChannelBroker::Kind::Bridge) {
      std::sort(events.begin(), events.end(), [](const std::string& one, const std::string& other) {
        return std::make_pair(one.size(), one) < std::make_pair(other.size(), other);
      });
    }
    return events;
  }
  // Data of a new application goes up and comes down.
  void ExpectWorkingChannel(const std::string& data) {
    const auto user = NewClient();
    EXPECT_EQ("(0,)", Register(*user, "qz"));
    EXPECT_EQ("(0,)", SendData(*user, "qz", data));
    EXPECT_TRUE(WaitForValueOfQz(data));
    EXPECT_EQ(0, cloud.Result("set", SetOfQz(data)));
    EXPECT_TRUE(Lines{EventOfQz(data)} == WaitForEvents(*user, 1));
  }

  ChannelBroker& broker = channel.Broker();
  CloudClient cloud{broker.CloudPort(), kThing, broker.Login()};
  std::unique_ptr<BusClient> app;  // null until StartWithApp
};

#endif  // TESTS_SYSTEM_CHANNELTEST_H
