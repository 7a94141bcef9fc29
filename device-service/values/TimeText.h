#ifndef DEVICE_SERVICE_VALUES_TIMETEXT_H
#define DEVICE_SERVICE_VALUES_TIMETEXT_H

#include <chrono>
#include <string>

namespace Lumo {

// RFC 3339 in UTC, with milliseconds.
std::string ToText(std::chrono::system_clock::time_point time);

}  // namespace Lumo

#endif  // DEVICE_SERVICE_VALUES_TIMETEXT_H
