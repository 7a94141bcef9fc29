#ifndef APPDATACHANNEL_PLUGINCONSTANTS_H
#define APPDATACHANNEL_PLUGINCONSTANTS_H

namespace AppDataChannel {

// The settings key that tells the rest of the device how far the plug-in is, and its values.
inline constexpr const char* THING_STATUS_KEY = "memory/iot/thing/thing_status";
inline constexpr int THING_STATUS_STOPPED = 0;  // or starting
inline constexpr int THING_STATUS_READY = 1;

// The results of the operations that applications and the cloud's requests lead to.
inline constexpr int RESULT_CODE_SUCCESS = 0;
inline constexpr int RESULT_CODE_DBUS_NOT_READY = -9;
inline constexpr int RESULT_CODE_CONNECTION_CHANGE_NOT_SENT = -10;
inline constexpr int RESULT_CODE_INVALID_APP = -20;  // not on the allow-list, or not registered
// The device service refused a property, there is no sign-up information, or an event was not sent.
inline constexpr int RESULT_CODE_FAILED = -100;

}  // namespace AppDataChannel

#endif  // APPDATACHANNEL_PLUGINCONSTANTS_H
