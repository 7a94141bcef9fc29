// A process that unloads the library while a service is connected. Links none of it.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "Broker.h"
#include "Gate.h"
#include "WaitUntil.h"
#include "lumo.h"

namespace {

// GLib keeps threads for the whole process, and stays loaded itself.
bool isOfGLib(const std::string& thread) {
  return thread == "gmain" || thread.rfind("pool-", 0) == 0;
}

std::ptrdiff_t countThreads() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return std::count_if(begin(tasks), end(tasks), [](const auto& task) {
    std::string name;  // empty when the thread has just ended
    std::getline(std::ifstream(task.path() / "comm"), name);
    return !isOfGLib(name);
  });
}

bool isMapped(const std::string& library) {
  std::ostringstream maps;
  maps << std::ifstream("/proc/self/maps").rdbuf();
  return maps.str().find(library) != std::string::npos;
}

void openGate(void*, lumo_string, lumo_protocol_status, void* gate) {
  static_cast<Gate*>(gate)->Open();
}
void ignoreRequest(void*, void*, void*, void*) {}
void ignoreCancel(void*, void*, void*) {}

// Loads the library, connects a service, and unloads it; with a broker at the other end or not.
void loadAndUnload(bool brokerIsThere) {
  void* const library = dlopen(LUMO_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << dlerror();
  const auto create =
      reinterpret_cast<decltype(&lumo_service_create)>(dlsym(library, "lumo_service_create"));
  ASSERT_NE(create, nullptr);
  Gate connected;
  const lumo_string name{"service", 7};
  EXPECT_NE(create(name, name, openGate, ignoreRequest, ignoreRequest, ignoreCancel, &connected),
            nullptr);
  if (brokerIsThere) {
    EXPECT_TRUE(connected.Wait());
  }
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(dlclose(library), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
  EXPECT_FALSE(isMapped(LUMO_LIBRARY));
}

void expectThreads(std::ptrdiff_t count) {
  // A thread that was joined can be listed a moment longer.
  EXPECT_TRUE(WaitUntil([count] { return countThreads() <= count; }));
  EXPECT_EQ(countThreads(), count);
}

TEST(MqttUnloadTest, AConnectedServiceLeavesNothingBehindAndIsOffline) {
  Broker broker("allow_anonymous true\nlog_type all\n");
  setenv("LUMO_BROKER", ("mqtt://127.0.0.1:" + std::to_string(broker.Port())).c_str(), 1);
  setenv("LUMO_THING_ID", "tv", 1);
  std::thread([] {}).join();  // a sanitizer starts a thread of its own with the first one
  const auto threads = countThreads();
  for (int round = 0; round < 3; ++round) {
    loadAndUnload(true);
    expectThreads(threads);
  }
  const std::string log = broker.Log();
  EXPECT_NE(log.find("Received DISCONNECT from tv:service"), std::string::npos);
  broker.Stop();
  loadAndUnload(false);
  expectThreads(threads);
}

}  // namespace
