#ifndef TESTS_FUZZ_PLATFORM_H
#define TESTS_FUZZ_PLATFORM_H

#include <lumo.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace fuzz {

// A property by its value; `number` serves bool, int and double.
struct Property {
  std::optional<std::string> name;  // none: a null pointer
  lumo_property_type type = LUMO_PROPERTY_TYPE_STRING;
  double number = 0;
  std::optional<std::string> text;  // string, JSON and bytes; none: a null pointer
  bool unreadable = false;          // its getter gives an error

  bool operator==(const Property& other) const;
};
std::string Show(const Property& property);

struct Response {
  bool isSet = false;
  bool listWasNull = false;
  std::vector<Property> properties;
  lumo_error code = 0;

  bool operator==(const Response& other) const;
};
std::string Show(const Response& response);

// The platform that fuzz targets run the plug-in on: log, settings store and device-service
// library.
//
// Where the unit tests' platform keeps everything that ever was, to be looked at afterwards, this
// one is quick, does not grow, and leaves the watching of handles to the sanitizers: a property, a
// list and a text is an object on the heap of its exact size, and is gone as soon as it belongs to
// the plug-in no longer. Handles of services and requests are numbers that nobody can look behind.
//
// usleep does not sleep, and /etc/release is missing. Any thread.
class Platform {
 public:
  enum Operation {
    kCreateService,
    kRegisterProperty,
    kUnregisterProperty,
    kCreateList,
    kCreateProperty,
    kPushProperty,
    kOperationCount
  };

  // Never destroyed: the plug-in logs until the process ends.
  static Platform& Get();

  // Forgets what was recorded and registered, and has nothing fail. The service stays.
  void Forget();

  // The operation fails after `skip` more successes, `count` times.
  void Fail(Operation operation, unsigned count, unsigned skip = 0);

  // Calls the plug-in with a list that is gone when this returns. There must be a service, for the
  // plug-in's sake not about to be destroyed. The request's handle is given before the call.
  void* NewRequest();
  void DeliverGet(void* request, const std::vector<Property>& properties);
  void DeliverSet(void* request, const std::vector<Property>& properties);
  void DeliverGetWithoutList(void* request);
  void DeliverSetWithoutList(void* request);
  void DeliverCancel(void* request);
  void DeliverProtocolStatus(const std::optional<std::string>& protocol, int status);

  // The same with a service that was destroyed is a mistake, unless it is allowed: a handler may be
  // about to answer when the service is destroyed.
  void AllowServiceDestroyed(bool allowed);

  bool HasService() const;
  // The answer to the request; nothing when there was none. It is asked for once.
  std::optional<Response> TakeResponse(void* request);
  std::vector<std::vector<Property>> TakeNotifications();
  // What is registered with the service.
  std::map<std::string, lumo_property_type> Registered() const;
  std::optional<int> Setting(const std::string& key) const;

  // How often that function has logged something with that in its format, on this thread since it
  // called Forget. No lock is taken for a log line: it would hide a race from ThreadSanitizer.
  static std::size_t CountLogs(const std::string& function, const std::string& formatPart);

  // For targets that call conversions themselves: what the list or property holds, and it is gone.
  std::vector<Property> TakeList(void* list);
  Property TakeProperty(void* property);

  // The C functions call what follows.
  struct Callbacks {
    void* service = nullptr;
    lumo_protocol_status_cb protocolStatus = nullptr;
    lumo_get_property_cb get = nullptr;
    lumo_set_property_cb set = nullptr;
    lumo_cancel_cb cancel = nullptr;
    void* userData = nullptr;
  };
  bool IsToFail(Operation operation);
  static void Log(const char* function, const char* format);
  void StoreSetting(const std::string& key, int value);
  void* CreateService(const Callbacks& callbacks);
  lumo_error DestroyService(void* service);
  lumo_error RegisterProperty(void* service, const std::string& name, lumo_property_type type);
  lumo_error UnregisterProperty(void* service, const std::string& name);
  void Notify(void* service, std::vector<Property> properties);
  void Answer(void* service, void* request, Response response);

 private:
  struct Failure {
    unsigned count = 0;
    unsigned skip = 0;
  };

  Platform() = default;
  ~Platform() = default;

  // With m_mutex held: whether the handle is that of the service that lives now.
  bool isService(void* service, const char* operation) const;
  Callbacks callbacks() const;
  void deliver(bool isSet, void* request, const std::vector<Property>* properties);

  mutable std::mutex m_mutex;  // guards all of what follows
  std::array<Failure, kOperationCount> m_failures;
  std::map<std::string, int> m_settings;
  std::size_t m_lastHandle = 0;
  void* m_service = nullptr;
  bool m_staleServiceAllowed = false;
  Callbacks m_callbacks;
  std::map<std::string, lumo_property_type> m_registered;
  std::map<void*, std::optional<Response>> m_requests;  // not asked for yet
  std::vector<std::vector<Property>> m_notifications;
};

}  // namespace fuzz

#endif  // TESTS_FUZZ_PLATFORM_H
