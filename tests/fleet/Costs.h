#ifndef TESTS_FLEET_COSTS_H
#define TESTS_FLEET_COSTS_H

#include <sys/types.h>

#include <cstdint>

// What processes and connections of this machine have used until now. A process that is gone has
// used nothing.
namespace Fleet {

// Of the whole process, in ns.
std::int64_t CpuOf(pid_t process);
// How often its threads have waited and gone on (voluntary context switches).
std::int64_t WakeUpsOf(pid_t process);
// Its share of the memory that it has, in KiB (PSS): the more processes share a page, the less.
std::int64_t MemoryOf(pid_t process);
// The memory that it has written and shares with nobody, in KiB: what one process more costs.
std::int64_t OwnMemoryOf(pid_t process);

// The TCP connections that now end at a port of this machine, as the port's owner sees them.
struct Traffic {
  std::int64_t connections = 0;
  std::int64_t bytesIn = 0;  // payload of TCP, each byte once
  std::int64_t bytesOut = 0;
  std::int64_t segmentsIn = 0;  // with data: one for each message while messages are rare
  std::int64_t segmentsOut = 0;

  Traffic operator-(const Traffic& other) const {
    return {connections - other.connections, bytesIn - other.bytesIn, bytesOut - other.bytesOut,
            segmentsIn - other.segmentsIn, segmentsOut - other.segmentsOut};
  }
};
// Throws std::runtime_error where the kernel does not say.
Traffic TrafficAt(int port);

}  // namespace Fleet

#endif  // TESTS_FLEET_COSTS_H
