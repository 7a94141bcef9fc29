#include "Environment.h"

#include <cstdlib>
#include <stdexcept>

namespace Latency {

std::string Environment(const char* variable) {
  const char* const value = std::getenv(variable);
  Require(value != nullptr, std::string(variable) + " is not set: start this with ./dev run --");
  return value;
}

std::string BusAddress() {
  return Environment("DBUS_SYSTEM_BUS_ADDRESS");
}

int BrokerPort() {
  const std::string start = "mqtt://127.0.0.1:";
  const std::string address = Environment("LUMO_BROKER");
  Require(address.rfind(start, 0) == 0, "LUMO_BROKER is not understood");
  return std::stoi(address.substr(start.size()));
}

std::string MatchRule(const char* interface, const char* member, const char* path) {
  return std::string("type='signal',interface='") + interface + "',member='" + member + "',path='" +
         path + "'";
}

void Require(bool done, const std::string& whatIsWrong) {
  if (!done) throw std::runtime_error(whatIsWrong);
}

}  // namespace Latency
