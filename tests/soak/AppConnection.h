#ifndef TESTS_SOAK_APPCONNECTION_H
#define TESTS_SOAK_APPCONNECTION_H

#include <gio/gio.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "SetLog.h"
#include "Tally.h"

namespace Soak {

// One connection of an application to the message bus. It gets the events of its application and
// the changes of the cloud connection on GDBus's thread, and checks their order there. One thread
// at a time uses it; failures are thrown as std::runtime_error.
class AppConnection {
 public:
  // The tally outlives every message, and so every connection.
  AppConnection(const std::string& address, const std::string& app, Tally& tally);
  ~AppConnection();
  AppConnection(const AppConnection&) = delete;
  AppConnection& operator=(const AppConnection&) = delete;

  // Listens to changes of the cloud connection from the end of the call on, or to events as well.
  enum class Listening { ToSignins, ToAll };
  void Subscribe(Listening listening);

  // The calls, each with what comes back.
  int Register(const std::string& app);
  int Unregister(const std::string& app);
  int SendData(const std::string& app, const std::string& data);
  bool CloudConnection();
  std::string ThingInformation();

  // Sends data without waiting for the reply.
  void Post(const std::string& app, const std::string& data);
  // Cuts the connection in the way the kernel does for a process that is killed, with a send_data
  // under way; returns once the bus has noticed, which another connection is asked for. It is
  // of no use any more.
  void Kill(const std::string& app, const std::string& data, AppConnection& other);

  // A call of the message bus itself, which takes as long as the bus does.
  void CallBus();

  // What has come since the last time.
  std::vector<SetLog::Id> TakeEvents();
  // How many changes of the cloud connection have come, and what the last one said.
  unsigned SigninChanges() const;
  std::optional<bool> LastSignin() const;

 private:
  struct Inbox;
  template <auto Free>
  struct Deleter {
    template <typename Handle>
    void operator()(Handle* handle) const noexcept {
      Free(handle);
    }
  };
  using VariantPtr = std::unique_ptr<GVariant, Deleter<g_variant_unref>>;

  static void on_closed(GDBusConnection* bus, gboolean byPeer, GError* error, gpointer isClosed);

  VariantPtr call(const char* method, GVariant* parameters, const char* type);
  VariantPtr callBus(const char* method, GVariant* parameters, const char* type);
  VariantPtr call(const char* name, const char* path, const char* interface, const char* method,
                  GVariant* parameters, const char* type);
  int callForResult(const char* method, GVariant* parameters);

  Tally& m_tally;
  std::shared_ptr<Inbox> m_inbox;
  std::unique_ptr<GMainContext, Deleter<g_main_context_unref>> m_context;  // turns at the end
  std::unique_ptr<GDBusConnection, Deleter<g_object_unref>> m_bus;
  guint m_filter = 0;
};

}  // namespace Soak

#endif  // TESTS_SOAK_APPCONNECTION_H
