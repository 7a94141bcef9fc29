#ifndef DEVICE_SERVICE_MQTT_BROKERSTREAM_H
#define DEVICE_SERVICE_MQTT_BROKERSTREAM_H

#include "values/GLibHandle.h"

namespace Lumo::Mqtt {

// A connected socket, with TLS over it when it has been put there. One thread at a time, and no
// operation of GIO is under way when it is destroyed. That closes the socket first: a TLS
// connection that is dropped would wait until it has written its goodbye.
class BrokerStream {
 public:
  explicit BrokerStream(ObjectPtr<GSocketConnection> socket);
  ~BrokerStream();
  BrokerStream(const BrokerStream&) = delete;
  BrokerStream& operator=(const BrokerStream&) = delete;

  void SetTls(ObjectPtr<GTlsConnection> tls);

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
