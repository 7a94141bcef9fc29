#ifndef DEVICE_SERVICE_MQTT_BROKERSTREAM_H
#define DEVICE_SERVICE_MQTT_BROKERSTREAM_H

#include <utility>

#include "values/GLibHandle.h"

namespace Lumo::Mqtt {

// A connected socket, with TLS over it after SetTls. One thread at a time; no operation of GIO is
// pending when it is destroyed. The destructor closes the socket first: otherwise a TLS connection
// would wait until its goodbye is written.
class BrokerStream {
 public:
  explicit BrokerStream(ObjectPtr<GSocketConnection> socket);
  ~BrokerStream();
  BrokerStream(const BrokerStream&) = delete;
  BrokerStream& operator=(const BrokerStream&) = delete;

  void SetTls(ObjectPtr<GTlsConnection> tls) { m_tls = std::move(tls); }

  GSocketConnection* Socket() const { return m_socket.get(); }
  // Null without TLS.
  GTlsConnection* Tls() const { return m_tls.get(); }
  GPollableInputStream* Input() const;
  GPollableOutputStream* Output() const;

 private:
  GIOStream* stream() const;

  const ObjectPtr<GSocketConnection> m_socket;
  ObjectPtr<GTlsConnection> m_tls;
};

}  // namespace Lumo::Mqtt

#endif  // DEVICE_SERVICE_MQTT_BROKERSTREAM_H
