#ifndef DEVICE_SERVICE_SERVICE_SERVICE_H
#define DEVICE_SERVICE_SERVICE_SERVICE_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "service/CallbackThread.h"
#include "service/HealthReporter.h"
#include "service/LinkedService.h"
#include "service/ServiceLink.h"
#include "values/Error.h"
#include "values/HandleTable.h"
#include "values/Mutex.h"
#include "values/Property.h"
#include "values/PropertyList.h"

namespace Lumo {

// What a plug-in gives to lumo_service_create; no function is null.
struct ServiceCallbacks {
  lumo_protocol_status_cb protocolStatus;
  lumo_get_property_cb get;
  lumo_set_property_cb set;
  lumo_cancel_cb cancel;
  void* userData;
};

// A request is overdue when it has ended here, cancelled or timed out, but the plug-in may still
// handle it. Overdue requests count towards both limits on unanswered ones.
struct ServiceLimits {
  std::size_t unansweredRequests = 256;
  std::chrono::milliseconds requestTimeout = std::chrono::seconds(10);
  std::size_t unansweredBytes = std::size_t{16} * 1024 * 1024;  // of their properties
};

// A property as the plug-in registers it. The attributes and the text are kept as they came.
struct Registration {
  lumo_property_type type;
  std::int64_t attribute1;
  std::int64_t attribute2;
  std::string text;
};

// One device service: the properties registered with it and the requests made to it, which come
// over the link to the broker, if there is one.
//
// The plug-in's functions Register to Answer and the requester's functions Get to
// ReportProtocolStatus may be called on any thread, callbacks included. Callbacks run with no lock
// held on two threads: requests and cancellations in the order of their arrival on the request
// thread, protocol statuses on the watch thread, which also watches the requests' time.
class Service final : public LinkedService {
 public:
  // The callbacks get `handle`. `lists` holds the lists that they get, and outlives the service.
  Service(void* handle, std::string name, std::string description,
          const ServiceCallbacks& callbacks, HandleTable<PropertyList>& lists,
          const ServiceLimits& limits = {}, HealthSettings health = {});
  // Closes, and waits for running callbacks.
  ~Service() override;

  // Takes the link to the broker, null when there is none, and starts it. From here on the health
  // is reported. At most once, and before another thread uses the service. Throws
  // std::system_error.
  void Connect(std::unique_ptr<ServiceLink> link);

  const std::string& Name() const { return m_name; }
  const std::string& Description() const { return m_description; }

  // A name must be possible as a level of a topic. Types are LUMO_PROPERTY_TYPE_* and 6, which
  // plug-ins use for a real number.
  lumo_error Register(const std::string& name, Registration registration);
  // Succeeds also for a name that is not registered: plug-ins repeat a call that fails, and wait in
  // between.
  lumo_error Unregister(const std::string& name);
  // All properties must be registered; otherwise none is stored.
  lumo_error Notify(Properties properties);
  // Ends a request that a callback got.
  lumo_error Answer(RequestKind kind, void* request, lumo_error code, Properties properties);

  std::optional<Registration> FindRegistration(const std::string& name) const;

  std::map<std::string, lumo_property_type> RegisteredTypes() const override;
  std::optional<Notified> FindNotified(const std::string& name) const override;
  std::vector<std::string> NotifiedNames() const override;
  std::string FaultOf(const Properties& properties) const override;
  void* Get(const std::vector<std::string>& names, Reply reply) override;
  void* Set(Properties properties, Reply reply) override;
  bool IsFull() const override;
  bool Cancel(void* request) override;
  void ReportProtocolStatus(std::string protocol, lumo_protocol_status status) override;
  void DeliverOnceStarted() override;
  HealthRecord& Record() override { return m_reporter.Record(); }
  Health ReadHealth() const override;
  static constexpr std::chrono::seconds kStartTime{1};
  static constexpr std::chrono::seconds kClosingTime{2};

