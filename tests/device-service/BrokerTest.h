#ifndef TESTS_PLATFORM_LUMO_BROKERTEST_H
#define TESTS_PLATFORM_LUMO_BROKERTEST_H

#include <algorithm>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "Broker.h"
#include "MqttPeer.h"
#include "MqttTest.h"
#include "Watched.h"

// A test with a real broker, and the cloud: a client of it that sees everything below things/ and
// answers/. It comes back to a broker that was away, with its session.
class BrokerTest : public MqttTest<Broker> {
 protected:
  struct Message {
    std::string topic;
    std::string payload;
    std::string correlation;
  };
  using Strings = std::vector<std::string>;

  static constexpr const char* kStatus = "things/tv/status";
  static constexpr const char* kDescription = "things/tv/service/properties";
  static constexpr const char* kGet = "things/tv/service/get";
  static constexpr const char* kSet = "things/tv/service/set";
  static constexpr const char* kCancel = "things/tv/service/cancel";

  BrokerTest() : MqttTest("allow_anonymous true\nlog_type all\n") {}

  static std::string valueTopic(const std::string& property) {
    return "things/tv/service/value/" + property;
  }

  // A service that is connected.
  PlugIn& start() {
    m_plugIn.emplace();
    if (!m_plugIn->WaitForStatus("mqtt=1")) throw std::runtime_error("no connection");
    return *m_plugIn;
  }

  // Publishes a request; returns its Correlation Data, by which the answers can be found.
  std::string send(const std::string& topic, const std::string& payload) {
    const std::string correlation = std::to_string(++m_lastRequest);
    m_cloud.Publish({topic, payload, 2, false, "answers/numbered", correlation});
    return correlation;
  }
  // And waits for the answer; empty when none comes.
  std::string request(const std::string& topic, const std::string& payload) {
    const std::string correlation = send(topic, payload);
    m_messages.WaitFor([&](const auto& all) { return !answersIn(all, correlation).empty(); });
    const Strings answers = answersTo(correlation);
    return answers.empty() ? std::string() : answers.front();
  }
  Strings answersTo(const std::string& correlation) const {
    return answersIn(m_messages.Get(), correlation);
  }
  void expectAnswer(const std::string& correlation, const std::string& answer) {
    EXPECT_TRUE(m_messages.WaitFor([&](const auto& all) {
      const Strings answers = answersIn(all, correlation);
      return std::find(answers.begin(), answers.end(), answer) != answers.end();
    })) << answer;
  }
  Strings payloadsOn(const std::string& topic) const { return payloadsIn(m_messages.Get(), topic); }
  // Waits until the last payload on the topic is this one.
  void expectLast(const std::string& topic, const std::string& payload) {
    EXPECT_TRUE(m_messages.WaitFor([&](const auto& all) {
      const Strings payloads = payloadsIn(all, topic);
      return !payloads.empty() && payloads.back() == payload;
    })) << topic
        << " " << payload;
  }
  // Of the property at the broker, as JSON.
  void expectValue(const std::string& property, const std::string& value) {
    expectLast(valueTopic(property), value);
  }
  // Waits until everything that the broker got before this call has come.
  void catchUp() {
    const std::string mark = std::to_string(++m_lastRequest);
    m_cloud.Publish({"answers/mark", mark});
    expectLast("answers/mark", mark);
  }
  // What is retained at the broker, seen by a new client: topic -> payload.
  std::map<std::string, std::string> retained(const std::string& filter = "things/#") const {
    std::map<std::string, std::string> found;
    Watched<bool> isAll;
    MqttPeer::Options options;
    options.filters = {filter, "mark"};
    MqttPeer client(m_broker.Port(), options, [&](const MqttPeer::Message& message) {
      if (message.retained) found[std::string(message.topic)] = message.payload;
      if (message.topic == "mark") isAll.Change([](bool& value) { value = true; });
    });
    client.Publish({"mark", ""});
    EXPECT_TRUE(isAll.WaitFor([](bool value) { return value; }));
    return found;
  }

 private:
  static Strings payloadsIn(const std::vector<Message>& messages, const std::string& topic) {
    Strings payloads;
    for (const Message& message : messages) {
      if (message.topic == topic) payloads.push_back(message.payload);
    }
    return payloads;
  }
  static Strings answersIn(const std::vector<Message>& messages, const std::string& correlation) {
    Strings answers;
    for (const Message& message : messages) {
      const bool isAnswer = message.topic.rfind("answers/", 0) == 0;
      if (isAnswer && message.correlation == correlation) answers.push_back(message.payload);
    }
    return answers;
  }
  static MqttPeer::Options optionsOfCloud() {
    MqttPeer::Options options;
    options.id = "cloud";
    options.filters = {"things/#", "answers/#"};
    return options;
  }

  int m_lastRequest = 0;

 protected:
  Watched<std::vector<Message>> m_messages;
  MqttPeer m_cloud{
      m_broker.Port(), optionsOfCloud(), [this](const MqttPeer::Message& message) {
        Message copy{std::string(message.topic), std::string(message.payload), message.correlation};
        m_messages.Change([&](auto& all) { all.push_back(std::move(copy)); });
      }};
};

#endif  // TESTS_PLATFORM_LUMO_BROKERTEST_H
