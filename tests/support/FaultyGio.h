#ifndef TESTS_FAULTYGIO_H
#define TESTS_FAULTYGIO_H

#include <array>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>

// Stands between the code under test and four operations of GIO, also for a shared object that the
// test loads: counts their calls, runs a test's code inside them, and lets them fail.
class FaultyGio {
 public:
  enum Operation {
    kNewNodeInfo,     // g_dbus_node_info_new_for_xml
    kOwnName,         // g_bus_own_name, which reports no error
    kRegisterObject,  // g_dbus_connection_register_object
    kEmitSignal,      // g_dbus_connection_emit_signal
    kOperationCount
  };
  enum class Report { kError, kNoError };

  static FaultyGio& Get();

  // Forgets calls, failures and hooks.
  void Reset();

  // The next `count` calls fail, with a GError (code 0, message "made to fail") or without one.
  void Fail(Operation operation, Report report, unsigned count = 1);
  // Runs `hook` on the calling thread inside every call of the operation, before its effect.
  void OnCall(Operation operation, std::function<void()> hook);
  std::size_t Calls(Operation operation);
  // The XML that was parsed last.
  std::string Xml();

  // For the replaced operations: counts, runs the hook, and is false when the call fails.
  bool Begin(Operation operation, struct _GError** error, const char* xml = nullptr);

 private:
  struct State {
    std::size_t calls = 0;
    unsigned failures = 0;
    Report report = Report::kError;
    std::function<void()> hook;
  };

  std::mutex m_mutex;  // guards all of what follows
  std::array<State, kOperationCount> m_states;
  std::string m_xml;
};

#endif  // TESTS_FAULTYGIO_H
