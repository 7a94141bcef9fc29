// What one caller can make the device service do: the waits of the thread that serves
// the bus, and what the payloads of the cloud cost to read.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <ostream>
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

// --- the applications' calls, on the real device service -----------------------------------------

class ServiceBudgetTest : public ::testing::Test {
 protected:
  ServiceBudgetTest() {
    for (const char* name : {"LUMO_BROKER", "LUMO_THING_ID"}) unsetenv(name);
    EXPECT_TRUE(control.Create());
    CapturedLog::Get().Take();
    g_waits = 0;
  }
  ~ServiceBudgetTest() override {
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

  AppDataChannel::AppDataChannelControl control;
};

TEST_F(ServiceBudgetTest, UnregisteringWhatIsNotRegisteredDoesNotWait) {
  for (int i = 0; i < 60; ++i) EXPECT_EQ(-20, control.UnregisterApp("qz"));
  EXPECT_EQ(0U, g_waits);
  EXPECT_EQ(0U, FailedAttempts());
}

TEST_F(ServiceBudgetTest, UnregisteringWhatHasNoPropertyAnyMoreDoesNotWait) {
  constexpr int kRegistrations = 60;
  for (int i = 0; i < kRegistrations; ++i) EXPECT_EQ(0, control.RegisterApp("qz"));
  // The first takes the property away.
  for (int i = 0; i < kRegistrations; ++i) EXPECT_EQ(0, control.UnregisterApp("qz"));
  EXPECT_EQ(-20, control.UnregisterApp("qz"));
  EXPECT_EQ(0U, g_waits);
  EXPECT_EQ(0U, FailedAttempts());
}

TEST_F(ServiceBudgetTest, SendingWithoutAPropertyDoesNotWait) {
  EXPECT_EQ(0, control.RegisterApp("qz"));
  EXPECT_EQ(0, control.RegisterApp("qz"));
  EXPECT_EQ(0, control.UnregisterApp("qz"));
  for (int i = 0; i < 60; ++i) EXPECT_EQ(0, control.NotifyData("qz", "data"));
  EXPECT_EQ(0U, g_waits);
}

// --- the cloud's payloads ------------------------------------------------------------------------

struct PayloadBudget {
  const char* name;
  bool isSet;
  std::function<std::string(std::size_t count)> make;

  friend void PrintTo(const PayloadBudget& budget, std::ostream* out) { *out << budget.name; }
};

struct Cost {
  std::size_t allocations;
  std::size_t bytes;
};

class PayloadBudgetTest : public ::testing::TestWithParam<PayloadBudget> {
 protected:
  // Of reading that many of what the payload has.
  static Cost Read(std::size_t count) {
    const std::string payload = GetParam().make(count);
    EXPECT_LE(payload.size(), Lumo::kMaxRequestBytes);
    const FaultyNew counting(0, FaultyNew::Duration::kOnce);
    if (GetParam().isSet) {
      EXPECT_TRUE(Lumo::DecodeProperties(payload).value);
    } else {
      EXPECT_TRUE(Lumo::DecodeNames(payload).value);
    }
    return {FaultyNew::Allocations(), FaultyNew::AllocatedBytes()};
  }
};

TEST_P(PayloadBudgetTest, TwiceAsMuchCostsAtMostTwiceAsMuch) {
  constexpr double kTwice = 2.2;
  Read(1);
  const Cost half = Read(Lumo::kMaxRequestProperties / 2);
  const Cost whole = Read(Lumo::kMaxRequestProperties);
  EXPECT_LE(static_cast<double>(whole.allocations),
            kTwice * static_cast<double>(half.allocations) + 1);
  EXPECT_LE(static_cast<double>(whole.bytes), kTwice * static_cast<double>(half.bytes) + 1);
}

// As many members as `count`, between the brackets.
std::string members(const std::string& brackets, std::size_t count,
                    const std::function<std::string(std::size_t)>& make) {
  std::string text(1, brackets[0]);
  for (std::size_t i = 0; i < count; ++i) text += (i == 0 ? "" : ",") + make(i);
  return text + brackets[1];
}

std::string nested(std::size_t levels) {
  return std::string(levels, '[') + std::string(levels, ']');
}

INSTANTIATE_TEST_SUITE_P(
    Payloads, PayloadBudgetTest,
    ::testing::Values(
        PayloadBudget{"GetNames", false,
                      [](std::size_t count) {
                        return members("[]", count, [](std::size_t i) {
                          return "\"" + std::string(250, 'x') + std::to_string(i) + "\"";
                        });
                      }},
        PayloadBudget{"GetOneNameAgainAndAgain", false,
                      [](std::size_t count) {
                        return members("[]", count, [](std::size_t) { return "\"qz\""; });
                      }},
        PayloadBudget{"SetNames", true,
                      [](std::size_t count) {
                        return members("{}", count, [](std::size_t i) {
                          return "\"" + std::string(100, 'x') + std::to_string(i) + "\":\"" +
                                 std::string(100, 'x') + "\"";
                        });
                      }},
        PayloadBudget{"SetOneNameAgainAndAgain", true,
                      [](std::size_t count) {
                        return members("{}", count, [](std::size_t i) {
                          return "\"qz\":\"" + std::string(200, 'x') + std::to_string(i) + "\"";
                        });
                      }},
        PayloadBudget{
            "SetALongText", true,
            [](std::size_t count) { return R"({"qz":")" + std::string(250 * count, 'x') + "\"}"; }},
        PayloadBudget{"SetNestedValues", true,
                      [](std::size_t count) {
                        return members("{}", count, [](std::size_t i) {
                          return "\"" + std::to_string(i) + "\":" + nested(98);
                        });
                      }},
        PayloadBudget{"SetOneNestedValue", true,
                      [](std::size_t count) {
                        return R"({"signupInfo":)" +
                               members("[]", count, [](std::size_t) { return nested(97); }) + "}";
                      }}),
    [](const ::testing::TestParamInfo<PayloadBudget>& budget) {
      return std::string(budget.param.name);
    });

}  // namespace
