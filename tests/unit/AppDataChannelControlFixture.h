#ifndef TESTS_APPDATACHANNELCONTROLFIXTURE_H
#define TESTS_APPDATACHANNELCONTROLFIXTURE_H

#include <cstddef>
#include <string>
#include <vector>

#include "AppDataChannelControl.h"
#include "JsonValueAdaptor.h"
#include "PlatformTest.h"

using AppDataChannel::AppDataChannelControl;
using fake::Property;
using ThingCommon::JsonValueAdaptor;

using Lines = std::vector<ExpectedLog>;
using Strings = std::vector<std::string>;

constexpr std::size_t kMebibyte = std::size_t{1024} * 1024;

inline ExpectedLog PluginLine(int priority, const std::string& file, const std::string& function,
                              const std::string& message) {
  return {priority, "TVCONTROL_A", file, function, message};
}

inline ExpectedLog Info(const std::string& function, const std::string& message) {
  return PluginLine(4, "AppDataChannelControl.cpp", function, message);
}

inline ExpectedLog Error(const std::string& function, const std::string& message) {
  return PluginLine(6, "AppDataChannelControl.cpp", function, message);
}

// A line of the registry.
inline ExpectedLog RegistryLine(const std::string& function, const std::string& message) {
  return PluginLine(6, "AppDataChannelInfo.cpp", function, message);
}

inline Lines operator+(Lines first, const Lines& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

// The lines of a function between its first and its last.
inline Lines Framed(const std::string& function, const Lines& lines) {
  return Lines{Info(function, "> Entered\n")} + lines + Lines{Info(function, "> Left\n")};
}

// The plug-in has logged these lines, and the wrapper below it whatever it likes.
inline ::testing::AssertionResult Logged(const Lines& lines) {
  return LoggedExactly(lines, "TVCONTROL_A");
}

class AppDataChannelControlFixture : public PlatformTest {
 protected:
  void TearDown() override {
    platform.Drain();
    control.Destroy();
    control.Shutdown();
    PlatformTest::TearDown();
  }

  AppDataChannelControl control;
};

#endif  // TESTS_APPDATACHANNELCONTROLFIXTURE_H
