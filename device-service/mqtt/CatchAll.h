#ifndef DEVICE_SERVICE_MQTT_CATCHALL_H
#define DEVICE_SERVICE_MQTT_CATCHALL_H

#include <exception>

#include "dlog.h"

namespace Lumo::Mqtt {

// For what C calls, which no exception may get into: runs the body and logs what it throws.
template <typename Body>
void CatchAll(const Body& body) noexcept {
  try {
    body();
  } catch (const std::exception& e) {
    dlog_print(6, "LUMO", "mqtt: %s\n", e.what());
  } catch (...) {
    dlog_print(6, "LUMO", "mqtt: unknown exception\n");
  }
}

}  // namespace Lumo::Mqtt

#endif  // DEVICE_SERVICE_MQTT_CATCHALL_H
