// Every operation that the channel's cloud side uses of the platform failing in turn, at each of
// its first calls, for a while or for good.
#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

#include "AppDataChannelControl.h"
#include "PlatformTest.h"

using AppDataChannel::AppDataChannelControl;

namespace {

using fake::Platform;
using fake::Property;

constexpr std::size_t kRequests = 2;

class PlatformFaultsTest : public PlatformTest,
                           public ::testing::WithParamInterface<std::tuple<std::string, unsigned>> {
 protected:
  // All that the plug-in does with the device service, once. `failing` is the operation that may
  // fail; "" when all must be perfect.
  void Live(const std::string& failing) {
    platform.ClearTrace();
    const bool created = control.Create();
    const int registered = control.RegisterApp("qz");
    const auto registrations = platform.Registrations();
    // The registry and the service never disagree about an application.
    EXPECT_EQ(registered == 0,
              std::any_of(registrations.begin(), registrations.end(),
                          [](const auto& property) { return property.name == "qz"; }));
    EXPECT_TRUE(registered == 0 || registered == -100) << registered;
    EXPECT_EQ(registered == 0 ? 0 : -20, control.NotifyData("qz", "42"));
    const auto notifications = platform.Notifications();
    EXPECT_EQ(registered == 0 ? 1U : 0U, notifications.size());
    std::vector<fake::Response> responses;
    if (created) {
      if (failing != "lumo_service_register_property") {
        EXPECT_EQ(0, registered);
      }
      platform.DeliverGet({Property::String("qz", ""), Property::Bool("signinStatus", false)});
      platform.DeliverSet({Property::Bool("signinStatus", true), Property::Int("qz", 1),
                           Property::Json("signupInfo", "{}"), Property::Bytes("qmap", "x"),
                           Property::Double("qmap", 1)});
      // Answered exactly once: the platform reports a second answer.
      EXPECT_TRUE(platform.WaitUntil([this] { return platform.Responses().size() == kRequests; }));
      responses = platform.Responses();
    } else {
      EXPECT_EQ("lumo_service_create", failing);
    }
    EXPECT_EQ(registered == 0 ? 0 : -20, control.UnregisterApp("qz"));
    control.Destroy();
    EXPECT_FALSE(control.IsCreated());
    control.Shutdown();
    EXPECT_EQ(0U, platform.LiveServices());
    if (!failing.empty()) return;

    ASSERT_EQ(1U, notifications.size());
    const Property data = Property::String("qz", "42");
    EXPECT_EQ(std::vector<Property>{data}, notifications[0].properties);
    ASSERT_EQ(kRequests, responses.size());
    EXPECT_EQ(0, responses[0].code);
    EXPECT_EQ((std::vector<Property>{data, Property::String("signinStatus", "")}),
              responses[0].properties);
    EXPECT_EQ(6, responses[1].code);  // nobody is registered as "qmap"
    EXPECT_EQ(std::vector<Property>{data}, responses[1].properties);
  }

  AppDataChannelControl control;
};

TEST_P(PlatformFaultsTest, BreaksNoPromiseAndIsForgotten) {
  constexpr unsigned kCallsThatMayFailFirst = 8;
  const auto& [operation, count] = GetParam();
  for (unsigned skip = 0; skip < kCallsThatMayFailFirst; ++skip) {
    SCOPED_TRACE("after " + std::to_string(skip) + " calls");
    platform.Fail(operation, count, 5, skip);
    ASSERT_NO_THROW(Live(operation));
    platform.ClearFailures();
    Live("");
  }
}

using PlatformRefusalsTest = PlatformTest;

TEST_F(PlatformRefusalsTest, FewerThanThreeInARowAreOvercome) {
  for (const unsigned count : {1U, 2U, 3U, Platform::kAlways}) {
    SCOPED_TRACE(count);
    AppDataChannelControl control;
    platform.Fail("lumo_service_register_property", count);
    EXPECT_TRUE(control.Create());
    // The thing's own two properties have three attempts each before it.
    EXPECT_EQ(count == Platform::kAlways ? -100 : 0, control.RegisterApp("qz"));
    const std::size_t overcome = count < 3 ? 3 : 2;
    EXPECT_EQ(count == Platform::kAlways ? 0 : overcome, platform.Registrations().size());
    platform.ClearFailures();
    control.Destroy();
    control.Shutdown();
  }
}

std::vector<std::string> Operations() {
  std::vector<std::string> operations = fake::LumoOperations();
  operations.push_back("dlog_print");
  return operations;
}

INSTANTIATE_TEST_SUITE_P(Operations, PlatformFaultsTest,
                         ::testing::Combine(::testing::ValuesIn(Operations()),
                                            ::testing::Values(1U, 2U, 3U, Platform::kAlways)),
                         [](const auto& parameter) {
                           const unsigned count = std::get<1>(parameter.param);
                           return std::get<0>(parameter.param) + "_" +
                                  (count == Platform::kAlways ? "always" : std::to_string(count));
                         });

}  // namespace
