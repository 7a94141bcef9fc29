#ifndef BENCH_LATENCY_BUSCONNECTION_H
#define BENCH_LATENCY_BUSCONNECTION_H

#include <gio/gio.h>

#include <functional>
#include <memory>
#include <string>

namespace Latency {

template <auto Free>
struct Deleter {
  template <typename Handle>
  void operator()(Handle* handle) const noexcept {
    Free(handle);
  }
};
using MessagePtr = std::unique_ptr<GDBusMessage, Deleter<g_object_unref>>;
using VariantPtr = std::unique_ptr<GVariant, Deleter<g_variant_unref>>;

// A connection of its own to the channel's message bus. Any thread may send; failures are thrown as
// std::runtime_error.
class BusConnection {
 public:
  // Gets every signal, on GDBus's own thread and so as early as GDBus has it. What it throws is
  // printed.
  using Handler = std::function<void(GDBusMessage& signal)>;

  explicit BusConnection(Handler handler = {});
  // The handler runs no more once this returns.
  ~BusConnection();
  BusConnection(const BusConnection&) = delete;
  BusConnection& operator=(const BusConnection&) = delete;

  std::string Name() const;
  // Has the bus hand over signals of the interface, in addition to those that are sent to this
  // connection alone; of every object and with every first argument when those are null.
  void Match(const char* sender, const char* interface, const char* member, const char* path,
             const char* argument);
  // Returns once the bus has handed over all that was on its way to this connection before.
  void Sync();
  VariantPtr Call(const char* name, const char* path, const char* interface, const char* method,
                  GVariant* parameters, const char* replyType);
  // Returns once the message is queued.
  void Send(GDBusMessage& message);

 private:
  static GDBusMessage* onMessage(GDBusConnection* bus, GDBusMessage* message, gboolean incoming,
                                 gpointer self);

  const Handler m_handler;
  std::unique_ptr<GDBusConnection, Deleter<g_object_unref>> m_bus;
  guint m_filter = 0;
};

}  // namespace Latency

#endif  // BENCH_LATENCY_BUSCONNECTION_H
