#include "BusClient.h"

#include <sys/socket.h>

#include <cstdio>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "SparedAllocations.h"

namespace {

const char* const kMessageBus = "org.freedesktop.DBus";
const char* const kMessageBusPath = "/org/freedesktop/DBus";

using ErrorPtr = std::unique_ptr<GError, void (*)(GError*)>;
using TextPtr = std::unique_ptr<gchar, void (*)(gpointer)>;

std::string textOf(const char* text) {
  return text == nullptr ? std::string() : std::string(text);
}

Reply toReply(GVariant* rawValue, GError* rawError) {
  const BusClient::VariantPtr value(rawValue);
  const ErrorPtr error(rawError, g_error_free);
  if (value) return {BusClient::Print(value.get()), ""};
  const TextPtr remote(g_dbus_error_get_remote_error(error.get()), g_free);
  if (remote) return {"", remote.get()};
  return {"",
          "local: " + textOf(g_quark_to_string(error->domain)) + " " + std::to_string(error->code)};
}

guint resultOf(const BusClient::VariantPtr& reply) {
  guint result = 0;
  if (reply) g_variant_get(reply.get(), "(u)", &result);
  return result;
}

BusClient::MessagePtr newCall(const std::string& method, GVariant* parameters) {
  BusClient::MessagePtr call(
      g_dbus_message_new_method_call(kBusName, kObjectPath, kInterface, method.c_str()));
  if (parameters != nullptr) g_dbus_message_set_body(call.get(), parameters);
  return call;
}

}  // namespace

// One lock for the inboxes of all clients, taken around their making as well: ThreadSanitizer does
// not see how GIO hands them to its thread.
struct BusClient::Inbox {
  static std::mutex mutex;
  std::vector<Signal> signals;  // guarded by mutex
  OnSignal onSignal;            // never changed; empty when signals are kept

  static std::shared_ptr<Inbox> Make(OnSignal onSignal) {
    const std::lock_guard<std::mutex> lock(mutex);
    const auto inbox = std::make_shared<Inbox>();
    inbox->onSignal = std::move(onSignal);
    return inbox;
  }

  // A reference for GIO, which gives it back with Free.
  static gpointer Share(const std::shared_ptr<Inbox>& inbox) {
    const std::lock_guard<std::mutex> lock(mutex);
    return std::make_unique<std::shared_ptr<Inbox>>(inbox).release();
  }

  static void Free(gpointer userData) {
    const std::lock_guard<std::mutex> lock(mutex);
    const std::unique_ptr<std::shared_ptr<Inbox>> inbox(
        static_cast<std::shared_ptr<Inbox>*>(userData));
  }

  void Keep(GDBusMessage* message) {
    const SparedAllocations spared;
    if (g_strcmp0(g_dbus_message_get_interface(message), kInterface) != 0) return;
    Signal signal{
        textOf(g_dbus_message_get_sender(message)), textOf(g_dbus_message_get_destination(message)),
        textOf(g_dbus_message_get_path(message)),   kInterface,
        textOf(g_dbus_message_get_member(message)), Print(g_dbus_message_get_body(message))};
    const std::lock_guard<std::mutex> lock(mutex);
    signals.push_back(std::move(signal));
  }

  // On GIO's thread.
  static GDBusMessage* Filter(GDBusConnection* /*connection*/, GDBusMessage* message,
                              gboolean incoming, gpointer userData) {
    if (incoming == FALSE ||
        g_dbus_message_get_message_type(message) != G_DBUS_MESSAGE_TYPE_SIGNAL) {
      return message;
    }
    const MessagePtr owner(message);  // nobody else wants it
    std::shared_ptr<Inbox> inbox;     // kept until its last use here
    {
      const std::lock_guard<std::mutex> lock(mutex);
      inbox = *static_cast<std::shared_ptr<Inbox>*>(userData);
    }
    try {
      inbox->onSignal ? inbox->onSignal(*message) : inbox->Keep(message);
    } catch (const std::exception& error) {
      std::fprintf(stderr, "a client of the bus: %s\n", error.what());
    }
    return nullptr;
  }
};

std::mutex BusClient::Inbox::mutex;

BusClient::BusClient(const std::string& address) : BusClient(address, OnSignal()) {
  Match("type='signal',interface='" + std::string(kInterface) + "'");
}

BusClient::BusClient(const std::string& address, OnSignal onSignal)
    : m_inbox(Inbox::Make(std::move(onSignal))), m_connection(nullptr, g_object_unref) {
  GError* error = nullptr;
  m_connection.reset(g_dbus_connection_new_for_address_sync(
      address.c_str(),
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, &error));
  if (!m_connection) {
    const ErrorPtr owned(error, g_error_free);
    throw std::runtime_error("no connection to the bus: " + textOf(owned->message));
  }
  m_filter =
      g_dbus_connection_add_filter(connection(), Inbox::Filter, Inbox::Share(m_inbox), Inbox::Free);
}

BusClient::~BusClient() {
  Close();
  g_dbus_connection_remove_filter(connection(), m_filter);
}

