#ifndef DEVICE_SERVICE_VALUES_HANDLE_H
#define DEVICE_SERVICE_VALUES_HANDLE_H

namespace Lumo {

// A new handle of the C interface: a number in the guise of a pointer. It is never null, never the
// address of an object (it is odd), and does not come again before the numbers of a pointer's width
// have run out. Any thread.
void* NewHandle();

}  // namespace Lumo

#endif  // DEVICE_SERVICE_VALUES_HANDLE_H
