#ifndef DEVICE_SERVICE_MQTT_TRANSPORT_H
#define DEVICE_SERVICE_MQTT_TRANSPORT_H

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "mqtt/BrokerStream.h"
#include "mqtt/Dial.h"
#include "settings/Settings.h"
#include "values/GLibHandle.h"

namespace Lumo::Mqtt {

// The bytes of one connection at a time to the broker, in the clear or in TLS, on GIO. Everything
// runs on the thread that iterates `context`, and nothing in here blocks: the look-up of the name,
// the attempts at its addresses of both families and the TLS handshake are asynchronous, and Close
// cancels them. But for TLS, Open reads the files that the settings name, and a token's too.
// There is no time limit: the owner calls Close when it has waited long enough.
class Transport final : private Dial::Owner {
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

  // Copies the settings. The context and the listener outlive the transport. The context is the
  // thread-default one of the thread that iterates it, at all times: GIO starts its next step in
  // whatever is the thread-default context then.
  Transport(const BrokerSettings& broker, GMainContext* context, Listener& listener);
  // Closes. HasEnded must be true.
  ~Transport();
  Transport(const Transport&) = delete;
  Transport& operator=(const Transport&) = delete;

  // Begins a connection; there must be none. One that was closed may still have callbacks
  // outstanding.
  void Open();
  // Hands bytes to the connection, without waiting; returns how many it took. Fewer than all: then
  // OnWritable follows. Only when it is open. A failure comes as OnClosed, later. It takes little
  // more than the network carries at once (TCP_NOTSENT_LOWAT, and a record with TLS), so that what
  // is urgent can still overtake what waits.
  std::size_t Write(std::string_view bytes);
  // Drops the connection, or the attempt at one, at once. No listener call follows for it.
  void Close();

  bool IsOpen() const;
  // False while an asynchronous operation of GIO still has a callback of this object outstanding:
  // after Close, the context is to be iterated until this is true, which it soon is.
  bool HasEnded() const;

 private:
  // Dial::Owner
  void OnDialled(std::unique_ptr<BrokerStream> stream) override;
  void OnDialFailed(const std::string& why) override;

  static gboolean onReadable(GPollableInputStream* input, gpointer self);
  static gboolean onWritable(GPollableOutputStream* output, gpointer self);
  static gboolean onFailure(gpointer self);

  void dial();
  // Hands up what has come, until `maxBytes` or the end of it.
  void read(std::size_t maxBytes);
  std::size_t send(std::string_view bytes);
  void flush();
  void watchOutput();
  // The listener is told soon.
  void failLater(const std::string& why);
  void end(const std::string& why);

  const BrokerSettings m_broker;
  GMainContext* const m_context;
  Listener& m_listener;
  std::shared_ptr<Dial> m_dial;              // while an attempt runs
  std::vector<std::weak_ptr<Dial>> m_dials;  // those that GIO may not have ended with
  std::unique_ptr<BrokerStream> m_stream;    // while it is open
  AttachedSourcePtr m_input;                 // these three go before the stream
  AttachedSourcePtr m_output;                // while something waits for it
  AttachedSourcePtr m_failure;               // to tell the listener
  std::string m_why;                         // it has failed
  // TLS wants the same bytes again when it could not write them. So these are taken, and kept.
  std::string m_record;
  std::size_t m_recordBytesSent = 0;
  bool m_isWritableOwed = false;
  std::vector<char> m_buffer;  // of read
};

}  // namespace Lumo::Mqtt

#endif  // DEVICE_SERVICE_MQTT_TRANSPORT_H