std::future<Reply> BusClient::Call(const std::string& method, GVariant* parameters,
                                   std::chrono::milliseconds limit, const std::string& destination,
                                   const std::string& path, const std::string& interface) {
  const std::shared_ptr<GDBusConnection> own(
      static_cast<GDBusConnection*>(g_object_ref(connection())), g_object_unref);
  std::shared_ptr<GVariant> owned;
  if (parameters != nullptr) owned.reset(g_variant_ref_sink(parameters), g_variant_unref);
  const auto call = [own, owned, method, limit, destination, path, interface] {
    GError* error = nullptr;
    GVariant* const value = g_dbus_connection_call_sync(
        own.get(), destination.c_str(), path.c_str(), interface.c_str(), method.c_str(),
        owned.get(), nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START, static_cast<gint>(limit.count()),
        nullptr, &error);
    return toReply(value, error);
  };
  return std::async(std::launch::async, call);
}

void BusClient::Send(const std::string& method, GVariant* parameters) {
  Post(newCall(method, parameters));
  g_dbus_connection_flush_sync(connection(), nullptr, nullptr);
}

void BusClient::Post(const MessagePtr& message) {
  if (g_dbus_connection_send_message(connection(), message.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE,
                                     nullptr, nullptr) == FALSE) {
    throw std::runtime_error("a message cannot be sent");
  }
}

void BusClient::PostCall(const std::string& method, GVariant* parameters) {
  const MessagePtr call = newCall(method, parameters);
  g_dbus_message_set_flags(call.get(), G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
  Post(call);
}

std::string BusClient::CallHere(const std::string& method, GVariant* parameters) {
  GError* error = nullptr;
  const Reply reply = toReply(
      g_dbus_connection_call_sync(connection(), kBusName, kObjectPath, kInterface, method.c_str(),
                                  parameters, nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START,
                                  static_cast<gint>(std::chrono::milliseconds(kCallLimit).count()),
                                  nullptr, &error),
      error);
  if (!reply.error.empty()) throw std::runtime_error(method + ": " + reply.error);
  return reply.value;
}

std::string BusClient::Print(GVariant* value) {
  if (value == nullptr) return "()";
  const TextPtr text(g_variant_print(value, FALSE), g_free);
  return text.get();
}

void BusClient::Emit(const std::string& signal, GVariant* parameters) {
  g_dbus_connection_emit_signal(connection(), nullptr, kObjectPath, kInterface, signal.c_str(),
                                parameters, nullptr);
  OwnerOf(kMessageBus);  // answered after what was sent before
}

std::vector<Signal> BusClient::Signals() const {
  const std::lock_guard<std::mutex> lock(Inbox::mutex);
  return m_inbox->signals;
}

std::vector<Signal> BusClient::TakeSignals() {
  const std::lock_guard<std::mutex> lock(Inbox::mutex);
  return std::exchange(m_inbox->signals, {});
}

guint BusClient::RequestName(const std::string& name, guint flags) {
  return resultOf(callBus("RequestName", g_variant_new("(su)", name.c_str(), flags), "(u)"));
}

guint BusClient::ReleaseName(const std::string& name) {
  return resultOf(callBus("ReleaseName", g_variant_new("(s)", name.c_str()), "(u)"));
}

std::string BusClient::OwnerOf(const std::string& name) {
  const VariantPtr reply = callBus("GetNameOwner", g_variant_new("(s)", name.c_str()), "(s)");
  const char* owner = "";
  if (reply) g_variant_get(reply.get(), "(&s)", &owner);
  return owner;
}

std::vector<std::string> BusClient::QueuedOwnersOf(const std::string& name) {
  const VariantPtr reply = callBus("ListQueuedOwners", g_variant_new("(s)", name.c_str()), "(as)");
  std::vector<std::string> owners;
  if (!reply) return owners;
  const VariantPtr list(g_variant_get_child_value(reply.get(), 0));
  for (gsize i = 0; i < g_variant_n_children(list.get()); ++i) {
    const VariantPtr owner(g_variant_get_child_value(list.get(), i));
    owners.push_back(g_variant_get_string(owner.get(), nullptr));
  }
  return owners;
}

void BusClient::Match(const std::string& rule) {
  if (!callBus("AddMatch", g_variant_new("(s)", rule.c_str()), "()")) {
    throw std::runtime_error("the bus refuses the match rule");
  }
}

void BusClient::Sync() {
  if (!callBus("GetId", nullptr, "(s)")) throw std::runtime_error("the bus does not answer");
}

void BusClient::Cut() {
  auto* const stream = G_SOCKET_CONNECTION(g_dbus_connection_get_stream(connection()));
  shutdown(g_socket_get_fd(g_socket_connection_get_socket(stream)), SHUT_RDWR);
}

BusClient::VariantPtr BusClient::callBus(const std::string& method, GVariant* parameters,
                                         const char* replyType) {
  return VariantPtr(g_dbus_connection_call_sync(
      connection(), kMessageBus, kMessageBusPath, kMessageBus, method.c_str(), parameters,
      G_VARIANT_TYPE(replyType), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr));
}
