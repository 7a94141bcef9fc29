#ifndef BENCH_SOAK_PRESSURE_H
#define BENCH_SOAK_PRESSURE_H

#include "Channel.h"
#include "Tally.h"

namespace Soak {

// Puts the channel under one load after the other, and prints for each how long everybody else
// waits, and the host's memory at its peak. It is a mismatch when that is more than kMaxMemoryKib
// above the memory before, or when somebody gets no answer. Throws std::runtime_error.
void MeasurePressure(Channel& channel, Tally& tally);

}  // namespace Soak

#endif  // BENCH_SOAK_PRESSURE_H
