#include "Log.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "PlatformTest.h"

namespace ThingCommon {
namespace {

using LogTest = PlatformTest;

constexpr const char* kFile = "LogTest.cpp";

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

TEST_F(LogTest, StartsALineWithFileFunctionAndLine) {
  const int line = __LINE__ + 1;
  LOG_LINE(LOG_PRIORITY_ERROR, LOG_TAG_PLUGIN, "[%s] code %d\n", "name", -20);

  ASSERT_EQ(platform.Logs().size(), 1U);
  const fake::LogLine log = platform.Logs()[0];
  EXPECT_TRUE(Matches(
      log, {LOG_PRIORITY_ERROR, "TVCONTROL_A", kFile, "TestBody", "[name] code -20\n", line}));
  EXPECT_EQ(log.text, "LogTest.cpp : TestBody(" + std::to_string(line) + ")  [name] code -20\n");
}

TEST_F(LogTest, WritesTheLinesOfTheShortNamesAtTheirLevels) {
  const int line = __LINE__ + 1;
  LOG_E(LOG_TAG_PLUGIN, "[%s] code %d\n", "name", -20);
  LOG_I(LOG_TAG_COMMON, "plain");

  ASSERT_EQ(platform.Logs().size(), 2U);
  EXPECT_TRUE(Matches(platform.Logs()[0],
                      {6, "TVCONTROL_A", kFile, "TestBody", "[name] code -20\n", line}));
  EXPECT_TRUE(
      Matches(platform.Logs()[1], {4, "THING_COMMON", kFile, "TestBody", "plain", line + 1}));
  EXPECT_EQ(platform.Logs()[1].format, "%s : %s(%d)  plain");
}

TEST_F(LogTest, HandsTheFormatToThePlatformAsItStands) {
  LOG_LINE(LOG_PRIORITY_INFO, LOG_TAG_COMMON, "[%s] no line feed at 100%%", "a");
  LOG_LINE(LOG_PRIORITY_DEBUG, LOG_TAG_COMMON, "plain\n");

  ASSERT_EQ(platform.Logs().size(), 2U);
  EXPECT_EQ(platform.Logs()[0].format, "%s : %s(%d)  [%s] no line feed at 100%%");
  EXPECT_EQ(platform.Logs()[1].format, "%s : %s(%d)  plain\n");
}

TEST_F(LogTest, ShowsPercentSignsOfArgumentsUntouched) {
  LOG_LINE(LOG_PRIORITY_ERROR, LOG_TAG_COMMON, "[%s] %s\n", "%s%n%d", "100%");

  EXPECT_TRUE(
      LoggedOnce({LOG_PRIORITY_ERROR, "THING_COMMON", kFile, "TestBody", "[%s%n%d] 100%\n"}));
}

TEST_F(LogTest, PassesLongArgumentsWhole) {
  const std::string text(1 << 20, 'x');
  LOG_LINE(LOG_PRIORITY_ERROR, LOG_TAG_COMMON, "[%s]\n", text.c_str());

  EXPECT_TRUE(
      LoggedOnce({LOG_PRIORITY_ERROR, "THING_COMMON", kFile, "TestBody", "[" + text + "]\n"}));
}

TEST_F(LogTest, NamesTheOperationThatAnInnerFunctionLogsFor) {
  const auto inner = [] {
    LOG_LINE_AT(LOG_PRIORITY_INFO, LOG_TAG_COMMON, LOG_SITE_AT("operation", 4711), "text\n");
  };
  inner();

  EXPECT_TRUE(LoggedOnce({LOG_PRIORITY_INFO, "THING_COMMON", kFile, "operation", "text\n", 4711}));
}

TEST_F(LogTest, FramesAScopeWithTheSameLineTwice) {
  const int line = __LINE__ + 2;
  {
    const LogScope scope(LOG_TAG_PLUGIN, LOG_SITE());
    LOG_LINE(LOG_PRIORITY_ERROR, LOG_TAG_PLUGIN, "inside\n");
  }

  const auto logs = platform.Logs();
  ASSERT_EQ(logs.size(), 3U);
  EXPECT_TRUE(
      Matches(logs[0], {LOG_PRIORITY_INFO, "TVCONTROL_A", kFile, "TestBody", "> Entered\n", line}));
  EXPECT_TRUE(Matches(
      logs[1], {LOG_PRIORITY_ERROR, "TVCONTROL_A", kFile, "TestBody", "inside\n", line + 1}));
  EXPECT_TRUE(
      Matches(logs[2], {LOG_PRIORITY_INFO, "TVCONTROL_A", kFile, "TestBody", "> Left\n", line}));
  EXPECT_EQ(logs[0].format, "%s : %s(%d) > Entered\n");
  EXPECT_EQ(logs[2].format, "%s : %s(%d) > Left\n");
}

TEST_F(LogTest, LogsLeftWhenAnExceptionLeavesTheScope) {
  try {
    const LogScope scope(LOG_TAG_COMMON, LOG_SITE_AT("operation", 12));
    throw std::runtime_error("away");
  } catch (const std::runtime_error&) {
    LOG_LINE(LOG_PRIORITY_DEBUG, LOG_TAG_COMMON, "caught\n");
  }

  const auto logs = platform.Logs();
  ASSERT_EQ(logs.size(), 3U);
  EXPECT_TRUE(
      Matches(logs[1], {LOG_PRIORITY_INFO, "THING_COMMON", kFile, "operation", "> Left\n", 12}));
  EXPECT_TRUE(
      Matches(logs[2], {LOG_PRIORITY_DEBUG, "THING_COMMON", kFile, "TestBody", "caught\n"}));
}

}  // namespace
}  // namespace ThingCommon
