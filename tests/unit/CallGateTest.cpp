#include "CallGate.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>

#include "FakePlatform.h"

namespace ThingCommon {
namespace {

constexpr std::chrono::milliseconds kGlimpse(20);

TEST(CallGateTest, IsEmptyAtFirstAndLetsEverybodyThroughANullGate) {
  CallGate gate;
  EXPECT_TRUE(gate.WaitUntilEmpty(std::chrono::milliseconds(0)));
  EXPECT_EQ(gate.Inside(), "");
  const CallGate::Pass pass(nullptr, "nobody");
  EXPECT_TRUE(gate.WaitUntilEmpty(std::chrono::milliseconds(0)));
}

TEST(CallGateTest, NamesWhoIsInsideInWhateverOrderTheyLeave) {
  CallGate gate;
  auto a = std::make_unique<CallGate::Pass>(&gate, "a");
  auto b = std::make_unique<CallGate::Pass>(&gate, "b");
  auto c = std::make_unique<CallGate::Pass>(&gate, "c");
  EXPECT_EQ(gate.Inside(), "c, b, a");
  b.reset();
  EXPECT_EQ(gate.Inside(), "c, a");
  const CallGate::Pass d(&gate, "d");
  a.reset();
  EXPECT_EQ(gate.Inside(), "d, c");
  c.reset();
  EXPECT_EQ(gate.Inside(), "d");
  const CallGate::Pass unnamed(&gate);  // has its function's name
  EXPECT_EQ(gate.Inside(), "TestBody, d");
  EXPECT_FALSE(gate.WaitUntilEmpty(std::chrono::milliseconds(0)));
}

TEST(CallGateTest, WaitsForTheLastToLeaveAndNoLongerThanTold) {
  CallGate gate;
  auto first = std::make_unique<CallGate::Pass>(&gate, "first");
  auto last = std::make_unique<CallGate::Pass>(&gate, "last");
  EXPECT_FALSE(gate.WaitUntilEmpty(kGlimpse));
  const auto waiting =
      std::async(std::launch::async, [&gate] { return gate.WaitUntilEmpty(fake::kPatience); });
  first.reset();
  EXPECT_EQ(waiting.wait_for(kGlimpse), std::future_status::timeout);
  const auto start = std::chrono::steady_clock::now();
  last.reset();
  waiting.wait();
  EXPECT_LT(std::chrono::steady_clock::now() - start, fake::kPatience / 2);
}

}  // namespace
}  // namespace ThingCommon
