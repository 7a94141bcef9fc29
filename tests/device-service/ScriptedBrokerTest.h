#ifndef TESTS_PLATFORM_LUMO_SCRIPTEDBROKERTEST_H
#define TESTS_PLATFORM_LUMO_SCRIPTEDBROKERTEST_H

#include <gmock/gmock.h>

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <future>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "MqttTest.h"
#include "ScriptedBroker.h"

// A test of a service whose broker answers what the test tells it to. What is waited for and does
// not come ends the test with an exception.
class ScriptedBrokerTest : public MqttTest<ScriptedBroker> {
 protected:
  using Reason = std::uint8_t;
  using Packet = ScriptedBroker::Packet;
  using Publication = ScriptedBroker::Publication;
  using Clock = ScriptedBroker::Clock;

  static constexpr const char* kStatus = "things/tv/status";
  static constexpr const char* kDescription = "things/tv/service/properties";
  static constexpr const char* kGet = "things/tv/service/get";
  static constexpr const char* kSet = "things/tv/service/set";
  static constexpr const char* kCancel = "things/tv/service/cancel";
  static constexpr const char* kAllValues = "things/tv/service/value/+";
  static constexpr const char* kAnswers = "answers/here";
  static constexpr const char* kOnline = "\"online\"";

  // What answers as the test wants may use what goes with the test's body.
  void TearDown() override {
    m_broker.AnswerAsUsual();
    end();
  }

  static std::string valueTopic(const std::string& property) {
    return "things/tv/service/value/" + property;
  }

  void startOnline() {
    m_plugIn.emplace();
    serveUntilOnline();
  }
  // With the property "a".
  void startWithValue(const std::string& value = "1") {
    m_plugIn.emplace();
    m_plugIn->Register("a");
    m_plugIn->Notify("a", value);
  }
  void startOnlineWithValue() {
    startWithValue();
    serveUntilOnline();
  }
  // Destroys the service while the broker serves.
  void end() {
    if (!m_plugIn) return;
    const auto ended = std::async(std::launch::async, [this] { m_plugIn->Destroy(); });
    serveUntil(
        [&] { return ended.wait_for(std::chrono::seconds(0)) == std::future_status::ready; });
  }

  void serveUntil(const std::function<bool()>& condition, int line = __builtin_LINE()) {
    if (m_broker.ServeUntil(condition)) return;
    throw std::runtime_error("what line " + std::to_string(line) +
                             " waits for does not come; log: " + log());
  }
  // The plug-in believes in the connection, and the broker that the thing is online.
  bool isOnline() const {
    const std::vector<std::string> statuses = m_plugIn->Statuses();
    return !statuses.empty() && statuses.back() == "mqtt=1" &&
           !m_broker.Connections().back().isOver && m_broker.RetainedAt(kStatus) == kOnline;
  }
  void serveUntilOnline(int line = __builtin_LINE()) {
    serveUntil([this] { return isOnline(); }, line);
  }
  // Another connection than the first ones has been accepted and is in use.
  void serveUntilOnlineAgain(std::size_t connectionsBefore = 1, int line = __builtin_LINE()) {
    serveUntil([&] { return m_broker.Connections().size() > connectionsBefore && isOnline(); },
               line);
  }
  void serveUntilRetained(const std::string& topic, const std::string& payload,
                          int line = __builtin_LINE()) {
    serveUntil([&] { return m_broker.RetainedAt(topic) == payload; }, line);
  }
  // Of the property "a", or of another one; none when empty.
  void serveUntilValue(const std::string& value, const std::string& property = "a",
                       int line = __builtin_LINE()) {
    serveUntilRetained(valueTopic(property), value.empty() ? "" : '"' + value + '"', line);
  }

  // A set of a new number; returns its Correlation Data.
  std::string deliverSet() {
    const std::string number = std::to_string(++m_lastSet);
    deliverRequest(kSet, "{\"n\":" + number + "}", number);
    return number;
  }
  void deliverRequest(const std::string& topic, const std::string& payload,
                      const std::string& correlation) {
    m_broker.Deliver(topic, payload, broker::AnswerProperties(kAnswers, correlation));
  }
  static std::string answerToSet(const std::string& number) {
    return R"({"result":0,"properties":{"n":")" + number + "\"}}";
  }
  void serveUntilAnswered(const std::string& correlation, int line = __builtin_LINE()) {
    serveUntil([&] { return !m_broker.AnswersTo(correlation).empty(); }, line);
  }
  // The set has been handled once and answered once.
  void expectHandled(const std::string& number, int line = __builtin_LINE()) {
    serveUntilAnswered(number, line);
    EXPECT_THAT(m_broker.AnswersTo(number), ::testing::ElementsAre(answerToSet(number)));
    const std::vector<std::string> sets = propertiesOfSets();
    EXPECT_EQ(std::count(sets.begin(), sets.end(), "n=" + number + ":1"), 1) << "set " << number;
  }
  void expectSetWorks(int line = __builtin_LINE()) { expectHandled(deliverSet(), line); }
  // And that there have been so many connections.
  void expectSetWorksOn(std::size_t connections, int line = __builtin_LINE()) {
    expectSetWorks(line);
    EXPECT_EQ(m_broker.Connections().size(), connections);
  }
  // The first of each set.
  std::vector<std::string> propertiesOfSets() const {
    std::vector<std::string> properties;
    for (const PlugIn::Call& call : m_plugIn->Calls("set")) {
      properties.push_back(call.properties.front());
    }
    return properties;
  }

  // How many lines of the log since the test began contain all of these, in whatever case.
  std::size_t countLines(const std::vector<std::string>& parts, int lowestPriority = 0) {
    for (CapturedLog::Line& line : CapturedLog::Get().Take()) m_lines.push_back(std::move(line));
    return static_cast<std::size_t>(
        std::count_if(m_lines.begin(), m_lines.end(), [&](const CapturedLog::Line& line) {
          return line.priority >= lowestPriority &&
                 std::all_of(parts.begin(), parts.end(), [&](const std::string& part) {
                   return lowerCase(line.message).find(lowerCase(part)) != std::string::npos;
                 });
        }));
  }
  std::size_t countErrors(const std::vector<std::string>& parts) {
    constexpr int kErrorPriority = 6;
    return countLines(parts, kErrorPriority);
  }
  // For messages.
  std::string log() {
    countLines({});
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

template <typename Parameter>
class ScriptedBrokerTestWith : public ScriptedBrokerTest,
                               public ::testing::WithParamInterface<Parameter> {};

// What a broker sends.
struct Bytes {
  std::string name;
  std::string bytes;
  // When it is wrong: the DISCONNECT that it deserves, and one that is as good.
  std::uint8_t reason = 0x81;
  std::uint8_t otherReason = 0x82;

  // For googletest: the bytes of a pointer are no name.
  friend void PrintTo(const Bytes& bytes, std::ostream* stream) { *stream << bytes.name; }
};

inline std::string BytesName(const ::testing::TestParamInfo<Bytes>& info) {
  return info.param.name;
}

inline std::string ReasonName(std::uint8_t reason) {
  constexpr const char* kDigits = "0123456789ABCDEF";
  return {'0', 'x', kDigits[reason >> 4], kDigits[reason & 15]};
}

#endif  // TESTS_PLATFORM_LUMO_SCRIPTEDBROKERTEST_H
