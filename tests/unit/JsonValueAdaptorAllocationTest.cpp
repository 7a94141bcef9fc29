// Memory that runs out at every single allocation of what never throws. In a program of its own,
// whose `new` can be made to fail.
#include <gtest/gtest.h>

#include <cstddef>
#include <functional>
#include <string>

#include "FaultyNew.h"
#include "JsonValueAdaptor.h"
#include "PlatformTest.h"

namespace ThingCommon {
namespace {

const std::string kDocument =
    R"({"a name of some length":[1,2.5,true,null,"a text that is not a short one"]})";

class JsonValueAdaptorAllocationTest : public PlatformTest,
                                       public ::testing::WithParamInterface<FaultyNew::Duration> {
 protected:
  // `operation` with each of its allocations failing in turn; it says whether its result is the one
  // of a success.
  void ExpectNoThrow(const std::function<bool()>& operation) {
    constexpr std::size_t kMostAllocations = 10000;
    ASSERT_TRUE(operation());  // builds what is built on first use
    std::size_t number = 1;
    for (bool failed = true; failed && number < kMostAllocations; ++number) {
      SCOPED_TRACE(number);
      platform.ClearTrace();
      bool succeeded = false;
      bool threw = false;
      {
        const FaultyNew fault(number, GetParam());
        try {
          succeeded = operation();
        } catch (...) {
          threw = true;
        }
        failed = FaultyNew::HasFailed();
      }
      ASSERT_FALSE(threw);
      EXPECT_EQ(succeeded, !failed);
      // At most: a stream that cannot allocate fails, and does not throw.
      EXPECT_LE(platform.Logs().size(), failed ? 1U : 0U);
      EXPECT_EQ(FaultyNew::LiveBlocks(), 0U);
    }
    EXPECT_GT(number, 2U);
    EXPECT_LT(number, kMostAllocations);
  }
};

TEST_P(JsonValueAdaptorAllocationTest, DoesNotThrow) {
  const JsonValueAdaptor value = JsonValueAdaptor::Create(kDocument);
  const std::string compact = value.ToString(false);
  const std::string styled = value.ToString(true);
  ExpectNoThrow([&] { return value.ToString(false) == compact; });
  ExpectNoThrow([&] { return value.ToString(true) == styled; });
  ExpectNoThrow([&] { return JsonValueAdaptor::ToString(value, true) == styled; });
  ExpectNoThrow([&] { return JsonValueAdaptor::Create(kDocument) == value; });
}

INSTANTIATE_TEST_SUITE_P(Durations, JsonValueAdaptorAllocationTest,
                         ::testing::Values(FaultyNew::Duration::kOnce,
                                           FaultyNew::Duration::kFromThenOn));

}  // namespace
}  // namespace ThingCommon
