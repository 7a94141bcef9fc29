// Runs one path of the plug-in COUNT times, for callgrind to count the instructions of the
// functions that ./dev bench --instructions names. The device service does nothing, so that the
// count is the plug-in's, and that of the libraries that it calls.
//
//     bench-paths PATH COUNT
//
// register, send_data, send_data_64k, set, set_64k, get: the plug-in on a bus; dispatch, json: the
// classes alone; log_line: the platform's log, to standard error.
#include <dlog.h>
#include <unistd.h>
#include <vconf.h>

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>

#include "BusClient.h"
#include "Gate.h"
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

constexpr const char* kApp = "qz";
constexpr const char* kText = "a text as applications send it, of a length of 64 bytes in all..";

constexpr unsigned kLimitSeconds = 600;

std::atomic<bool> g_ready{false};

void require(bool condition, const char* what) {
  if (!condition) throw std::runtime_error(what);
}

void call(BusClient& app, const char* method, const char* data = nullptr) {
  GVariant* const parameters =
      data == nullptr ? g_variant_new("(s)", kApp) : g_variant_new("(ss)", kApp, data);
  require(app.CallHere(method, parameters) == "(0,)", method);
}

// Starts the plug-in and runs `work` on a thread of its own, with an application whose connection
// is not the plug-in's, and the main loop meanwhile.
void runOnPlugin(const std::function<void(BusClient& app)>& work) {
  require(CreatePlugin(), "the plug-in was there already");
  while (!g_ready) g_main_context_iteration(nullptr, TRUE);
  std::atomic<bool> done{false};
  std::exception_ptr failure;
  std::thread worker([&] {
    try {
      BusClient app(std::getenv("DBUS_SYSTEM_BUS_ADDRESS"), [](GDBusMessage& /*signal*/) {});
      work(app);
    } catch (...) {
      failure = std::current_exception();
    }
    done = true;
    g_main_context_wakeup(nullptr);
  });
  while (!done) g_main_context_iteration(nullptr, TRUE);
  worker.join();
  DestroyPlugin();
  if (failure) std::rethrow_exception(failure);
}

void runRegister(std::size_t count) {
  runOnPlugin([count](BusClient& app) {
    for (std::size_t i = 0; i < count; ++i) {
      call(app, "register_app");
      call(app, "unregister_app");
    }
  });
}

void runWithData(std::size_t count, const std::string& data) {
  runOnPlugin([count, &data](BusClient& app) {
    call(app, "register_app");
    for (std::size_t i = 0; i < count; ++i) call(app, "send_data", data.c_str());
  });
}

void runRequests(std::size_t count, const std::function<void()>& request) {
  runOnPlugin([count, &request](BusClient& app) {
    call(app, "register_app");
    call(app, "send_data", kText);
    for (std::size_t i = 0; i < count; ++i) {
      request();
      while (NullLumo::Answers() <= i) std::this_thread::yield();
    }
  });
}

// The first job holds the worker until all are queued, so that nobody wakes it in between.
void runDispatch(std::size_t count) {
  Gate begun;
  Gate queued;
  Gate done;
  std::size_t run = 0;
  ThingCommon::MsgDispatcher dispatcher("bench");
  dispatcher.EnqueueData([&begun, &queued] {
    begun.Open();
    queued.Wait();
  });
  require(begun.Wait(), "the first job does not begin");
  for (std::size_t i = 0; i < count; ++i) dispatcher.EnqueueData([&run, i] { run += i + 1 - i; });
  dispatcher.EnqueueData([&done] { done.Open(); });
  queued.Open();
  require(done.Wait() && run == count, "a job was lost");
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
  const std::map<std::string, void (*)(std::size_t)> paths = {
      {"register", &runRegister},
      {"send_data", [](std::size_t n) { runWithData(n, kText); }},
      {"send_data_64k", [](std::size_t n) { runWithData(n, std::string(65536, 'x')); }},
      {"set", [](std::size_t n) { runRequests(n, [] { NullLumo::Set(kApp, kText); }); }},
      {"set_64k",
       [](std::size_t n) {
         const std::string text(65536, 'x');
         runRequests(n, [&text] { NullLumo::Set(kApp, text.c_str()); });
       }},
      {"get", [](std::size_t n) { runRequests(n, [] { NullLumo::Get(kApp); }); }},
      {"dispatch", &runDispatch},
      {"json", &runJson},
      {"log_line", &runLog}};
  try {
    require(argc == 3 && paths.count(argv[1]) != 0, "no such path");
    paths.at(argv[1])(std::stoul(argv[2]));
    return EXIT_SUCCESS;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bench-paths: %s\n", error.what());
    return EXIT_FAILURE;
  }
}
