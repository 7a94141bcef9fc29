#include "AppOwner.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <thread>
#include <utility>

#include "WaitUntil.h"

namespace Soak {
namespace {

constexpr int kDone = 0;
constexpr int kUnknownApp = -20;
constexpr unsigned kMaxPauseUs = 10'000;  // between two steps
// One in so many gets the events: more of them keep the bus busy with nothing else.
constexpr std::size_t kConnectionsPerListener = 4;
constexpr std::size_t kLongData = 16'384;  // bytes
constexpr const char* kStranger = "nobody";

}  // namespace

AppOwner::AppOwner(std::string busAddress, std::size_t connections, AppModel& app,
                   const ThingModel& thing, std::uint64_t seed, Tally& tally)
    : m_busAddress(std::move(busAddress)),
      m_app(app),
      m_thing(thing),
      m_tally(tally),
      m_random(seed) {
  for (std::size_t i = 0; i < connections; ++i) {
    const bool isListener = i % kConnectionsPerListener == 0;
    m_connections.push_back(connect(isListener ? AppConnection::Listening::ToAll
                                               : AppConnection::Listening::ToSignins));
  }
}

void AppOwner::Run(const std::atomic<bool>& stop) {
  try {
    while (!stop) {
      step();
      std::this_thread::sleep_for(std::chrono::microseconds(random(kMaxPauseUs)));
    }
  } catch (const std::exception& error) {
    m_tally.Mismatch(m_app.name + " gives up: " + error.what());
  }
}

void AppOwner::CheckEvents(unsigned signins) {
  for (Connection& connection : m_connections) {
    checkEvents(connection);
    const unsigned changes = connection.bus->SigninChanges();
    if (connection.signins && changes - *connection.signins != signins) {
      m_tally.Mismatch(m_app.name + ": " + std::to_string(changes - *connection.signins) +
                       " sign-ins instead of " + std::to_string(signins));
    }
    const std::optional<bool> last = connection.bus->LastSignin();
    if (last && *last != m_thing.signedIn.Last()) {
      m_tally.Mismatch(m_app.name + ": the last sign-in is not the last");
    }
    connection.signins = changes;
  }
}

void AppOwner::CheckCloud(CloudClient& cloud) {
  const std::string topic = "appdatachannel/value/" + m_app.name;
  const std::string expected = m_value ? Json::valueToQuotedString(m_value->c_str()) : "";
  std::string value;
  const bool isThere = WaitUntil([&] {
    const std::vector<std::string> values = cloud.Received(topic);
    value = values.empty() ? "" : values.back();
    return value == expected;
  });
  if (!isThere) {
    m_tally.Mismatch(m_app.name + ": the cloud has " + value.substr(0, 80) + " instead of " +
                     expected.substr(0, 80));
  }
  if (!cloud.WaitForProperty(m_app.name, m_isProperty)) {
    m_tally.Mismatch(m_app.name + (m_isProperty ? " is not" : " is") + " a property in the cloud");
  }
}

void AppOwner::Leave() {
  while (m_registrations > 0) unregisterApp();
  unregisterApp();  // which is one too many
  m_connections.clear();
}

AppOwner::Connection AppOwner::connect(AppConnection::Listening listening) {
  Connection connection{
      std::make_unique<AppConnection>(m_busAddress, m_app.name, m_tally), listening, {}, {}};
  // Events of sets that had ended before this call cannot come after it.
  connection.sets.ended = m_app.sets.Ended();
  connection.bus->CloudConnection();
  connection.bus->Subscribe(listening);
  connection.sets.begun = m_app.sets.Begun();
  return connection;
}

// To register more than once is rare: the first unregistration takes the property out of the cloud.
void AppOwner::step() {
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
    askForCloudConnection();
  } else if (chance < 9000) {
    askForThingInformation();
  } else if (chance < 9300) {
    tryAsStranger();
  } else if (chance < 9950) {
    checkEvents(anyConnection());
  } else {
    killConnection();
  }
}

