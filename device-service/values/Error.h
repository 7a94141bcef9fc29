#ifndef DEVICE_SERVICE_VALUES_ERROR_H
#define DEVICE_SERVICE_VALUES_ERROR_H

#include "lumo.h"

namespace Lumo {

// The library's own error codes. They are negative; positive codes are the plug-in's and pass
// unchanged.
enum Error : lumo_error {
  kSuccess = 0,
  kInvalidArgument = -1,
  kUnknownHandle = -2,
  kWrongType = -3,
  kAlreadyOwned = -4,
  kAlreadyRegistered = -5,
  kNotRegistered = -6,
  kBusy = -7,
  kTimedOut = -8,
  kCancelled = -9,
  kServiceGone = -10,
  kInternal = -11,
  kServiceExists = -12,
};

// For a log line; never null.
const char* Describe(lumo_error code);

}  // namespace Lumo

#endif  // DEVICE_SERVICE_VALUES_ERROR_H
