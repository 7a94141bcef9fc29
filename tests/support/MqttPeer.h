#ifndef TESTS_MQTTPEER_H
#define TESTS_MQTTPEER_H

#include <mosquitto.h>

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

// A foreign MQTT 5 client of a broker on loopback: libmosquitto. It connects again by itself when
// its connection is lost, and keeps meanwhile what is to be published. Any thread may use it.
//
// Its own thread is the only one that uses libmosquitto: the library's threads end now and then
// with an error when others publish at the same time. What libmosquitto refuses to publish ends the
// process.
class MqttPeer {
 public:
  // The views are valid while the handler runs.
  struct Message {
    std::string_view topic;
    std::string_view payload;
    std::string correlation;
    bool retained;
    int qos;
    const mosquitto_property* properties;  // all of them
  };
  // Both run on the peer's thread, from where they may publish. What they throw is printed.
  using OnMessage = std::function<void(const Message& message)>;
  using OnConnected = std::function<void(bool sessionPresent)>;

  struct Options {
    // Empty: the broker gives one. The broker keeps the session of a client with an id for an hour.
    std::string id;
    std::string user;  // empty: nobody
    std::string password;
    // All are subscribed to, or none, each time that it is connected.
    std::vector<std::string> filters;
    int qos = 2;
    bool wantsRetained = true;  // what is there already
    // A message that comes as it is published says whether it is retained.
    bool retainsAsPublished = false;
    OnConnected onConnected;
  };
  struct Publication {
    std::string topic;
    std::string payload;
    int qos = 2;
    bool retain = false;
    std::string responseTopic{};  // none when empty
    std::string correlation{};    // none when empty
    std::vector<std::pair<std::string, std::string>> userProperties{};
  };

  // Returns once it is connected and subscribed. Throws std::runtime_error.
  MqttPeer(int port, Options options, OnMessage onMessage = {});
  // Publishes what waits, and disconnects. No handler runs any more once this returns.
  ~MqttPeer() { stop(); }
  MqttPeer(const MqttPeer&) = delete;
  MqttPeer& operator=(const MqttPeer&) = delete;

  void Publish(Publication publication);
  // False when the broker has not taken everything of QoS 1 and 2 within a minute.
  bool WaitUntilPublished() {
    return waitFor([this] { return m_unpublished == 0; });
  }

 private:
  struct Destroy {
    void operator()(mosquitto* client) const { mosquitto_destroy(client); }
  };

  void setUp(int port);
  void run();
  // False when it is to end.
  bool publishWaiting();
  void publish(const Publication& publication);
  bool waitFor(const std::function<bool()>& condition);
  void wake() const;
  void stop();

  void onConnect(bool sessionPresent);
  void onSubscribed();
  void onAcknowledged(int id);
  void onMessage(const mosquitto_message& message, const mosquitto_property* properties) const;

  const Options m_options;
  const OnMessage m_onMessage;
  int m_wakeup = -1;            // ends the thread's poll()
  std::thread::id m_threadId;   // of m_thread, once it runs
  std::set<int> m_unconfirmed;  // ids of publications; the thread's
  std::mutex m_mutex;           // not held in calls of libmosquitto
  std::condition_variable m_changed;
  bool m_ready = false;                // guarded by m_mutex
  bool m_stopped = false;              // guarded by m_mutex
  std::vector<Publication> m_waiting;  // guarded by m_mutex; that the thread has not seen yet
  std::size_t m_unpublished = 0;       // guarded by m_mutex
  std::unique_ptr<mosquitto, Destroy> m_client;
  std::thread m_thread;
};

#endif  // TESTS_MQTTPEER_H
