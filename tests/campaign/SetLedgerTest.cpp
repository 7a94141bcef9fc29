#include "SetLedger.h"

#include <gtest/gtest.h>

#include <cstddef>

namespace {

class SetLedgerTest : public ::testing::Test {
 protected:
  SetLedgerTest() {
    for (std::size_t i = 0; i < 6; ++i) EXPECT_EQ(m_ledger.Send(), i);
  }

  SetLedger m_ledger;
};

TEST_F(SetLedgerTest, ASetThatIsNeitherAnEventNorAccountedForIsLost) {
  for (const std::size_t number : {0U, 1U, 3U}) EXPECT_TRUE(m_ledger.Event(number));
  m_ledger.SetFate(2, SetLedger::Fate::Refused);
  m_ledger.SetFate(4, SetLedger::Fate::BrokerForgot);
  const SetLedger::Counts counts = m_ledger.CountFrom(0);
  EXPECT_EQ(counts.sent, 6U);
  EXPECT_EQ(counts.events, 3U);
  EXPECT_EQ(counts.refused, 1U);
  EXPECT_EQ(counts.forgotten, 1U);
  EXPECT_EQ(counts.lost, 1U);
  EXPECT_EQ(counts.doubled, 0U);
  EXPECT_EQ(counts.misordered, 0U);
}

TEST_F(SetLedgerTest, ASetThatComesAgainIsDoubledAndNotOutOfOrder) {
  for (const std::size_t number : {0U, 1U, 2U, 1U, 2U, 2U}) EXPECT_TRUE(m_ledger.Event(number));
  const SetLedger::Counts counts = m_ledger.CountFrom(0);
  EXPECT_EQ(counts.doubled, 2U);
  EXPECT_EQ(counts.repetitions, 3U);
  EXPECT_EQ(counts.misordered, 0U);
}

TEST_F(SetLedgerTest, ASetThatIsFirstAnEventAfterALaterOneIsOutOfOrder) {
  for (const std::size_t number : {0U, 3U, 1U, 2U, 4U, 5U}) EXPECT_TRUE(m_ledger.Event(number));
  EXPECT_EQ(m_ledger.CountFrom(0).misordered, 2U);
  EXPECT_EQ(m_ledger.CountFrom(2).misordered, 1U);
}

TEST_F(SetLedgerTest, AnEventOfASetThatWasNeverSentIsNotTaken) {
  EXPECT_FALSE(m_ledger.Event(6));
}

}  // namespace
