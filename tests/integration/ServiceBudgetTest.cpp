// What one caller can make the device service do: the waits of the thread that serves the bus, and
// what the payloads of the cloud cost to read.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "AppDataChannelControl.h"
#include "CapturedLog.h"
#include "FaultyNew.h"
#include "api/Library.h"
#include "payload/Payload.h"

namespace {

std::atomic<unsigned> g_waits{0};

}  // namespace

// In the place of the C library's, for all of this program: counts, and does not wait.
#pragma GCC visibility push(default)
extern "C" int usleep(useconds_t /*duration*/) {
  ++g_waits;
  return 0;
}
#pragma GCC visibility pop

namespace {

// The applications' calls, on the real device service. No call may wait, or be refused by it.
class ServiceBudgetTest : public ::testing::Test {
 protected:
  ServiceBudgetTest() {
    for (const char* name : {"LUMO_BROKER", "LUMO_THING_ID"}) unsetenv(name);
    EXPECT_TRUE(control.Create());
    CapturedLog::Get().Take();
    g_waits = 0;
  }
  ~ServiceBudgetTest() override {
    EXPECT_EQ(0U, g_waits);
    control.Destroy();
    control.Shutdown();
    CapturedLog::Get().Take();
  }

  // How often the wrapper has asked the device service once more, or given up.
  static unsigned FailedAttempts() {
    unsigned count = 0;
    for (const CapturedLog::Line& line : CapturedLog::Get().Take()) {
      if (line.message.find("/3) fail. ret = ") != std::string::npos) ++count;
    }
    return count;
  }

  static constexpr int kCalls = 60;
  AppDataChannel::AppDataChannelControl control;
};

TEST_F(ServiceBudgetTest, UnregisteringWhatIsNotRegisteredDoesNotWait) {
  for (int i = 0; i < kCalls; ++i) EXPECT_EQ(-20, control.UnregisterApp("qz"));
  EXPECT_EQ(0U, FailedAttempts());
}

TEST_F(ServiceBudgetTest, UnregisteringWhatHasNoPropertyAnyMoreDoesNotWait) {
  for (int i = 0; i < kCalls; ++i) EXPECT_EQ(0, control.RegisterApp("qz"));
  // The first takes the property away.
  for (int i = 0; i < kCalls; ++i) EXPECT_EQ(0, control.UnregisterApp("qz"));
  EXPECT_EQ(-20, control.UnregisterApp("qz"));
  EXPECT_EQ(0U, FailedAttempts());
}

TEST_F(ServiceBudgetTest, SendingWithoutAPropertyDoesNotWait) {
  EXPECT_EQ(0, control.RegisterApp("qz"));
  EXPECT_EQ(0, control.RegisterApp("qz"));
  EXPECT_EQ(0, control.UnregisterApp("qz"));
  for (int i = 0; i < kCalls; ++i) EXPECT_EQ(0, control.NotifyData("qz", "data"));
}

// The cloud's payloads: so many members, each made from its number, between the brackets.
struct PayloadBudget {
  const char* name;
  bool isSet;
  std::string begin;
  std::string (*member)(std::size_t number);
  std::string end;
  const char* separator = ",";
};

class PayloadBudgetTest : public ::testing::TestWithParam<PayloadBudget> {
 protected:
  struct Cost {
    double allocations;
    double bytes;
  };

  static Cost Read(std::size_t count) {
    std::string payload = GetParam().begin;
    for (std::size_t i = 0; i < count; ++i) {
      payload += (i == 0 ? "" : GetParam().separator) + GetParam().member(i);
    }
    payload += GetParam().end;
    EXPECT_LE(payload.size(), Lumo::kMaxRequestBytes);
    const FaultyNew counting(0, FaultyNew::Duration::kOnce);
    if (GetParam().isSet) {
      EXPECT_TRUE(Lumo::DecodeProperties(payload).value);
    } else {
      EXPECT_TRUE(Lumo::DecodeNames(payload).value);
    }
    return {static_cast<double>(FaultyNew::Allocations()),
            static_cast<double>(FaultyNew::AllocatedBytes())};
  }
};

TEST_P(PayloadBudgetTest, TwiceAsMuchCostsAtMostTwiceAsMuch) {
  constexpr double kTwice = 2.2;
  Read(1);
  const Cost half = Read(Lumo::kMaxRequestProperties / 2);
  const Cost whole = Read(Lumo::kMaxRequestProperties);
  EXPECT_LE(whole.allocations, kTwice * half.allocations + 1);
  EXPECT_LE(whole.bytes, kTwice * half.bytes + 1);
}

// `length` characters and the number, in quotes.
template <std::size_t length>
std::string numbered(std::size_t number) {
  return "\"" + std::string(length, 'x') + std::to_string(number) + "\"";
}

template <std::size_t levels>
std::string nested(std::size_t /*number*/) {
  return std::string(levels, '[') + std::string(levels, ']');
}

const PayloadBudget kPayloads[] = {
    {"GetNames", false, "[", numbered<250>, "]"},
    {"GetOneNameAgainAndAgain", false, "[", [](std::size_t) -> std::string { return "\"qz\""; },
     "]"},
    {"SetNames", true, "{", [](std::size_t i) { return numbered<100>(i) + ":" + numbered<100>(i); },
     "}"},
    {"SetOneNameAgainAndAgain", true, "{",
     [](std::size_t i) { return "\"qz\":" + numbered<200>(i); }, "}"},
    {"SetALongString", true, R"({"qz":")", [](std::size_t) { return std::string(250, 'x'); }, "\"}",
     ""},
    {"SetNestedValues", true, "{",
     [](std::size_t i) { return numbered<0>(i) + ":" + nested<98>(i); }, "}"},
    {"SetOneNestedValue", true, R"({"signupInfo":[)", nested<97>, "]}"},
};
INSTANTIATE_TEST_SUITE_P(Payloads, PayloadBudgetTest, ::testing::ValuesIn(kPayloads),
                         [](const auto& budget) { return std::string(budget.param.name); });

}  // namespace
