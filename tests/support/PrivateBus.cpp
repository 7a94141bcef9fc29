#include "PrivateBus.h"

#include <sys/stat.h>

#include <cstdlib>
#include <stdexcept>
#include <vector>

#include "WaitUntil.h"

namespace {

const char* const kConfigurationStart =
    R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
)";
const char* const kOpenRules = R"(
    <allow own="*"/>
    <allow send_type="method_call"/>
  </policy>
)";
const char* const kSystemRules = R"(
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
    <allow send_destination="org.freedesktop.DBus"
           send_interface="org.freedesktop.DBus.Introspectable"/>
    <allow send_destination="org.freedesktop.DBus"
           send_interface="org.freedesktop.DBus.Properties"/>
    <deny send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"
          send_member="UpdateActivationEnvironment"/>
    <!-- What a careless policy file of another service adds. -->
    <allow own_prefix="org.tizen"/>
    <allow send_interface="org.freedesktop.DBus.Properties"/>
  </policy>
  <include>service.conf</include>
)";
// The limits leave room for a test with some hundred connections of one user.
const char* const kConfigurationEnd = R"(
  <limit name="max_connections_per_user">1024</limit>
  <limit name="max_completed_connections">1024</limit>
  <limit name="max_incomplete_connections">1024</limit>
</busconfig>
)";

}  // namespace

PrivateBus::PrivateBus(const std::string& servicePolicy) {
  const bool isOpen = servicePolicy.empty();
  m_folder.Write("bus.conf", kConfigurationStart + std::string(isOpen ? kOpenRules : kSystemRules) +
                                 "  <listen>" + m_address + "</listen>" + kConfigurationEnd);
  m_folder.Write("service.conf", servicePolicy);
  if (!isOpen) chmod(m_folder.Path().c_str(), 0711);  // the socket is for everybody
  setenv("DBUS_SYSTEM_BUS_ADDRESS", m_address.c_str(), 1);
  Start();
}

void PrivateBus::Start() {
  if (m_daemon) return;
  const std::size_t logged = m_folder.Read("log").size();
  m_daemon = std::make_unique<Program>(
      std::vector<std::string>{"dbus-daemon",
                               "--config-file=" + (m_folder.Path() / "bus.conf").string(),
                               "--nofork", "--nopidfile", "--nosyslog", "--print-address"},
      m_folder.Path() / "log");
  // It prints its address once it listens.
  const auto listens = [&] {
    return m_folder.Read("log").find(m_address, logged) != std::string::npos;
  };
  if (WaitUntil([&] { return listens() || m_daemon->HasEnded(); }) && listens()) return;
  Kill();
  throw std::runtime_error("dbus-daemon does not start (is it installed?) " + m_folder.Read("log"));
}
