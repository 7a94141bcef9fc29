#include "Log.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "PlatformTest.h"

namespace ThingCommon {
namespace {

using LogTest = PlatformTest;

const std::string kFile = "LogTest.cpp";

TEST_F(LogTest, NumbersItsPrioritiesAndTagsAsThePlatformKnowsThem) {
  EXPECT_EQ(LOG_PRIORITY_DEBUG, 3);
  EXPECT_EQ(LOG_PRIORITY_INFO, 4);
  EXPECT_EQ(LOG_PRIORITY_ERROR, 6);
  EXPECT_STREQ(LOG_TAG_COMMON, "THING_COMMON");
  EXPECT_STREQ(LOG_TAG_PLUGIN, "TVCONTROL_A");
}

TEST_F(LogTest, TakesTheBaseNameOfAPath) {
  EXPECT_STREQ(BaseName("/one/two/three.cpp"), "three.cpp");
  EXPECT_STREQ(BaseName("one/three.cpp"), "three.cpp");
  EXPECT_STREQ(BaseName("three.cpp"), "three.cpp");
  EXPECT_STREQ(BaseName("one/"), "");
  EXPECT_STREQ(BaseName(""), "");
}

TEST_F(LogTest, StartsALineWithItsPlaceAndHandsTheFormatOnAsItStands) {
  const std::string large(1 << 20, 'x');
  const int line = __LINE__ + 1;
  LOG_LINE(LOG_PRIORITY_DEBUG, LOG_TAG_PLUGIN, "[%s] code %d\n", "name", -20);
  LOG_E(LOG_TAG_COMMON, "[%s] no line feed at 100%%", "a");
  LOG_I(LOG_TAG_COMMON, "plain\n");
  LOG_I(LOG_TAG_COMMON, "[%s] %s\n", "%s%n%d", large.c_str());

  EXPECT_TRUE(LoggedExactly({
      {3, "TVCONTROL_A", kFile, "TestBody", "[name] code -20\n", line, "[%s] code %d\n"},
      {6, "THING_COMMON", kFile, "TestBody", "[a] no line feed at 100%", line + 1,
       "[%s] no line feed at 100%%"},
      {4, "THING_COMMON", kFile, "TestBody", "plain\n", line + 2, "plain\n"},
      {4, "THING_COMMON", kFile, "TestBody", "[%s%n%d] " + large + "\n", line + 3, "[%s] %s\n"},
  }));
  EXPECT_EQ(platform.Logs()[0].text,
            "LogTest.cpp : TestBody(" + std::to_string(line) + ")  [name] code -20\n");
}

TEST_F(LogTest, FramesAScopeWithTheSameLineTwiceAlsoWhenAnExceptionLeavesIt) {
  // On behalf of an operation, as an inner function logs for it.
  const auto scope = [](bool throws) {
    const LogScope framed(LOG_TAG_PLUGIN, LOG_SITE_AT("operation", 4711));
    LOG_LINE_AT(LOG_PRIORITY_ERROR, LOG_TAG_PLUGIN, LOG_SITE_AT("operation", 4712), "inside\n");
    if (throws) throw std::runtime_error("away");
  };
  for (const bool throws : {false, true}) {
    platform.ClearTrace();
    try {
      scope(throws);
    } catch (const std::runtime_error&) {
      LOG_E(LOG_TAG_PLUGIN, "caught\n");
    }
    std::vector<ExpectedLog> lines = {
        {4, "TVCONTROL_A", kFile, "operation", "> Entered\n", 4711},
        {6, "TVCONTROL_A", kFile, "operation", "inside\n", 4712, "inside\n"},
        {4, "TVCONTROL_A", kFile, "operation", "> Left\n", 4711}};
    if (throws) lines.push_back({6, "TVCONTROL_A", kFile, "TestBody", "caught\n"});
    EXPECT_TRUE(LoggedExactly(lines));
    EXPECT_EQ(platform.Logs()[0].format, "%s : %s(%d) > Entered\n");
    EXPECT_EQ(platform.Logs()[2].format, "%s : %s(%d) > Left\n");
  }
}

TEST_F(LogTest, TakesThePlaceThatItIsWrittenIn) {
  const int line = __LINE__ + 1;
  { const LogScope scope(LOG_TAG_COMMON, LOG_SITE()); }
  EXPECT_TRUE(LoggedExactly({{4, "THING_COMMON", kFile, "TestBody", "> Entered\n", line},
                             {4, "THING_COMMON", kFile, "TestBody", "> Left\n", line}}));
}

}  // namespace
}  // namespace ThingCommon
