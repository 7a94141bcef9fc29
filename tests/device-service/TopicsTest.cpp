#include "link/Topics.h"

#include <gtest/gtest.h>

#include <string>

#include "values/TopicText.h"

namespace {

using namespace std::string_literals;
using Lumo::IsTopicLevel;
using Lumo::Topics;

TEST(TopicsTest, AreAllBelowTheThing) {
  const Topics topics("tv", "service");
  EXPECT_EQ(topics.Status(), "things/tv/status");
  EXPECT_EQ(topics.Description(), "things/tv/service/properties");
  EXPECT_EQ(topics.Value("app"), "things/tv/service/value/app");
  EXPECT_EQ(topics.AllValues(), "things/tv/service/value/+");
  EXPECT_EQ(topics.Get(), "things/tv/service/get");
  EXPECT_EQ(topics.Set(), "things/tv/service/set");
  EXPECT_EQ(topics.Cancel(), "things/tv/service/cancel");
}

TEST(TopicsTest, KnowThePropertyOfAValue) {
  const Topics topics("tv", "service");
  EXPECT_EQ(topics.PropertyOf("things/tv/service/value/app"), "app");
  EXPECT_FALSE(topics.PropertyOf("things/tv/service/set"));
  EXPECT_FALSE(topics.PropertyOf("things/other/service/value/app"));
}

TEST(TopicsTest, ALevelIsATextThatEveryBrokerTakes) {
  for (const std::string& level : {"a"s, "com.example app-1"s, "$a"s, "\xED\x95\x9C\xEA\xB5\xAD"s,
                                   "\xF0\x9F\x98\x80"s, std::string(256, 'a')}) {
    EXPECT_TRUE(IsTopicLevel(level)) << level;
  }
  for (const std::string& level :
       {""s, "a/b"s, "+"s, "a#"s, "a\0b"s, "a\nb"s, "\x7F"s, "\xC2\x85"s, "\xEF\xBF\xBF"s,
        "\xEF\xB7\x90"s, "\xF0\x9F\xBF\xBE"s, "\xFF"s, "\xED\xA0\x80"s, std::string(257, 'a')}) {
    EXPECT_FALSE(IsTopicLevel(level)) << level;
  }
}

TEST(TopicsTest, AnswersGoWhereNobodyTakesThemForSomethingElse) {
  const Topics topics("tv", "service");
  for (const char* topic :
       {"reply", "cloud/1/answers", "things/tv/answers", "/", "things/tv/a/b",
        "things/other/service/answers", "set", "a/set", "things/a/b/c/set", "things", "things/",
        "things/a", "things/a/", "things/a/b", "things/a/b/", "things/a/b/value",
        "things/a/b/value/c/d", "things/a/b/status", "things/a/statuses"}) {
    EXPECT_TRUE(topics.MayAnswerTo(topic)) << topic;
  }
  for (const std::string& topic : {""s,
                                   "a/+"s,
                                   "#"s,
                                   "$SYS/x"s,
                                   "a\0b"s,
                                   "\xFF"s,
                                   std::string(65536, 'a'),
                                   "things/tv/status"s,
                                   "things/tv/service/set"s,
                                   "things/tv/service/properties"s,
                                   "things/tv/service/value/app"s,
                                   "things/tv/service/else"s,
                                   "things/tv/other/set"s,
                                   "things/tv/health"s,
                                   "things/other/service/get"s,
                                   "things/other/service/cancel"s,
                                   "things/other/status"s,
                                   "things/other/health"s,
                                   "things/other/service/properties"s,
                                   "things/other/service/value/app"s,
                                   "things/other/service/value/"s}) {
    EXPECT_FALSE(topics.MayAnswerTo(topic)) << topic;
  }
}

}  // namespace
