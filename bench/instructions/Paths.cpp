// Runs one path of the plug-in COUNT times, for callgrind to count the instructions of the
// functions that ./dev bench --instructions names. The device service does nothing, so that the
// count is the plug-in's, and that of the libraries that it calls.
//
//     bench-paths PATH COUNT
//
// register, send_data, send_data_64k, set, get: the plug-in on a bus; dispatch, json: the classes
// alone; log_line: the platform's log, to standard error.
#include <dlog.h>
#include <gio/gio.h>
#include <unistd.h>
#include <vconf.h>

#include <atomic>
#include <charconv>
#include <condition_variable>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>

#include "JsonValueAdaptor.h"
#include "MsgDispatcher.h"
#include "NullLumo.h"

extern "C" {
bool CreatePlugin();
bool DestroyPlugin();
}

// With a name that nothing else has, for callgrind to know it by. False when it went wrong.
[[gnu::noinline]] bool readAndWriteJson(const std::string& text) {
  const ThingCommon::JsonValueAdaptor value = ThingCommon::JsonValueAdaptor::Create(text);
  return value.Type() == ThingCommon::JsonValueAdaptor::TYPE_OBJECT &&
         !value.ToString(false).empty();
}

namespace {

constexpr const char* kBusName = "org.tizen.qivo_thing";
constexpr const char* kObjectPath = "/org/tizen/qivo_thing";
constexpr const char* kInterface = "org.tizen.qivo_thing.service";
constexpr const char* kApp = "qz";
constexpr const char* kText = "a text as applications send it, of a length of 64 bytes in all..";

constexpr unsigned kLimitSeconds = 600;

std::atomic<bool> g_ready{false};

void require(bool condition, const char* what) {
  if (!condition) throw std::runtime_error(what);
}

// The plug-in, started, with the main loop on the object's thread until Run returns.
class Plugin {
 public:
  Plugin() {
    require(CreatePlugin(), "the plug-in was there already");
    while (!g_ready) g_main_context_iteration(nullptr, TRUE);
  }
  ~Plugin() { DestroyPlugin(); }
  Plugin(const Plugin&) = delete;
  Plugin& operator=(const Plugin&) = delete;

  // Runs `work` on a thread of its own, and the main loop meanwhile.
  static void Run(const std::function<void()>& work) {
    std::atomic<bool> done{false};
    std::exception_ptr failure;
    std::thread worker([&] {
      try {
        work();
      } catch (...) {
        failure = std::current_exception();
      }
      done = true;
      g_main_context_wakeup(nullptr);
    });
    while (!done) g_main_context_iteration(nullptr, TRUE);
    worker.join();
    if (failure) std::rethrow_exception(failure);
  }
};

// An application. Its connection is not the plug-in's.
class Application {
 public:
  Application()
      : m_bus(g_dbus_connection_new_for_address_sync(
            std::getenv("DBUS_SYSTEM_BUS_ADDRESS"),
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, nullptr)) {
    require(m_bus != nullptr, "the message bus cannot be reached");
  }
  ~Application() { g_object_unref(m_bus); }
  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;

