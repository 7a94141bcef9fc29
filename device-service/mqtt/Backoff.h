#ifndef DEVICE_SERVICE_MQTT_BACKOFF_H
#define DEVICE_SERVICE_MQTT_BACKOFF_H

#include <chrono>
#include <random>

namespace Lumo {

// How long to wait before the next attempt: from 0.5 s, twice as long every time, up to 30 s. A
// random part of up to a quarter is on top, so that a thousand things that lost one broker do not
// come back to it all at once. Used by one thread.
class Backoff {
 public:
  static constexpr std::chrono::milliseconds kShortest{500};
  static constexpr std::chrono::milliseconds kLongest{30'000};

  std::chrono::milliseconds Next();
  // The next wait is the shortest.
  void Reset() { m_base = kShortest; }

 private:
  std::chrono::milliseconds m_base = kShortest;
  std::minstd_rand m_random{std::random_device{}()};
};

}  // namespace Lumo

#endif  // DEVICE_SERVICE_MQTT_BACKOFF_H
