#ifndef TESTS_SYSTEM_CLOUDCLIENT_H
#define TESTS_SYSTEM_CLOUDCLIENT_H

#include <json/json.h>

#include <condition_variable>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "MqttPeer.h"

// The cloud: a client of the broker that sends requests to one thing's data channel and sees all
// that the thing publishes. It is not what is tested when a broker goes away: it leaves before, and
// comes back after. Any thread may use it, but for these two.
class CloudClient {
 public:
  // Who it is to the broker; nobody when the user is empty.
  struct Credentials {
    std::string user{};
    std::string password{};
  };

  // Whether the broker keeps for it, at QoS 1, what comes while it has left.
  enum class Session { OfOneConnection, Lasting };

  // Returns once it is subscribed. Throws std::runtime_error.
  CloudClient(int port, const std::string& thing) : CloudClient(port, thing, Credentials()) {}
  CloudClient(int port, const std::string& thing, Credentials credentials,
              Session session = Session::OfOneConnection);
  ~CloudClient();
  CloudClient(const CloudClient&) = delete;
  CloudClient& operator=(const CloudClient&) = delete;

  void Leave();
  // Returns once it is subscribed again, as a new client unless its session lasts; what it has
  // received is kept.
  void ComeBack();

  // How often it has been connected. It connects by itself when its connection is lost, and the
  // broker may then get again what it has got already.
  int Connections();

  // How a request is published.
  struct Manner {
    int qos = 2;
    bool answered = true;     // false: without a Response Topic
    std::string correlation;  // none when empty
  };

  // Publishes to the thing's topic `operation` and returns at once.
  void Publish(const std::string& operation, const std::string& payload, const Manner& manner);
  // Waits for the first answer with this Correlation Data; empty when none comes.
  std::string WaitForAnswer(const std::string& correlation);
  // All of them so far.
  std::vector<std::string> AnswersWith(const std::string& correlation);

  // The same, with a number of its own as the Correlation Data of each request.
  // Publishes at QoS 2 to the thing's topic `operation` and waits for the answer; null when none
  // comes.
  Json::Value Request(const std::string& operation, const std::string& payload);
  // The result in the answer; nothing when it is an error or none comes.
  std::optional<int> Result(const std::string& operation, const std::string& payload);
  // Returns the request's number at once.
  int Send(const std::string& operation, const std::string& payload, int qos = 2);
  // Waits until the broker has everything that was sent.
  bool WaitUntilSent() { return m_peer->WaitUntilPublished(); }
  // The answers to the request so far: its error or its whole answer.
  std::vector<std::string> AnswersTo(int request) { return AnswersWith(std::to_string(request)); }

  // What came at the topic below things/<id>/, in order; an empty string where it was cleared.
  std::vector<std::string> Received(const std::string& topic);
  std::string Last(const std::string& topic);  // empty when nothing has come
  // Waits until the last that came at the topic is this.
  bool WaitFor(const std::string& topic, const std::string& payload);
  // Waits until the last list of properties has the property, or no longer has it.
  bool WaitForProperty(const std::string& name, bool present = true);

 private:
  // On the peer's thread.
  void take(const MqttPeer::Message& message);

  const int m_port;
  const Credentials m_credentials;
  const std::string m_things;  // "things/<id>/"
  const std::string m_answers;
  const Session m_session;
  std::mutex m_mutex;  // not held in calls of the peer, whose thread wants it
  std::condition_variable m_changed;
  int m_connections = 0;                                       // guarded by m_mutex
  int m_lastRequest = 0;                                       // guarded by m_mutex
  std::map<std::string, std::vector<std::string>> m_received;  // guarded by m_mutex; by topic
  std::map<std::string, std::vector<std::string>> m_answered;  // guarded by m_mutex; by correlation
  std::unique_ptr<MqttPeer> m_peer;                            // null when it has left
};

// The text as JSON; null when it is none.
Json::Value ParseJson(const std::string& text);

#endif  // TESTS_SYSTEM_CLOUDCLIENT_H
