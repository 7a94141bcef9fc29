// What one caller can make the plug-in do: counts of device-service calls, waits, log lines and
// allocations, for each method that applications call and each request of the cloud. A count does
// not depend on the machine; what grows faster than its input shows as more than twice the count
// for twice the input.
#include <algorithm>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "FaultyNew.h"
#include "PluginTest.h"
#include "SparedAllocations.h"

namespace {

using fake::Property;

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

  // An application's call, made without memory of this program's own: what comes back, as text.
  std::string Call(const char* method, const std::vector<std::string>& arguments) {
    struct Answer {
      bool hasArrived;
      GVariant* value;
    } answer{false, nullptr};
    GVariant* parameters = nullptr;
    if (!arguments.empty()) {
      GVariantBuilder builder;
      g_variant_builder_init(&builder, G_VARIANT_TYPE_TUPLE);
      for (const std::string& argument : arguments) {
        g_variant_builder_add(&builder, "s", argument.c_str());
      }
      parameters = g_variant_builder_end(&builder);
    }
    g_dbus_connection_call(
        Shared().Get(), kBusName, kObjectPath, kInterface, method, parameters, nullptr,
        G_DBUS_CALL_FLAGS_NO_AUTO_START, -1, nullptr,
        [](GObject* source, GAsyncResult* result, gpointer data) {
          auto* const reply = static_cast<Answer*>(data);
          reply->value = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, nullptr);
          reply->hasArrived = true;
        },
        &answer);
    while (!answer.hasArrived) g_main_context_iteration(nullptr, TRUE);
    if (answer.value == nullptr) return "an error";
    const SparedAllocations spared;
    gchar* const text = g_variant_print(answer.value, FALSE);
    const std::string result = text;
    g_free(text);
    g_variant_unref(answer.value);
    return result;
  }

  // Delivers a request, waits until its handler has returned, and gives the request.
  void* Request(bool isSet, const std::vector<Property>& properties) {
    return WaitFor(isSet ? "setHandler" : "getHandler", [&] {
      return isSet ? platform.DeliverSet(properties) : platform.DeliverGet(properties);
    });
  }
  void Cancel(void* request) {
    WaitFor("cancelHandler", [&]() -> void* {
      platform.DeliverCancel(request);
      return nullptr;
    });
  }

 private:
  void* WaitFor(const char* handler, const std::function<void*()>& deliver) {
    const auto count = [this, handler] {
      const SparedAllocations spared;
      const std::vector<fake::LogLine> lines = platform.LogsOf(handler);
      return std::count_if(lines.begin(), lines.end(),
                           [](const fake::LogLine& line) { return line.Message() == " > Left"; });
    };
    const auto before = count();
    void* const request = deliver();
    const SparedAllocations spared;
    EXPECT_TRUE(platform.WaitUntil([&] { return count() > before; })) << handler;
    return request;
  }
};

// --- the methods ---------------------------------------------------------------------------------

struct Step {
  const char* method;
  std::vector<std::string> arguments;
};

struct MethodBudget {
  const char* name;
  std::vector<Step> before;  // each call
  Step call;
  std::string result;
  Cost most;  // of each call; the bytes that are allocated are those of the texts
  const char* failing = nullptr;  // operation of the device service

  friend void PrintTo(const MethodBudget& budget, std::ostream* out) { *out << budget.name; }
};

const Step kRegister{"register_app", {"qz"}};
const Step kUnregister{"unregister_app", {"qz"}};
const std::string kLongText(kMebibyte, 'x');
constexpr std::size_t kCutLines = 3 * kMaxLogLineBytes + 200;

class MethodBudgetTest : public HostileCallerBudgetTest,
                         public ::testing::WithParamInterface<MethodBudget> {};

