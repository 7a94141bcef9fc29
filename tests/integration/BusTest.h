#ifndef TESTS_BUSTEST_H
#define TESTS_BUSTEST_H

#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "BusClient.h"
#include "FaultyGio.h"
#include "PlatformTest.h"
#include "PrivateBus.h"

inline constexpr const char* kStatusKey = "memory/iot/thing/thing_status";
inline const std::string kStatus0 = "vconf_set_int(memory/iot/thing/thing_status, 0)";
inline const std::string kStatus1 = "vconf_set_int(memory/iot/thing/thing_status, 1)";
inline constexpr const char* kUnknownMethod = "org.freedesktop.DBus.Error.UnknownMethod";

using Lines = std::vector<std::string>;

// A fixture on a fresh fake platform and on the message bus of this test process. The test's thread
// is the host's: it turns the main loop, in RunUntil and while it waits for replies.
class BusTest : public PlatformTest {
 protected:
  BusTest();
  // Has the bus run again, if the test has killed it.
  ~BusTest() override;

  static PrivateBus& Bus();
  static std::unique_ptr<BusClient> NewClient() {
    return std::make_unique<BusClient>(Bus().Address());
  }

  // Turns the main loop until `condition` holds; false after fake::kPatience.
  bool RunUntil(const std::function<bool()>& condition);
  // Runs everything that is ready in the main loop.
  static void RunPending();
  // Turns the main loop until the setting says that the bus name is owned.
  bool WaitUntilReady() {
    return RunUntil([this] { return platform.Setting(kStatusKey) == 1; });
  }
  // Turns the main loop until the client has received that many signals.
  std::vector<Signal> WaitForSignals(BusClient& receiver, std::size_t count);
  // The same, each as its name and parameters: "send_event('qz', '42')".
  Lines Received(BusClient& receiver, std::size_t count);
  Lines Received(std::size_t count) { return Received(*client, count); }

  // The value of the reply, as a string, or the name of the error.
  std::string WaitFor(std::future<Reply> reply);
  std::string Call(const std::string& method, GVariant* parameters = nullptr) {
    return WaitFor(client->Call(method, parameters));
  }
  std::string Call(const std::string& method, const std::vector<std::string>& arguments) {
    return Call(method, ParametersOf(arguments));
  }
  // Strings in a floating tuple.
  static GVariant* ParametersOf(const std::vector<std::string>& arguments);
  // A call to the host's connection, whoever has the bus name.
  std::string CallConnection();

  // The connection to the system bus that this process shares, as a host holds it: the bus may go
  // without ending the process. Renewed when it has died.
  GDBusConnection* Shared() { return m_shared.get(); }
  std::string SharedName() { return g_dbus_connection_get_unique_name(Shared()); }
  void ReleaseShared() { m_shared.reset(); }
  void RenewShared();

  // The summaries of what a thread has logged and called. Fails the test for a line that has not
  // its prefix, or ends wrongly: with a line feed, but those of the registry and the server without
  // one, except for Entered and Left.
  Lines Written(std::thread::id thread = std::this_thread::get_id());
  // Exactly one line of any thread is this one.
  ::testing::AssertionResult LoggedOnce(const std::string& line);

  FaultyGio& gio = FaultyGio::Get();
  std::unique_ptr<BusClient> client;

 private:
  std::unique_ptr<GDBusConnection, void (*)(gpointer)> m_shared{nullptr, g_object_unref};
};

Lines operator+(Lines first, const Lines& second);

// The lines of one source, as the trace has them.
struct Source {
  const char* tagAndFile;

  std::string Line(int priority, const std::string& function, const std::string& message) const {
    return std::to_string(priority) + " " + tagAndFile + " " + function + " " + message;
  }
  std::string Info(const std::string& function, const std::string& message) const {
    return Line(4, function, message);
  }
  std::string Error(const std::string& function, const std::string& message) const {
    return Line(6, function, message);
  }
  // Between Entered and Left.
  Lines Frame(const std::string& function, const Lines& inside = {}) const {
    return Lines{Info(function, "> Entered")} + inside + Lines{Info(function, "> Left")};
  }
};

inline constexpr Source kCore{"TVCONTROL_A AppDataChannelCore.cpp"};
inline constexpr Source kControl{"TVCONTROL_A AppDataChannelControl.cpp"};
inline constexpr Source kRegistry{"TVCONTROL_A AppDataChannelInfo.cpp"};
inline constexpr Source kServer{"TVCONTROL_A DBusServer.cpp"};
inline constexpr Source kWrapper{"THING_COMMON LumoWrapper.cpp"};
inline constexpr Source kDispatcher{"THING_COMMON MsgDispatcher.cpp"};

inline const Lines kServerInit = kServer.Frame("Init");
inline const Lines kServerDeinit = kServer.Frame("Deinit", {kStatus0});

// What the steps of the server and of the wrapper write.
Lines EmitLines(const std::string& signal, const std::string& result = "success");
// Both callbacks, the signal and the setting.
Lines ReadyLines(GDBusConnection* connection);
Lines RegisterPropertyLines(const std::string& call);
Lines UnregisterPropertyLines(const std::string& call);

#endif  // TESTS_BUSTEST_H
