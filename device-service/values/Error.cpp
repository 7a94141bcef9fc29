#include "values/Error.h"

namespace Lumo {

const char* Describe(lumo_error code) {
  switch (code) {
    case kSuccess:
      return "success";
    case kInvalidArgument:
      return "an argument is null or malformed";
    case kUnknownHandle:
      return "no such object, or no longer";
    case kWrongType:
      return "the object is of another type";
    case kAlreadyOwned:
      return "the object belongs to a list or to the library already";
    case kAlreadyRegistered:
      return "the property is registered already";
    case kNotRegistered:
      return "the property is not registered";
    case kBusy:
      return "too many requests are unanswered";
    case kTimedOut:
      return "the request was not answered in time";
    case kCancelled:
      return "the request was cancelled";
    case kServiceGone:
      return "the service was destroyed";
    case kInternal:
      return "unexpected failure";
    case kServiceExists:
      return "the process has a service of that name already";
    default:
      return "the plug-in's own error";
  }
}

}  // namespace Lumo
