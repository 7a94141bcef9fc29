#ifndef DEVICE_SERVICE_MQTT_MQTTCLIENT_H
#define DEVICE_SERVICE_MQTT_MQTTCLIENT_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "settings/Settings.h"

struct mosquitto;
struct mqtt5__property;  // what mosquitto.h calls mosquitto_property

namespace Lumo {

// One MQTT 5 client with a persistent session, over as many connections as it takes. Used by one
// thread, which also runs the listener; nothing blocks but the look-up of the broker's name.
//
// It remembers which QoS 2 messages are half-way, in both directions: a connection that resumes the
// session needs the object that had the one before.
class MqttClient {
 public:
  // The views are good during the call.
  struct Message {
    std::string_view topic;
    std::string_view payload;
    int qos;
    bool retained;              // it was there before the subscription
    std::string responseTopic;  // empty: none
    std::string correlation;    // empty: none
  };

  // What is called from Work. It must not publish or destroy the client.
  class Listener {
   public:
    virtual void OnConnected(bool sessionPresent) = 0;
    virtual void OnMessage(const Message& message) = 0;
    // The broker has answered the publication with this id; `refusal` is null when it took it.
    virtual void OnAcknowledged(int id, const char* refusal) = 0;
    // The broker has answered a Subscribe, in their order.
    virtual void OnSubscribed() = 0;
    virtual void OnUnsubscribed() = 0;

   protected:
    ~Listener() = default;
  };

  // How a broker is reached that has addresses of both families.
  enum class Family { Any, Ipv4 };

  struct Publication {
    const std::string& topic;
    std::string_view payload;
    bool retain;
    std::string_view correlation;  // empty: none
  };

  // `will` is published, retained, to `willTopic` when the connection ends in any other way than by
  // Disconnect. Throws std::bad_alloc or std::runtime_error.
  MqttClient(const BrokerSettings& broker, const std::string& clientId,
             const std::string& willTopic, std::string_view will, Listener& listener);
  ~MqttClient();
  MqttClient(const MqttClient&) = delete;
  MqttClient& operator=(const MqttClient&) = delete;

  // Begins a connection; OnConnected follows, or the socket is closed again.
  void Connect(Family family);

  // To poll for; negative when there is no connection and none is being made.
  int Socket() const;
  bool WantsToWrite() const;
  // Does what can be done without waiting; to be called when poll says so, with what it says, and
  // at least every kWorkInterval.
  void Work(short events);
  static constexpr std::chrono::seconds kWorkInterval{5};
  // Why the socket is closed.
  const std::string& LastError() const { return m_lastError; }
  // True between the arrival of a QoS 2 message and its release, which is when OnMessage is called.
  // A session must not be left in between: the broker does not send the message again.
  bool IsMessageHalfway() const { return m_messageIsHalfway; }
  // True when what the broker sent cannot be, given what went before.
  bool ProtocolFailed() const { return m_protocolFailed; }

  // At QoS 1. Returns the id that OnAcknowledged will be told, or -1 when the publication cannot be
  // made; what is wrong is then logged.
  int Publish(const Publication& publication);
  // Retained messages that are there already come only when they are asked for, at QoS 0; so do
  // those that this client publishes itself.
  bool Subscribe(const std::string& filter, int qos, bool retained = false);
  bool Unsubscribe(const std::string& filter);
  // Begins the orderly end of the connection, without a will. The socket is closed once all that
  // waits has been written.
  void Disconnect();

 private:
  struct Destroy {
    void operator()(mosquitto* client) const;
  };
  // The MQTT library is initialised as long as one of these exists.
  class LibraryUse {
   public:
    LibraryUse();
    ~LibraryUse();
    LibraryUse(const LibraryUse&) = delete;
    LibraryUse& operator=(const LibraryUse&) = delete;
  };

  void setUpTls(const BrokerSettings& broker);
  // True when the result is success; otherwise keeps what is wrong as the last error.
  bool succeeded(int result);

  static void onConnect(mosquitto* client, void* self, int reason, int flags,
                        const mqtt5__property* properties);
  static void onDisconnect(mosquitto* client, void* self, int reason,
                           const mqtt5__property* properties);
  static void onPublish(mosquitto* client, void* self, int id, int reason,
                        const mqtt5__property* properties);
  static void onSubscribe(mosquitto* client, void* self, int id, int count, const int* granted);
  static void onUnsubscribe(mosquitto* client, void* self, int id);
  static void onLog(mosquitto* client, void* self, int level, const char* text);

  const LibraryUse m_libraryUse;
  const std::string m_host;
  const int m_port;
  Listener& m_listener;
  std::string m_lastError;
  bool m_protocolFailed = false;
  bool m_messageIsHalfway = false;
  std::unique_ptr<mosquitto, Destroy> m_client;
};

}  // namespace Lumo

#endif  // DEVICE_SERVICE_MQTT_MQTTCLIENT_H
