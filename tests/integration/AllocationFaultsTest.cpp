// Memory that runs out at every single allocation of what the plug-in does, once or for the rest of
// the operation: an exception may leave where one is allowed to, but nothing leaks, no lock stays
// held, and whatever is called next works.
#include <functional>
#include <new>
#include <thread>

#include "FaultyNew.h"
#include "PluginTest.h"
#include "SparedAllocations.h"

namespace {

using fake::Property;

constexpr std::size_t kMostAllocations = 10000;  // of one operation; a test that goes on is broken

class AllocationFaultsTest : public PluginTest,
                             public ::testing::WithParamInterface<FaultyNew::Duration> {
 protected:
  // What became of the operation.
  enum class Outcome { kReturned, kThrew };
  using Operation = std::function<void()>;

  // For each number of an allocation until the operation needs no more: a fresh plug-in, `prepare`,
  // the operation with that allocation failing, `judge`; then everything must work, and nothing may
  // be left once the plug-in is unloaded.
  void FailEachAllocation(const Operation& prepare, const Operation& operation,
                          const std::function<void(Outcome)>& judge) {
    bool failed = true;
    std::size_t number = 0;
    for (; failed && number < kMostAllocations && !HasFailure(); ++number) {
      SCOPED_TRACE("allocation " + std::to_string(number));
      prepare();
      if (HasFatalFailure()) return;
      Outcome outcome = Outcome::kReturned;
      {
        // The first round is without a failure; only what it leaves is of interest.
        const FaultyNew fault(number, GetParam());
        try {
          operation();
        } catch (const std::bad_alloc&) {
          outcome = Outcome::kThrew;
        }
        failed = number == 0 || FaultyNew::HasFailed();
      }
      judge(outcome);
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
    ASSERT_EQ("(0,)", Call(*client, "register_app", g_variant_new("(s)", "qz")).value);
    ASSERT_EQ("(0,)", Call(*client, "send_data", g_variant_new("(ss)", "qz", "before")).value);
    platform.ClearTrace();
  }

  // Has the plug-in answer one call, without memory of this program's own; true when that succeeded
  // as far as the caller can tell.
  static bool CallWhileFaulty(GDBusConnection* connection, const char* method,
                              GVariant* parameters) {
    struct Answer {
      bool arrived;
      bool isSuccess;
    } answer{false, false};
    g_dbus_connection_call(
        connection, kBusName, kObjectPath, kInterface, method, parameters, nullptr,
        G_DBUS_CALL_FLAGS_NO_AUTO_START, kCallLimitMs, nullptr,
        [](GObject* source, GAsyncResult* result, gpointer data) {
          GError* error = nullptr;
          GVariant* const value =
              g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
          EXPECT_FALSE(g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT));
          auto* const reply = static_cast<Answer*>(data);
          if (value != nullptr) {
            gint32 code = 0;
            if (g_variant_is_of_type(value, G_VARIANT_TYPE("(i)")) != FALSE) {
              g_variant_get(value, "(i)", &code);
            }
            reply->isSuccess = code == 0;
            g_variant_unref(value);
          }
          g_clear_error(&error);
          reply->arrived = true;
        },
        &answer);
    while (!answer.arrived) g_main_context_iteration(nullptr, TRUE);
    return answer.isSuccess;
  }

  // Delivers a request and waits until nobody works on it any more, answered or not.
  void RequestWhileFaulty(bool isSet, const std::vector<Property>& properties) {
    const char* const handler = isSet ? "setHandler" : "getHandler";
    const auto ended = [this, handler] {
      const SparedAllocations spared;
      std::size_t count = platform.CountLogs("exception from job");
      for (const fake::LogLine& line : platform.LogsOf(handler)) {
        if (line.Message() == " > Left") ++count;
      }
      return count;
    };
    const std::size_t before = ended();
    if (isSet) {
      platform.DeliverSet(properties);
    } else {
      platform.DeliverGet(properties);
    }
    const SparedAllocations spared;
    EXPECT_TRUE(platform.WaitUntil([&] { return ended() > before; }));
  }

  // One life of the plug-in, with each operation once; it is created if it is not already. Other
  // threads than this one take every lock.
  void ExpectAWorkingLife() {
    if (platform.LiveServices() == 0) {
      std::thread([this] { EXPECT_TRUE(Create()); }).join();
    }
    EXPECT_EQ(1U, platform.LiveServices());
    ASSERT_TRUE(WaitUntilReady());
    EXPECT_EQ("(0,)", Call(*client, "register_app", g_variant_new("(s)", "qz")).value);
    EXPECT_EQ("(0,)", Call(*client, "send_data", g_variant_new("(ss)", "qz", "42")).value);
    const std::vector<fake::Registration> registrations = platform.Registrations();
    ASSERT_EQ(3U, registrations.size());
    EXPECT_EQ("qz", registrations[2].name);

    platform.ClearTrace();
    platform.DeliverSet({Property::Bool("signinStatus", true), Property::String("qz", "43")});
    ASSERT_TRUE(platform.WaitUntil([this] { return platform.Responses().size() == 1; }));
    platform.DeliverGet({Property::String("qz", "")});
    ASSERT_TRUE(platform.WaitUntil([this] { return platform.Responses().size() == 2; }));
    for (const fake::Response& response : platform.Responses()) {
      EXPECT_EQ(0, response.code);
      EXPECT_EQ(std::vector<Property>{Property::String("qz", "42")}, response.properties);
    }
    EXPECT_EQ("(true,)", Call(*client, "get_cloud_connection").value);
    std::thread([this] { EXPECT_TRUE(Destroy()); }).join();
    ExpectStopped();
  }

  void ExpectStopped() {
    RunPending();
    EXPECT_EQ(0U, platform.LiveServices());
    EXPECT_EQ(0, platform.Setting(kStatusKey));
    EXPECT_EQ("", client->OwnerOf(kBusName));
  }

 private:
  static constexpr int kCallLimitMs = 20'000;
};

TEST_P(AllocationFaultsTest, CreatePluginLeavesEitherAPluginOrNothing) {
  FailEachAllocation([] {}, [this] { Create(); },
                     [this](Outcome outcome) {
                       const bool initialized = platform.CountLogs("Initialize: true") == 1;
                       EXPECT_EQ(initialized ? 1U : 0U, platform.LiveServices());
                       EXPECT_FALSE(initialized && outcome == Outcome::kThrew);
                     });
}

TEST_P(AllocationFaultsTest, RegisterAppIsAnsweredAndMayBeRepeated) {
  bool registered = false;
  FailEachAllocation(
      [this] { CreateUntilReady(); },
      [&] {
        registered = CallWhileFaulty(Shared().Get(), "register_app", g_variant_new("(s)", "qz"));
      },
      [&](Outcome outcome) {
        EXPECT_EQ(Outcome::kReturned, outcome);
        EXPECT_EQ(registered ? "(0,)" : "(-20,)",
                  Call(*client, "send_data", g_variant_new("(ss)", "qz", "42")).value);
        EXPECT_EQ(registered ? 3U : 2U, platform.Registrations().size());
      });
}

TEST_P(AllocationFaultsTest, SendDataIsAnsweredAndMayBeRepeated) {
  constexpr const char* kText = "a text that is not a short one";
  bool sent = false;
  FailEachAllocation(
      [this] { CreateWithQz(); },
      [&] {
        sent = CallWhileFaulty(Shared().Get(), "send_data", g_variant_new("(ss)", "qz", kText));
      },
      [&](Outcome outcome) {
        EXPECT_EQ(Outcome::kReturned, outcome);
        platform.DeliverGet({Property::String("qz", "")});
        ASSERT_TRUE(platform.WaitUntil([this] { return platform.Responses().size() == 1; }));
        // It is kept before it is announced: after an error a get may have it already.
        const std::vector<Property> found = platform.Responses()[0].properties;
        EXPECT_TRUE(found == std::vector<Property>{Property::String("qz", kText)} ||
                    (!sent && found == std::vector<Property>{Property::String("qz", "before")}));
        EXPECT_EQ(sent ? 1U : 0U, platform.Notifications().size());
      });
}

TEST_P(AllocationFaultsTest, GetThingInformationIsAnsweredAndMayBeRepeated) {
  FailEachAllocation(
      [this] {
        CreateUntilReady();
        platform.DeliverSet({Property::Json("signupInfo", R"({"user": "a text of some length"})")});
        ASSERT_TRUE(platform.WaitUntil([this] { return platform.Responses().size() == 1; }));
      },
      [this] { CallWhileFaulty(Shared().Get(), "get_thing_information", nullptr); },
      [](Outcome outcome) { EXPECT_EQ(Outcome::kReturned, outcome); });
}

TEST_P(AllocationFaultsTest, AGetIsAnsweredOnceOrLeftToTheTimeOut) {
  FailEachAllocation([this] { CreateWithQz(); },
                     [this] {
                       RequestWhileFaulty(false, {Property::String("qz", ""),
                                                  Property::Bool("signinStatus", false)});
                     },
                     [this](Outcome /*outcome*/) { EXPECT_LE(platform.Responses().size(), 1U); });
}

TEST_P(AllocationFaultsTest, ASetIsAnsweredOnceOrLeftToTheTimeOut) {
  FailEachAllocation([this] { CreateWithQz(); },
                     [this] {
                       RequestWhileFaulty(true,
                                          {Property::String("qz", "a text that is not a short one"),
                                           Property::Json("signupInfo", R"({"a": [1]})")});
                     },
                     [this](Outcome /*outcome*/) { EXPECT_LE(platform.Responses().size(), 1U); });
}

TEST_P(AllocationFaultsTest, DestroyPluginStopsEverythingWhateverItThrows) {
  FailEachAllocation([this] { CreateWithQz(); }, [this] { Destroy(); },
                     [this](Outcome /*outcome*/) { ExpectStopped(); });
}

std::string ParameterName(const ::testing::TestParamInfo<FaultyNew::Duration>& info) {
  return info.param == FaultyNew::Duration::kOnce ? "Once" : "FromThenOn";
}

INSTANTIATE_TEST_SUITE_P(Durations, AllocationFaultsTest,
                         ::testing::Values(FaultyNew::Duration::kOnce,
                                           FaultyNew::Duration::kFromThenOn),
                         ParameterName);

}  // namespace
