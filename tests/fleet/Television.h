#ifndef TESTS_FLEET_TELEVISION_H
#define TESTS_FLEET_TELEVISION_H

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include "Certificates.h"
#include "Program.h"

namespace Fleet {

// One television: a message bus and a host with the plug-in, each a process, in a folder of its
// own. And what the fleet knows of it: what its application did, and what the broker says. One
// thread uses it: the one that made it. Failures are thrown as std::exception.
class Television {
 public:
  struct Place {
    std::filesystem::path folder;  // of all televisions
    std::string host;              // the program
    std::string plugin;
    int log;  // a descriptor for what the processes print
  };

  Television(std::size_t index, const Place& place);

  const std::string& Id() const { return m_id; }
  const std::string& BusAddress() const { return m_busAddress; }

  void StartBus();
  bool HasBus() const;  // that can be connected to
  // With TLS when there are certificates: all televisions have the one named kCertificate.
  static constexpr const char* kCertificate = "television";
  void StartHost(const std::string& broker, const Certificates* certificates);
  void EndHost();  // a clean shutdown
  // As a power cut would.
  void Kill();
  void SignalHost(int signal) const {
    if (m_host) m_host->Signal(signal);
  }
  // Whether a process that should run has ended.
  bool HasFailed() const { return (m_bus && m_bus->HasEnded()) || (m_host && m_host->HasEnded()); }
  pid_t Bus() const { return m_bus ? m_bus->Pid() : 0; }
  pid_t Host() const { return m_host ? m_host->Pid() : 0; }

  // What should be.
  enum class Stage { kOff, kBus, kHost, kUp };
  Stage stage = Stage::kOff;
  bool isWanted = false;
  bool hasApp = true;          // when it is started next
  int port = 0;                // of the broker, or of a proxy
  std::int64_t changedAt = 0;  // when it was killed or started, in ns

  // What its application did.
  bool isAppReady = false;
  std::size_t appCount = 0;   // values that it has sent to this host
  std::string appData;        // the last one
  std::size_t lastEvent = 0;  // the set's number

  // What the observer has seen. Texts are empty when there is no such message.
  struct Seen {
    std::string status;  // the payload
    std::string statusRun;
    std::string statusTime;  // none in the will
    std::int64_t statusAt = 0;
    std::string propertiesRun;
    bool hasApp = false;
    std::string value;
    std::string valueRun;
    std::size_t sequence = 0;
    std::size_t statusMessages = 0;
  };
  Seen seen;

 private:
  const std::string m_id;
  const Place& m_place;
  const std::filesystem::path m_folder;
  const std::string m_busAddress;
  std::unique_ptr<Program> m_bus;   // null while it is off
  std::unique_ptr<Program> m_host;  // null while it is off
};

}  // namespace Fleet

#endif  // TESTS_FLEET_TELEVISION_H
