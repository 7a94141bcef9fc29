#include "mqtt/Backoff.h"

#include <gtest/gtest.h>

#include <chrono>
#include <set>

namespace {

using Lumo::Backoff;
using std::chrono::milliseconds;

TEST(BackoffTest, DoublesFromHalfASecondToThirtySeconds) {
  Backoff backoff;
  for (const int expected : {500, 1000, 2000, 4000, 8000, 16'000}) {
    const milliseconds wait = backoff.Next();
    EXPECT_GE(wait, milliseconds(expected));
    EXPECT_LE(wait, milliseconds(expected) * 5 / 4);
  }
  for (int i = 0; i < 100; ++i) EXPECT_EQ(backoff.Next(), milliseconds(30'000));
}

TEST(BackoffTest, BeginsAgainAfterAReset) {
  Backoff backoff;
  for (int i = 0; i < 10; ++i) backoff.Next();
  backoff.Reset();
  EXPECT_LE(backoff.Next(), milliseconds(625));
}

TEST(BackoffTest, IsNotTheSameForAll) {
  std::set<milliseconds> waits;
  for (int i = 0; i < 100; ++i) waits.insert(Backoff().Next());
  EXPECT_GT(waits.size(), 10U);
}

}  // namespace
