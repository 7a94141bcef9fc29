#include "Television.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <stdexcept>
#include <vector>

namespace Fleet {

namespace {

const char* const kBusConfiguration =
    R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/><allow own="*"/><allow send_type="method_call"/><allow send_type="signal"/>
    <allow send_type="method_return"/><allow send_type="error"/><allow receive_type="method_call"/>
    <allow receive_type="method_return"/><allow receive_type="error"/><allow receive_type="signal"/>
  </policy>
)";

std::string idOf(std::size_t index) {
  constexpr std::size_t kDigits = 5;
  const std::string number = std::to_string(index);
  return "tv" + std::string(kDigits - std::min(kDigits, number.size()), '0') + number;
}

}  // namespace

Television::Television(std::size_t index, const Place& place)
    : m_id(idOf(index)),
      m_place(place),
      m_folder(place.folder / m_id),
      m_busAddress("unix:path=" + (m_folder / "bus").string()) {
  std::filesystem::create_directory(m_folder);
  std::ofstream(m_folder / "bus.conf")
      << kBusConfiguration << "  <listen>" << m_busAddress << "</listen>\n</busconfig>\n";
}

void Television::StartBus() {
  std::filesystem::remove(m_folder / "bus");
  m_bus = std::make_unique<Program>(
      std::vector<std::string>{"dbus-daemon", "--config-file=" + (m_folder / "bus.conf").string(),
                               "--nofork", "--nopidfile", "--nosyslog"},
      Program::Streams{m_place.log, m_place.log});
}

bool Television::HasBus() const {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = m_folder / "bus";
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const bool listens =
      connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  close(descriptor);
  return listens;
}

void Television::StartHost(const std::string& broker, const Certificates* certificates) {
  Program::Environment environment{{"DBUS_SYSTEM_BUS_ADDRESS", m_busAddress},
                                   {"VCONF_DIR", m_folder / "vconf"},
                                   {"DLOG_LEVEL", "error"},
                                   {"LUMO_BROKER", broker},
                                   {"LUMO_THING_ID", m_id},
                                   {"NOTIFY_SOCKET", ""}};
  if (certificates != nullptr) {
    const std::string name(kCertificate);
    environment["LUMO_BROKER_CA"] = certificates->Path("ca.crt");
    environment["LUMO_BROKER_CERT"] = certificates->Path(name + ".crt");
    environment["LUMO_BROKER_KEY"] = certificates->Path(name + ".key");
  }
  ClearInherited(environment, "LUMO_");
  m_host = std::make_unique<Program>(std::vector<std::string>{m_place.host, m_place.plugin},
                                     Program::Streams{m_place.log, m_place.log}, environment);
}

void Television::EndHost() {
  if (!m_host) return;
  m_host->Signal(SIGTERM);
  const int status = m_host->Wait();
  m_host.reset();
  if (status != 0) {
    throw std::runtime_error("the host of " + m_id + " ends with " + std::to_string(status));
  }
}

void Television::Kill() {
  if (m_host) m_host->Signal(SIGKILL);
  if (m_bus) m_bus->Signal(SIGKILL);
  m_host.reset();
  m_bus.reset();
}

}  // namespace Fleet
