#ifndef DEVICE_SERVICE_MQTT_CERTIFICATEUSE_H
#define DEVICE_SERVICE_MQTT_CERTIFICATEUSE_H

#include <string_view>

namespace Lumo::Mqtt {

// Whether a certificate in DER is good for servers: it says so, or it does not limit its use. GIO
// does not judge this, and or else a thing could pose as the broker with its own certificate, when
// the same authority has signed both. False for what is no certificate. For a certificate whose
// signature has been verified. Any thread.
bool IsGoodForServers(std::string_view certificate);

}  // namespace Lumo::Mqtt

#endif  // DEVICE_SERVICE_MQTT_CERTIFICATEUSE_H
