// A process may exit with a service alive.
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "ChildProcess.h"
#include "Gate.h"
#include "api/Library.h"
#include "lumo.h"

namespace {

constexpr int kExitStatus = 7;

void ignoreStatus(void*, lumo_string, lumo_protocol_status, void*) {}
void ignoreCancel(void*, void*, void*) {}

void* createService(lumo_get_property_cb callback) {
  const std::string name = "name";
  const lumo_string view = lumo_string_new(name.data(), name.size());
  return lumo_service_create(view, view, ignoreStatus, callback, callback, ignoreCancel, nullptr);
}

void requestFrom(void* service) {
  Lumo::Library::Get().FindService(service)->Get({"a"}, [](lumo_error, const auto&) {});
}

TEST(LumoExitTest, AnIdleServiceDoesNotHoldTheProcessUp) {
  ChildProcess child([] {
    createService([](void*, void*, void*, void*) {});
    lumo_property_list_create();
    return kExitStatus;
  });
  EXPECT_EQ(child.Wait(), kExitStatus);
}

TEST(LumoExitTest, ARunningCallbackFinishesFirst) {
  static std::array<int, 2> ends{};
  ASSERT_EQ(pipe(ends.data()), 0);
  ChildProcess child([] {
    static Gate started;
    requestFrom(createService([](void*, void*, void*, void*) {
      started.Open();
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      static_cast<void>(write(ends[1], "done", 4) == 4);
    }));
    return started.Wait() ? kExitStatus : 2;
  });
  close(ends[1]);
  EXPECT_EQ(ReadToEnd(ends[0]), "done");
  close(ends[0]);
  EXPECT_EQ(child.Wait(), kExitStatus);
}

TEST(LumoExitTest, ACallbackMayExitTheProcess) {
  ChildProcess child([] {
    requestFrom(createService([](void*, void*, void*, void*) { std::exit(kExitStatus); }));
    Gate never;
    never.Wait();
    return 1;
  });
  EXPECT_EQ(child.Wait(), kExitStatus);
}

TEST(LumoExitTest, ADestroyedServiceWhoseCallbackRunsDoesNotHoldTheProcessUp) {
  ChildProcess child([] {
    static Gate started;
    void* service = createService([](void*, void*, void*, void*) {
      started.Open();
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    });
    requestFrom(service);
    if (!started.Wait()) return 2;
    return lumo_service_destroy(service) == 0 ? kExitStatus : 3;
  });
  EXPECT_EQ(child.Wait(), kExitStatus);
}

}  // namespace
