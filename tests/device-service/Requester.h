#ifndef TESTS_PLATFORM_LUMO_REQUESTER_H
#define TESTS_PLATFORM_LUMO_REQUESTER_H

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "MqttPeer.h"
#include "Watched.h"

// The cloud's side: a client of the broker that sees everything below things/ and answers/. It
// comes back to a broker that was away, with its session. Any thread.
class Requester {
 public:
  struct Message {
    std::string topic;
    std::string payload;
    std::string correlation;
    bool retained;
  };
  struct Options {
    int qos = 2;
    bool retain = false;
    std::string responseTopic;
    std::string correlation;
  };

  // Returns once it is subscribed.
  explicit Requester(int port, const std::string& thing = "tv",
                     const std::string& service = "service");

  // The topic of the service that the requester is for.
  std::string Topic(const std::string& name) const { return m_service + name; }

  void Publish(const std::string& topic, const std::string& payload, const Options& options);
  // False when the broker has not taken everything that was published.
  bool WaitUntilPublished() { return m_peer.WaitUntilPublished(); }

  // Publishes to the service's topic `operation` and waits for the answer.
  std::string Request(const std::string& operation, const std::string& payload);
  // Does not wait; returns the Correlation Data, by which the answers can be found.
  std::string Send(const std::string& operation, const std::string& payload);
  bool WaitForAnswer(const std::string& correlation, const std::string& answer);
  std::vector<std::string> AnswersTo(const std::string& correlation) const;

  // The payloads that have come on a topic.
  std::vector<std::string> PayloadsOn(const std::string& topic) const;
  // Waits until the last payload on the topic is this one.
  bool WaitForLast(const std::string& topic, const std::string& payload);
  bool WaitFor(const std::function<bool(const std::vector<Message>&)>& condition);
  // Waits until everything that the broker got before this call has come.
  bool CatchUp();

  // What is retained at the broker under the filter, seen by a new client: topic -> payload.
  static std::map<std::string, std::string> Retained(int port, const std::string& filter);

 private:
  const std::string m_service;  // ends with '/'
  int m_lastRequest = 0;
  Watched<std::vector<Message>> m_messages;
  MqttPeer m_peer;  // last: its thread uses the above
};

#endif  // TESTS_PLATFORM_LUMO_REQUESTER_H
