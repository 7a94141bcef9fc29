#ifndef TESTS_DEVICE_SERVICE_MQTTSESSIONTEST_H
#define TESTS_DEVICE_SERVICE_MQTTSESSIONTEST_H

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "MqttPackets.h"
#include "mqtt/Session.h"

// A session between a broker and a user that the test plays, step by step.
class MqttSessionTest : public testing::Test, public Lumo::Mqtt::Session::Listener {
 protected:
  using Session = Lumo::Mqtt::Session;
  using Taken = Session::Taken;

  MqttSessionTest();

  // Plays the steps of a script, which semicolons separate; see MqttSessionTest.cpp.
  void play(const std::string& script);

  // A session that knows of nothing.
  void restart();
  void begin();
  // A connection that the broker accepts; what the session wrote until then is not kept. What it
  // told before, the test must have taken.
  void connect(const broker::Acceptance& acceptance = {});
  void publish(Session::Token token, const std::string& payload, bool retain = false);
  void give(const std::string& bytes) { m_session->TakeBytes(bytes, m_now); }
  void give(const broker::Message& message) { give(broker::Publish(message)); }
  static broker::Message messageOf(std::uint8_t qos, std::uint16_t id, const std::string& payload);

  // What the session writes, all of it or so many bytes: the packets that they complete.
  std::vector<broker::ClientPacket> written(std::size_t count = SIZE_MAX);
  broker::ClientPacket writtenPacket();  // the only one
  std::string why() { return m_session->GetEnd() ? m_session->GetEnd()->why : std::string(); }

  Session::Settings m_settings;
  std::unique_ptr<Session> m_session;
  Session::Clock::time_point m_now = Session::Clock::time_point() + std::chrono::hours(24);
  // What becomes of messages, and what is done with them instead.
  Taken m_answer = Taken::Now;
  std::function<Taken(const Lumo::Mqtt::Publish&)> m_onMessage;
  std::vector<std::string> m_log;  // of what the session told
  std::vector<std::string> m_payloads;
  std::vector<Session::Arrival> m_arrivals;  // of the messages that were taken

 private:
  void OnAccepted(bool sessionPresent) override;
  Taken OnMessage(const Lumo::Mqtt::Publish& message, Session::Arrival arrival) override;
  void OnPublished(Session::Token token, std::uint8_t reason, const std::string& text) override;
  void OnForgotten(Session::Token token) override;
  void OnSubscribed(Session::Token token, std::uint8_t reason) override;
  void OnUnsubscribed(Session::Token token) override;

  void playStep(const std::string& verb, const std::vector<std::string>& words);
  void givePacket(const std::vector<std::string>& words);

  broker::ClientReader m_reader;
};

// A script with the rule that it shows.
struct SessionScript {
  const char* rule;
  const char* script;

  friend void PrintTo(const SessionScript& script, std::ostream* out) { *out << script.rule; }
};

class MqttSessionScriptTest : public MqttSessionTest,
                              public testing::WithParamInterface<SessionScript> {};

inline std::string RuleOf(const testing::TestParamInfo<SessionScript>& info) {
  return info.param.rule;
}

#endif  // TESTS_DEVICE_SERVICE_MQTTSESSIONTEST_H
