#ifndef DEVICE_SERVICE_MQTT_BACKOFF_H
#define DEVICE_SERVICE_MQTT_BACKOFF_H

#include <chrono>
#include <random>

namespace Lumo::Mqtt {

// How long to wait before the next attempt: anything within a window that is 1 s at first, twice as
// long every time, and 30 s at last. Random over the whole window, also at the last one, so that a
// thousand things that lost one broker come back spread over it. Used by one thread.
class Backoff {
 public:
  static constexpr std::chrono::milliseconds kFirstWindow{1000};
  static constexpr std::chrono::milliseconds kLastWindow{30'000};

  std::chrono::milliseconds Next();
  // The next window is the first one.
  void Reset() { m_window = kFirstWindow; }

 private:
  std::chrono::milliseconds m_window = kFirstWindow;
  std::minstd_rand m_random{std::random_device{}()};
};

}  // namespace Lumo::Mqtt

#endif  // DEVICE_SERVICE_MQTT_BACKOFF_H
