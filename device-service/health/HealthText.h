#ifndef DEVICE_SERVICE_HEALTH_HEALTHTEXT_H
#define DEVICE_SERVICE_HEALTH_HEALTHTEXT_H

#include <string>

#include "health/Health.h"

namespace Lumo {

// For the health topic: an object with a number or a text for each figure. What is not known, or
// has not happened, is left out.
std::string EncodeHealth(const Health& health);

// For Prometheus: the text format 0.0.4.
std::string EncodeMetrics(const Health& health);

}  // namespace Lumo

#endif  // DEVICE_SERVICE_HEALTH_HEALTHTEXT_H
