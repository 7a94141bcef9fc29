#ifndef DEVICE_SERVICE_SERVICE_SERVICELINK_H
#define DEVICE_SERVICE_SERVICE_SERVICELINK_H

#include <cstddef>
#include <string>

namespace Lumo {

// The link to the broker, as a service needs it: it is told what changed, and asked to end.
class ServiceLink {
 public:
  ServiceLink() = default;
  virtual ~ServiceLink() = default;
  ServiceLink(const ServiceLink&) = delete;
  ServiceLink& operator=(const ServiceLink&) = delete;

  // Once, before anything else; throws std::system_error.
  virtual void Start() = 0;

  // Any thread. Nothing is waited for.
  virtual void DescriptionChanged() = 0;
  virtual void ValueChanged(const std::string& property) = 0;
  virtual void ValueRemoved(const std::string& property) = 0;
  virtual void HealthChanged() = 0;

  // What waits in the link. Any thread.
  struct Waiting {
    std::size_t requests = 0;  // that are held back from the service
    std::size_t answers = 0;   // for the broker
  };
  virtual Waiting CountWaiting() = 0;

  // Takes no more requests and says farewell to the broker, for 2 s at most. Any thread but the
  // link's own.
  virtual void Close() = 0;
  // After Close; waits for the link's thread.
  virtual void Join() = 0;
  // True when Join will not wait.
  virtual bool HasEnded() const = 0;
};

}  // namespace Lumo

#endif  // DEVICE_SERVICE_SERVICE_SERVICELINK_H
