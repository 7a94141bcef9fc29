#ifndef TESTS_FUZZ_PLATFORM_H
#define TESTS_FUZZ_PLATFORM_H

#include <lumo.h>

#include <cstddef>
#include <map>
#include <optional>
#include <ostream>
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
std::ostream& operator<<(std::ostream& out, const Property& property);
Property StringProperty(const std::string& name, const std::string& value);

struct Response {
  bool isSet = false;
  bool listWasNull = false;
  std::vector<Property> properties;
  lumo_error code = 0;

  bool operator==(const Response& other) const;
};
std::ostream& operator<<(std::ostream& out, const Response& response);

// The platform that fuzz targets run the plug-in on: log, settings store and device-service
// library.
//
// Where the unit tests' platform keeps everything that ever was, this one is quick, does not grow,
// and leaves the watching of handles to the sanitizers: a property, a list and a string is an
// object on the heap of its exact size, and is gone as soon as it is not the plug-in's any more. A
// log line takes no lock, which would hide a race from ThreadSanitizer. Handles of services and
// requests are numbers with nothing behind them.
//
// usleep does not sleep, and /etc/release is missing. Any thread.
namespace Platform {

enum Operation {
  kCreateService,
  kRegisterProperty,
  kUnregisterProperty,
  kCreateList,
  kCreateProperty,
  kPushProperty,
  kOperationCount
};

// Forgets what was recorded and registered, and has nothing fail. The service stays.
void Forget();

// The operation fails after `skip` more successes, `count` times.
void Fail(Operation operation, unsigned count, unsigned skip = 0);

// Calls the plug-in with a list that is gone when this returns, or with none. There must be a
// service, for the plug-in's sake not about to be destroyed.
void* NewRequest();
void Deliver(bool isSet, void* request, const std::optional<std::vector<Property>>& properties);
void DeliverCancel(void* request);
void DeliverProtocolStatus(const std::optional<std::string>& protocol, int status);

// It is a mistake to use a service that was destroyed, unless it is allowed: a handler may be about
// to answer when the service is destroyed.
void AllowServiceDestroyed(bool allowed);

bool HasService();
// The answer to the request; nothing when there was none. It is asked for once.
std::optional<Response> TakeResponse(void* request);
std::vector<std::vector<Property>> TakeNotifications();
// What is registered with the service.
std::map<std::string, lumo_property_type> Registered();
std::optional<int> Setting(const std::string& key);

// How often that function has logged something with that in its format, on this thread since it
// called Forget.
std::size_t CountLogs(const std::string& function, const std::string& formatPart);

// For targets that call conversions themselves: what the list or property holds, and it is gone.
std::vector<Property> TakeList(void* list);
Property TakeProperty(void* property);

}  // namespace Platform
}  // namespace fuzz

#endif  // TESTS_FUZZ_PLATFORM_H
