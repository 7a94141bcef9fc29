#ifndef TESTS_PLATFORM_LUMO_MQTTTEST_H
#define TESTS_PLATFORM_LUMO_MQTTTEST_H

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "CapturedLog.h"
#include "PlugIn.h"

// A test of services that connect to a broker as the thing "tv".
template <typename Broker>
class MqttTest : public ::testing::Test {
 protected:
  template <typename... Arguments>
  explicit MqttTest(const Arguments&... arguments) : m_broker(arguments...) {
    CapturedLog::Get().Take();
  }

  // The error lines of the log since the test began, or since the last call.
  static std::string takeErrors() {
    std::string errors;
    for (const CapturedLog::Line& line : CapturedLog::Get().Take()) {
      if (line.priority == 6) errors += line.message;
    }
    return errors;
  }

  Broker m_broker;
  const Variable m_url{"LUMO_BROKER", "mqtt://127.0.0.1:" + std::to_string(m_broker.Port())};
  const Variable m_thing{"LUMO_THING_ID", "tv"};
  std::optional<PlugIn> m_plugIn;
};

#endif  // TESTS_PLATFORM_LUMO_MQTTTEST_H
