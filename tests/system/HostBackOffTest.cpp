#include <gtest/gtest.h>

#include "BackOff.h"

namespace {

using QivoThing::BackOff;
using std::chrono::milliseconds;

TEST(HostBackOffTest, DoublesUpToTheLongestWait) {
  BackOff backOff(milliseconds(100), milliseconds(5000));
  for (const int expected : {100, 200, 400, 800, 1600, 3200, 5000, 5000}) {
    EXPECT_EQ(milliseconds(expected), backOff.Next());
  }
}

TEST(HostBackOffTest, BeginsAgainAfterAReset) {
  BackOff backOff(milliseconds(100), milliseconds(5000));
  backOff.Next();
  backOff.Next();
  backOff.Reset();
  EXPECT_EQ(milliseconds(100), backOff.Next());
  EXPECT_EQ(milliseconds(200), backOff.Next());
}

}  // namespace
