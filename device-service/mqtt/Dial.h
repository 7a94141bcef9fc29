#ifndef DEVICE_SERVICE_MQTT_DIAL_H
#define DEVICE_SERVICE_MQTT_DIAL_H

#include <memory>
#include <string>

#include "mqtt/BrokerStream.h"
#include "values/GLibHandle.h"

namespace Lumo::Mqtt {

// One attempt to reach the broker: the lookup of its name, its addresses in turn, then TLS. All of
// it is asynchronous, in the thread-default context of Start's caller.
//
// Every pending operation of GIO shares the ownership. So while the object lives, GIO may still
// call it, also after Cancel.
class Dial : public std::enable_shared_from_this<Dial> {
 public:
  struct Target {
    std::string host;  // a name or an address, without brackets
    int port = 0;
    bool tls = false;
    ObjectPtr<GTlsDatabase> authorities;     // null: the system's
    ObjectPtr<GTlsCertificate> certificate;  // null: none
  };

  // One of these is called, once, unless it is cancelled before. From the context's iterations.
  class Owner {
   public:
    virtual void OnDialled(std::unique_ptr<BrokerStream> stream) = 0;
    virtual void OnDialFailed(const std::string& why) = 0;

   protected:
    ~Owner() = default;
  };

  // The owner lives until the attempt has ended or is cancelled.
  Dial(Target target, Owner& owner);
  Dial(const Dial&) = delete;
  Dial& operator=(const Dial&) = delete;

  void Start();
  void Cancel();

 private:
  // What GIO holds until it calls back.
  using Self = std::shared_ptr<Dial>;

  gpointer share();
  static Self take(gpointer shared);
  static void onClientGone(gpointer shared, GObject* client);
  static void onConnected(GObject* client, GAsyncResult* result, gpointer shared);
  static void onHandshake(GObject* connection, GAsyncResult* result, gpointer shared);

  void finishConnect(GSocketClient* client, GAsyncResult* result);
  void startTls();
  void finishTls(GAsyncResult* result);
  void succeed();
  void fail(const std::string& why);

  const Target m_target;
  Owner* m_owner;  // null once it has been told, or the attempt is cancelled
  const ObjectPtr<GCancellable> m_cancellable;
  std::unique_ptr<BrokerStream> m_stream;
};

}  // namespace Lumo::Mqtt

#endif  // DEVICE_SERVICE_MQTT_DIAL_H
