#ifndef DEVICE_SERVICE_MQTT_BACKOFF_H
#define DEVICE_SERVICE_MQTT_BACKOFF_H

#include <chrono>
#include <random>

namespace Lumo::Mqtt {

// How long to wait before the next attempt: a random time within a window that starts at 1 s,
// doubles each time and stays at 30 s. Random over the whole window, also the last one, so that a
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
