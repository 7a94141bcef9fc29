#include "PluginTest.h"

#include <dlfcn.h>

namespace {

const std::string kRetryFunction = "executeFunctionAndRetryIfFailed";

std::string line(int priority, const std::string& place, const std::string& function,
                 const std::string& message) {
  return std::to_string(priority) + " " + place + " " + function + " " + message;
}

}  // namespace

void PluginTest::SetUp() {
  m_library = dlopen(ADC_PLUGIN_FILE, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(nullptr, m_library) << dlerror();
  m_create = reinterpret_cast<EntryPoint>(dlsym(m_library, "CreatePlugin"));
  m_destroy = reinterpret_cast<EntryPoint>(dlsym(m_library, "DestroyPlugin"));
  ASSERT_NE(nullptr, m_create);
  ASSERT_NE(nullptr, m_destroy);
  client = NewClient();
}

void PluginTest::TearDown() {
  platform.ClearFailures();
  if (m_library != nullptr) {
    Destroy();
    Unload();
  }
  BusTest::TearDown();
}

void PluginTest::CreateUntilReady() {
  ASSERT_TRUE(Create());
  ASSERT_TRUE(WaitUntilReady());
  platform.ClearTrace();
}

void PluginTest::Unload() {
  platform.Drain();
  RunPending();
  ASSERT_EQ(0, dlclose(m_library));
  m_library = nullptr;
  // Every test wants a fresh core.
  EXPECT_EQ(nullptr, dlopen(ADC_PLUGIN_FILE, RTLD_NOW | RTLD_NOLOAD));
}

std::vector<std::string> PluginTest::WorkerSummaries() {
  std::thread::id worker;
  for (const fake::Entry& entry : platform.Trace()) {
    if (entry.log.function == "getHandler" || entry.log.function == "setHandler" ||
        entry.log.function == "cancelHandler" || entry.log.function == "runDispatchingThread") {
      worker = entry.thread;
    }
  }
  return SummariesOf(worker);
}

std::string CoreLine(int priority, const std::string& function, const std::string& message) {
  return line(priority, "TVCONTROL_A AppDataChannelCore.cpp", function, message);
}

std::string ControlLine(int priority, const std::string& function, const std::string& message) {
  return line(priority, "TVCONTROL_A AppDataChannelControl.cpp", function, message);
}

std::string ServerLine(int priority, const std::string& function, const std::string& message) {
  return line(priority, "TVCONTROL_A DBusServer.cpp", function, message);
}

std::string WrapperLine(int priority, const std::string& function, const std::string& message) {
  return line(priority, "THING_COMMON LumoWrapper.cpp", function, message);
}

std::string DispatcherLine(const std::string& function, const std::string& message) {
  return line(6, "THING_COMMON MsgDispatcher.cpp", function, message);
}

Lines operator+(Lines first, const Lines& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

Lines RegisterPropertyLines(const std::string& call) {
  return {WrapperLine(4, "RegisterProperty", "> Entered"),
          "lumo_service_register_property(" + call + ")",
          WrapperLine(3, kRetryFunction, "(1/3) success."),
          WrapperLine(4, "RegisterProperty", "> Left")};
}

Lines UnregisterPropertyLines(const std::string& call) {
  return {WrapperLine(4, "UnregisterProperty", "> Entered"),
          "lumo_service_unregister_property(" + call + ")",
          WrapperLine(3, kRetryFunction, "(1/3) success."),
          WrapperLine(4, "UnregisterProperty", "> Left")};
}

Lines ControlCreateLines() {
  return Lines{ControlLine(4, "Create", "> Entered"), WrapperLine(4, "Create", "> Entered"),
               "lumo_service_create(appdatachannel, appdatachannel service plugin for qivo-thing "
               "mapi. support ocf thing /zun/tv/appdata/* resources)",
               WrapperLine(4, "Create", "> Left")} +
         RegisterPropertyLines("signinStatus, 0, 0, 0, \"\"") +
         RegisterPropertyLines("signupInfo, 4, 0, 0, \"\"") +
         Lines{ControlLine(6, "Create", "created"), ControlLine(4, "Create", "> Left")};
}

Lines ControlDestroyLines() {
  return Lines{ControlLine(4, "Destroy", "> Entered")} + UnregisterPropertyLines("signinStatus") +
         UnregisterPropertyLines("signupInfo") +
         Lines{WrapperLine(4, "Destroy", "> Entered"), "lumo_service_destroy(appdatachannel)",
               WrapperLine(4, "Destroy", "> Left"), ControlLine(4, "Destroy", "> Left")};
}

Lines ServerInitLines() {
  return {ServerLine(4, "Init", "> Entered"), ServerLine(4, "Init", "> Left")};
}

Lines ServerDeinitLines() {
  return {ServerLine(4, "Deinit", "> Entered"), kStatus0, ServerLine(4, "Deinit", "> Left")};
}