TEST_P(MethodBudgetTest, ACallCostsNoMoreThanThisHoweverOftenItIsRepeated) {
  constexpr int kCalls = 60;
  const MethodBudget& budget = GetParam();
  if (budget.failing != nullptr) platform.Fail(budget.failing);
  for (int i = 0; i < kCalls && !HasFailure(); ++i) {
    for (const Step& step : budget.before) Call(step.method, step.arguments);
    std::string result;
    const Cost cost = Measure([&] { result = Call(budget.call.method, budget.call.arguments); });
    EXPECT_EQ(budget.result, result);
    EXPECT_LE(cost.serviceCalls, budget.most.serviceCalls) << cost;
    EXPECT_LE(cost.waits, budget.most.waits) << cost;
    EXPECT_LE(cost.logLines, budget.most.logLines) << cost;
    EXPECT_LE(cost.logBytes, budget.most.logBytes) << cost;
    EXPECT_LE(cost.allocations, budget.most.allocations) << cost;
  }
}

// Service calls, waits, log lines and their bytes, allocations.
INSTANTIATE_TEST_SUITE_P(
    Methods, MethodBudgetTest,
    ::testing::Values(
        MethodBudget{
            "RegisterOffTheList", {}, {"register_app", {"nobody"}}, "(-20,)", {0, 0, 5, 400, 1}},
        MethodBudget{"RegisterALongName",
                     {},
                     {"register_app", {kLongText}},
                     "(-20,)",
                     {0, 0, 5, kCutLines, 2}},
        MethodBudget{"Register", {kUnregister}, kRegister, "(0,)", {1, 0, 8, 550, 3}},
        MethodBudget{"RegisterAgain", {kRegister}, kRegister, "(0,)", {0, 0, 5, 400, 1}},
        MethodBudget{"RegisterRefused",
                     {},
                     kRegister,
                     "(-100,)",
                     {3, 3, 11, 800, 3},
                     "lumo_service_register_property"},
        MethodBudget{"UnregisterWithoutRegistration", {}, kUnregister, "(-20,)", {0, 0, 3, 300, 1}},
        MethodBudget{"UnregisterALongName",
                     {},
                     {"unregister_app", {kLongText}},
                     "(-20,)",
                     {0, 0, 3, kCutLines, 2}},
        MethodBudget{"Unregister", {kRegister}, kUnregister, "(0,)", {1, 0, 6, 450, 1}},
        MethodBudget{"UnregisterRefused",
                     {kRegister},
                     kUnregister,
                     "(0,)",
                     {3, 3, 9, 700, 1},
                     "lumo_service_unregister_property"},
        MethodBudget{"SendWithoutRegistration",
                     {},
                     {"send_data", {"qz", "data"}},
                     "(-20,)",
                     {0, 0, 2, 200, 1}},
        MethodBudget{"Send", {kRegister}, {"send_data", {"qz", "data"}}, "(0,)", {1, 0, 3, 200, 3}},
        MethodBudget{"SendALongText",
                     {kRegister},
                     {"send_data", {"qz", kLongText}},
                     "(0,)",
                     {1, 0, 3, 200, 4}},
        MethodBudget{"SendALongTextWithoutRegistration",
                     {},
                     {"send_data", {kLongText, kLongText}},
                     "(-20,)",
                     {0, 0, 2, kCutLines, 3}},
        MethodBudget{"SendRefused",
                     {kRegister},
                     {"send_data", {"qz", "data"}},
                     "(0,)",
                     {1, 0, 3, 200, 3},
                     "lumo_service_notify"},
        MethodBudget{
            "GetCloudConnection", {}, {"get_cloud_connection", {}}, "(false,)", {0, 0, 0, 0, 2}},
        MethodBudget{
            "GetThingInformation", {}, {"get_thing_information", {}}, "('',)", {0, 0, 1, 150, 2}}),
    [](const ::testing::TestParamInfo<MethodBudget>& budget) {
      return std::string(budget.param.name);
    });

// --- the cloud's requests ------------------------------------------------------------------------

struct RequestBudget {
  const char* name;
  bool isSet;
  std::function<std::vector<Property>(std::size_t count)> make;

  friend void PrintTo(const RequestBudget& budget, std::ostream* out) { *out << budget.name; }
};

std::vector<Property> times(std::size_t count, const std::function<Property(std::size_t)>& make) {
  std::vector<Property> properties;
  for (std::size_t i = 0; i < count; ++i) properties.push_back(make(i));
  return properties;
}

