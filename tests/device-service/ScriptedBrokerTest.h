#ifndef TESTS_PLATFORM_LUMO_SCRIPTEDBROKERTEST_H
#define TESTS_PLATFORM_LUMO_SCRIPTEDBROKERTEST_H

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstddef>
#include <string>
#include <thread>
#include <vector>

#include "MqttBytes.h"
#include "MqttTest.h"
#include "ScriptedBroker.h"

namespace Detail {

struct ScriptedBrokerHolder {
  ScriptedBroker m_broker;
};

}  // namespace Detail

// A test of a service whose broker answers what the test tells it to.
class ScriptedBrokerTest : protected Detail::ScriptedBrokerHolder, public MqttTest {
 protected:
  static constexpr const char* kStatus = "things/tv/status";
  static constexpr const char* kDescription = "things/tv/service/properties";
  static constexpr const char* kGet = "things/tv/service/get";
  static constexpr const char* kSet = "things/tv/service/set";
  static constexpr const char* kCancel = "things/tv/service/cancel";
  static constexpr const char* kAllValues = "things/tv/service/value/+";
  static constexpr const char* kAnswers = "answers/here";
  static constexpr const char* kOnline = "\"online\"";

  ScriptedBrokerTest() : MqttTest(m_broker.Port()) {}

  static std::string valueTopic(const std::string& property) {
    return "things/tv/service/value/" + property;
  }

  // The plug-in believes in the connection, and the broker that the thing is online.
  bool isOnline(const PlugIn& plugIn) const {
    const std::vector<std::string> statuses = plugIn.Statuses();
    return !statuses.empty() && statuses.back() == "mqtt=1" &&
           m_broker.RetainedAt(kStatus) == kOnline;
  }
  bool serveUntilOnline(const PlugIn& plugIn) {
    return m_broker.ServeUntil([&] { return isOnline(plugIn); });
  }
  // The next connection has been accepted and is in use.
  bool serveUntilOnlineAgain(const PlugIn& plugIn) {
    const std::size_t before = m_broker.Connections().size();
    return m_broker.ServeUntil([&] {
      return m_broker.Connections().size() > before && !m_broker.Connections().back().isOver &&
             isOnline(plugIn);
    });
  }
  bool serveUntilRetained(const std::string& topic, const std::string& payload) {
    return m_broker.ServeUntil([&] { return m_broker.RetainedAt(topic) == payload; });
  }

  // A set of a new number; returns its Correlation Data.
  std::string deliverSet() {
    const std::string number = std::to_string(++m_lastSet);
    deliverRequest(kSet, "{\"n\":" + number + "}", number);
    return number;
  }
  void deliverRequest(const std::string& topic, const std::string& payload,
                      const std::string& correlation) {
    m_broker.Deliver(topic, payload,
                     MqttBytes::ResponseTopic(kAnswers) + MqttBytes::CorrelationData(correlation));
  }
  static std::string answerToSet(const std::string& number) {
    return R"({"result":0,"properties":{"n":")" + number + "\"}}";
  }
  // The set has been handled once and answered once.
  void expectHandled(const PlugIn& plugIn, const std::string& number) {
    EXPECT_TRUE(m_broker.ServeUntil([&] { return !m_broker.AnswersTo(number).empty(); }));
    EXPECT_THAT(m_broker.AnswersTo(number), ::testing::ElementsAre(answerToSet(number)));
    std::size_t times = 0;
    for (const PlugIn::Call& call : plugIn.Calls("set")) {
      if (call.properties == std::vector<std::string>{"n=" + number + ":1"}) ++times;
    }
    EXPECT_EQ(times, 1U) << "set " << number;
  }
  void expectSetWorks(const PlugIn& plugIn) { expectHandled(plugIn, deliverSet()); }

  // Destroys the service while the broker serves.
  void end(PlugIn& plugIn) {
    std::atomic<bool> ended{false};
    std::thread destroyer([&] {
      plugIn.Destroy();
      ended = true;
    });
    EXPECT_TRUE(m_broker.ServeUntil([&] { return ended.load(); }));
    destroyer.join();
  }

  // How many lines of the log since the test began contain all of these, in whatever case.
  enum class Priority { Any, Error };
  std::size_t countLines(const std::vector<std::string>& parts, Priority priority) {
    constexpr int kErrorPriority = 6;
    for (CapturedLog::Line& line : CapturedLog::Get().Take()) {
      line.message = lowerCase(line.message);
      m_lines.push_back(std::move(line));
    }
    std::size_t count = 0;
    for (const CapturedLog::Line& line : m_lines) {
      if (priority == Priority::Error && line.priority != kErrorPriority) continue;
      const bool hasAll = std::all_of(parts.begin(), parts.end(), [&](const std::string& part) {
        return line.message.find(lowerCase(part)) != std::string::npos;
      });
      if (hasAll) ++count;
    }
    return count;
  }
  std::size_t countErrors(const std::vector<std::string>& parts) {
    return countLines(parts, Priority::Error);
  }
  // For messages.
  std::string log() {
    countLines({}, Priority::Any);
    std::string text;
    for (const CapturedLog::Line& line : m_lines) text += line.message;
    return text;
  }

 private:
  static std::string lowerCase(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
  }

  int m_lastSet = 0;
  std::vector<CapturedLog::Line> m_lines;
};

#endif  // TESTS_PLATFORM_LUMO_SCRIPTEDBROKERTEST_H
