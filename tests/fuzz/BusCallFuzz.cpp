// Method calls with any arguments to the running D-Bus server, over a real connection of GDBus,
// which has the server at one end and an application at the other. Compared with the model.
//
// The input is lines:
//   c METHOD TEXT        a call of the interface; the arguments are a GVariant text: ('qz', 1)
//   b METHOD TYPE BYTES  the same; the arguments are serialised bytes of that type
//   h PATH INTERFACE     where the next call goes; "-": as always, "!": no interface
//   n                    the next call wants no reply
//   o SERIAL TEXT        a reply to nothing
//   e MEMBER TEXT        a signal of the application
//   s NAME TEXT          the cloud sets the property to a text; z 0, z 1: signinStatus
//   w JSON               the cloud sets signupInfo
#include <gio/gio.h>
#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "AppDataChannelCore.h"
#include "Bus.h"
#include "Channel.h"
#include "ChannelModel.h"
#include "Input.h"
#include "Platform.h"
#include "Require.h"

namespace {

using namespace fuzz;

constexpr std::size_t kMaxSteps = 100;
constexpr const char* kBusName = "org.tizen.qivo_thing";
constexpr const char* kObjectPath = "/org/tizen/qivo_thing";
constexpr const char* kInterface = "org.tizen.qivo_thing.service";

using MessagePtr = std::unique_ptr<GDBusMessage, void (*)(gpointer)>;
using ConnectionPtr = std::unique_ptr<GDBusConnection, void (*)(gpointer)>;

// Who wants the name: nobody but the plug-in, once.
struct Owner {
  GBusAcquiredCallback busAcquired = nullptr;
  GBusNameAcquiredCallback nameAcquired = nullptr;
  gpointer userData = nullptr;
};
Owner owner;

ConnectionPtr connect(int descriptor, GDBusConnectionFlags flags) {
  const std::unique_ptr<GSocket, void (*)(gpointer)> socket(
      g_socket_new_from_fd(descriptor, nullptr), g_object_unref);
  const std::unique_ptr<GSocketConnection, void (*)(gpointer)> stream(
      g_socket_connection_factory_create_connection(socket.get()), g_object_unref);
  const std::unique_ptr<gchar, void (*)(gpointer)> guid(g_dbus_generate_guid(), g_free);
  const bool isServer = (flags & G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_SERVER) != 0;
  ConnectionPtr connection(
      g_dbus_connection_new_sync(reinterpret_cast<GIOStream*>(stream.get()),
                                 isServer ? guid.get() : nullptr, flags, nullptr, nullptr, nullptr),
      g_object_unref);
  Require(connection != nullptr, "two ends of a connection find each other");
  return connection;
}

// An application's end of the connection.
class Application {
 public:
  // Made with the lock held: ThreadSanitizer cannot see how GIO hands it to its thread.
  static Application* Make(ConnectionPtr connection) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return new Application(std::move(connection));
  }

  explicit Application(ConnectionPtr connection) : m_connection(std::move(connection)) {
    g_dbus_connection_add_filter(m_connection.get(), filter, this, nullptr);
  }
  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;

  // Sends the message; gives its serial number.
  guint32 Send(GDBusMessage* message) {
    guint32 serial = 0;
    Require(
        g_dbus_connection_send_message(m_connection.get(), message, G_DBUS_SEND_MESSAGE_FLAGS_NONE,
                                       &serial, nullptr) != FALSE,
        "a message that can be written can be sent");
    return serial;
  }

  // Turns the main loop until the call has ended: with a value, whose name is empty, or with an
  // error, whose name it has.
  BusMessage WaitFor(guint32 serial) {
    while (true) {
      {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto node = m_replies.extract(serial);
        if (!node.empty()) return node.mapped();
      }
      g_main_context_iteration(nullptr, TRUE);
    }
  }

