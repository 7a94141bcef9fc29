// Times through the whole channel, one message at a time, beside those of the baseline that it
// stands on:
//
//     ./dev run -- build/release/bench/latency/channel-latency COUNT PAIRS SIZE LISTENERS
//
// COUNT samples of each path, and as many of its baseline, taken in PAIRS of blocks; SIZE bytes of
// a text, from 16 on; LISTENERS other connections that read every event, the baseline's as well.
// The paths, and each with its baseline, the "peer":
//
//   set_to_event       from the cloud's publish of a set at QoS 1 to the signal at the application.
//                      Baseline: the same payload at the same QoS to another topic; its subscriber
//                      emits a signal, which the same connection of the application receives.
//   set_to_event_qos2  the same at QoS 2.
//   data_to_value      from the application's call of send_data to the value at the cloud.
//                      Baseline: the application sends the same text to another connection, which
//                      publishes it at the QoS of values and retained. It is sent as a signal, as a
//                      system bus lets nobody call what no policy names.
//
// A baseline is one hop over the broker and one over the bus, and nothing between the two: whatever
// a thread receives it passes on from within the callback. All ends are this process, so that one
// clock serves for them.
//
// A pair is a block of the path's samples and one of its baseline's; in every other pair the
// baseline's comes first. Each block begins with a tenth more that do not count, to warm up. Prints
// what the blocks took, as JSON:
//
//     {"PATH": {"ours": [{"median_us": 1.0, "p99_us": 1.0}, ...], "peer": [...]}, ...}
//
// Ends with 1 when a message does not arrive, also at a listener.
#include <json/json.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <exception>
#include <functional>
#include <iostream>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "BusClient.h"
#include "MqttPeer.h"
#include "Percentile.h"
#include "WaitUntil.h"
#include "Watched.h"

namespace {

using Clock = std::chrono::steady_clock;
using Send = std::function<void(const std::string& text)>;

constexpr const char* kApp = "qz";
// Of the baselines: everything that the channel has no part in.
constexpr const char* kBaselinePath = "/channel_latency";
constexpr const char* kBaselineInterface = "channel_latency.baseline";
constexpr const char* kBaselineSetTopic = "channel-latency/set";
constexpr const char* kBaselineValueTopic = "channel-latency/value";

struct Options {
  std::size_t count;
  std::size_t pairs;
  std::size_t size;
  std::size_t listeners;
};

void require(bool done, const std::string& whatIsWrong) {
  if (!done) throw std::runtime_error(whatIsWrong);
}

std::string environment(const char* variable) {
  const char* const value = std::getenv(variable);
  require(value != nullptr, std::string(variable) + " is not set: start this with ./dev run --");
  return value;
}

// How a client of the broker listens here: as the device service does, to what comes from now on.
MqttPeer::Options listeningTo(std::vector<std::string> topics) {
  MqttPeer::Options options;
  options.filters = std::move(topics);
  options.wantsRetained = false;
  return options;
}

// The texts need no escapes.
const std::string kSetHead = std::string(R"({")") + kApp + R"(":")";
constexpr std::string_view kSetTail = R"("})";

std::string payloadOfSet(const std::string& data) {
  return kSetHead + data + std::string(kSetTail);
}

std::string dataOfSet(std::string_view payload) {
  return std::string(
      payload.substr(kSetHead.size(), payload.size() - kSetHead.size() - kSetTail.size()));
}

std::string dataOf(GDBusMessage& message) {
  const char* data = nullptr;
  g_variant_get(g_dbus_message_get_body(&message), "(&s&s)", nullptr, &data);
  return data;
}

GVariant* parametersWith(const std::string& data) {
  return g_variant_new("(ss)", kApp, data.c_str());
}

// To everybody who listens when there is no destination.
void emitBaseline(BusClient& bus, const char* member, const std::string& data,
                  const char* destination) {
  const BusClient::MessagePtr signal(
      g_dbus_message_new_signal(kBaselinePath, kBaselineInterface, member));
  g_dbus_message_set_destination(signal.get(), destination);
  g_dbus_message_set_body(signal.get(), parametersWith(data));
  bus.Post(signal);
}

