#include "PluginTest.h"

#include <dlfcn.h>

#include "SparedAllocations.h"

void PluginTest::SetUp() {
  m_library = dlopen(ADC_PLUGIN_FILE, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(nullptr, m_library) << dlerror();
  m_create = reinterpret_cast<EntryPoint>(dlsym(m_library, "CreatePlugin"));
  m_destroy = reinterpret_cast<EntryPoint>(dlsym(m_library, "DestroyPlugin"));
  ASSERT_NE(nullptr, m_create);
  ASSERT_NE(nullptr, m_destroy);
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

Lines PluginTest::WrittenByTheWorker() {
  std::thread::id worker;
  for (const fake::Entry& entry : platform.Trace()) {
    for (const char* function : {"getHandler", "setHandler", "runDispatchingThread"}) {
      if (entry.log.function == function) worker = entry.thread;
    }
  }
  return Written(worker);
}

std::string PluginTest::CallUncounted(const char* method,
                                      const std::vector<std::string>& arguments) {
  constexpr int kLimitMs = 20'000;
  struct Answer {
    BusClient::VariantPtr value;
    bool hasArrived = false;
  } answer;
  g_dbus_connection_call(
      Shared(), kBusName, kObjectPath, kInterface, method, ParametersOf(arguments), nullptr,
      G_DBUS_CALL_FLAGS_NO_AUTO_START, kLimitMs, nullptr,
      [](GObject* source, GAsyncResult* result, gpointer data) {
        auto* const reply = static_cast<Answer*>(data);
        GError* error = nullptr;
        reply->value.reset(
            g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error));
        EXPECT_FALSE(g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT));
        g_clear_error(&error);
        reply->hasArrived = true;
      },
      &answer);
  while (!answer.hasArrived) g_main_context_iteration(nullptr, TRUE);
  const SparedAllocations spared;
  if (!answer.value) return "an error";
  const std::unique_ptr<gchar, void (*)(gpointer)> text(g_variant_print(answer.value.get(), FALSE),
                                                        g_free);
  return text.get();
}

void* PluginTest::Request(bool isSet, const std::vector<fake::Property>& properties) {
  return WaitForHandler(isSet ? "setHandler" : "getHandler", [&] {
    return isSet ? platform.DeliverSet(properties) : platform.DeliverGet(properties);
  });
}

void PluginTest::Cancel(void* request) {
  WaitForHandler("cancelHandler", [&]() -> void* {
    platform.DeliverCancel(request);
    return nullptr;
  });
}

void* PluginTest::WaitForHandler(const char* handler, const std::function<void*()>& deliver) {
  const auto ended = [this, handler] {
    const SparedAllocations spared;
    std::size_t count = platform.CountLogs("exception from job");
    for (const fake::LogLine& line : platform.LogsOf(handler)) {
      if (line.Message() == " > Left") ++count;
    }
    return count;
  };
  const std::size_t before = ended();
  void* const request = deliver();
  const SparedAllocations spared;
  EXPECT_TRUE(platform.WaitUntil([&] { return ended() > before; })) << handler;
  return request;
}
