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

// One connection at a time to the broker, plain or with TLS, on GIO. Everything runs on the thread
// that iterates `context`, and nothing blocks: the lookup of the name, the attempts at its
// addresses of both families and the TLS handshake are asynchronous, and Close cancels them. The
// exception is TLS: Open reads its files, or its token. There is no time limit: the owner calls
// Close when it has waited long enough.
class Transport final : private Dial::Owner {
 public:
  // Called from the context's iterations only, never from within a call of the transport.
  class Listener {
   public:
    // The connection is open, TLS included.
    virtual void OnOpened() = 0;
    // Some bytes have come; the view is valid during the call. The listener may call Close.
    virtual void OnBytes(std::string_view bytes) = 0;
    // Write takes bytes again, after it took fewer than all.
    virtual void OnWritable() = 0;
    // The connection could not be made or is lost; `why` is for a log line. Not after Close.
    virtual void OnClosed(const std::string& why) = 0;

   protected:
    ~Listener() = default;
  };

  // Copies the settings. The context and the listener outlive the transport. The context is always
  // the thread-default one of the thread that iterates it: GIO continues in the thread-default
  // context.
  Transport(const BrokerSettings& broker, GMainContext* context, Listener& listener);
  // Closes. HasEnded must be true.
  ~Transport();
  Transport(const Transport&) = delete;
  Transport& operator=(const Transport&) = delete;

  // Begins a connection; there must be none. One that was closed may still have callbacks
  // outstanding.
  void Open();
  // Writes without waiting; returns how many bytes it took. After fewer than all, OnWritable
  // follows. Only when open. A failure is reported later, as OnClosed. It takes little more than
  // the network carries at once (TCP_NOTSENT_LOWAT, and a record with TLS), so that urgent packets
  // can still overtake waiting ones.
  std::size_t Write(std::string_view bytes);
  // Drops the connection, or the attempt at one, at once. No listener call follows for it.
  void Close();

  bool IsOpen() const { return m_stream != nullptr; }
  // False while GIO still has a callback of this object outstanding. After Close, the owner
  // iterates the context until this is true, which takes a moment.
  bool HasEnded() const;

 private:
  // Dial::Owner
  void OnDialled(std::unique_ptr<BrokerStream> stream) override;
  void OnDialFailed(const std::string& why) override;

  static gboolean onReadable(GPollableInputStream* input, gpointer self);
  static gboolean onSocketReadable(GSocket* socket, GIOCondition condition, gpointer self);
  static gboolean onWritable(GPollableOutputStream* output, gpointer self);
  static gboolean onFailure(gpointer self);

  void dial();
  // Passes the bytes that have come to the listener, until `maxBytes` or the end.
  void read(std::size_t maxBytes);
  std::size_t send(std::string_view bytes);
  void flush();
  void watchInput();
  void watchOutput();
  // Reports the failure in the next iteration.
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
  AttachedSourcePtr m_failure;               // reports a failure
  std::string m_why;                         // of the failure
  // TLS must get the same bytes again when it could not write them, so they are kept.
  std::string m_record;
  std::size_t m_recordBytesSent = 0;
  bool m_isWritableOwed = false;
  std::vector<char> m_buffer;  // of read
};

}  // namespace Lumo::Mqtt

#endif  // DEVICE_SERVICE_MQTT_TRANSPORT_H
