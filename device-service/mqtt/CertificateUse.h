#ifndef DEVICE_SERVICE_MQTT_CERTIFICATEUSE_H
#define DEVICE_SERVICE_MQTT_CERTIFICATEUSE_H

#include <string_view>

namespace Lumo::Mqtt {

// Whether a certificate in DER may identify a server: it says so, or it does not limit its use. GIO
// does not check this, and without the check a thing could pose as the broker with its own
// certificate, when the same authority has signed both. False for anything but a certificate. For a
// certificate whose signature has been verified. Any thread.
bool IsGoodForServers(std::string_view certificate);

}  // namespace Lumo::Mqtt

#endif  // DEVICE_SERVICE_MQTT_CERTIFICATEUSE_H