// A JSON text that is nested as deep as the device service takes, `count` times side by side.
std::string nested(std::size_t count) {
  constexpr std::size_t kLevels = 98;
  std::string text = "{";
  for (std::size_t i = 0; i < count; ++i) {
    text += (i == 0 ? "\"" : ",\"") + std::to_string(i) + "\":";
    text += std::string(kLevels, '[') + std::string(kLevels, ']');
  }
  return text + "}";
}

class RequestBudgetTest : public HostileCallerBudgetTest,
                          public ::testing::WithParamInterface<RequestBudget> {
 protected:
  void SetUp() override {
    HostileCallerBudgetTest::SetUp();
    EXPECT_EQ("(0,)", Call("register_app", {"qz"}));
    EXPECT_EQ("(0,)", Call("send_data", {"qz", std::string(256, 'x')}));
    RequestOf(1);  // what is made once
  }

  void* RequestOf(std::size_t count) { return Request(GetParam().isSet, GetParam().make(count)); }
};

// A thousand is what the device service takes at once.
constexpr std::size_t kMost = 1000;
constexpr double kTwice = 2.2;

void expectAtMostTwice(const Cost& half, const Cost& whole) {
  const auto expect = [&](std::size_t Cost::*count) {
    EXPECT_LE(static_cast<double>(whole.*count), kTwice * static_cast<double>(half.*count) + 1)
        << half << '\n'
        << whole;
  };
  expect(&Cost::serviceCalls);
  expect(&Cost::waits);
  expect(&Cost::logLines);
  expect(&Cost::logBytes);
  expect(&Cost::allocations);
  expect(&Cost::bytes);
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
  EXPECT_EQ(one.serviceCalls, many.serviceCalls) << many;
  EXPECT_EQ(one.waits, many.waits) << many;
  EXPECT_EQ(one.logLines, many.logLines) << many;
  EXPECT_EQ(one.allocations, many.allocations) << many;
}

INSTANTIATE_TEST_SUITE_P(
    Requests, RequestBudgetTest,
    ::testing::Values(RequestBudget{"GetUnknownNames", false,
                                    [](std::size_t count) {
                                      return times(count, [](std::size_t i) {
                                        return Property::String("name " + std::to_string(i), "");
                                      });
                                    }},
                      RequestBudget{"GetOneNameAgainAndAgain", false,
                                    [](std::size_t count) {
                                      return times(count, [](std::size_t) {
                                        return Property::String("qz", "");
                                      });
                                    }},
                      RequestBudget{"SetUnknownNames", true,
                                    [](std::size_t count) {
                                      return times(count, [](std::size_t i) {
                                        return Property::String("name " + std::to_string(i), "x");
                                      });
                                    }},
                      RequestBudget{"SetOneNameAgainAndAgain", true,
                                    [](std::size_t count) {
                                      return times(count, [](std::size_t) {
                                        return Property::String("qz", "x");
                                      });
                                    }},
                      RequestBudget{"SetALongText", true,
                                    [](std::size_t count) {
                                      return times(1, [count](std::size_t) {
                                        return Property::String("qz",
                                                                std::string(256 * count, 'x'));
                                      });
                                    }},
                      RequestBudget{"SetANestedSignupInformation", true,
                                    [](std::size_t count) {
                                      return times(1, [count](std::size_t) {
                                        return Property::Json("signupInfo", nested(count));
                                      });
                                    }}),
    [](const ::testing::TestParamInfo<RequestBudget>& budget) {
      return std::string(budget.param.name);
    });

// What the cloud has set at its worst is what any application may ask for.
TEST_F(HostileCallerBudgetTest, TheThingInformationCostsNoMoreThanInProportion) {
  const auto measure = [this](std::size_t count) {
    Request(true, {Property::Json("signupInfo", nested(count))});
    return Measure([this] { EXPECT_NE("an error", Call("get_thing_information", {})); });
  };
  measure(1);
  const Cost half = measure(kMost / 2);
  const Cost whole = measure(kMost);
  expectAtMostTwice(half, whole);
  EXPECT_LE(whole.logLines, 4U) << whole;
}

}  // namespace