  void Call(const char* method, const char* data = nullptr) {
    GVariant* const parameters =
        data == nullptr ? g_variant_new("(s)", kApp) : g_variant_new("(ss)", kApp, data);
    GVariant* const reply = g_dbus_connection_call_sync(
        m_bus, kBusName, kObjectPath, kInterface, method, parameters, G_VARIANT_TYPE("(i)"),
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    require(reply != nullptr, method);
    int result = -1;
    g_variant_get(reply, "(i)", &result);
    g_variant_unref(reply);
    require(result == 0, method);
  }

 private:
  GDBusConnection* const m_bus;
};

void runRegister(std::size_t count) {
  const Plugin plugin;
  Plugin::Run([count] {
    Application application;
    for (std::size_t i = 0; i < count; ++i) {
      application.Call("register_app");
      application.Call("unregister_app");
    }
  });
}

void runWithData(std::size_t count, const std::string& data) {
  const Plugin plugin;
  Plugin::Run([count, &data] {
    Application application;
    application.Call("register_app");
    for (std::size_t i = 0; i < count; ++i) application.Call("send_data", data.c_str());
  });
}

void runSendData(std::size_t count) {
  runWithData(count, kText);
}

void runSendLongData(std::size_t count) {
  runWithData(count, std::string(65536, 'x'));
}

void runRequests(std::size_t count, const std::function<void()>& request) {
  const Plugin plugin;
  Plugin::Run([count, &request] {
    Application application;
    application.Call("register_app");
    application.Call("send_data", kText);
    for (std::size_t i = 0; i < count; ++i) {
      request();
      while (NullLumo::Answers() <= i) std::this_thread::yield();
    }
  });
}

void runSet(std::size_t count) {
  runRequests(count, [] { NullLumo::Set(kApp, kText); });
}

void runGet(std::size_t count) {
  runRequests(count, [] { NullLumo::Get(kApp); });
}

// The first job holds the worker until all are queued, so that it never waits in between.
void runDispatch(std::size_t count) {
  std::mutex mutex;
  std::condition_variable changed;
  bool queued = false;
  std::size_t run = 0;
  ThingCommon::MsgDispatcher dispatcher("bench");
  dispatcher.EnqueueData([&] {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [&] { return queued; });
  });
  for (std::size_t i = 0; i < count; ++i) dispatcher.EnqueueData([&run, i] { run += i + 1 - i; });
  dispatcher.EnqueueData([&] {
    const std::lock_guard<std::mutex> lock(mutex);
    queued = false;
    changed.notify_all();
  });
  std::unique_lock<std::mutex> lock(mutex);
  queued = true;
  changed.notify_all();
  changed.wait(lock, [&] { return !queued; });
  require(run == count, "a job was lost");
}

void runJson(std::size_t count) {
  const std::string text = R"({"signedIn":true,"country":"KR","user":{"id":4711,"ratio":0.5},)"
                           R"("list":[1,2,3,"four"],"text":"a text"})";
  for (std::size_t i = 0; i < count; ++i) {
    require(readAndWriteJson(text), "not JSON");
  }
}

// As the plug-in logs at info, where most lines are.
void runLog(std::size_t count) {
  require(setenv("DLOG_LEVEL", "info", 1) == 0, "no room for a variable");
  for (std::size_t i = 0; i < count; ++i) {
    require(dlog_print(4, "TVCONTROL_A", "%s : %s(%d)  [%s] data: %s\n", "Paths.cpp", __func__,
                       __LINE__, kApp, kText) > 0,
            "a line is not written");
  }
}

}  // namespace

// Instead of the platform's settings store: the plug-in says here that it is ready.
int vconf_set_int(const char* /*key*/, const int value) {
  g_ready = value == 1;
  return 0;
}

int main(int argc, char** argv) {
  alarm(kLimitSeconds);  // whatever hangs is ended
  const std::map<std::string, void (*)(std::size_t)> paths = {{"register", &runRegister},
                                                              {"send_data", &runSendData},
                                                              {"send_data_64k", &runSendLongData},
                                                              {"set", &runSet},
                                                              {"get", &runGet},
                                                              {"dispatch", &runDispatch},
                                                              {"json", &runJson},
                                                              {"log_line", &runLog}};
  std::size_t count = 0;
  if (argc == 3) std::from_chars(argv[2], argv[2] + std::strlen(argv[2]), count);
  if (count == 0 || paths.count(argv[1]) == 0) {
    std::fputs("usage: bench-paths PATH COUNT\npaths:", stderr);
    for (const auto& [name, run] : paths) std::fprintf(stderr, " %s", name.c_str());
    std::fputs("\n", stderr);
    return 2;
  }
  try {
    paths.at(argv[1])(count);
    return EXIT_SUCCESS;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bench-paths: %s\n", error.what());
    return EXIT_FAILURE;
  }
}
