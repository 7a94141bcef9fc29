#include "CleanUp.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

namespace ThingCommon {
namespace {

TEST(CleanUpTest, MakesEveryStepInOrderAndRethrowsTheFirstExceptionOnce) {
  std::vector<int> steps;
  CleanUp cleanUp;
  cleanUp.Run([&steps] { steps.push_back(1); });
  EXPECT_NO_THROW(cleanUp.RethrowFirst());
  cleanUp.Run([] { throw std::runtime_error("the first"); });
  cleanUp.Run([] { throw 2; });
  cleanUp.Run([&steps] { steps.push_back(2); });
  EXPECT_EQ(steps, (std::vector<int>{1, 2}));
  try {
    cleanUp.RethrowFirst();
    ADD_FAILURE() << "nothing was thrown";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "the first");
  }
  EXPECT_NO_THROW(cleanUp.RethrowFirst());
}

TEST(CleanUpTest, LeavesAnExceptionThatIsBeingHandledAlone) {
  try {
    try {
      throw std::runtime_error("the first");
    } catch (...) {
      CleanUp().Run([] { throw std::logic_error("of the clean-up"); });
      throw;
    }
  } catch (const std::exception& error) {
    EXPECT_STREQ(error.what(), "the first");
  }
}

}  // namespace
}  // namespace ThingCommon
