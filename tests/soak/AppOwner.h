#ifndef TESTS_SOAK_APPOWNER_H
#define TESTS_SOAK_APPOWNER_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "AppConnection.h"
#include "CloudClient.h"
#include "Model.h"
#include "Tally.h"

namespace Soak {

// Everything that one application does, over several connections, in a random order, with every
// reply checked. Nobody else changes the application, so that replies can be foretold. One thread
// at a time uses it. Failures are thrown as std::runtime_error.
class AppOwner {
 public:
  // All that is referred to outlives it.
  AppOwner(std::string busAddress, std::size_t connections, AppModel& app, const ThingModel& thing,
           std::uint64_t seed, Tally& tally);

  // Goes on until told to stop.
  void Run(const std::atomic<bool>& stop);

  // While nothing else goes on: checks that every connection has had all its events, and all
  // changes of the cloud connection since the last time, of which there were `signins`.
  void CheckEvents(unsigned signins);
  // The same: waits until the cloud shows what the application has sent.
  void CheckCloud(CloudClient& cloud);
  // Takes all registrations back and leaves the bus.
  void Leave();

  const std::string& Name() const { return m_app.name; }

 private:
  struct Connection {
    std::unique_ptr<AppConnection> bus;
    AppConnection::Listening listening;
    SetLog::Reader sets;
    std::optional<unsigned> signins;  // when it was checked last; nothing when it was new then
  };

  Connection connect(AppConnection::Listening listening);
  void step();
  void registerApp();
  void unregisterApp();
  void sendData();
  void askForCloudConnection();
  void askForThingInformation();
  void tryAsStranger();
  AppConnection::Received checkEvents(Connection& connection);
  void killConnection();

  unsigned random(unsigned below);
  Connection& anyConnection();
  std::string newData();
  // The call, over any connection, succeeds when the channel must know the application.
  void call(const char* method, const std::vector<std::string>& arguments, bool isKnown);
  void check(bool isRight, const std::string& whatIsWrong);

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