  // Starts no further callback, ends all requests with kServiceGone, refuses registrations and
  // notifications, and closes the link, and reports the last health: kClosingTime at most for both.
  // Does not wait longer for running callbacks: the caller may hold a lock that they need.
  void Close();
  // Delivers no more requests. A running callback goes on, and answers are still accepted.
  void StopDelivering();
  // After Close: waits for running callbacks and for the end of the link. One thread at a time.
  void Join();
  // True after Close once no callback runs any more and the link has ended.
  bool HasEnded() const;

 private:
  struct Request {
    RequestKind kind;
    Properties properties;  // until it is delivered
    Reply reply;
    CallbackThread::Clock::time_point deadline;
    std::size_t bytes;       // of its properties
    std::uint64_t delivery;  // its number among those that the plug-in got; 0: not yet
  };
  using Requests = std::map<void*, Request>;  // by handle
  struct Overdue {
    void* handle;
    std::size_t bytes;
  };
  struct RegisteredProperty {
    Registration registration;
    std::optional<Notified> notified;
  };

  void* begin(RequestKind kind, Properties properties, Reply reply);
  void waitForFirstProperty();
  void deliver(void* handle);
  void showUnknownNames(Properties& properties) const REQUIRES(m_mutex);
  // Whether one more request is accepted. When only overdue requests are in the way, one request
  // per time-out is accepted: a probe, which shows whether the plug-in handles requests again.
  bool takesAnother(std::size_t bytes, CallbackThread::Clock::time_point deadline)
      REQUIRES(m_mutex);
  // The plug-in has answered this delivery. It handles requests in order, so it is done with all
  // earlier ones.
  void noteAnswered(std::uint64_t delivery) REQUIRES(m_mutex);
  Requests::node_type extractUnanswered(Requests::iterator place) REQUIRES(m_mutex);
  // Ends a request that was removed from m_requests.
  void endUnanswered(void* handle, const Request& request, lumo_error code);
  void endTimedOutRequests();

  void* const m_handle;
  const std::string m_name;
  const std::string m_description;
  const ServiceCallbacks m_callbacks;
  HandleTable<PropertyList>& m_lists;
  const ServiceLimits m_limits;

  mutable Mutex m_mutex;
  std::condition_variable m_started;  // a property is registered, or the service is closed
  bool m_closed GUARDED_BY(m_mutex) = false;
  bool m_isFarewellSaid GUARDED_BY(m_mutex) = false;  // the last health was reported
  std::unordered_map<std::string, RegisteredProperty> m_properties GUARDED_BY(m_mutex);
  // How many values each property has had; those that are registered no longer, too.
  std::unordered_map<std::string, std::uint64_t> m_sequences GUARDED_BY(m_mutex);
  Requests m_requests GUARDED_BY(m_mutex);      // not ended yet
  bool m_watching GUARDED_BY(m_mutex) = false;  // a check of the deadlines is due
  std::uint64_t m_lastDelivery GUARDED_BY(m_mutex) = 0;
  std::uint64_t m_lastAnswered GUARDED_BY(m_mutex) = 0;               // the highest delivery
  std::map<std::uint64_t, Overdue> m_overdue GUARDED_BY(m_mutex);     // by delivery
  std::size_t m_unansweredBytes GUARDED_BY(m_mutex) = 0;              // of m_requests and m_overdue
  CallbackThread::Clock::time_point m_nextProbe GUARDED_BY(m_mutex);  // not before

  HealthReporter m_reporter;  // its jobs are those of the watch thread

  // Null without a broker. The jobs of both threads use it, and its thread uses them.
  std::unique_ptr<ServiceLink> m_link;

  // Last: their jobs use all of the above.
  CallbackThread m_requestThread;
  CallbackThread m_watchThread;
};

}  // namespace Lumo

#endif  // DEVICE_SERVICE_SERVICE_SERVICE_H
