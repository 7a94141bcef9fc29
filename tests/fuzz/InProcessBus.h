#ifndef TESTS_FUZZ_INPROCESSBUS_H
#define TESTS_FUZZ_INPROCESSBUS_H

#include <gio/gio.h>

#include <array>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Bus.h"

namespace fuzz {

// A message bus that is nothing but a few of GIO's functions, in whose place it is linked:
// thousands of starts and calls per second, in an order that the target decides. It holds the
// plug-in to the interface that it has registered. One object at a time; of several owners, the
// last is the one.
//
// Any thread.
class InProcessBus {
 public:
  enum Operation { kOwnName, kRegisterObject, kEmitSignal, kOperationCount };

  // Never destroyed: the plug-in uses it until the process ends.
  static InProcessBus& Get();

  // Forgets the signals and has nothing fail.
  void Forget();
  // The operation fails the next `count` times.
  void Fail(Operation operation, unsigned count);

  // Whether the name is requested, and whether there is an object to call.
  bool HasOwner() const;
  bool HasObject() const;
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

  // GIO's functions call what follows.
  guint OwnName(GBusAcquiredCallback busAcquired, GBusNameAcquiredCallback nameAcquired,
                gpointer userData);
  void UnownName(guint id);
  guint RegisterObject(GDBusConnection* connection, GDBusInterfaceInfo* interface,
                       const GDBusInterfaceVTable* table, gpointer userData);
  bool UnregisterObject(GDBusConnection* connection, guint id);
  bool EmitSignal(const char* name, GVariant* parameters);
  static void Reply(GDBusMethodInvocation* invocation, GVariant* value);

 private:
  struct Owner {
    guint id = 0;
    GBusAcquiredCallback busAcquired = nullptr;
    GBusNameAcquiredCallback nameAcquired = nullptr;
    gpointer userData = nullptr;
  };
  struct Object {
    guint id = 0;  // 0: none
    std::shared_ptr<GDBusInterfaceInfo> interface;
    GDBusInterfaceVTable table = {};
    gpointer userData = nullptr;
  };

  InProcessBus();
  ~InProcessBus() = default;

  bool isToFail(Operation operation);  // with m_mutex held
  Owner owner() const;                 // id 0: none
  Object object() const;

  GDBusConnection* const m_connection;  // nothing is done with it but to refer to it
  mutable std::mutex m_mutex;           // guards all of what follows
  std::array<unsigned, kOperationCount> m_failures{};
  guint m_lastId = 0;
  std::vector<Owner> m_owners;
  Object m_object;
  std::vector<BusMessage> m_signals;
};

}  // namespace fuzz

#endif  // TESTS_FUZZ_INPROCESSBUS_H
