#include "CloudRequester.h"

#include <charconv>
#include <cstddef>
#include <utility>

namespace Soak {
namespace {

constexpr std::size_t kEndedKept = 1024;

}  // namespace

CloudRequester::CloudRequester(int port, const std::string& thing, int index, Tally& tally)
    : m_service("things/" + thing + "/appdatachannel/"),
      m_answers("cloud/" + std::to_string(index) + "/answers"),
      m_tally(tally),
      m_peer(port, optionsOfPeer(index),
             [this](const MqttPeer::Message& message) { take(message); }) {}

MqttPeer::Options CloudRequester::optionsOfPeer(int index) {
  MqttPeer::Options options;
  options.id = "requester-" + std::to_string(index);
  options.filters = {m_answers};
  options.onConnected = [this, isFirst = true](bool sessionPresent) mutable {
    if (!isFirst && !sessionPresent) m_tally.Mismatch("the broker has forgotten a session");
    isFirst = false;
  };
  return options;
}

CloudRequester::Number CloudRequester::NextNumber() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_last + 1;
}

CloudRequester::Number CloudRequester::Send(const std::string& operation,
                                            const std::string& payload) {
  const Number request = addRequest();
  ++m_tally.requests;
  publish(m_service + operation, payload, request);
  return request;
}

CloudRequester::Number CloudRequester::SendToSelf(const std::string& payload) {
  const Number request = addRequest();
  publish(m_answers, payload, request);
  return request;
}

void CloudRequester::Cancel(Number request) {
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_cancelled.insert(request);
  }
  publish(m_service + "cancel", {}, request);
}

std::optional<std::string> CloudRequester::WaitForAnswer(Number request,
                                                         std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(m_mutex);
  const auto found = m_requests.find(request);
  if (found == m_requests.end()) return std::nullopt;
  m_changed.wait_for(lock, limit, [&found] { return found->second.has_value(); });
  std::optional<std::string> answer = std::move(found->second);
  m_requests.erase(found);
  if (answer) {
    m_ended[request] = *answer;
    if (m_ended.size() > kEndedKept) m_ended.erase(m_ended.begin());
  }
  return answer;
}

CloudRequester::Number CloudRequester::addRequest() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_requests[++m_last];
  return m_last;
}

void CloudRequester::publish(const std::string& topic, const std::string& payload, Number request) {
  MqttPeer::Publication publication;
  publication.topic = topic;
  publication.payload = payload;
  publication.responseTopic = m_answers;
  publication.correlation = std::to_string(request);
  m_peer.Publish(std::move(publication));
}

void CloudRequester::take(const MqttPeer::Message& message) {
  const std::string& correlation = message.correlation;
  Number request = 0;
  std::from_chars(correlation.data(), correlation.data() + correlation.size(), request);
  std::string answer(message.payload);
  const std::lock_guard<std::mutex> lock(m_mutex);
  const bool isCancelled = m_cancelled.count(request) != 0;
  if (isCancelled && answer.find("not answered in time") != std::string::npos) {
    m_tally.Mismatch("a cancelled request is answered: " + answer);
  }
  const auto waiting = m_requests.find(request);
  const auto ended = m_ended.find(request);
  if (waiting != m_requests.end() && !waiting->second) {
    waiting->second = std::move(answer);
    m_changed.notify_all();
  } else if (waiting != m_requests.end() || ended != m_ended.end()) {
    const std::string& first = waiting != m_requests.end() ? *waiting->second : ended->second;
    if (answer != first) {
      m_tally.Mismatch("a request is answered with " + first + " and with " + answer);
    }
    ++m_tally.repeated;
  } else if (!isCancelled) {
    m_tally.Mismatch("an answer to request " + std::to_string(request) + " comes too late");
  }
}

}  // namespace Soak
