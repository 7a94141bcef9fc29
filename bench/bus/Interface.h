#ifndef BENCH_BUS_INTERFACE_H
#define BENCH_BUS_INTERFACE_H

// What the channel offers on the bus, and the services that only reply as well.
inline constexpr const char* kObjectPath = "/org/tizen/qivo_thing";
inline constexpr const char* kInterface = "org.tizen.qivo_thing.service";

#endif  // BENCH_BUS_INTERFACE_H
