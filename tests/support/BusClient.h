#ifndef TESTS_BUSCLIENT_H
#define TESTS_BUSCLIENT_H

#include <gio/gio.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

// What the plug-in offers on the bus.
inline constexpr const char* kBusName = "org.tizen.qivo_thing";
inline constexpr const char* kObjectPath = "/org/tizen/qivo_thing";
inline constexpr const char* kInterface = "org.tizen.qivo_thing.service";

// A signal as it arrived. `parameters` is text as g_variant_print gives it: "('qz', '42')".
struct Signal {
  std::string sender;
  std::string destination;  // empty when the signal went to everybody
  std::string path;
  std::string interface;
  std::string member;
  std::string parameters;
};

// The end of a call: `value` as text, "(0,)", or the D-Bus name of the error. An error that was not
// received is "local: " with its domain and code.
struct Reply {
  std::string value;
  std::string error;
};

// An application: a connection of its own to a message bus, with its calls, the signals of the
// plug-in's interface that it receives, and the names that it owns.
//
// Needs no main loop: calls run on threads of their own, signals are kept as GDBus's thread brings
// them. A signal that was sent before a reply is kept before the reply arrives. Any thread may use
// a client. Its destruction waits for nothing; wait for calls through their futures.
class BusClient {
 public:
  struct Unref {
    void operator()(GVariant* value) const noexcept { g_variant_unref(value); }
    void operator()(GDBusMessage* message) const noexcept { g_object_unref(message); }
  };
  using VariantPtr = std::unique_ptr<GVariant, Unref>;
  using MessagePtr = std::unique_ptr<GDBusMessage, Unref>;

  // As in Reply; null stands for "()".
  static std::string Print(GVariant* value);

  // Gets each signal on GDBus's thread, as early as GDBus has it; none any more once a client that
  // was not cut is destroyed. What it throws is printed.
  using OnSignal = std::function<void(GDBusMessage& signal)>;

  explicit BusClient(const std::string& address);
  // Hands signals over instead of keeping them: those that are sent to this client alone, and what
  // Match asks for.
  BusClient(const std::string& address, OnSignal onSignal);
  ~BusClient();
  BusClient(const BusClient&) = delete;
  BusClient& operator=(const BusClient&) = delete;

  std::string UniqueName() const { return g_dbus_connection_get_unique_name(connection()); }

  // Calls a method of the plug-in's interface. Takes over floating parameters; null stands for
  // none. The future must be waited for while the host's main loop turns.
  static constexpr std::chrono::seconds kCallLimit = std::chrono::seconds(60);
  std::future<Reply> Call(const std::string& method, GVariant* parameters = nullptr,
                          std::chrono::milliseconds limit = kCallLimit,
                          const std::string& destination = kBusName,
                          const std::string& path = kObjectPath,
                          const std::string& interface = kInterface);
  // Sends the call and waits only until it is on its way; nobody waits for its reply.
  void Send(const std::string& method, GVariant* parameters = nullptr);
  // Queues the message, or a call that wants no reply, and returns.
  void Post(const MessagePtr& message);
  void PostCall(const std::string& method, GVariant* parameters);
  // A call of the plug-in's interface that waits on this thread, and its reply as in Reply. Takes
  // over floating parameters. Throws std::runtime_error when there is none.
  std::string CallHere(const std::string& method, GVariant* parameters);
  // Emits a signal of the plug-in's interface, as if it were the plug-in, and waits until the bus
  // has dealt with it. Takes over floating parameters.
  void Emit(const std::string& signal, GVariant* parameters);

  std::vector<Signal> Signals() const;
  // The same, and forgets them.
  std::vector<Signal> TakeSignals();

  // Of the message bus. The results are the bus's own: 1 primary owner, 2 in queue, 3 exists …
  guint RequestName(const std::string& name, guint flags);
  guint ReleaseName(const std::string& name);
  std::string OwnerOf(const std::string& name);  // empty when there is none
  std::vector<std::string> QueuedOwnersOf(const std::string& name);
  // Throws std::runtime_error when the bus refuses it.
  void Match(const std::string& rule);
  // Returns once the bus has handed over all that was on its way to this client before. Throws
  // std::runtime_error when the bus does not answer.
  void Sync();

  // Leaves the bus at once; repeatable.
  void Close() { g_dbus_connection_close_sync(connection(), nullptr, nullptr); }
  // Cuts the connection in the way the kernel does for a process that is killed. The bus notices
  // soon.
  void Cut();

 private:
  struct Inbox;

  // Calls the message bus; null when it answers with an error.
  VariantPtr callBus(const std::string& method, GVariant* parameters, const char* replyType);

  GDBusConnection* connection() const { return m_connection.get(); }

  std::shared_ptr<Inbox> m_inbox;
  std::unique_ptr<GDBusConnection, void (*)(gpointer)> m_connection;
  guint m_filter = 0;
};

#endif  // TESTS_BUSCLIENT_H
