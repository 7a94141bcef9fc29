// A host that loads the plug-in and leaves main without stopping it, in the way that its argument
// names. Its exit status is 0 when the plug-in ended cleanly and completely.
#include <dlfcn.h>
#include <gio/gio.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>

#include "BusClient.h"
#include "FakePlatform.h"
#include "FaultyGio.h"
#include "MainLoopThread.h"

namespace {

using fake::Platform;
using fake::Property;

constexpr const char* kStatusKey = "memory/iot/thing/thing_status";

bool hasLogged(const std::string& function, const std::string& message) {
  for (const fake::LogLine& line : Platform::Get().LogsOf(function)) {
    if (line.Message() == message) return true;
  }
  return false;
}

bool coreIsGoing() {
  return hasLogged("~AppDataChannelCore", " > Entered");
}

// Made before the plug-in's core and so destroyed after it: checks that all is as it should be,
// and ends the process with 1 when it is not.
class Verdict {
 public:
  ~Verdict() {
    Platform& platform = Platform::Get();
    Expect(hasLogged("~AppDataChannelCore", " > Left"), "the core was not destroyed");
    Expect(platform.LiveServices() == 0, "a service is left");
    Expect(platform.Setting(kStatusKey) == 0, "the setting is not 0");
    Expect(platform.CountLogs("Finished thread running") == 1, "the worker has not ended");
    Expect(platform.CountLogs("after join") == 1, "the worker was not joined");
    Expect(platform.Responses().size() >= answers, "an answer is missing");
    Expect(platform.LogsOf("register_app").size() == calls, "a call has not ended");
    for (const std::string& violation : platform.TakeViolations()) {
      // What was being answered when the service went; the library ignores it.
      if (violation.find("service used after it was destroyed") == std::string::npos) {
        Expect(false, violation);
      }
    }
  }

  std::size_t answers = 0;
  std::size_t calls = 0;

 private:
  static void Expect(bool condition, const std::string& what) {
    if (condition) return;
    static_cast<void>(std::fprintf(stderr, "%s\n", what.c_str()));
    _exit(1);
  }
};

bool runUntil(const std::function<bool()>& condition) {
  return Platform::Get().WaitUntil([&condition] {
    while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
    }
    return condition();
  });
}

// Made before the plug-in's core, and so destroyed after it, by main().
struct Outliving {
  std::atomic<bool> isHeld{false};
  std::unique_ptr<MainLoopThread> mainLoop;  // turns the main loop while the core goes

  // Has the first call of a hook wait.
  void Hold(const std::function<bool()>& until) {
    if (!isHeld.exchange(true)) Platform::Get().WaitUntil(until);
  }
};

Outliving& outliving() {
  static Outliving instance;
  return instance;
}

bool isHeld() {
  return outliving().isHeld;
}

bool prepare(const std::string& scenario, Verdict& verdict, const std::function<bool()>& destroy) {
  Platform& platform = Platform::Get();
  const auto answered = [&platform](std::size_t count) {
    return runUntil([&platform, count] { return platform.Responses().size() >= count; });
  };
  if (scenario == "idle") return true;
  if (scenario == "no-answer") {
    verdict.answers = 1;
    return true;
  }
  if (scenario == "signal") {
    // The handler holds the server's lock, and wants the core's for its next name.
    FaultyGio::Get().OnCall(FaultyGio::kEmitSignal, [] { outliving().Hold(coreIsGoing); });
    verdict.answers = 1;
    platform.PostSet({Property::Bool("signinStatus", true), Property::Bool("signinStatus", false)});
    return runUntil(isHeld);
  }
  if (scenario == "answer" || scenario == "destroyed") {
    // The first answer has whatever it needs built on first use made after the core, so that it
    // would be destroyed before it; the second one needs it while the core goes.
    const bool destroyed = scenario == "destroyed";
    const std::vector<Property> read{Property::Bool("signinStatus", false)};
    platform.PostGet(read);
    if (!answered(1)) return false;
    platform.OnCall("lumo_property_list_create", [&platform, destroyed] {
      outliving().Hold([&platform, destroyed] {
        return platform.LiveServices() == 0 && (!destroyed || coreIsGoing());
      });
    });
    verdict.answers = 2;
    platform.PostGet(read);
    return runUntil(isHeld) && (!destroyed || destroy());
  }
  if (scenario == "call") {
    platform.OnCall("lumo_service_register_property", [] {
      outliving().Hold([] { return hasLogged("~AppDataChannelCore", " > Left"); });
    });
    verdict.calls = 1;
    outliving().mainLoop = std::make_unique<MainLoopThread>();
    BusClient(std::getenv("DBUS_SYSTEM_BUS_ADDRESS"))
        .Send("register_app", g_variant_new("(s)", "qz"));
    return platform.WaitUntil(isHeld);
  }
  if (scenario == "writes") {
    for (int i = 0; i < 200; ++i) {
      platform.PostSet({Property::Bool("signinStatus", true), Property::String("nobody", "1")});
    }
    return answered(5);
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  // What outlives the plug-in's core, in the order of the last to go.
  Platform::Get();
  FaultyGio::Get();
  outliving();
  static Verdict verdict;

  void* const library = dlopen(ADC_PLUGIN_FILE, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) return 3;
  using EntryPoint = bool (*)();
  const auto create = reinterpret_cast<EntryPoint>(dlsym(library, "CreatePlugin"));
  const auto destroy = reinterpret_cast<EntryPoint>(dlsym(library, "DestroyPlugin"));
  if (!create()) return 4;
  if (!runUntil([] { return Platform::Get().Setting(kStatusKey) == 1; })) return 5;
  if (!prepare(argv[1], verdict, destroy)) return 6;
  return 0;
}
