// A sequence of everything that a host, applications and the cloud do, some of it on several
// threads at a time, against a model that knows what must come of it: replies, answers, signals,
// the registry, the service's properties, the setting.
//
// The input is letters and what they take. APP is a digit.
//   c, d           create, destroy the plug-in
//   b, n           the bus is there; the name is acquired
//   rAPP, uAPP     an application registers, unregisters
//   sAPP DATA      it sends data
//   q, i           it asks for the connection, for the thing's information
//   g NAME...      the cloud gets properties
//   tAPP TEXT      the cloud sets an application's property
//   z0, z1         the cloud sets signinStatus
//   w JSON         the cloud sets signupInfo
//   x              the cloud cancels a request
//   f0 N ... f5 N  N failures: to create a service, to register a property, to unregister one, to
//                  own the name, to register the object, to emit a signal
//   ( ... )        what is in between happens on three threads, each with applications of its own
//   ( ... ]        the same while the plug-in is destroyed
//   >, <           three threads create, destroy the plug-in at the same time
#include <glib.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <future>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "AppDataChannelCore.h"
#include "Channel.h"
#include "InProcessBus.h"
#include "Input.h"
#include "Platform.h"
#include "Require.h"
#include "World.h"

namespace {

using namespace fuzz;

constexpr std::size_t kMaxSteps = 200;
constexpr std::size_t kThreads = 3;

// The last one may not register. The thread of an application in a block is its place modulo three.
constexpr std::array<const char*, 7> kApps = {"qz",        "welcome",        "lanternapp", "qmap",
                                              "diag-menu", "trace-pz-agent", "stranger"};

Trace takeTrace() {
  Trace trace;
  for (BusMessage& signal : InProcessBus::TakeSignals()) {
    trace.Add(std::move(signal));
  }
  for (const std::vector<Property>& properties : Platform::TakeNotifications()) {
    RequireEqual<std::size_t>(properties.size(), 1, "one property is notified at a time");
    trace.notifications[properties[0].name.value()].push_back(properties[0]);
  }
  return trace;
}

// Does it with the plug-in. `wait`: for the answer to a request.
Outcome perform(const Action& action, bool wait) {
  const auto call = [wait](const char* method, GVariant* parameters) {
    if (wait) return Outcome{InProcessBus::Call(method, parameters), {}};
    return Outcome{InProcessBus::TryCall(method, parameters), {}};
  };
  const char* const app = action.app.c_str();
  switch (action.letter) {
    case 'r':
      return call("register_app", g_variant_new("(s)", app));
    case 'u':
      return call("unregister_app", g_variant_new("(s)", app));
    case 's':
      return call("send_data", g_variant_new("(ss)", app, action.data.c_str()));
    case 'q':
      return call("get_cloud_connection", g_variant_new("()"));
    case 'i':
      return call("get_thing_information", g_variant_new("()"));
    case 'x':
      Platform::DeliverCancel(Platform::NewRequest());
      return {};
    default:
      break;
  }
  void* const request = Platform::NewRequest();
  Platform::Deliver(action.letter != 'g', request, action.properties);
  if (!wait) return {};
  Channel::WaitForWorker();
  return {{}, Platform::TakeResponse(request)};
}

// Runs every function on a thread of its own, all at the same time.
void runTogether(const std::vector<std::function<void()>>& functions) {
  std::atomic<std::size_t> waiting{functions.size()};
  std::vector<std::future<void>> ends;  // each waits for its thread
  for (const auto& function : functions) {
    ends.push_back(std::async(std::launch::async, [&waiting, &function] {
      for (--waiting; waiting != 0;) std::this_thread::yield();
      function();
    }));
  }
}

class Run {
 public:
  explicit Run(Input& input) : m_input(input) {}

  void TakeSteps() {
    for (std::size_t step = 0; step < kMaxSteps && !m_input.AtEnd(); ++step) {
      Trace expected;
      this->step(m_input.Letter(), expected);
      check(expected);
    }
    stop();
    check({});
  }

 private:
  void step(char letter, Trace& expected) {
    switch (letter) {
      case 'c':
        RequireEqual(CreatePlugin(), !m_world.IsCreated(), "only a second start is refused");
        m_world.Create();
        if (!m_world.IsCreated()) Channel::WaitForWorkerToEnd();
        return;
      case 'd':
        stop();
        return;
      case 'b':
      case 'n':
        if (!m_world.IsCreated()) return;
        letter == 'b' ? InProcessBus::AcquireBus() : InProcessBus::AcquireName();
        letter == 'b' ? m_world.AcquireBus() : m_world.AcquireName(expected);
        return;
      case 'f': {
        const std::size_t failure = m_input.Choice(World::kFailureCount);
        m_input.Field();
        const auto count = static_cast<unsigned>(m_input.Number());
        m_world.SetFailure(static_cast<World::Failure>(failure), count % 16);
        return;
      }
      case '(':
        block(expected);
        return;
      case '>':
        RequireEqual(countOf(CreatePlugin) > 0, !m_world.IsCreated(),
                     "somebody has started what was not started");
        m_world.Create();
        return;
      case '<':
        RequireEqual(countOf(DestroyPlugin) > 0, m_world.IsCreated(),
                     "somebody has stopped what was started");
        noteStop();
        return;
      default:
        const std::optional<Action> action = takeAction(letter);
        if (!action || !isPossible(*action)) return;
        const Outcome outcome = perform(*action, true);
        RequireEqual(outcome, m_world.Perform(*action, expected), "the outcome is the model's");
    }
  }

  void stop() {
    RequireEqual(DestroyPlugin(), m_world.IsCreated(), "only what was started is stopped");
    noteStop();
  }

