#include <gtest/gtest.h>

#include "DoublingWait.h"

namespace {

using std::chrono::milliseconds;

TEST(DoublingWaitTest, DoublesUpToTheLongestWaitAndBeginsAgainAfterAReset) {
  QivoThing::DoublingWait wait(milliseconds(100), milliseconds(5000));
  for (int life = 0; life < 2; ++life) {
    for (const int expected : {100, 200, 400, 800, 1600, 3200, 5000, 5000}) {
      EXPECT_EQ(milliseconds(expected), wait.Next());
    }
    wait.Reset();
  }
}

}  // namespace
