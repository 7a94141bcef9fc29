#ifndef BENCH_LATENCY_BROKERCLIENT_H
#define BENCH_LATENCY_BROKERCLIENT_H

#include <cstddef>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

struct mosquitto;
struct mosquitto_message;

namespace Latency {

// An MQTT 5 client of the channel's broker, on a thread of libmosquitto's. Any thread may publish;
// failures are thrown as std::runtime_error.
class BrokerClient {
 public:
  // Runs on libmosquitto's thread. What it throws is printed.
  using Handler = std::function<void(std::string_view payload)>;

  // Returns once it is subscribed to the topics, at the QoS that the device service subscribes at
  // and without what is retained there already.
  explicit BrokerClient(const std::vector<std::string>& topics = {}, Handler handler = {});
  // Sends what waits. The handler runs no more once this returns.
  ~BrokerClient();
  BrokerClient(const BrokerClient&) = delete;
  BrokerClient& operator=(const BrokerClient&) = delete;

  void Publish(const std::string& topic, std::string_view payload, int qos, bool retain);

 private:
  // libmosquitto is initialised as long as one of these exists.
  class LibraryUse {
   public:
    LibraryUse();
    ~LibraryUse();
    LibraryUse(const LibraryUse&) = delete;
    LibraryUse& operator=(const LibraryUse&) = delete;
  };
  struct Destroy {
    void operator()(mosquitto* client) const;
  };

  static void onConnect(mosquitto* client, void* self, int result);
  static void onSubscribe(mosquitto* client, void* self, int id, int count, const int* granted);
  static void onMessage(mosquitto* client, void* self, const mosquitto_message* message);

  // On libmosquitto's thread, as are the callbacks.
  void noteAnswer();

  const LibraryUse m_libraryUse;
  const std::vector<std::string> m_topics;
  const Handler m_handler;
  std::size_t m_answers =
      0;  // of libmosquitto's thread; to the connection and to the subscriptions
  std::promise<void> m_ready;
  std::unique_ptr<mosquitto, Destroy> m_client;
};

}  // namespace Latency

#endif  // BENCH_LATENCY_BROKERCLIENT_H