  void noteStop() {
    m_world.Destroy();
    Channel::WaitForWorkerToEnd();
  }

  // Nothing when the letter is none of an action's.
  std::optional<Action> takeAction(char letter) {
    Action action;
    action.letter = letter;
    if (letter == 'q' || letter == 'i' || letter == 'x') return action;
    if (letter == 'z') {
      action.properties = {SigninStatus(m_input.Choice(2) != 0)};
      return action;
    }
    if (std::string("rust").find(letter) != std::string::npos) {
      action.app = kApps.at(m_input.Choice(kApps.size()));
      if (letter == 'r' || letter == 'u') return action;
    }
    if (std::string("stgw").find(letter) == std::string::npos) return std::nullopt;
    m_input.Field();
    if (letter == 'g') {
      for (std::string name = m_input.Field(); !name.empty(); name = m_input.Field()) {
        action.properties.push_back(StringProperty(name, ""));
      }
    }
    const std::string line = m_input.Line();
    if (letter == 's' && IsBusText(line.c_str())) action.data = line.c_str();
    if (letter == 't') action.properties = {StringProperty(action.app, line)};
    if (letter == 'w') action.properties = {SignupInfo(line)};
    return action;
  }

  bool isPossible(const Action& action) const {
    return action.IsCall() ? m_world.HasObject() : m_world.IsCreated();
  }

  // What an action in a block has to do with belongs to one thread. A get in a block asks for the
  // applications of one thread only.
  static std::size_t threadOf(Action& action) {
    const auto placeOf = [](const std::string& name) {
      // For the plug-in a name ends at its first NUL.
      const auto app = std::find(kApps.begin(), kApps.end(), std::string(name.c_str()));
      return static_cast<std::size_t>(app - kApps.begin()) % kThreads;
    };
    if (!action.app.empty()) return placeOf(action.app);
    if (action.letter != 'g' || action.properties.empty()) return 0;
    const std::size_t thread = placeOf(action.properties[0].name.value());
    const auto isOfAnother = [&](const Property& property) {
      return placeOf(property.name.value()) != thread;
    };
    action.properties.erase(
        std::remove_if(action.properties.begin(), action.properties.end(), isOfAnother),
        action.properties.end());
    return thread;
  }

  void block(Trace& expected) {
    m_world.ClearFailures();
    std::array<std::vector<Action>, kThreads> actions;
    char letter = '\0';
    for (std::size_t step = 0; step < kMaxSteps && !m_input.AtEnd(); ++step) {
      letter = m_input.Letter();
      if (letter == ')' || letter == ']') break;
      std::optional<Action> action = takeAction(letter);
      if (!action || !isPossible(*action)) continue;
      const std::size_t thread = threadOf(*action);
      actions[thread].push_back(std::move(*action));
    }
    if (letter == ']') {
      destroyDuring(actions);
    } else {
      performTogether(actions, expected);
    }
  }

  void performTogether(const std::array<std::vector<Action>, kThreads>& actions, Trace& expected) {
    std::array<std::vector<Outcome>, kThreads> outcomes;
    std::vector<std::function<void()>> functions;
    for (std::size_t thread = 0; thread < kThreads; ++thread) {
      functions.emplace_back([&mine = actions[thread], &results = outcomes[thread]] {
        for (const Action& action : mine) results.push_back(perform(action, true));
      });
    }
    runTogether(functions);
    for (std::size_t thread = 0; thread < kThreads; ++thread) {
      for (std::size_t i = 0; i < actions[thread].size(); ++i) {
        RequireEqual(outcomes[thread][i], m_world.Perform(actions[thread][i], expected),
                     "the outcome is the model's, whatever other threads do");
      }
    }
  }

  void destroyDuring(const std::array<std::vector<Action>, kThreads>& actions) {
    const bool wasCreated = m_world.IsCreated();
    Platform::AllowServiceDestroyed(true);
    std::vector<std::function<void()>> functions = {[wasCreated] {
      RequireEqual(DestroyPlugin(), wasCreated, "only what was started is stopped");
    }};
    for (const std::vector<Action>& mine : actions) {
      functions.emplace_back([&mine] {
        for (const Action& action : mine) {
          // The library lets no callback start then.
          if (!action.IsCall() && !Platform::HasService()) continue;
          const Outcome outcome = perform(action, false);
          if (outcome.reply && std::string("rus").find(action.letter) != std::string::npos) {
            const std::string& code = outcome.reply->arguments.at(0);
            Require(code == "0" || code == "-20" || code == "-100", "a call gives a code");
          }
        }
      });
    }
    runTogether(functions);
    Channel::WaitForWorkerToEnd();
    Platform::AllowServiceDestroyed(false);
    m_world.Destroy();
    Require(Channel::Apps().empty(), "a stop leaves no application registered");
    Channel::ForgetEverything();
    m_world.ForgetEverything();
    takeTrace();
  }

  // How many of the threads that start, or stop, the plug-in at the same time did it.
  std::size_t countOf(bool (*function)()) {
    m_world.ClearFailures();
    std::atomic<std::size_t> count{0};
    runTogether(std::vector<std::function<void()>>(kThreads, [&count, function] {
      if (function()) ++count;
    }));
    return count;
  }

  void check(const Trace& expected) {
    // A name that was left to the main loop is given up there.
    while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
    }
    const Trace actual = takeTrace();
    RequireEqual(actual.signals, expected.signals, "applications are told what the model says");
    RequireEqual(actual.notifications, expected.notifications,
                 "the cloud is told what the model says");
    m_world.Check();
  }

  Input& m_input;
  World m_world;
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Channel::ForgetEverything();
  Platform::Forget();
  InProcessBus::Forget();
  Input input(data, size);
  Run(input).TakeSteps();
  return 0;
}
