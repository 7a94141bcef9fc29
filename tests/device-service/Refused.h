#ifndef TESTS_DEVICE_SERVICE_REFUSED_H
#define TESTS_DEVICE_SERVICE_REFUSED_H

#include "CapturedLog.h"
#include "lumo.h"

// Whether the library has written exactly one line since the last call: an error.
inline bool LoggedAnError() {
  const auto lines = CapturedLog::Get().Take();
  return lines.size() == 1 && lines[0].tag == "LUMO" && lines[0].priority == 6;
}

// Whether a call has failed, with this result, and was logged.
inline bool Refused(lumo_error result) {
  return LoggedAnError() && result != 0;
}
inline bool Refused(const void* result) {
  return LoggedAnError() && result == nullptr;
}

#endif  // TESTS_DEVICE_SERVICE_REFUSED_H
