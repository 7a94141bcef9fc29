#ifndef DEVICE_SERVICE_SERVICE_LINKEDSERVICE_H
#define DEVICE_SERVICE_SERVICE_LINKEDSERVICE_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "health/Health.h"
#include "health/HealthRecord.h"
#include "values/Error.h"
#include "values/Property.h"

namespace Lumo {

enum class RequestKind { Get, Set };

// Ends a request with the plug-in's code and properties, or with a code of the library's own and no
// properties. Called exactly once per request, with no lock held, on the thread that ended it; it
// must not throw.
using Reply = std::function<void(lumo_error code, std::optional<Properties> properties)>;

// The value of a property, as the plug-in notified it.
struct Notified {
  PropertyValue value;
  std::chrono::system_clock::time_point time;
  // One more for each value of the property, from 1 on; goes on when it is registered again.
  std::uint64_t sequence = 0;
};

// A service, as its link to the broker needs it. Any thread.
class LinkedService {
 public:
  LinkedService() = default;
  virtual ~LinkedService() = default;
  LinkedService(const LinkedService&) = delete;
  LinkedService& operator=(const LinkedService&) = delete;

  virtual std::map<std::string, lumo_property_type> RegisteredTypes() const = 0;
  // What was notified last, since the property was registered.
  virtual std::optional<Notified> FindNotified(const std::string& name) const = 0;
  virtual std::vector<std::string> NotifiedNames() const = 0;

  // The first property of a set whose value would be lost silently, and why: a real number for a
  // property of another type, or bytes that are no string for a string. Empty when there is none.
  virtual std::string FaultOf(const Properties& properties) const = 0;

  // Ask the plug-in for properties, or to change them. Return the request's handle, or null when it
  // was refused and `reply` was called with kBusy or kServiceGone. The plug-in decides which names
  // it knows.
  virtual void* Get(const std::vector<std::string>& names, Reply reply) = 0;
  virtual void* Set(Properties properties, Reply reply) = 0;
  // True when another request would be refused as kBusy now.
  virtual bool IsFull() const = 0;
  // Ends the request with kCancelled. False when it has ended already.
  virtual bool Cancel(void* request) = 0;

  virtual void ReportProtocolStatus(std::string protocol, lumo_protocol_status status) = 0;
  // Requests that waited at the broker may come while the plug-in still starts. So the requests
  // from now on are delivered when it has registered a property, or after a second.
  virtual void DeliverOnceStarted() = 0;

  // Where the link notes what happens to it.
  virtual HealthRecord& Record() = 0;
  // All figures. Not from a function of the link that holds a lock.
  virtual Health ReadHealth() const = 0;
};

}  // namespace Lumo

#endif  // DEVICE_SERVICE_SERVICE_LINKEDSERVICE_H
