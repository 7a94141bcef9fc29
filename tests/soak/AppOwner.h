#ifndef TESTS_SOAK_APPOWNER_H
#define TESTS_SOAK_APPOWNER_H

#include <json/json.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "AppConnection.h"
#include "CloudClient.h"
#include "Model.h"
#include "Tally.h"
#include "WaitUntil.h"

namespace Soak {

// Everything that one application does, over several connections, in a random order, with every
// reply checked. Nobody else changes the application, so that replies can be foretold. One thread
// at a time uses it. Failures are thrown as std::runtime_error.
class AppOwner {
 public:
  // All that is referred to outlives it.
  AppOwner(std::string busAddress, std::size_t connections, AppModel& app, const ThingModel& thing,
           std::uint64_t seed, Tally& tally)
      : m_busAddress(std::move(busAddress)),
        m_app(app),
        m_thing(thing),
        m_tally(tally),
        m_random(seed) {
    for (std::size_t i = 0; i < connections; ++i) {
      m_connections.push_back(connect(/*toEvents=*/i % kConnectionsPerListener == 0));
    }
  }

  // Goes on until told to stop.
  void Run(const std::atomic<bool>& stop) {
    while (!stop) {
      step();
      std::this_thread::sleep_for(std::chrono::microseconds(random(kMaxPauseUs)));
    }
  }

  // While nothing else goes on: checks that every connection has had all its events, and all
  // changes of the cloud connection since the last time, of which there were `signins`.
  void CheckEvents(unsigned signins) {
    for (Connection& connection : m_connections) {
      const AppConnection::Received received = checkEvents(connection);
      const unsigned before = std::exchange(connection.signins, received.signinChanges)
                                  .value_or(received.signinChanges - signins);
      check(received.signinChanges - before == signins,
            std::to_string(received.signinChanges - before) + " sign-ins instead of " +
                std::to_string(signins));
      check(received.lastSignin.empty() || received.lastSignin == m_thing.signedIn.Last(),
            "the last sign-in is not the last");
    }
  }

  // The same: waits until the cloud shows what the application has sent.
  void CheckCloud(CloudClient& cloud) {
    const std::string topic = "appdatachannel/value/" + m_app.name;
    const std::string expected = m_value ? Json::valueToQuotedString(m_value->c_str()) : "";
    std::string value;
    const bool isThere = WaitUntil([&] {
      const std::vector<std::string> values = cloud.Received(topic);
      value = values.empty() ? "" : values.back();
      return value == expected;
    });
    check(isThere,
          "the cloud has " + value.substr(0, 80) + " instead of " + expected.substr(0, 80));
    check(cloud.WaitForProperty(m_app.name, m_isProperty),
          std::string(m_isProperty ? "not" : "still") + " a property in the cloud");
  }

  // Takes all registrations back and leaves the bus.
  void Leave() {
    while (m_registrations > 0) unregisterApp();
    unregisterApp();  // which is one too many
    m_connections.clear();
  }

  const std::string& Name() const { return m_app.name; }

 private:
  static constexpr unsigned kMaxPauseUs = 10'000;  // between two steps
  // One in so many gets the events: more of them keep the bus busy with nothing else.
  static constexpr std::size_t kConnectionsPerListener = 4;
  static constexpr unsigned kLongData = 16'384;  // bytes

  struct Connection {
    std::unique_ptr<AppConnection> bus;
    bool toEvents;  // else it listens to sign-ins only
    SetLog::Reader sets;
    std::optional<unsigned> signins;  // when it was checked last; nothing when it was new then
  };

  Connection connect(bool toEvents) {
    Connection connection{
        std::make_unique<AppConnection>(m_busAddress, m_app.name, m_tally), toEvents, {}, {}};
    // Events of sets that had ended before this call cannot come after it.
    connection.sets.ended = m_app.sets.Ended();
    connection.bus->Call("get_cloud_connection");
    connection.bus->Subscribe(toEvents);
    connection.sets.begun = m_app.sets.Begun();
    return connection;
  }

