#include "link/Outbox.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <variant>
#include <vector>

namespace {

using Lumo::Outbox;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::string textOf(const Outbox::Item& item) {
  if (const auto* answer = std::get_if<Outbox::Answer>(&item)) return "answer " + answer->payload;
  if (const auto* value = std::get_if<Outbox::Value>(&item)) {
    return "value " + value->property + (value->mayBeRetained ? " again" : "");
  }
  if (const auto* status = std::get_if<Outbox::Status>(&item)) {
    return status->online ? "online" : "offline";
  }
  return std::holds_alternative<Outbox::Health>(item) ? "health" : "description";
}

std::vector<std::string> takeAll(Outbox& outbox) {
  std::vector<std::string> items;
  while (const auto item = outbox.Next()) items.push_back(textOf(*item));
  return items;
}

TEST(OutboxTest, GivesAnswersThenTheDescriptionThenValuesThenTheHealthThenTheStatus) {
  Outbox outbox;
  outbox.StatusChanged(true);
  outbox.HealthChanged();
  outbox.ValueChanged("b");
  outbox.ValueChanged("a");
  outbox.DescriptionChanged();
  EXPECT_TRUE(outbox.Add({"topic", "", "1"}));
  EXPECT_TRUE(outbox.Add({"topic", "", "2"}));
  EXPECT_THAT(takeAll(outbox), ElementsAre("answer 1", "answer 2", "description", "value b",
                                           "value a", "health", "online"));
  EXPECT_THAT(takeAll(outbox), IsEmpty());
}

TEST(OutboxTest, GivesAnAnswerAloneWhateverElseWaits) {
  Outbox outbox;
  outbox.DescriptionChanged();
  outbox.ValueChanged("a");
  EXPECT_FALSE(outbox.NextAnswer());
  EXPECT_TRUE(outbox.Add({"topic", "", "1"}));
  const auto answer = outbox.NextAnswer();
  ASSERT_TRUE(answer);
  EXPECT_EQ("answer 1", textOf(*answer));
  EXPECT_FALSE(outbox.NextAnswer());
  EXPECT_THAT(takeAll(outbox), ElementsAre("description", "value a"));
}

TEST(OutboxTest, HoldsOneOfEachWhateverTheNumberOfChanges) {
  Outbox outbox;
  for (int i = 0; i < 3; ++i) {
    outbox.DescriptionChanged();
    outbox.ValueChanged("a");
    outbox.ValueChanged("b");
    outbox.HealthChanged();
    outbox.StatusChanged(i == 1);
  }
  EXPECT_THAT(takeAll(outbox),
              ElementsAre("description", "value a", "value b", "health", "offline"));
}

TEST(OutboxTest, CountsTheAnswersThatWaitAlsoThoseThatAreDelayed) {
  Outbox outbox;
  EXPECT_TRUE(outbox.Add({"topic", "", "1"}));
  EXPECT_TRUE(outbox.Add({"topic", "", "2"}));
  auto answer = outbox.Next();
  ASSERT_TRUE(answer);
  EXPECT_EQ(outbox.CountAnswers(), 1U);
  outbox.Delay(std::move(*answer), Outbox::Clock::now() + std::chrono::hours(1));
  EXPECT_EQ(outbox.CountAnswers(), 2U);
}

TEST(OutboxTest, HealthThatIsPutBackGivesWayToNoOtherAndComesOnce) {
  Outbox outbox;
  outbox.HealthChanged();
  const auto taken = outbox.Next();
  ASSERT_TRUE(taken);
  outbox.HealthChanged();
  outbox.PutBack(*taken);
  EXPECT_THAT(takeAll(outbox), ElementsAre("health"));
}

TEST(OutboxTest, HealthThatIsDelayedIsTheOnlyOneHoweverOftenItChanges) {
  Outbox outbox;
  const auto now = Outbox::Clock::now();
  const auto due = now + std::chrono::hours(1);
  for (int i = 0; i < 3; ++i) {
    outbox.HealthChanged();
    const auto taken = i == 0 ? outbox.Next() : Outbox::Item(Outbox::Health{});
    ASSERT_TRUE(taken);
    outbox.HealthChanged();  // while that one is in flight
    outbox.Delay(*taken, due);
    EXPECT_THAT(takeAll(outbox), IsEmpty());
  }
  EXPECT_EQ(outbox.ReleaseDelayed(now), due);
  outbox.ReleaseDelayed(due);
  EXPECT_THAT(takeAll(outbox), ElementsAre("health"));
  EXPECT_EQ(outbox.ReleaseDelayed(due), Outbox::Clock::time_point::max());
  outbox.HealthChanged();
  EXPECT_THAT(takeAll(outbox), ElementsAre("health"));
}

TEST(OutboxTest, ForgetsARemovedValueThatTheBrokerCannotHold) {
  Outbox outbox;
  outbox.ValueChanged("a");
  outbox.ValueRemoved("a");
  outbox.ValueRemoved("never");
  EXPECT_THAT(takeAll(outbox), IsEmpty());
}

TEST(OutboxTest, KeepsARemovedValueThatTheBrokerMayHoldUntilItIsDropped) {
  Outbox outbox;
  outbox.ValueChanged("a");
  EXPECT_THAT(takeAll(outbox), ElementsAre("value a"));
  outbox.ValueRemoved("a");
  EXPECT_THAT(takeAll(outbox), ElementsAre("value a again"));
  outbox.ValueDropped("a");
  outbox.ValueRemoved("a");
  EXPECT_THAT(takeAll(outbox), IsEmpty());
}

TEST(OutboxTest, TakesUpValuesThatAreFoundAtTheBrokerButNotAnyNumberOfThem) {
  Outbox outbox;
  for (std::size_t i = 0; i < 2 * Outbox::kMaxFoundValues; ++i) {
    outbox.ValueFound(std::to_string(i));
  }
  const auto items = takeAll(outbox);
  EXPECT_EQ(items.size(), Outbox::kMaxFoundValues);
  EXPECT_EQ(items.front(), "value 0 again");
}

TEST(OutboxTest, GivesAgainWhatIsPutBack) {
  Outbox outbox;
  EXPECT_TRUE(outbox.Add({"topic", "", "later"}));
  outbox.PutBack(Outbox::Value{"a", false});
  outbox.PutBack(Outbox::Description{});
  outbox.PutBack(Outbox::Status{true});
  outbox.PutBack(Outbox::Answer{"topic", "", "first"});
  EXPECT_THAT(takeAll(outbox), ElementsAre("answer first", "answer later", "description",
                                           "value a again", "online"));
}

TEST(OutboxTest, AStatusThatIsPutBackDoesNotReplaceANewerOne) {
  Outbox outbox;
  outbox.StatusChanged(false);
  outbox.PutBack(Outbox::Status{true});
  EXPECT_THAT(takeAll(outbox), ElementsAre("offline"));
}

TEST(OutboxTest, TakesOnlySoManyAnswersButTensOfThousandsOfShortOnes) {
  constexpr int kMessagesAtOnce = 65535;  // there are no more packet identifiers
  const std::string payload(Outbox::kMaxShortPayloadBytes + 1, 'x');
  Outbox outbox;
  for (std::size_t i = 0; i < Outbox::kMaxAnswers; ++i) EXPECT_TRUE(outbox.Add({"t", "", payload}));
  EXPECT_FALSE(outbox.Add({"t", "", payload}));
  for (int i = 0; i < kMessagesAtOnce; ++i) ASSERT_TRUE(outbox.Add({"t", "", "busy"})) << i;
  for (int i = 0; i <= kMessagesAtOnce; ++i) EXPECT_TRUE(outbox.Next());
  EXPECT_TRUE(outbox.Add({"t", "", payload}));
}

TEST(OutboxTest, CountsWhatAShortAnswerTakesByItself) {
  Outbox outbox;
  std::size_t count = 0;
  while (outbox.Add({"", "", ""})) ++count;
  EXPECT_LE(count * sizeof(Outbox::Answer),
            Outbox::kMaxAnswerBytes + Outbox::kRoomForShortAnswers + sizeof(Outbox::Answer));
}

TEST(OutboxTest, TakesOnlySoMuchInAnswers) {
  Outbox outbox;
  // With its topic, one byte less than half of the room; the second one fills it.
  const std::string half(Outbox::kMaxAnswerBytes / 2 - sizeof(Outbox::Answer) - 1, 'x');
  EXPECT_TRUE(outbox.Add({"t", "", half}));
  EXPECT_TRUE(outbox.Add({"t", "", half}));
  const std::string one(Outbox::kMaxShortPayloadBytes + 1, 'x');
  EXPECT_FALSE(outbox.Add({"t", "", one}));
  std::optional<Outbox::Item> taken = outbox.NextAnswer();
  ASSERT_TRUE(taken);
  EXPECT_TRUE(outbox.Add({"t", "", one}));
  outbox.PutBack(std::move(*taken));
  EXPECT_FALSE(outbox.Add({"t", "", one}));
}

TEST(OutboxTest, CountsWholeAnswersNotOnlyTheirPayloads) {
  const std::string longest(65535, 'x');
  const std::string payload(Outbox::kMaxShortPayloadBytes + 1, 'x');
  Outbox outbox;
  std::size_t bytes = 0;
  while (outbox.Add({longest, longest, payload})) bytes += 2 * longest.size() + payload.size();
  EXPECT_LT(bytes, Outbox::kMaxAnswerBytes + 2 * longest.size() + payload.size());
}

TEST(OutboxTest, HasRoomToSayNoWhenThereIsNoneForMore) {
  Outbox outbox;
  EXPECT_TRUE(outbox.Add({"t", "", std::string(Outbox::kMaxAnswerBytes, 'x')}));
  const std::string no(Outbox::kMaxShortPayloadBytes, 'x');
  EXPECT_TRUE(outbox.Add({"t", "", no}));
  // That is not endless either.
  const std::string longest(65535, 'x');
  std::size_t count = 0;
  while (outbox.Add({longest, longest, no})) ++count;
  EXPECT_LE(count, Outbox::kRoomForShortAnswers / (2 * longest.size()) + 1);
}

TEST(OutboxTest, WhatIsDelayedComesAgainWhenItIsDueAndCountsMeanwhile) {
  Outbox outbox;
  const Outbox::Clock::time_point now{};
  const auto due = now + std::chrono::seconds(1);
  outbox.Delay(Outbox::Value{"a", true, 1}, due);
  outbox.Delay(Outbox::Answer{"t", "", std::string(Outbox::kMaxAnswerBytes, 'x'), 1}, due);
  EXPECT_FALSE(outbox.Add({"t", "", std::string(Outbox::kMaxShortPayloadBytes + 1, 'x')}));
  EXPECT_EQ(outbox.ReleaseDelayed(now), due);
  EXPECT_THAT(takeAll(outbox), IsEmpty());
  EXPECT_EQ(outbox.ReleaseDelayed(due), Outbox::Clock::time_point::max());
  const auto answer = outbox.Next();
  ASSERT_TRUE(answer);
  EXPECT_EQ(std::get<Outbox::Answer>(*answer).refusals, 1U);
  EXPECT_THAT(takeAll(outbox), ElementsAre("value a again"));
}

TEST(OutboxTest, IsCrowdedFromHalfOfTheAnswersOrBytesOn) {
  Outbox outbox;
  for (std::size_t i = 1; i < Outbox::kMaxAnswers / 2; ++i) outbox.Add({"t", "", "1"});
  EXPECT_FALSE(outbox.IsCrowded());
  outbox.Add({"t", "", "1"});
  EXPECT_TRUE(outbox.IsCrowded());

  Outbox other;
  const std::size_t half = Outbox::kMaxAnswerBytes / 2 - sizeof(Outbox::Answer);
  other.Add({"t", "", std::string(half - 2, 'x')});
  EXPECT_FALSE(other.IsCrowded());
  other.Add({"t", "", std::string(Outbox::kMaxShortPayloadBytes + 1, 'x')});
  EXPECT_TRUE(other.IsCrowded());
  other.NextAnswer();
  EXPECT_FALSE(other.IsCrowded());
}

}  // namespace