bool isEvent(GDBusMessage& message) {
  return g_strcmp0(g_dbus_message_get_member(&message), "send_event") == 0;
}

void callApp(BusClient& bus, const char* method) {
  const std::string reply = bus.CallHere(method, g_variant_new("(s)", kApp));
  require(reply == "(0,)", std::string(method) + " gives " + reply);
}

// The text that is waited for, and when it came. Any thread.
class Arrival {
 public:
  void Expect(const std::string& text) {
    m_awaited.Change([&](Awaited& awaited) { awaited = {text, std::nullopt}; });
  }
  void Arrived(std::string_view text) {
    const Clock::time_point now = Clock::now();
    m_awaited.Change([&](Awaited& awaited) {
      if (!awaited.time && text == awaited.text) awaited.time = now;
    });
  }
  Clock::time_point Wait() const {
    Clock::time_point time;
    const auto hasCome = [&time](const Awaited& awaited) {
      time = awaited.time.value_or(time);
      return awaited.time.has_value();
    };
    require(m_awaited.WaitFor(hasCome), "a message did not arrive");
    return time;
  }

 private:
  struct Awaited {
    std::string text;
    std::optional<Clock::time_point> time;
  };
  Watched<Awaited> m_awaited;
};

// Sends texts one after the other, each when the one before it has arrived.
Json::Value runBlock(const Options& options, Arrival& arrival, const Send& send) {
  static std::size_t last = 0;
  const std::size_t count = options.count / options.pairs;
  const std::size_t warmingUp = count / 10 + 1;
  std::vector<double> times;
  for (std::size_t i = 0; i < warmingUp + count; ++i) {
    // A number, filled up to the size, so that each text is another one.
    std::string text = std::to_string(++last);
    text.resize(options.size, 'x');
    arrival.Expect(text);
    const Clock::time_point start = Clock::now();
    send(text);
    const std::chrono::duration<double, std::micro> time = arrival.Wait() - start;
    if (i >= warmingUp) times.push_back(time.count());
  }
  Json::Value block;
  block["median_us"] = Percentile(times, 50);
  block["p99_us"] = Percentile(times, 99);
  return block;
}

// Other applications: connections to the message bus that read every event. They are a process of
// their own: GDBus has one thread for all connections of a process, which would read the others'
// messages before those whose time is taken.
class Listeners {
 public:
  // Returns once all of them listen. Forks: no other thread may be there yet.
  Listeners(std::size_t count, const std::string& bus, const std::vector<std::string>& rules) {
    void* const memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, /*fd=*/-1, /*offset=*/0);
    require(memory != MAP_FAILED, "no memory for the listeners");
    m_shared = new (memory) Shared;
    m_process = fork();
    if (m_process == 0) listen(count, bus, rules);
    require(m_process > 0 && WaitUntil([this] { return m_shared->ready.load(); }),
            "there are no listeners");
  }
  ~Listeners() {
    kill(m_process, SIGKILL);
    waitpid(m_process, nullptr, 0);
    munmap(m_shared, sizeof(Shared));
  }
  Listeners(const Listeners&) = delete;
  Listeners& operator=(const Listeners&) = delete;

  // Waits until they have read so many in all, each counted once per listener. False when they have
  // not after a long time, or have read more.
  bool HaveRead(std::uint64_t events) const {
    return WaitUntil([&] { return m_shared->events >= events; }) && m_shared->events == events;
  }

 private:
  struct Shared {
    std::atomic<bool> ready{false};
    std::atomic<std::uint64_t> events{0};
  };

  // The life of their process.
  [[noreturn]] void listen(std::size_t count, const std::string& bus,
                           const std::vector<std::string>& rules) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::deque<BusClient> connections;
    for (std::size_t i = 0; i < count; ++i) {
      connections.emplace_back(bus, [this](GDBusMessage& signal) {
        if (isEvent(signal) && !dataOf(signal).empty()) ++m_shared->events;
      });
      for (const std::string& rule : rules) connections.back().Match(rule);
    }
    m_shared->ready = true;
    while (true) pause();
  }

  Shared* m_shared;  // with their process
  pid_t m_process;
};

