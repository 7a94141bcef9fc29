// What one caller can make the plug-in do: counts of device-service calls, waits, log lines and
// allocations, for each method that applications call and each request of the cloud. A count does
// not depend on the machine; what grows faster than its input shows as more than twice the count
// for twice the input.
#include <algorithm>
#include <ostream>

#include "FaultyNew.h"
#include "PluginTest.h"

namespace {

using fake::Property;
using Properties = std::vector<Property>;

constexpr std::size_t kMaxLogLineBytes = 4096;  // what the log cuts a line to
constexpr std::size_t kMebibyte = 1024UL * 1024;

struct Cost {
  std::size_t serviceCalls = 0;  // of the device service's operations
  std::size_t waits = 0;         // of the thread that serves the bus, or the cloud's requests
  std::size_t logLines = 0;
  std::size_t logBytes = 0;
  std::size_t allocations = 0;
  std::size_t bytes = 0;  // allocated

  friend std::ostream& operator<<(std::ostream& out, const Cost& cost) {
    return out << cost.serviceCalls << " service calls, " << cost.waits << " waits, "
               << cost.logLines << " log lines of " << cost.logBytes << " B, " << cost.allocations
               << " allocations of " << cost.bytes << " B";
  }
};

constexpr std::size_t Cost::*kCounts[] = {&Cost::serviceCalls, &Cost::waits,       &Cost::logLines,
                                          &Cost::logBytes,     &Cost::allocations, &Cost::bytes};

class HostileCallerBudgetTest : public PluginTest {
 protected:
  void SetUp() override {
    PluginTest::SetUp();
    client.reset();  // what it hears would be counted
    CreateUntilReady();
  }