  std::vector<BusMessage> TakeSignals() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return std::exchange(m_signals, {});
  }

  // Nothing but errors for these calls. GDBus itself answers what it has no method for with an
  // error, and what it serves itself (Ping, Introspect) with a value, whether that is wanted or
  // not.
  void RequireNoValuesFor(const std::vector<guint32>& serials) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto replies = std::exchange(m_replies, {});
    for (const guint32 serial : serials) {
      const auto reply = replies.find(serial);
      Require(reply == replies.end() || !reply->second.name.empty(),
              "only what wants a reply gets one");
    }
  }

 private:
  // On GDBus's thread.
  static GDBusMessage* filter(GDBusConnection* /*connection*/, GDBusMessage* message,
                              gboolean incoming, gpointer userData) {
    if (incoming != FALSE) static_cast<Application*>(userData)->receive(message);
    return message;
  }

  void receive(GDBusMessage* message) {
    const GDBusMessageType type = g_dbus_message_get_message_type(message);
    GVariant* const body = g_dbus_message_get_body(message);
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (type == G_DBUS_MESSAGE_TYPE_SIGNAL) {
      RequireEqual<std::string>(g_dbus_message_get_path(message), kObjectPath,
                                "a signal comes from the object");
      RequireEqual<std::string>(g_dbus_message_get_interface(message), kInterface,
                                "a signal is one of the interface");
      m_signals.push_back(ToBusMessage(g_dbus_message_get_member(message), body));
    } else if (type == G_DBUS_MESSAGE_TYPE_METHOD_RETURN) {
      // GDBus serves other interfaces, whose replies have any type.
      const std::string bodyType = body == nullptr ? "()" : g_variant_get_type_string(body);
      const bool isOurs =
          bodyType == "(i)" || bodyType == "(b)" || bodyType == "(s)" || bodyType == "()";
      note(message, isOurs ? ToBusMessage("", body) : BusMessage());
    } else if (type == G_DBUS_MESSAGE_TYPE_ERROR) {
      note(message, {g_dbus_message_get_error_name(message), {}});
    }
    g_main_context_wakeup(nullptr);
  }

  void note(GDBusMessage* message, BusMessage reply) {
    const bool isFirst =
        m_replies.emplace(g_dbus_message_get_reply_serial(message), std::move(reply)).second;
    Require(isFirst, "a call gets one reply");
  }

  static std::mutex m_mutex;
  const ConnectionPtr m_connection;
  std::map<guint32, BusMessage> m_replies;  // guarded by m_mutex; not asked for yet
  std::vector<BusMessage> m_signals;        // guarded by m_mutex
};

std::mutex Application::m_mutex;

// One connection with a server and an application, and one plug-in, for all inputs. Never
// destroyed: GDBus's thread uses it until the process ends.
Application& start() {
  BreakOnGLibWarnings();
  std::array<int, 2> sockets{};
  Require(socketpair(AF_UNIX, SOCK_STREAM, 0, sockets.data()) == 0, "there are sockets");
  ConnectionPtr server(nullptr, g_object_unref);
  std::thread otherEnd([&server, descriptor = sockets[0]] {
    server = connect(descriptor, G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_SERVER);
  });
  ConnectionPtr client = connect(sockets[1], G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT);
  otherEnd.join();

  Require(CreatePlugin() && owner.userData != nullptr, "the plug-in wants its name");
  static Application* const application = Application::Make(std::move(client));
  static GDBusConnection* const kept = server.release();
  owner.busAcquired(kept, kBusName, owner.userData);
  owner.nameAcquired(kept, kBusName, owner.userData);
  // Until it is told that the server is ready.
  while (application->TakeSignals().empty()) g_main_context_iteration(nullptr, TRUE);
  return *application;
}

class Run {
 public:
  Run(Input& input, Application& application) : m_input(input), m_application(application) {}

  void TakeSteps() {
    for (std::size_t step = 0; step < kMaxSteps && !m_input.AtEnd(); ++step) {
      const char letter = m_input.Letter();
      if (letter == '\n') continue;
      m_input.Field();  // of the letter
      perform(letter);
    }
    waitForCalls();
    RequireEqual(m_application.TakeSignals(), m_signals,
                 "applications are told what the model says");
    RequireEqual(Channel::Apps(), m_model.Apps(), "the registry is what the model says");
    m_application.RequireNoValuesFor(m_silentCalls);
  }

 private:
  struct Target {
    std::string path = kObjectPath;
    std::optional<std::string> interface = kInterface;
  };

