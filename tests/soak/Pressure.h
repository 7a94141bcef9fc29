#ifndef TESTS_SOAK_PRESSURE_H
#define TESTS_SOAK_PRESSURE_H

#include "Channel.h"
#include "Tally.h"

namespace Soak {

// Puts the channel under one load after the other, and prints for each how long everybody else
// waits, and the host's memory at its peak. It is a mismatch when that is more than 64 MiB above
// the memory before, or when somebody gets no answer. How long they wait is only printed, as it
// depends on what else the machine does. Throws std::runtime_error.
void MeasurePressure(Channel& channel, Tally& tally);

}  // namespace Soak

#endif  // TESTS_SOAK_PRESSURE_H
