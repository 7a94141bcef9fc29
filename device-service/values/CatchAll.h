#ifndef DEVICE_SERVICE_VALUES_CATCHALL_H
#define DEVICE_SERVICE_VALUES_CATCHALL_H

#include <exception>

#include "dlog.h"

namespace Lumo {

// Runs the body and logs what it throws, after `where`: for a body that C or a thread calls, which
// no exception may leave.
template <typename Body>
void CatchAll(const char* where, const Body& body) noexcept {
  try {
    body();
  } catch (const std::exception& e) {
    dlog_print(6, "LUMO", "%s: %s\n", where, e.what());
  } catch (...) {
    dlog_print(6, "LUMO", "%s: unknown exception\n", where);
  }
}

}  // namespace Lumo

#endif  // DEVICE_SERVICE_VALUES_CATCHALL_H
