// Times through the whole channel, one message at a time, beside those of the baseline that it
// stands on:
//
//     ./dev run -- build/release/bench/latency/channel-latency COUNT PAIRS SIZE LISTENERS
//
// COUNT samples of each path, and as many of its baseline, taken in PAIRS of blocks; SIZE bytes of
// a text, from 16 on; LISTENERS other connections that read every event. The paths, and each with
// its baseline, the "peer":
//
//   set_to_event       from the cloud's publish of a set at QoS 1 to the signal at the application.
//                      Baseline: the same payload at the same QoS to another topic; its subscriber
//                      emits a signal, which the same connection of the application receives.
//   set_to_event_qos2  the same at QoS 2.
//   data_to_value      from the application's call of send_data to the value at the cloud.
//                      Baseline: the application sends the same text to another connection, which
//                      publishes it to another topic, at the QoS of values and retained; the same
//                      client of the cloud receives it. It is sent as a signal to that connection
//                      alone: a system bus lets nobody call what no policy names, and forwards both
//                      in the same way.
//
// A baseline is one hop over the broker and one over the bus, with the broker, the bus and the ends
// of the path, and with nothing between the hops: whatever a thread receives it passes on from
// within the callback. All ends are this process, so that one clock serves for them, and all times
// are taken where the message comes out of its library.
//
// A pair is a block of the path's samples and one of its baseline's; in every other pair the
// baseline's comes first. Each block begins with a tenth more that do not count, to warm up. The
// listeners read the baseline's events as well. Prints what the blocks took, as JSON:
//
//     {"PATH": {"ours": [{"median_us": 1.0, "p99_us": 1.0}, ...], "peer": [...]}, ...}
//
// Ends with 1 when a message does not arrive, also at a listener.
#include <json/json.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "BusClient.h"
#include "Listeners.h"
#include "MqttPeer.h"
#include "Percentile.h"
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

void callApp(BusClient& bus, const char* method) {
  int result = -1;
  g_variant_get(bus.CallHere(method, g_variant_new("(s)", kApp), "(i)").get(), "(i)", &result);
  require(result == 0, std::string(method) + " gives " + std::to_string(result));
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
class Course {
 public:
  Course(Arrival& arrival, const Options& options) : m_arrival(arrival), m_options(options) {}

  Json::Value Run(const Send& ours, const Send& peer) {
    Json::Value blocks;
    for (std::size_t i = 0; i < m_options.pairs; ++i) {
      const bool oursComesFirst = i % 2 == 0;
      if (oursComesFirst) blocks["ours"].append(runBlock(ours));
      blocks["peer"].append(runBlock(peer));
      if (!oursComesFirst) blocks["ours"].append(runBlock(ours));
    }
    return blocks;
  }

 private:
  Json::Value runBlock(const Send& send) {
    const std::size_t count = m_options.count / m_options.pairs;
    for (std::size_t i = 0; i < count / 10 + 1; ++i) measure(send);
    std::vector<double> times;
    for (std::size_t i = 0; i < count; ++i) times.push_back(measure(send));
    Json::Value block;
    block["median_us"] = Percentile(times, 50);
    block["p99_us"] = Percentile(times, 99);
    return block;
  }

  double measure(const Send& send) {
    // A number, filled up to the size, so that each text is another one.
    const std::string number = std::to_string(++m_number);
    const std::string text = number + std::string(m_options.size - number.size(), 'x');
    m_arrival.Expect(text);
    const Clock::time_point start = Clock::now();
    send(text);
    return std::chrono::duration<double, std::micro>(m_arrival.Wait() - start).count();
  }

  Arrival& m_arrival;
  const Options& m_options;
  std::size_t m_number = 0;
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
    if (g_strcmp0(g_dbus_message_get_member(&signal), "send_event") != 0) return;
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
  Course course(arrival, options);
  Json::Value paths;
  paths["set_to_event"] = course.Run(setAt(service + "set", 1), setAt(kBaselineSetTopic, 1));
  paths["set_to_event_qos2"] = course.Run(setAt(service + "set", 2), setAt(kBaselineSetTopic, 2));
  paths["data_to_value"] = course.Run(sendData, sendToBaseline);
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
