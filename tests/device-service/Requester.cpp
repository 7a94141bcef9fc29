#include "Requester.h"

#include <mosquitto.h>
#include <unistd.h>

#include <atomic>
#include <utility>

namespace {

constexpr const char* kAnswers = "answers/";
constexpr const char* kMarks = "answers/mark";

std::string uniqueName() {
  static std::atomic<int> last{0};
  return "requester-" + std::to_string(getpid()) + "-" + std::to_string(++last);
}

MqttPeer::Options optionsOfPeer() {
  MqttPeer::Options options;
  options.id = uniqueName();
  options.filters = {"things/#", "answers/#"};
  return options;
}

}  // namespace

Requester::Requester(int port, const std::string& thing, const std::string& service)
    : m_service("things/" + thing + "/" + service + "/"),
      m_peer(port, optionsOfPeer(), [this](const MqttPeer::Message& message) {
        Message copy{std::string(message.topic), std::string(message.payload), message.correlation,
                     message.retained};
        m_messages.Change([&](auto& messages) { messages.push_back(std::move(copy)); });
      }) {}

void Requester::Publish(const std::string& topic, const std::string& payload,
                        const Options& options) {
  m_peer.Publish(
      {topic, payload, options.qos, options.retain, options.responseTopic, options.correlation});
}

std::string Requester::Request(const std::string& operation, const std::string& payload) {
  const std::string correlation = Send(operation, payload);
  if (!WaitForAnswer(correlation, {})) return "no answer";
  return AnswersTo(correlation).front();
}

std::string Requester::Send(const std::string& operation, const std::string& payload) {
  Options options;
  options.correlation = std::to_string(++m_lastRequest);
  options.responseTopic = kAnswers + operation;
  Publish(Topic(operation), payload, options);
  return options.correlation;
}

bool Requester::WaitForAnswer(const std::string& correlation, const std::string& answer) {
  return WaitFor([&](const auto& messages) {
    for (const Message& message : messages) {
      const bool isAnswer =
          message.topic.rfind(kAnswers, 0) == 0 && message.correlation == correlation;
      if (isAnswer && (answer.empty() || message.payload == answer)) return true;
    }
    return false;
  });
}

std::vector<std::string> Requester::AnswersTo(const std::string& correlation) const {
  std::vector<std::string> answers;
  for (const Message& message : m_messages.Get()) {
    if (message.topic.rfind(kAnswers, 0) == 0 && message.correlation == correlation) {
      answers.push_back(message.payload);
    }
  }
  return answers;
}

std::vector<std::string> Requester::PayloadsOn(const std::string& topic) const {
  std::vector<std::string> payloads;
  for (const Message& message : m_messages.Get()) {
    if (message.topic == topic) payloads.push_back(message.payload);
  }
  return payloads;
}

bool Requester::WaitForLast(const std::string& topic, const std::string& payload) {
  return WaitFor([&](const auto& messages) {
    for (auto message = messages.rbegin(); message != messages.rend(); ++message) {
      if (message->topic == topic) return message->payload == payload;
    }
    return false;
  });
}

bool Requester::WaitFor(const std::function<bool(const std::vector<Message>&)>& condition) {
  return m_messages.WaitFor(condition);
}

bool Requester::CatchUp() {
  const std::string mark = uniqueName();
  Publish(kMarks, mark, {});
  return WaitForLast(kMarks, mark);
}

std::map<std::string, std::string> Requester::Retained(int port, const std::string& filter) {
  Requester client(port);
  client.CatchUp();
  std::map<std::string, std::string> retained;
  for (const Message& message : client.m_messages.Get()) {
    bool matches = false;
    mosquitto_topic_matches_sub(filter.c_str(), message.topic.c_str(), &matches);
    if (matches && message.retained) retained[message.topic] = message.payload;
  }
  return retained;
}
