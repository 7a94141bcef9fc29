#ifndef DEVICE_SERVICE_VALUES_HANDLE_H
#define DEVICE_SERVICE_VALUES_HANDLE_H

namespace Lumo {

// A new handle for the C interface: an odd number in a pointer, so never null and never the address
// of an object. It repeats only after all numbers of a pointer's width. Any thread.
void* NewHandle();

}  // namespace Lumo

#endif  // DEVICE_SERVICE_VALUES_HANDLE_H
