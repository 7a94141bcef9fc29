#ifndef DEVICE_SERVICE_HEALTH_PROCESSFIGURES_H
#define DEVICE_SERVICE_HEALTH_PROCESSFIGURES_H

#include "health/Health.h"

namespace Lumo {

// Fills in what concerns the whole process. Reads a file of the system.
void AddProcessFigures(Health& health);

}  // namespace Lumo

#endif  // DEVICE_SERVICE_HEALTH_PROCESSFIGURES_H
