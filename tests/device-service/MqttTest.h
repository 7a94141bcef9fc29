#ifndef TESTS_PLATFORM_LUMO_MQTTTEST_H
#define TESTS_PLATFORM_LUMO_MQTTTEST_H

#include <gtest/gtest.h>

#include <string>

#include "CapturedLog.h"
#include "PlugIn.h"

// A test of services that are connected to a broker on this port as the thing "tv".
class MqttTest : public ::testing::Test {
 protected:
  explicit MqttTest(int port, const std::string& scheme = "mqtt")
      : m_url("LUMO_BROKER", scheme + "://127.0.0.1:" + std::to_string(port)),
        m_thing("LUMO_THING_ID", "tv") {
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

  const Variable m_url;
  const Variable m_thing;
};

#endif  // TESTS_PLATFORM_LUMO_MQTTTEST_H
