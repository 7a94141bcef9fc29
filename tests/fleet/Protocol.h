#ifndef TESTS_FLEET_PROTOCOL_H
#define TESTS_FLEET_PROTOCOL_H

#include <chrono>
#include <cstdint>

// What the runner of a fleet and its helpers say to each other: lines with tabs between the words,
// through the socket that is the helper's standard output.
//
// To the applications:               join INDEX ADDRESS | leave INDEX | send INDEX TAG
// From them:                         ready INDEX | sending INDEX COUNT TAG | event INDEX DATA |
//                                    error INDEX TEXT
// An application sends the data "COUNT:TAG". COUNT begins with 1 for each host, and goes up with
// each value that the application sends. It confirms an event by sending its data as TAG.
//
// To a worker:                       set NUMBER THING | settle TOKEN | mark
// From it:                           connected PRESENT | published TIME NUMBER | settled TOKEN |
//                                    marked | message TIME FLAGS TOPIC CORRELATION RUN SEQUENCE
//                                    MADE PAYLOAD
// FLAGS has "s" for a message of the shared subscription, "r" for a retained one, and "-". Set
// NUMBER has the data "sNUMBER" and the Correlation Data NUMBER.
namespace Fleet {

inline constexpr const char* kApp = "qz";

// Nanoseconds of a clock that is the same for all processes of a machine.
inline std::int64_t Now() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace Fleet

#endif  // TESTS_FLEET_PROTOCOL_H
