#ifndef DEVICE_SERVICE_MQTT_TRANSPORT_H
#define DEVICE_SERVICE_MQTT_TRANSPORT_H

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

#include "settings/Settings.h"

typedef struct _GMainContext GMainContext;

namespace Lumo::Mqtt {

// The bytes of one connection at a time to the broker, in the clear or in TLS, on GIO. Everything
// runs on the thread that iterates `context`, and nothing in here blocks: the look-up of the name,
// the attempts at its addresses of both families and the TLS handshake are asynchronous, and Close
// cancels them.
class Transport {
 public:
  // Called from the context's iterations only, never from within a call of the transport.
  class Listener {
   public:
    // The connection is there, TLS included.
    virtual void OnOpened() = 0;
    // Some bytes have come; the view is good during the call. The listener may call Close.
    virtual void OnBytes(std::string_view bytes) = 0;
    // Write takes bytes again, after it has taken fewer than it was given.
    virtual void OnWritable() = 0;
    // The connection could not be made or is lost; `why` is for a log line. Not after Close.
    virtual void OnClosed(const std::string& why) = 0;

   protected:
    ~Listener() = default;
  };

  // Copies the settings. The context and the listener outlive the transport.
  Transport(const BrokerSettings& broker, GMainContext* context, Listener& listener);
  // Closes. HasEnded must be true.
  ~Transport();
  Transport(const Transport&) = delete;
  Transport& operator=(const Transport&) = delete;

  // Begins a connection; there must be none.
  void Open();
  // Hands bytes to the connection, without waiting; returns how many it took. Fewer than all: then
  // OnWritable follows. Only when it is open. A failure comes as OnClosed, later. It takes little
  // more than the network carries at once (TCP_NOTSENT_LOWAT), so that what is urgent can still
  // overtake what waits.
  std::size_t Write(std::string_view bytes);
  // Drops the connection, or the attempt at one, at once. No listener call follows for it.
  void Close();

  bool IsOpen() const;
  // False while an asynchronous operation of GIO still has a callback of this object outstanding:
  // after Close, the context is to be iterated until this is true, which it soon is.
  bool HasEnded() const;

 private:
  // (to be filled in by the implementation)
};

}  // namespace Lumo::Mqtt

#endif  // DEVICE_SERVICE_MQTT_TRANSPORT_H