void AppOwner::registerApp() {
  const bool isFirst = m_registrations == 0;
  if (m_app.allowed && isFirst) m_app.state.Begin(std::string());
  const int result = anyConnection().bus->Register(m_app.name);
  expect("register_app", m_app.allowed ? kDone : kUnknownApp, result);
  if (!m_app.allowed) return;
  ++m_registrations;
  if (!isFirst) return;
  m_app.state.End();
  m_isProperty = true;
  m_value.reset();
}

void AppOwner::unregisterApp() {
  if (m_registrations == 1) m_app.state.Begin(std::nullopt);
  const int result = anyConnection().bus->Unregister(m_app.name);
  expect("unregister_app", m_registrations > 0 ? kDone : kUnknownApp, result);
  if (m_registrations == 0) return;
  if (--m_registrations == 0) m_app.state.End();
  m_isProperty = false;
  m_value.reset();
}

void AppOwner::sendData() {
  const std::string data = newData();
  if (m_registrations > 0) m_app.state.Begin(data);
  const int result = anyConnection().bus->SendData(m_app.name, data);
  expect("send_data", m_registrations > 0 ? kDone : kUnknownApp, result);
  noteSent(data);
}

void AppOwner::askForCloudConnection() {
  const auto mark = m_thing.signedIn.Now();
  const bool connected = anyConnection().bus->CloudConnection();
  const std::vector<bool> allowed = m_thing.signedIn.Since(mark);
  if (std::find(allowed.begin(), allowed.end(), connected) == allowed.end()) {
    m_tally.Mismatch(m_app.name + ": get_cloud_connection gives " + (connected ? "true" : "false"));
  }
}

void AppOwner::askForThingInformation() {
  const auto mark = m_thing.signupInfo.Now();
  const std::string info = anyConnection().bus->ThingInformation();
  const std::vector<std::string> allowed = m_thing.signupInfo.Since(mark);
  if (std::find(allowed.begin(), allowed.end(), info) == allowed.end()) {
    m_tally.Mismatch(m_app.name + ": get_thing_information gives " + info);
  }
}

void AppOwner::tryAsStranger() {
  AppConnection& bus = *anyConnection().bus;
  expect("a stranger's register_app", kUnknownApp, bus.Register(kStranger));
  expect("a stranger's send_data", kUnknownApp, bus.SendData(kStranger, newData()));
  expect("a stranger's unregister_app", kUnknownApp, bus.Unregister(kStranger));
}

void AppOwner::checkEvents(Connection& connection) {
  const std::size_t ended = m_app.sets.Ended();
  // The host has queued their events before its reply, on the same connection.
  connection.bus->CloudConnection();
  if (connection.listening != AppConnection::Listening::ToAll) return;
  for (const SetLog::Id id : connection.bus->TakeEvents()) connection.sets.events.insert(id);
  const std::string wrong = m_app.sets.Check(connection.sets, ended);
  if (!wrong.empty()) m_tally.Mismatch(m_app.name + ": events:" + wrong);
}

void AppOwner::killConnection() {
  Connection& killed = anyConnection();
  checkEvents(killed);
  Connection replacement = connect(killed.listening);
  // Whether this data arrives is left open, until the next has.
  const std::string data = newData();
  if (m_registrations > 0) m_app.state.Begin(data);
  killed.bus->Kill(m_app.name, data, *replacement.bus);
  killed = std::move(replacement);
  sendData();
}

unsigned AppOwner::random(unsigned below) {
  return std::uniform_int_distribution<unsigned>(0, below - 1)(m_random);
}

AppOwner::Connection& AppOwner::anyConnection() {
  return m_connections[random(static_cast<unsigned>(m_connections.size()))];
}

std::string AppOwner::newData() {
  std::string data = m_app.name + " " + std::to_string(++m_lastData);
  if (random(100) == 0) data.append(random(kLongData), 'x');
  return data;
}

void AppOwner::noteSent(const std::string& data) {
  if (m_registrations == 0) return;
  m_app.state.End();
  if (m_isProperty) m_value = data;
}

void AppOwner::expect(const char* what, int expected, int result) {
  if (result == expected) return;
  m_tally.Mismatch(m_app.name + ": " + what + " gives " + std::to_string(result) + " instead of " +
                   std::to_string(expected));
}

}  // namespace Soak
