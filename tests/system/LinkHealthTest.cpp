// What the host says of the channel to the operator.
#include "LinkHealth.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace {

using QivoThing::Describe;

constexpr const char* kSettings = "mqtts://broker:8883 as tv";
constexpr std::uint32_t kOwnProperties = 2;

lumo_health healthWith(lumo_link link, std::uint32_t properties = kOwnProperties,
                       std::uint32_t waitingRequests = 0, const std::string& reason = {}) {
  lumo_health health{};
  health.link = link;
  health.since = 0;
  health.properties = properties;
  health.waiting_requests = waitingRequests;
  reason.copy(health.reason, sizeof health.reason);
  return health;
}

TEST(LinkHealthTest, TellsTheBrokerTheApplicationsAndWhatWaits) {
  EXPECT_EQ("online at mqtts://broker:8883 as tv, 3 applications, 2 requests waiting",
            Describe(healthWith(LUMO_LINK_ONLINE, 5, 2), kSettings, kOwnProperties));
  EXPECT_EQ("online at mqtts://broker:8883 as tv, 1 application, 1 request waiting",
            Describe(healthWith(LUMO_LINK_ONLINE, 3, 1), kSettings, kOwnProperties));
}

TEST(LinkHealthTest, OnlineItTellsWhatTheBrokerRefuses) {
  EXPECT_EQ(
      "online at mqtts://broker:8883 as tv (the broker refuses things/tv/status: not authorised), "
      "0 applications, 0 requests waiting",
      Describe(
          healthWith(LUMO_LINK_ONLINE, 2, 0, "the broker refuses things/tv/status: not authorised"),
          kSettings, kOwnProperties));
}

TEST(LinkHealthTest, BeforeTheFirstAttemptHasFailedItConnects) {
  EXPECT_EQ("connecting to mqtts://broker:8883 as tv, 0 applications, 0 requests waiting",
            Describe(healthWith(LUMO_LINK_OFFLINE), kSettings, kOwnProperties));
}

TEST(LinkHealthTest, OfflineItTellsSinceWhenAndWhy) {
  setenv("TZ", "UTC", 1);
  EXPECT_EQ(
      "offline since 1970-01-01 00:00:00 (Connection refused): mqtts://broker:8883 as tv, "
      "0 applications, 0 requests waiting",
      Describe(healthWith(LUMO_LINK_OFFLINE, 2, 0, "Connection refused"), kSettings,
               kOwnProperties));
  unsetenv("TZ");
}

TEST(LinkHealthTest, AReasonNeedsNoEnd) {
  const std::string longest(sizeof lumo_health::reason, 'x');
  EXPECT_NE(std::string::npos,
            Describe(healthWith(LUMO_LINK_OFFLINE, 2, 0, longest), kSettings, kOwnProperties)
                .find("(" + longest + ")"));
}

TEST(LinkHealthTest, WithoutABrokerTheSettingsSaySo) {
  EXPECT_EQ("LUMO_BROKER is not set: nothing goes out, 1 application, 0 requests waiting",
            Describe(healthWith(LUMO_LINK_NONE, 3), "LUMO_BROKER is not set: nothing goes out",
                     kOwnProperties));
}

TEST(LinkHealthTest, FewerPropertiesThanThePlugInsHadAreNoApplications) {
  EXPECT_EQ("online at mqtts://broker:8883 as tv, 0 applications, 0 requests waiting",
            Describe(healthWith(LUMO_LINK_ONLINE, 0), kSettings, kOwnProperties));
}

}  // namespace