Json::Value measure(const Options& options) {
  const std::string busAddress = environment("DBUS_SYSTEM_BUS_ADDRESS");
  const std::string broker = environment("LUMO_BROKER");
  const int port = std::stoi(broker.substr(broker.rfind(':') + 1));
  const std::string service = "things/" + environment("LUMO_THING_ID") + "/appdatachannel/";
  const auto ruleFor = [](const char* interface) {
    return std::string("type='signal',member='send_event',interface='") + interface + "',arg0='" +
           kApp + "'";
  };
  const std::vector<std::string> rules{ruleFor(kInterface), ruleFor(kBaselineInterface)};
  const Listeners listeners(options.listeners, busAddress, rules);  // before there are threads

  // The baselines pass on what they receive.
  BusClient emitter(busAddress, [](GDBusMessage& /*signal*/) {});
  const MqttPeer setBaseline(
      port, listeningTo({kBaselineSetTopic}), [&emitter](const MqttPeer::Message& message) {
        emitBaseline(emitter, "send_event", dataOfSet(message.payload), /*destination=*/nullptr);
      });
  constexpr int kValueQos = 1;
  MqttPeer publisher(port, {});
  const BusClient valueBaseline(busAddress, [&publisher](GDBusMessage& signal) {
    if (g_strcmp0(g_dbus_message_get_member(&signal), "send_data") != 0) return;
    publisher.Publish({kBaselineValueTopic, '"' + dataOf(signal) + '"', kValueQos, true});
  });

  // The ends.
  Arrival arrival;
  std::atomic<std::uint64_t> events{0};
  BusClient app(busAddress, [&](GDBusMessage& signal) {
    if (!isEvent(signal)) return;
    ++events;
    arrival.Arrived(dataOf(signal));
  });
  for (const std::string& rule : rules) app.Match(rule);
  MqttPeer cloud(port, listeningTo({service + "value/" + kApp, kBaselineValueTopic}),
                 [&arrival](const MqttPeer::Message& message) {
                   if (message.payload.size() < 2) return;  // what was retained is cleared
                   arrival.Arrived(message.payload.substr(1, message.payload.size() - 2));
                 });
  const auto setAt = [&cloud](const std::string& topic, int qos) {
    return [&cloud, topic, qos](const std::string& text) {
      cloud.Publish({topic, payloadOfSet(text), qos});
    };
  };
  const auto sendData = [&app](const std::string& text) {
    app.PostCall("send_data", parametersWith(text));
  };
  const auto sendToBaseline = [&](const std::string& text) {
    emitBaseline(app, "send_data", text, valueBaseline.UniqueName().c_str());
  };

  callApp(app, "register_app");
  Json::Value paths;
  const auto run = [&](const char* path, const Send& ours, const Send& peer) {
    for (std::size_t i = 0; i < options.pairs; ++i) {
      if (i % 2 == 0) paths[path]["ours"].append(runBlock(options, arrival, ours));
      paths[path]["peer"].append(runBlock(options, arrival, peer));
      if (i % 2 == 1) paths[path]["ours"].append(runBlock(options, arrival, ours));
    }
  };
  run("set_to_event", setAt(service + "set", 1), setAt(kBaselineSetTopic, 1));
  run("set_to_event_qos2", setAt(service + "set", 2), setAt(kBaselineSetTopic, 2));
  run("data_to_value", sendData, sendToBaseline);
  require(listeners.HaveRead(options.listeners * events),
          "the listeners have not read every event");
  callApp(app, "unregister_app");
  publisher.Publish({kBaselineValueTopic, {}, kValueQos, true});  // clears what is retained
  return paths;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    require(argc == 5, "usage: channel-latency COUNT PAIRS SIZE LISTENERS");
    std::cout << measure({std::stoul(argv[1]), std::stoul(argv[2]), std::stoul(argv[3]),
                          std::stoul(argv[4])})
              << std::endl;
    return EXIT_SUCCESS;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "channel-latency: %s\n", error.what());
    return EXIT_FAILURE;
  }
}
