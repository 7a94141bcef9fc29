#ifndef TESTS_FAKEPLATFORM_H
#define TESTS_FAKEPLATFORM_H

#include <lumo.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

// A platform in one process: the log, the settings store and the device-service library, linked
// into a test in place of the real ones (and exported, so that a shared object that the test loads
// finds it as well). It records every line and call in one ordered trace, can be told to fail, and
// calls back from threads of its own, as the real library does.
//
// It also watches what is done with handles and reports a violation when one is used after it was
// given away or after its callback returned, given away twice or never, or of the wrong kind, and
// when a request is answered twice. PlatformTest fails a test that leaves a violation.
//
// usleep and access are replaced too: the former is recorded and does not sleep, the latter can be
// told whether /etc/release exists.
namespace fake {

// As long as anything may take that happens at all.
constexpr std::chrono::seconds kPatience(60);

struct LogLine {
  int priority = 0;
  std::string tag;
  std::string format;  // as it was passed
  std::string file;    // the three arguments of the prefix
  std::string function;
  int line = 0;
  std::string text;  // all of the line, formatted

  // What follows "file : function(line)", without the line feed at its end.
  std::string Message() const;
};

struct Entry {
  enum class Kind { kLog, kSetting, kCall };
  Kind kind = Kind::kLog;
  LogLine log;       // of a log line
  std::string text;  // of a setting or call: "vconf_set_int(key, 1)", "lumo_service_destroy(...)"
  std::thread::id thread;

  // "6 TVCONTROL_A AppDataChannelCore.cpp CreatePlugin > Entered" for a log line, `text` otherwise.
  std::string Summary() const;
};

// A property by its value; `number` serves bool, int and double.
struct Property {
  std::string name;
  lumo_property_type type = LUMO_PROPERTY_TYPE_STRING;
  double number = 0;
  std::optional<std::string> text;  // string, JSON and bytes; none: a null pointer

  static Property Bool(std::string name, bool value);
  static Property Int(std::string name, int value);
  static Property Double(std::string name, double value);
  static Property String(std::string name, std::optional<std::string> value);
  static Property Json(std::string name, std::optional<std::string> value);
  static Property Bytes(std::string name, std::optional<std::string> value);
  static Property Raw(std::string name, lumo_property_type type);

  bool operator==(const Property& other) const;
};
std::ostream& operator<<(std::ostream& out, const Property& property);

struct Response {
  bool isSet = false;
  void* service = nullptr;
  void* request = nullptr;
  bool listWasNull = false;
  std::vector<Property> properties;
  lumo_error code = 0;
  std::thread::id thread;
};

struct Notification {
  void* service = nullptr;
  bool listWasNull = false;
  std::vector<Property> properties;
};

struct Registration {
  std::string name;
  lumo_property_type type = 0;
  std::int64_t attribute1 = 0;
  std::int64_t attribute2 = 0;
  std::string text;
};

// Those of the device-service library that can be told to fail.
const std::vector<std::string>& LumoOperations();

class Platform {
 public:
  static Platform& Get();

  // Forgets everything, ends the callback threads and clears all failures.
  void Reset();

  // The trace, or parts of it.
  std::vector<Entry> Trace();
  std::vector<std::string> Summaries();  // of the whole trace
  std::vector<LogLine> LogsWith(const std::function<bool(const LogLine&)>& condition);
  std::vector<LogLine> Logs() {
    return LogsWith([](const LogLine&) { return true; });
  }
  std::vector<LogLine> LogsOf(const std::string& function) {
    return LogsWith([&](const LogLine& line) { return line.function == function; });
  }
  std::size_t CountLogs(const std::string& part) {
    return LogsWith([&](const LogLine& line) { return line.text.find(part) != line.text.npos; })
        .size();
  }
  std::vector<std::string> Calls();  // settings and library calls
  std::vector<Response> Responses();
  std::vector<Notification> Notifications();
  std::vector<Registration> Registrations();  // the accepted ones, oldest first
  std::optional<int> Setting(const std::string& key);
  void ClearTrace();

  // Waits until `condition`, which may use the platform, holds; false after `kPatience`. It is
  // checked after every new entry of the trace.
  bool WaitUntil(const std::function<bool()>& condition);

  // The operation named ("lumo_service_create", "vconf_set_int" …) fails after `skip` more
  // successes, `count` times, with `code` where it gives a code, else with null.
  void Fail(const std::string& operation, unsigned count = kAlways, lumo_error code = 5,
            unsigned skip = 0);
  static constexpr unsigned kAlways = ~0U;
  void ClearFailures();
  // Runs `hook` on the calling thread inside the named operation, before its effect.
  void OnCall(const std::string& operation, std::function<void()> hook);
  // Makes the getter of the property named give a null name.
  void GiveNullNameFor(const std::string& propertyName);

  void SetReleaseFileExists(std::optional<bool> exists);  // none: as it is on this machine

  // The service made last; null when it was destroyed or never made.
  void* Service();
  std::size_t ServicesCreated();
  std::size_t LiveServices();

  // Deliver a request or report to the service made last (or destroyed last, for what comes late),
  // on the calling thread, and return when the callback has. They give the request handle.
  void* DeliverGet(const std::vector<Property>& properties) { return Deliver(false, properties); }
  void* DeliverSet(const std::vector<Property>& properties) { return Deliver(true, properties); }
  void DeliverCancel(void* request);
  void DeliverProtocolStatus(std::optional<std::string> protocol, int status);
  // The same on one of the platform's own threads; return at once. Nothing is delivered once the
  // service has been destroyed.
  void* PostGet(const std::vector<Property>& properties) { return Post(false, properties); }
  void* PostSet(const std::vector<Property>& properties) { return Post(true, properties); }
  void PostCancel(void* request);
  // Waits until nothing posted is waiting or running.
  void Drain();

  // A list as a callback gets one.
  void* MakeLibraryList(const std::vector<Property>& properties);
  std::vector<Property> ReadList(void* list);
  Property ReadProperty(void* property);
  // For tests that call conversions directly: count as handing over.
  void DisposeList(void* list);
  void DisposeProperty(void* property);

  // What was done wrong so far, which is then forgotten; a list or property that nobody took over
  // counts as well.
  std::vector<std::string> TakeViolations();

  // The C functions use this.
  class Impl;
  Impl& impl() { return *m_impl; }

 private:
  Platform();
  ~Platform();
  void* Deliver(bool isSet, const std::vector<Property>& properties);
  void* Post(bool isSet, const std::vector<Property>& properties);

  std::unique_ptr<Impl> m_impl;
};

}  // namespace fake

#endif  // TESTS_FAKEPLATFORM_H
