// Memory that runs out at every single allocation of what the plug-in does, once or for the rest of
// the operation: an exception may leave where one is allowed to, but nothing leaks, no lock stays
// held, and whatever is called next works.
#include <new>

#include "FaultyNew.h"
#include "PluginTest.h"

namespace {

using fake::Property;
using Strings = std::vector<std::string>;

constexpr std::size_t kMostAllocations = 10000;  // of one operation; a test that goes on is broken

class AllocationFaultsTest : public PluginTest,
                             public ::testing::WithParamInterface<FaultyNew::Duration> {
 protected:
  using Operation = std::function<void()>;

  // For each number of an allocation until the operation needs no more: a fresh plug-in, `prepare`,
  // the operation with that allocation failing, `judge`; then everything must work, and nothing may
  // be left once the plug-in is unloaded.
  void FailEachAllocation(const Operation& prepare, const Operation& operation,
                          const std::function<void(bool hasThrown)>& judge) {
    bool failed = true;
    std::size_t number = 0;
    for (; failed && number < kMostAllocations && !HasFailure(); ++number) {
      SCOPED_TRACE("allocation " + std::to_string(number));
      prepare();
      if (HasFatalFailure()) return;
      bool hasThrown = false;
      {
        // The first round is without a failure; only what it leaves is of interest.
        const FaultyNew fault(number, GetParam());
        try {
          operation();
        } catch (const std::bad_alloc&) {
          hasThrown = true;
        }
        failed = number == 0 || FaultyNew::HasFailed();
      }
      judge(hasThrown);
      ExpectAWorkingLife();
      platform.Drain();
      Unload();
      EXPECT_EQ(0U, FaultyNew::LiveBlocks());
      for (const std::string& violation : platform.TakeViolations()) ADD_FAILURE() << violation;
      platform.Reset();
      SetUp();
    }
    EXPECT_FALSE(failed);
    EXPECT_GT(number, 2U);  // the operation does allocate
    RecordProperty("Allocations", static_cast<int>(number) - 2);
  }

  void CreateWithQz() {
    CreateUntilReady();
    ASSERT_EQ("(0,)", Call("register_app", {"qz"}));
    ASSERT_EQ("(0,)", Call("send_data", {"qz", "before"}));
    platform.ClearTrace();
  }

  // One life of the plug-in, with each operation once; it is created if it is not already. Other
  // threads than this one take every lock.
  void ExpectAWorkingLife() {
    if (platform.LiveServices() == 0) {
      std::thread([this] { EXPECT_TRUE(Create()); }).join();
    }
    EXPECT_EQ(1U, platform.LiveServices());
    ASSERT_TRUE(WaitUntilReady());
    EXPECT_EQ("(0,)", Call("register_app", {"qz"}));
    EXPECT_EQ("(0,)", Call("send_data", {"qz", "42"}));
    const std::vector<fake::Registration> registrations = platform.Registrations();
    ASSERT_EQ(3U, registrations.size());
    EXPECT_EQ("qz", registrations[2].name);

    platform.ClearTrace();
    platform.DeliverSet({Property::Bool("signinStatus", true), Property::String("qz", "43")});
    ASSERT_TRUE(WaitForAnswers(1));
    platform.DeliverGet({Property::String("qz", "")});
    ASSERT_TRUE(WaitForAnswers(2));
    for (const fake::Response& response : platform.Responses()) {
      EXPECT_EQ(0, response.code);
      EXPECT_EQ(std::vector<Property>{Property::String("qz", "42")}, response.properties);
    }
    EXPECT_EQ("(true,)", Call("get_cloud_connection"));
    std::thread([this] { EXPECT_TRUE(Destroy()); }).join();
    ExpectStopped();
  }

  void ExpectStopped() {
    RunPending();
    EXPECT_EQ(0U, platform.LiveServices());
    EXPECT_EQ(0, platform.Setting(kStatusKey));
    EXPECT_EQ("", client->OwnerOf(kBusName));
  }
};

TEST_P(AllocationFaultsTest, CreatePluginLeavesEitherAPluginOrNothing) {
  FailEachAllocation([] {}, [this] { Create(); },
                     [this](bool hasThrown) {
                       const bool initialized = platform.CountLogs("Initialize: true") == 1;
                       EXPECT_EQ(initialized ? 1U : 0U, platform.LiveServices());
                       EXPECT_FALSE(initialized && hasThrown);
                     });
}

TEST_P(AllocationFaultsTest, RegisterAppIsAnsweredAndMayBeRepeated) {
  const Strings arguments{"qz"};
  bool registered = false;
  FailEachAllocation([this] { CreateUntilReady(); },
                     [&] { registered = CallUncounted("register_app", arguments) == "(0,)"; },
                     [&](bool hasThrown) {
                       EXPECT_FALSE(hasThrown);
                       EXPECT_EQ(registered ? "(0,)" : "(-20,)", Call("send_data", {"qz", "42"}));
                       EXPECT_EQ(registered ? 3U : 2U, platform.Registrations().size());
                     });
}

TEST_P(AllocationFaultsTest, SendDataIsAnsweredAndMayBeRepeated) {
  const Strings arguments{"qz", "a string that is not a short one"};
  bool sent = false;
  FailEachAllocation(
      [this] { CreateWithQz(); }, [&] { sent = CallUncounted("send_data", arguments) == "(0,)"; },
      [&](bool hasThrown) {
        EXPECT_FALSE(hasThrown);
        platform.DeliverGet({Property::String("qz", "")});
        ASSERT_TRUE(WaitForAnswers(1));
        // It is kept before it is announced: after an error a get may have it.
        const std::vector<Property> found = platform.Responses()[0].properties;
        EXPECT_TRUE(found == std::vector{Property::String("qz", arguments[1])} ||
                    (!sent && found == std::vector{Property::String("qz", "before")}));
        EXPECT_EQ(sent ? 1U : 0U, platform.Notifications().size());
      });
}

TEST_P(AllocationFaultsTest, GetThingInformationIsAnsweredAndMayBeRepeated) {
  FailEachAllocation(
      [this] {
        CreateUntilReady();
        platform.DeliverSet({Property::Json("signupInfo", R"({"user": "a name of some length"})")});
        ASSERT_TRUE(WaitForAnswers(1));
      },
      [this] { CallUncounted("get_thing_information"); },
      [](bool hasThrown) { EXPECT_FALSE(hasThrown); });
}

TEST_P(AllocationFaultsTest, ARequestIsAnsweredOnceOrLeftToTheTimeOut) {
  const std::vector<Property> get{Property::String("qz", ""),
                                  Property::Bool("signinStatus", false)};
  const std::vector<Property> set{Property::String("qz", "a string that is not a short one"),
                                  Property::Json("signupInfo", R"({"a": [1]})")};
  for (const bool isSet : {false, true}) {
    FailEachAllocation([this] { CreateWithQz(); }, [&] { Request(isSet, isSet ? set : get); },
                       [this](bool /*hasThrown*/) { EXPECT_LE(platform.Responses().size(), 1U); });
  }
}

TEST_P(AllocationFaultsTest, DestroyPluginStopsEverythingWhateverItThrows) {
  FailEachAllocation([this] { CreateWithQz(); }, [this] { Destroy(); },
                     [this](bool /*hasThrown*/) { ExpectStopped(); });
}

INSTANTIATE_TEST_SUITE_P(Durations, AllocationFaultsTest,
                         ::testing::Values(FaultyNew::Duration::kOnce,
                                           FaultyNew::Duration::kFromThenOn),
                         [](const auto& duration) {
                           const bool isOnce = duration.param == FaultyNew::Duration::kOnce;
                           return isOnce ? "Once" : "FromThenOn";
                         });

}  // namespace