  void perform(char letter) {
    static const Steps<Run> kSteps = {
        {'c',
         [](Run& run, Input& input) {
           const std::string method = run.takeName();
           run.call(method, parse(input.Line()));
         }},
        {'b',
         [](Run& run, Input& input) {
           const std::string method = run.takeName();
           const std::string type = run.takeName();
           run.call(method, deserialise(type, input.Line()));
         }},
        {'h',
         [](Run& run, Input& input) {
           const std::string path = run.takeName();
           const std::string interface = input.Line().c_str();
           if (path != "-") run.m_target.path = path;
           if (interface == "!") run.m_target.interface.reset();
           if (interface != "-" && interface != "!") run.m_target.interface = interface;
         }},
        {'n', [](Run& run, Input&) { run.m_wantsReply = false; }},
        {'o', [](Run& run, Input&) { run.sendReply(); }},
        {'e', [](Run& run, Input&) { run.sendSignal(); }},
        {'s',
         [](Run& run, Input& input) {
           const std::string name = input.Field();
           run.set(StringProperty(name, input.Line()));
         }},
        {'z', [](Run& run, Input& input) { run.set(SigninStatus(input.Choice(2) != 0)); }},
        {'w', [](Run& run, Input& input) { run.set(SignupInfo(input.Line())); }}};
    Perform(kSteps, letter, *this, m_input);
  }

  // The names of D-Bus are C strings.
  std::string takeName() { return m_input.Field().c_str(); }

  // Null where the text is none; otherwise a tuple.
  static VariantPtr parse(const std::string& text) {
    if (g_utf8_validate(text.c_str(), -1, nullptr) == FALSE) {
      return VariantPtr(nullptr, g_variant_unref);
    }
    return toTuple(g_variant_parse(nullptr, text.c_str(), nullptr, nullptr, nullptr));
  }

  static VariantPtr deserialise(const std::string& type, const std::string& bytes) {
    const bool isType = g_variant_type_string_is_valid(type.c_str()) != FALSE &&
                        g_variant_type_is_definite(G_VARIANT_TYPE(type.c_str())) != FALSE;
    if (!isType) return VariantPtr(nullptr, g_variant_unref);
    GBytes* const data = g_bytes_new(bytes.data(), bytes.size());
    const VariantPtr value(
        g_variant_ref_sink(g_variant_new_from_bytes(G_VARIANT_TYPE(type.c_str()), data, FALSE)),
        g_variant_unref);
    g_bytes_unref(data);
    return toTuple(g_variant_get_normal_form(value.get()));
  }

  static VariantPtr toTuple(GVariant* value) {
    if (value == nullptr) return VariantPtr(nullptr, g_variant_unref);
    VariantPtr owned(g_variant_take_ref(value), g_variant_unref);
    if (g_variant_is_of_type(owned.get(), G_VARIANT_TYPE_TUPLE) != FALSE) return owned;
    GVariant* const member = owned.get();
    return VariantPtr(g_variant_ref_sink(g_variant_new_tuple(&member, 1)), g_variant_unref);
  }

