#ifndef DEVICE_SERVICE_HEALTH_HEALTH_H
#define DEVICE_SERVICE_HEALTH_HEALTH_H

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace Lumo {

// What a service counts from its creation on; docs/operations.md defines each for people.
enum class Counted {
  Connections,     // that the broker has accepted
  Served,          // requests that the plug-in has answered, whatever its result
  Busy,            // requests that were refused because too much waited
  TimedOut,        // requests that the plug-in did not answer in time
  Cancelled,       // requests that their requester ended
  Invalid,         // requests that were refused for their content
  SetsRefused,     // sets that the plug-in has answered with another result than 0
  ValuesTooLarge,  // values that were larger than the broker takes
};
constexpr std::size_t kCountedKinds = 8;

// How a service is at a moment.
struct Health {
  using Time = std::chrono::system_clock::time_point;
  // Online: requests come. None: there is no broker.
  enum class Link { None, Offline, Online };

  Time started;  // when the service was created
  Link link = Link::None;
  Time since;          // when the link became this
  std::string reason;  // why it is offline, in one line; empty when nothing has failed yet
  // Of what is published, what the broker refuses over this connection; empty when nothing.
  std::string refusal;
  std::array<std::uint64_t, kCountedKinds> counts{};
  // Of the last connection that was lost; nothing when none was.
  std::optional<Time> lostAt;
  std::string lastLoss;
  std::size_t properties = 0;  // that are registered
  // That wait for the plug-in, also those that timed out and that it still has, and those that are
  // held back.
  std::size_t waitingRequests = 0;
  std::size_t waitingAnswers = 0;  // for the broker
  // Of the process, from its start on. Nothing when the log does not count them.
  std::optional<std::uint64_t> droppedLogLines;
  std::uint64_t residentBytes = 0;  // of the process; 0 when the system does not tell

  std::uint64_t Count(Counted what) const { return counts.at(static_cast<std::size_t>(what)); }
};

// Whether there is something to write. What the process alone changes is no news: its memory and
// its log; neither is why an attempt to connect has failed.
inline bool IsNews(const Health& now, const Health& before) {
  return now.link != before.link || now.counts != before.counts || now.lostAt != before.lostAt ||
         now.properties != before.properties || now.waitingRequests != before.waitingRequests ||
         now.waitingAnswers != before.waitingAnswers;
}

}  // namespace Lumo

#endif  // DEVICE_SERVICE_HEALTH_HEALTH_H
