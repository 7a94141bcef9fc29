#ifndef DEVICE_SERVICE_LINK_MESSAGELABELS_H
#define DEVICE_SERVICE_LINK_MESSAGELABELS_H

#include <chrono>
#include <string>

#include "mqtt/Packet.h"
#include "service/LinkedService.h"

namespace Lumo {

// What the published messages say of themselves, as MQTT properties: that they are JSON, and as
// User Properties their origin, so that a subscriber can tell the order of messages, gaps between
// values, and a restart. An empty message has no labels. Constant after construction.
class MessageLabels {
 public:
  using Time = std::chrono::system_clock::time_point;

  // Of a new run: its id is random.
  MessageLabels();

  static Mqtt::Labels Answer();
  // The broker sends the will some time later: it has no time.
  Mqtt::Labels Will() const;
  // Of the status and the description.
  Mqtt::Labels State(Time published) const;
  Mqtt::Labels Value(const Notified& notified) const;

 private:
  const std::string m_run;
};

}  // namespace Lumo

#endif  // DEVICE_SERVICE_LINK_MESSAGELABELS_H
