#ifndef TESTS_FUZZ_INPROCESSBUS_H
#define TESTS_FUZZ_INPROCESSBUS_H

#include <gio/gio.h>

#include <optional>
#include <string>
#include <vector>

#include "Bus.h"

namespace fuzz {

// A message bus that is nothing but a few of GIO's functions, in whose place it is linked:
// thousands of starts and calls per second, in an order that the target decides. It holds the
// plug-in to the interface that it has registered. One object at a time; of several owners, the
// last is the one. Any thread.
namespace InProcessBus {

enum Operation { kOwnName, kRegisterObject, kEmitSignal, kOperationCount };

// Forgets the signals and has nothing fail.
void Forget();
// The operation fails the next `count` times.
void Fail(Operation operation, unsigned count);

// Whether the name is requested, and whether there is an object to call.
bool HasOwner();
bool HasObject();
// Tell the owner that the bus is there, and that the name is its own. There must be an owner.
void AcquireBus();
void AcquireName();

// Calls a method of the object, with parameters of the method's type, as an application does.
// Gives the reply. There must be an object. Takes over floating parameters.
BusMessage Call(const std::string& method, GVariant* parameters);
// The same while another thread may be stopping the plug-in: nothing when there is no object any
// more, or when it does not reply.
std::optional<BusMessage> TryCall(const std::string& method, GVariant* parameters);
std::vector<BusMessage> TakeSignals();

}  // namespace InProcessBus
}  // namespace fuzz

#endif  // TESTS_FUZZ_INPROCESSBUS_H