  // Counts what the operation makes the plug-in do.
  Cost Measure(const std::function<void()>& operation) {
    platform.ClearTrace();
    Cost cost;
    {
      const FaultyNew counting(0, FaultyNew::Duration::kOnce);
      operation();
      cost.allocations = FaultyNew::Allocations();
      cost.bytes = FaultyNew::AllocatedBytes();
    }
    for (const std::string& call : platform.Calls()) {
      if (call.find("usleep(") == 0) ++cost.waits;
      if (call.find("lumo_") == 0) ++cost.serviceCalls;
    }
    for (const fake::LogLine& line : platform.Logs()) {
      ++cost.logLines;
      cost.logBytes += std::min(line.text.size(), kMaxLogLineBytes);
    }
    return cost;
  }
};

struct Step {
  const char* method;
  std::vector<std::string> arguments;
};

struct MethodBudget {
  const char* name;
  std::vector<Step> before;  // each call
  Step call;
  std::string result;
  Cost most;  // of each call; the bytes that are allocated are those of the strings
  const char* failing = nullptr;  // operation of the service
};

template <typename Budget>
std::string nameOf(const ::testing::TestParamInfo<Budget>& budget) {
  return budget.param.name;
}

class MethodBudgetTest : public HostileCallerBudgetTest,
                         public ::testing::WithParamInterface<MethodBudget> {};

TEST_P(MethodBudgetTest, ACallCostsNoMoreThanThisHoweverOftenItIsRepeated) {
  constexpr int kCalls = 60;
  const MethodBudget& budget = GetParam();
  if (budget.failing != nullptr) platform.Fail("lumo_service_" + std::string(budget.failing));
  for (int i = 0; i < kCalls && !HasFailure(); ++i) {
    for (const Step& step : budget.before) CallUncounted(step.method, step.arguments);
    std::string result;
    const Cost cost =
        Measure([&] { result = CallUncounted(budget.call.method, budget.call.arguments); });
    EXPECT_EQ(budget.result, result);
    for (const auto count : kCounts) {
      EXPECT_TRUE(count == &Cost::bytes || cost.*count <= budget.most.*count) << cost;
    }
  }
}

const std::string kLong(kMebibyte, 'x');
const Step kRegister{"register_app", {"qz"}};
const Step kUnregister{"unregister_app", {"qz"}};
const Step kSend{"send_data", {"qz", "data"}};
constexpr std::size_t kCut = 3 * kMaxLogLineBytes + 200;  // bytes of lines that are cut

// Service calls, waits, log lines and their bytes, allocations.
const MethodBudget kMethods[] = {
    {"RegisterOffTheList", {}, {"register_app", {"nobody"}}, "(-20,)", {0, 0, 5, 400, 1}},
    {"RegisterALongName", {}, {"register_app", {kLong}}, "(-20,)", {0, 0, 5, kCut, 2}},
    {"Register", {kUnregister}, kRegister, "(0,)", {1, 0, 8, 550, 3}},
    {"RegisterAgain", {kRegister}, kRegister, "(0,)", {0, 0, 5, 400, 1}},
    {"RegisterRefused", {}, kRegister, "(-100,)", {3, 3, 11, 800, 3}, "register_property"},
    {"UnregisterWithoutRegistration", {}, kUnregister, "(-20,)", {0, 0, 3, 300, 1}},
    {"UnregisterALongName", {}, {"unregister_app", {kLong}}, "(-20,)", {0, 0, 3, kCut, 2}},
    {"Unregister", {kRegister}, kUnregister, "(0,)", {1, 0, 6, 450, 1}},
    {"UnregisterRefused",
     {kRegister},
     kUnregister,
     "(0,)",
     {3, 3, 9, 700, 1},
     "unregister_property"},
    {"SendWithoutRegistration", {}, kSend, "(-20,)", {0, 0, 2, 200, 1}},
    {"Send", {kRegister}, kSend, "(0,)", {1, 0, 3, 200, 3}},
    {"SendALongString", {kRegister}, {"send_data", {"qz", kLong}}, "(0,)", {1, 0, 3, 200, 4}},
    {"SendALongUnknownName", {}, {"send_data", {kLong, kLong}}, "(-20,)", {0, 0, 2, kCut, 3}},
    {"SendRefused", {kRegister}, kSend, "(0,)", {1, 0, 3, 200, 3}, "notify"},
    {"GetCloudConnection", {}, {"get_cloud_connection", {}}, "(false,)", {0, 0, 0, 0, 2}},
    {"GetThingInformation", {}, {"get_thing_information", {}}, "('',)", {0, 0, 1, 150, 2}},
};
INSTANTIATE_TEST_SUITE_P(Methods, MethodBudgetTest, ::testing::ValuesIn(kMethods),
                         nameOf<MethodBudget>);

struct RequestBudget {
  const char* name;
  bool isSet;
  Properties (*make)(std::size_t count);
};

class RequestBudgetTest : public HostileCallerBudgetTest,
                          public ::testing::WithParamInterface<RequestBudget> {
 protected:
  void SetUp() override {
    HostileCallerBudgetTest::SetUp();
    EXPECT_EQ("(0,)", CallUncounted("register_app", {"qz"}));
    EXPECT_EQ("(0,)", CallUncounted("send_data", {"qz", std::string(256, 'x')}));
    RequestOf(1);  // what is made once
  }

  void* RequestOf(std::size_t count) { return Request(GetParam().isSet, GetParam().make(count)); }
};

// A thousand is what the device service takes at once.
constexpr std::size_t kMost = 1000;

void expectAtMostTwice(const Cost& half, const Cost& whole) {
  constexpr double kTwice = 2.2;
  for (const auto count : kCounts) {
    EXPECT_LE(static_cast<double>(whole.*count), kTwice * static_cast<double>(half.*count) + 1)
        << half << '\n'
        << whole;
  }
}

TEST_P(RequestBudgetTest, TwiceAsMuchCostsAtMostTwiceAsMuch) {
  const Cost half = Measure([this] { RequestOf(kMost / 2); });
  const Cost whole = Measure([this] { RequestOf(kMost); });
  expectAtMostTwice(half, whole);
  EXPECT_EQ(0U, whole.waits) << whole;
  EXPECT_LE(whole.logLines, 4 * kMost) << whole;
  EXPECT_LE(whole.logBytes, kMebibyte) << whole;
}

TEST_P(RequestBudgetTest, ACancelCostsTheSameWhateverItCancels) {
  void* const small = RequestOf(1);
  const Cost one = Measure([&] { Cancel(small); });
  void* const large = RequestOf(kMost);
  const Cost many = Measure([&] { Cancel(large); });
  for (const auto count :
       {&Cost::serviceCalls, &Cost::waits, &Cost::logLines, &Cost::allocations}) {
    EXPECT_EQ(one.*count, many.*count) << one << '\n' << many;
  }
}

// JSON that is nested as deep as the device service takes, `count` times side by side.
std::string nested(std::size_t count) {
  constexpr std::size_t kLevels = 98;
  std::string json = "{";
  for (std::size_t i = 0; i < count; ++i) {
    json += (i == 0 ? "\"" : ",\"") + std::to_string(i) + "\":";
    json += std::string(kLevels, '[') + std::string(kLevels, ']');
  }
  return json + "}";
}

Properties unknownNames(std::size_t count) {
  Properties properties;
  while (properties.size() < count) {
    properties.push_back(Property::String("name " + std::to_string(properties.size()), "x"));
  }
  return properties;
}

Properties oneNameAgainAndAgain(std::size_t count) {
  return Properties(count, Property::String("qz", "x"));
}

Properties longString(std::size_t count) {
  return {Property::String("qz", std::string(256 * count, 'x'))};
}

Properties nestedSignupInformation(std::size_t count) {
  return {Property::Json("signupInfo", nested(count))};
}

INSTANTIATE_TEST_SUITE_P(
    Requests, RequestBudgetTest,
    ::testing::Values(RequestBudget{"GetUnknownNames", false, unknownNames},
                      RequestBudget{"GetOneNameAgainAndAgain", false, oneNameAgainAndAgain},
                      RequestBudget{"SetUnknownNames", true, unknownNames},
                      RequestBudget{"SetOneNameAgainAndAgain", true, oneNameAgainAndAgain},
                      RequestBudget{"SetALongString", true, longString},
                      RequestBudget{"SetANestedSignupInformation", true, nestedSignupInformation}),
    nameOf<RequestBudget>);

// What the cloud has set at its worst is what any application may ask for.
TEST_F(HostileCallerBudgetTest, TheThingInformationCostsNoMoreThanInProportion) {
  const auto measure = [this](std::size_t count) {
    Request(true, nestedSignupInformation(count));
    return Measure([this] { EXPECT_NE("an error", CallUncounted("get_thing_information")); });
  };
  measure(1);
  const Cost half = measure(kMost / 2);
  const Cost whole = measure(kMost);
  expectAtMostTwice(half, whole);
  EXPECT_LE(whole.logLines, 4U) << whole;
}

}  // namespace
