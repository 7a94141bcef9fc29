#include "link/Topics.h"

#include <gtest/gtest.h>

#include <string>

#include "values/TopicText.h"

namespace {

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
  for (const std::string& level : {std::string("a"), std::string("com.example app-1"),
                                   std::string("$a"), std::string("\xED\x95\x9C\xEA\xB5\xAD"),
                                   std::string("\xF0\x9F\x98\x80"), std::string(256, 'a')}) {
    EXPECT_TRUE(IsTopicLevel(level)) << level;
  }
  for (const std::string& level :
       {std::string(), std::string("a/b"), std::string("+"), std::string("a#"),
        std::string("a\0b", 3), std::string("a\nb"), std::string("\x7F"), std::string("\xC2\x85"),
        std::string("\xEF\xBF\xBF"), std::string("\xEF\xB7\x90"), std::string("\xF0\x9F\xBF\xBE"),
        std::string("\xFF"), std::string("\xED\xA0\x80"), std::string(257, 'a')}) {
    EXPECT_FALSE(IsTopicLevel(level)) << level;
  }
}

TEST(TopicsTest, AnswersGoWhereNobodyTakesThemForSomethingElse) {
  const Topics topics("tv", "service");
  for (const char* topic : {"reply", "cloud/1/answers", "things/tv/answers", "/", "things/tv/a/b",
                            "things/other/service/answers", "set", "a/set", "things/a/b/c/set"}) {
    EXPECT_TRUE(topics.MayAnswerTo(topic)) << topic;
  }
  for (const std::string& topic :
       {std::string(), std::string("a/+"), std::string("#"), std::string("$SYS/x"),
        std::string("a\0b", 3), std::string("\xFF"), std::string(65536, 'a'),
        std::string("things/tv/status"), std::string("things/tv/service/set"),
        std::string("things/tv/service/properties"), std::string("things/tv/service/value/app"),
        std::string("things/tv/service/else"), std::string("things/tv/other/set"),
        std::string("things/other/service/get"), std::string("things/other/service/cancel")}) {
    EXPECT_FALSE(topics.MayAnswerTo(topic)) << topic;
  }
}

}  // namespace