  // To register more than once is rare: the first unregistration takes the property out of the
  // cloud.
  void step() {
    const bool isRegistered = m_registrations > 0;
    const unsigned chance = random(10'000);
    if (chance == 0) {
      registerApp();  // once more
    } else if (chance < 500) {
      isRegistered ? unregisterApp() : registerApp();
    } else if (chance < 1000) {
      isRegistered ? sendData() : registerApp();
    } else if (chance < 1100) {
      isRegistered ? sendData() : unregisterApp();
    } else if (chance < 6000) {
      sendData();
    } else if (chance < 7500) {
      ask("get_cloud_connection", m_thing.signedIn);
    } else if (chance < 9000) {
      ask("get_thing_information", m_thing.signupInfo);
    } else if (chance < 9300) {
      tryAsStranger();
    } else if (chance < 9950) {
      checkEvents(anyConnection());
    } else {
      killConnection();
    }
  }

  void registerApp() {
    const bool isFirst = m_app.allowed && m_registrations == 0;
    if (isFirst) m_app.state.Begin(std::string());
    call("register_app", {m_app.name}, m_app.allowed);
    if (m_app.allowed) ++m_registrations;
    if (!isFirst) return;
    m_app.state.End();
    m_isProperty = true;
    m_value.reset();
  }

  void unregisterApp() {
    if (m_registrations == 1) m_app.state.Begin(std::nullopt);
    call("unregister_app", {m_app.name}, m_registrations > 0);
    if (m_registrations == 0) return;
    if (--m_registrations == 0) m_app.state.End();
    m_isProperty = false;
    m_value.reset();
  }

  void sendData() {
    const std::string data = newData();
    if (m_registrations > 0) m_app.state.Begin(data);
    call("send_data", {m_app.name, data}, m_registrations > 0);
    if (m_registrations == 0) return;
    m_app.state.End();
    if (m_isProperty) m_value = data;
  }

  void ask(const char* method, const History<std::string>& replies) {
    const auto mark = replies.Now();
    const std::string reply = anyConnection().bus->Call(method);
    check(replies.HadSince(mark, reply), std::string(method) + " gives " + reply);
  }

  void tryAsStranger() {
    call("register_app", {"nobody"}, /*isKnown=*/false);
    call("send_data", {"nobody", newData()}, /*isKnown=*/false);
    call("unregister_app", {"nobody"}, /*isKnown=*/false);
  }

  AppConnection::Received checkEvents(Connection& connection) {
    const std::size_t ended = m_app.sets.Ended();
    // The host has queued their events before its reply, on the same connection.
    connection.bus->Call("get_cloud_connection");
    const AppConnection::Received received = connection.bus->Take();
    if (connection.toEvents) {
      connection.sets.events.insert(received.events.begin(), received.events.end());
      const std::string wrong = m_app.sets.Check(connection.sets, ended);
      check(wrong.empty(), "events:" + wrong);
    }
    return received;
  }

  void killConnection() {
    Connection& killed = anyConnection();
    checkEvents(killed);
    Connection replacement = connect(killed.toEvents);
    // Whether this data arrives is left open, until the next has.
    const std::string data = newData();
    if (m_registrations > 0) m_app.state.Begin(data);
    killed.bus->Kill(data, *replacement.bus);
    killed = std::move(replacement);
    sendData();
  }

  unsigned random(unsigned below) {
    return std::uniform_int_distribution<unsigned>(0, below - 1)(m_random);
  }

  Connection& anyConnection() {
    return m_connections[random(static_cast<unsigned>(m_connections.size()))];
  }

  std::string newData() {
    std::string data = m_app.name + " " + std::to_string(++m_lastData);
    if (random(100) == 0) data.append(random(kLongData), 'x');
    return data;
  }

  // The call, over any connection, succeeds when the channel must know the application.
  void call(const char* method, const std::vector<std::string>& arguments, bool isKnown) {
    const std::string expected = isKnown ? "(0,)" : "(-20,)";
    const std::string result = anyConnection().bus->Call(method, arguments);
    check(result == expected, std::string(method) + " of " + arguments[0] + " gives " + result);
  }

  void check(bool isRight, const std::string& whatIsWrong) {
    if (!isRight) m_tally.Mismatch(m_app.name + ": " + whatIsWrong);
  }

  const std::string m_busAddress;
  AppModel& m_app;
  const ThingModel& m_thing;
  Tally& m_tally;
  std::mt19937_64 m_random;
  std::vector<Connection> m_connections;
  std::uint64_t m_lastData = 0;
  unsigned m_registrations = 0;
  // The cloud has the property from the first registration to the first unregistration after it.
  bool m_isProperty = false;
  std::optional<std::string> m_value;  // that the cloud was notified of last
};

}  // namespace Soak

#endif  // TESTS_SOAK_APPOWNER_H