  void call(const std::string& method, VariantPtr arguments) {
    const Target target = std::exchange(m_target, {});
    const bool wantsReply = std::exchange(m_wantsReply, true);
    const bool canBeSent =
        g_dbus_is_member_name(method.c_str()) != FALSE &&
        g_variant_is_object_path(target.path.c_str()) != FALSE &&
        (!target.interface || g_dbus_is_interface_name(target.interface->c_str()) != FALSE);
    if (!canBeSent) return;
    const MessagePtr message(
        g_dbus_message_new_method_call(nullptr, target.path.c_str(),
                                       target.interface ? target.interface->c_str() : nullptr,
                                       method.c_str()),
        g_object_unref);
    if (!wantsReply) {
      g_dbus_message_set_flags(message.get(), G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
    }
    if (!setBody(message.get(), arguments.get())) return;

    const guint32 serial = m_application.Send(message.get());
    const bool isOfInterface = target.path == kObjectPath && target.interface == kInterface;
    std::optional<BusMessage> expected;
    if (isOfInterface) expected = expectedReply(method, arguments.get());
    if (wantsReply) {
      m_calls.push_back({serial, isOfInterface, std::move(expected)});
    } else if (isOfInterface) {
      m_silentCalls.push_back(serial);
    }
  }

  // False when D-Bus cannot carry it, and GDBus would not send it.
  static bool setBody(GDBusMessage* message, GVariant* body) {
    if (body != nullptr) {
      const std::string type = g_variant_get_type_string(body);  // of a tuple
      if (!g_variant_is_signature(type.substr(1, type.size() - 2).c_str())) return false;
      g_dbus_message_set_body(message, body);
    }
    gsize size = 0;
    g_dbus_message_set_serial(message, 1);
    const std::unique_ptr<guchar, void (*)(gpointer)> blob(
        g_dbus_message_to_blob(message, &size, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr), g_free);
    g_dbus_message_set_serial(message, 0);
    return blob != nullptr;
  }

  // Nothing when it must be an error.
  std::optional<BusMessage> expectedReply(const std::string& method, GVariant* arguments) {
    const std::string type = arguments == nullptr ? "()" : g_variant_get_type_string(arguments);
    const auto textAt = [arguments](gsize index) {
      const VariantPtr child(g_variant_get_child_value(arguments, index), g_variant_unref);
      return std::string(g_variant_get_string(child.get(), nullptr));
    };
    const std::string call = method + type;
    if (call == "register_app(s)") return CodeReply(m_model.Register(textAt(0)));
    if (call == "unregister_app(s)") return CodeReply(m_model.Unregister(textAt(0)));
    if (call == "send_data(ss)") return CodeReply(m_model.Send(textAt(0), textAt(1)));
    if (call == "get_cloud_connection()") return m_model.Connection();
    if (call == "get_thing_information()") return m_model.Information();
    return std::nullopt;
  }

  void sendReply() {
    const auto serial = static_cast<guint32>(m_input.Number());
    const MessagePtr message(g_dbus_message_new(), g_object_unref);
    g_dbus_message_set_message_type(message.get(), G_DBUS_MESSAGE_TYPE_METHOD_RETURN);
    g_dbus_message_set_reply_serial(message.get(), serial);
    const VariantPtr body = parse(m_input.Line());
    if (serial != 0 && setBody(message.get(), body.get())) m_application.Send(message.get());
  }

  void sendSignal() {
    const std::string member = takeName();
    const VariantPtr body = parse(m_input.Line());
    if (g_dbus_is_member_name(member.c_str()) == FALSE) return;
    const MessagePtr message(g_dbus_message_new_signal(kObjectPath, kInterface, member.c_str()),
                             g_object_unref);
    if (setBody(message.get(), body.get())) m_application.Send(message.get());
  }

  void set(const Property& property) {
    waitForCalls();
    m_model.Request(true, {property}, m_signals);
    Platform::Deliver(true, Platform::NewRequest(), {{property}});
    Channel::WaitForWorker();
  }

  // Until all that was called has happened, also what wants no reply.
  void waitForCalls() {
    m_target = {};
    m_wantsReply = true;
    call("get_cloud_connection", VariantPtr(nullptr, g_variant_unref));
    for (const Call& call : std::exchange(m_calls, {})) {
      const BusMessage reply = m_application.WaitFor(call.serial);
      if (call.expected) {
        RequireEqual(reply, *call.expected, "a call is answered as the model says");
      } else if (call.isOfInterface) {
        const std::string kError = "org.freedesktop.DBus.Error.";
        RequireEqual(reply.name.substr(0, kError.size()), kError,
                     "what the interface does not have is an error");
      }
    }
  }

  struct Call {
    guint32 serial;
    bool isOfInterface;
    std::optional<BusMessage> expected;
  };

  Input& m_input;
  Application& m_application;
  ChannelModel m_model;
  Target m_target;
  bool m_wantsReply = true;
  std::vector<Call> m_calls;           // not waited for yet
  std::vector<guint32> m_silentCalls;  // of the interface, that want no reply
  std::vector<BusMessage> m_signals;
};

}  // namespace

#pragma GCC visibility push(default)
extern "C" {

guint g_bus_own_name(GBusType /*type*/, const gchar* /*name*/, GBusNameOwnerFlags /*flags*/,
                     GBusAcquiredCallback busAcquired, GBusNameAcquiredCallback nameAcquired,
                     GBusNameLostCallback /*nameLost*/, gpointer userData,
                     GDestroyNotify /*free*/) {
  owner = {busAcquired, nameAcquired, userData};
  return 1;
}

void g_bus_unown_name(guint /*id*/) {}

}  // extern "C"
#pragma GCC visibility pop

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Application& application = start();
  Channel::ForgetEverything();
  Platform::Forget();
  application.TakeSignals();
  Input input(data, size);
  Run(input, application).TakeSteps();
  return 0;
}
