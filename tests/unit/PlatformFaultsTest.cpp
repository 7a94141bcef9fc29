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

constexpr unsigned kCallsThatMayFailFirst = 8;
constexpr std::size_t kRequests = 2;

class PlatformFaultsTest : public PlatformTest,
                           public ::testing::WithParamInterface<std::tuple<std::string, unsigned>> {
 protected:
  struct Life {
    bool created = false;
    int registered = 0;
    bool hasProperty = false;
    int notified = 0;
    int unregistered = 0;
    std::vector<fake::Response> responses;
    std::vector<fake::Notification> notifications;
  };

  // All that the plug-in does with the device service, once.
  Life Live() {
    Life life;
    platform.ClearTrace();
    life.created = control.Create();
    life.registered = control.RegisterApp("qz");
    const std::vector<fake::Registration> registrations = platform.Registrations();
    life.hasProperty =
        std::any_of(registrations.begin(), registrations.end(),
                    [](const fake::Registration& property) { return property.name == "qz"; });
    life.notified = control.NotifyData("qz", "42");
    life.notifications = platform.Notifications();
    if (life.created) {
      platform.DeliverGet({Property::String("qz", ""), Property::Bool("signinStatus", false)});
      platform.DeliverSet({Property::Bool("signinStatus", true), Property::Int("qz", 1),
                           Property::Json("signupInfo", "{}"), Property::Bytes("qmap", "x"),
                           Property::Double("qmap", 1)});
      // Answered exactly once: the platform reports a second answer.
      EXPECT_TRUE(platform.WaitUntil([this] { return platform.Responses().size() == kRequests; }));
      life.responses = platform.Responses();
    }
    life.unregistered = control.UnregisterApp("qz");
    control.Destroy();
    EXPECT_FALSE(control.IsCreated());
    control.Shutdown();
    EXPECT_EQ(0U, platform.LiveServices());
    return life;
  }

  void ExpectPromises(const Life& life, const std::string& operation) {
    EXPECT_EQ(operation != "lumo_service_create" || life.responses.size() == kRequests,
              life.created);
    // The registry and the service never disagree about an application.
    EXPECT_TRUE(life.registered == 0 || life.registered == -100) << life.registered;
    EXPECT_EQ(life.registered == 0, life.hasProperty);
    if (life.created && operation != "lumo_service_register_property") {
      EXPECT_EQ(0, life.registered);
    }
    EXPECT_EQ(life.registered == 0 ? 0 : -20, life.notified);
    EXPECT_EQ(life.notified == 0 ? 1U : 0U, life.notifications.size());
    EXPECT_EQ(life.registered == 0 ? 0 : -20, life.unregistered);
  }

  static void ExpectPerfect(const Life& life) {
    EXPECT_TRUE(life.created);
    EXPECT_EQ(0, life.registered);
    EXPECT_EQ(0, life.notified);
    EXPECT_EQ(0, life.unregistered);
    ASSERT_EQ(1U, life.notifications.size());
    EXPECT_EQ(std::vector<Property>{Property::String("qz", "42")},
              life.notifications[0].properties);
    ASSERT_EQ(kRequests, life.responses.size());
    EXPECT_EQ(0, life.responses[0].code);
    EXPECT_EQ(
        (std::vector<Property>{Property::String("qz", "42"), Property::String("signinStatus", "")}),
        life.responses[0].properties);
    EXPECT_EQ(6, life.responses[1].code);  // nobody is registered as "qmap"
    EXPECT_EQ(std::vector<Property>{Property::String("qz", "42")}, life.responses[1].properties);
  }

  AppDataChannelControl control;
};

TEST_P(PlatformFaultsTest, BreaksNoPromiseAndIsForgotten) {
  const auto& [operation, count] = GetParam();
  for (unsigned skip = 0; skip < kCallsThatMayFailFirst; ++skip) {
    SCOPED_TRACE("after " + std::to_string(skip) + " calls");
    platform.Fail(operation, count, 5, skip);
    Life life;
    ASSERT_NO_THROW(life = Live());
    ExpectPromises(life, operation);
    platform.ClearFailures();
    ExpectPerfect(Live());
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

std::string ParameterName(const ::testing::TestParamInfo<std::tuple<std::string, unsigned>>& info) {
  const unsigned count = std::get<1>(info.param);
  return std::get<0>(info.param) + "_" +
         (count == Platform::kAlways ? "always" : std::to_string(count));
}

INSTANTIATE_TEST_SUITE_P(
    Operations, PlatformFaultsTest,
    ::testing::Combine(
        ::testing::Values("dlog_print", "lumo_service_create", "lumo_service_destroy",
                          "lumo_service_register_property", "lumo_service_unregister_property",
                          "lumo_service_notify", "lumo_service_send_get_property_result",
                          "lumo_service_send_set_property_result", "lumo_property_list_create",
                          "lumo_property_list_push_property", "lumo_property_list_get_first",
                          "lumo_property_list_get_next", "lumo_property_create_bool",
                          "lumo_property_create_int", "lumo_property_create_double",
                          "lumo_property_create_string", "lumo_property_create_json_string",
                          "lumo_property_get_name", "lumo_property_get_type",
                          "lumo_property_get_bool", "lumo_property_get_int",
                          "lumo_property_get_string", "lumo_property_get_json_string",
                          "lumo_property_get_bytes"),
        ::testing::Values(1U, 2U, 3U, Platform::kAlways)),
    ParameterName);

}  // namespace
