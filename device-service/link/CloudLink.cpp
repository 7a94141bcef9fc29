#include "link/CloudLink.h"

#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <exception>
#include <optional>
#include <utility>

#include "dlog.h"
#include "mqtt/Reasons.h"
#include "payload/Payload.h"
#include "values/TopicText.h"

namespace Lumo {
namespace {

using std::chrono::milliseconds;

constexpr const char* kProtocol = "mqtt";
constexpr lumo_protocol_status kStatusConnected = 1;
constexpr lumo_protocol_status kStatusLost = 0;

constexpr std::uint8_t kRequestQos = 2;  // exactly once
// Replaces an answer for which there is no room.
constexpr const char* kAnswerLeftOut = "too many answers wait for the broker";
// Held back requests may find room although no request has ended.
constexpr milliseconds kHeldInterval{500};
// By then there may be memory again.
constexpr milliseconds kPauseAfterException{100};
// For the last packets of a connection to be written.
constexpr milliseconds kWritingTime{500};

// The host's signal handlers run on the host's threads, and a broken connection is an error, not a
// SIGPIPE.
void blockSignals() {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
}

Mqtt::Session::Settings sessionSettings(const BrokerSettings& broker, const std::string& service,
                                        const Topics& topics, const MessageLabels& labels) {
  Mqtt::Session::Settings settings;
  settings.clientId = broker.thingId + ":" + service;
  settings.user = broker.user;
  settings.password = broker.password;
  settings.willTopic = topics.Status();
  settings.will = kOffline;
  settings.willLabels = labels.Will();
  return settings;
}

}  // namespace

CloudLink::CloudLink(const BrokerSettings& broker, const std::string& name, LinkedService& service)
    : m_broker(broker),
      m_service(service),
      m_topics(broker.thingId, name),
      m_client(m_broker, sessionSettings(m_broker, name, m_topics, m_labels),
               static_cast<Mqtt::Client::Listener&>(*this)),
      m_publisher(m_client, m_outbox, m_topics, m_labels, service),
      m_requests(
          service, m_topics, [this](RemoteRequests::End end) { noteEnd(std::move(end)); },
          [this] { return m_outbox.IsCrowded(); }),
      m_missing{m_topics.Get(), m_topics.Set(), m_topics.Cancel()} {}

CloudLink::~CloudLink() {
  Close();
  Join();
}

void CloudLink::Start() {
  m_ended = false;
  try {
    m_thread = std::thread([this] { run(); });
  } catch (...) {
    m_ended = true;
    throw;
  }
}

void CloudLink::DescriptionChanged() {
  m_outbox.DescriptionChanged();
  m_client.Wake();
}

void CloudLink::ValueChanged(const std::string& property) {
  m_outbox.ValueChanged(property);
  m_client.Wake();
}

void CloudLink::ValueRemoved(const std::string& property) {
  m_outbox.ValueRemoved(property);
  m_client.Wake();
}

void CloudLink::HealthChanged() {
  m_outbox.HealthChanged();
  m_client.Wake();
}

void CloudLink::Close() {
  UniqueLock lock(m_mutex);
  if (!std::exchange(m_closing, true)) m_closeDeadline = Clock::now() + kFarewellTime;
  m_client.Wake();
  m_goodbye.wait_until(lock.ForWait(), m_closeDeadline, [this] { return m_ended.load(); });
}

void CloudLink::Join() {
  if (m_thread.joinable()) m_thread.join();
}

bool CloudLink::isClosing() {
  LockGuard lock(m_mutex);
  return m_closing;
}

milliseconds CloudLink::timeToClose() {
  LockGuard lock(m_mutex);
  const auto left = std::chrono::ceil<milliseconds>(m_closeDeadline - Clock::now());
  return std::max(left, milliseconds(0));
}

void CloudLink::tellOnline() {
  LockGuard lock(m_mutex);
  if (!m_closing) m_outbox.StatusChanged(true);
}

void CloudLink::reportConnected(bool connected) {
  if (std::exchange(m_isReported, connected) == connected) return;
  m_service.Record().SetLink(connected ? Health::Link::Online : Health::Link::Offline);
  m_service.ReportProtocolStatus(kProtocol, connected ? kStatusConnected : kStatusLost);
}

void CloudLink::run() {
  blockSignals();
  pthread_setname_np(pthread_self(), "lumo-mqtt");
  const Mqtt::WorkLoop::Owner owner = m_client.OwnLoop();
  try {
    while (tryToGoOn()) {
    }
    // Answers to requests that came while the broker acknowledged "offline". Nothing may follow a
    // DISCONNECT.
    if (m_client.IsConnected()) {
      m_publisher.PublishWaiting(Clock::now());
      m_client.Flush();
    }
    m_client.Disconnect(std::min(kWritingTime, timeToClose()));
  } catch (const std::exception& e) {
    // Out of memory: gives up the connection, not the process.
    dlog_print(6, "LUMO", "the connection to the broker is given up: %s\n", e.what());
  }
  m_client.Shutdown();
  LockGuard lock(m_mutex);
  m_ended = true;
  m_goodbye.notify_all();
}

bool CloudLink::tryToGoOn() {
  try {
    if (std::exchange(m_hasFailed, false)) m_client.Drop("given up here");
    if (!mustGoOn()) return false;
    step();
  } catch (const std::exception& e) {
    dlog_print(6, "LUMO", "the connection to the broker: %s\n", e.what());
    m_hasFailed = true;
    std::this_thread::sleep_for(kPauseAfterException);
  }
  return true;
}

bool CloudLink::mustGoOn() {
  bool isLastPart = false;
  {
    // Checked first, so that the shutdown ends in time whatever the rest throws.
    LockGuard lock(m_mutex);
    if (m_closing && Clock::now() >= m_closeDeadline) return false;
    isLastPart = m_closing;
  }
  if (isLastPart) m_requests.DropHeld();
  acknowledge();
  if (!isLastPart) return true;
  // After the answers to what was not carried out: what is published last is acknowledged last.
  if (!std::exchange(m_saidFarewell, true)) m_outbox.StatusChanged(false);
  if (m_client.IsConnected()) {
    if (hasSaidFarewell()) return false;
    m_client.Settle();
  } else {
    if (m_client.IsSettled()) return false;
    if (!std::exchange(m_triedAtClose, true)) m_client.ConnectNow();
  }
  return true;
}

bool CloudLink::hasSaidFarewell() const {
  return m_publisher.IsFarewellTaken() && m_client.IsSettled();
}

void CloudLink::step() {
  if (m_client.IsConnected()) {
    const Clock::time_point now = Clock::now();
    if (now >= m_subscribeAgain) subscribeToRequests();
    m_nextDue = m_publisher.PublishWaiting(now);
    m_client.Flush();
    // An "offline" that is too large for the broker has no answer, which would end the wait.
    if (hasSaidFarewell()) return;
  }
  Clock::time_point latest = std::min(m_nextDue, m_subscribeAgain);
  latest = std::min(latest, timeToAcknowledge());
  if (!m_answered.empty()) latest = std::min(latest, m_answered.front().since + kAcknowledgeAfter);
  latest = std::min(latest, timeToCheckHeld());
  {
    LockGuard lock(m_mutex);
    if (m_closing) latest = std::min(latest, m_closeDeadline);
  }
  m_client.Wait(latest);
}

CloudLink::Clock::time_point CloudLink::timeToCheckHeld() {
  if (!m_requests.HoldsSome()) {
    m_checkHeld = Clock::time_point::max();
  } else if (const Clock::time_point now = Clock::now();
             m_checkHeld == Clock::time_point::max() || m_checkHeld <= now) {
    m_checkHeld = now + kHeldInterval;
  }
  return m_checkHeld;
}

void CloudLink::OnConnected(bool sessionPresent) {
  if (sessionPresent && !m_wasConnected) m_service.DeliverOnceStarted();
  m_wasConnected = true;
  m_service.Record().Count(Counted::Connections);
  noteLimits(m_client.Limits());
  m_publisher.OnConnected();
  m_missing = {m_topics.Get(), m_topics.Set(), m_topics.Cancel()};
  subscribeToRequests();
  subscribe({m_topics.Status(), 0, true, false});
  if (!m_askedForEarlierValues) findEarlierValues();
  m_outbox.DescriptionChanged();
  if (!sessionPresent) {
    for (const std::string& name : m_service.NotifiedNames()) m_outbox.ValueChanged(name);
  }
  tellOnline();
}

void CloudLink::findEarlierValues() {
  if (!m_client.Limits().wildcardsAvailable) return;
  // Unsubscribes at once: only the values that are retained now matter. That packet is no longer
  // than this one.
  if (subscribe({m_topics.AllValues(), 0, false, true})) m_client.Unsubscribe(m_topics.AllValues());
}

void CloudLink::subscribeToRequests() {
  m_subscribeAgain = Clock::time_point::max();
  for (const std::string& filter : m_missing) subscribe({filter, kRequestQos, true, false});
}

bool CloudLink::subscribe(const Mqtt::Subscription& subscription) {
  const std::size_t bytes = Mqtt::Session::PacketBytes(subscription);
  const std::optional<std::uint32_t> limit = m_client.Limits().maximumPacketSize;
  if (limit && bytes > *limit) {
    noteLimit("the subscription to " + subscription.filter + " has " + std::to_string(bytes) +
              " bytes, more than the broker takes (" + std::to_string(*limit) + ")");
    return false;
  }
  m_subscribing[m_client.Subscribe(subscription)] = subscription.filter;
  return true;
}

void CloudLink::OnLost(const Mqtt::Client::Loss& loss) {
  m_subscribing.clear();
  m_subscribeAgain = Clock::time_point::max();
  m_nextDue = Clock::time_point::max();
  m_triedAtClose = false;
  reportConnected(false);
  m_service.Record().NoteLoss(loss.why);
  m_publisher.OnLost(loss);
}

void CloudLink::OnNotConnected(const std::string& why) {
  m_service.Record().NoteTrouble(why);
}

void CloudLink::OnSubscribed(Token token, std::uint8_t reason) {
  const auto found = m_subscribing.find(token);
  if (found == m_subscribing.end()) return;
  const std::string filter = std::move(found->second);
  m_subscribing.erase(found);
  if (reason >= Mqtt::kFirstFailure) {
    noteLimit("the broker refuses the subscription to " + filter + ": " +
              Mqtt::DescribeReason(reason) + "; tried again");
    if (m_missing.count(filter) == 0) return;
    m_service.Record().NoteTrouble("the broker refuses the subscription to " + filter);
    const Clock::time_point again = Clock::now() + m_subscribeBackoff.Next();
    m_subscribeAgain = std::min(m_subscribeAgain, again);
    return;
  }
  if (m_missing.erase(filter) == 0) return;
  if (reason < std::min(kRequestQos, m_client.Limits().maximumQos)) {
    noteLimit("the broker sends requests at QoS " + std::to_string(reason) +
              " only: one may be lost or come twice");
  }
  if (!m_missing.empty()) return;
  m_subscribeBackoff.Reset();
  reportConnected(true);
}

void CloudLink::OnUnsubscribed(Token) {
  m_askedForEarlierValues = true;
}

void CloudLink::noteLimits(const Mqtt::ConnAck& limits) {
  if (!limits.retainAvailable) {
    noteLimit("the broker retains nothing: who subscribes later sees no status and no values");
  }
  if (limits.maximumQos < kRequestQos) {
    noteLimit("the broker has QoS " + std::to_string(limits.maximumQos) +
              " at most: a request or a value may be lost or come twice");
  }
  if (!limits.wildcardsAvailable) {
    noteLimit("the broker takes no wildcards: values of an earlier run are not removed");
  }
  if (limits.sessionExpirySeconds == 0U) {
    noteLimit("the broker forgets the session with the connection: requests do not wait there");
  } else if (limits.sessionExpirySeconds &&
             *limits.sessionExpirySeconds < Mqtt::Session::kSessionExpirySeconds) {
    noteLimit("the broker forgets the session " + std::to_string(*limits.sessionExpirySeconds) +
              " s after the connection: no request waits longer there");
  }
}

void CloudLink::noteLimit(const std::string& text) {
  // A broker may announce another limit with each connection.
  constexpr std::size_t kMostKept = 100;
  if (m_notedLimits.size() >= kMostKept) m_notedLimits.clear();
  if (m_notedLimits.insert(text).second) dlog_print(6, "LUMO", "%s\n", text.c_str());
}

CloudLink::Taken CloudLink::OnMessage(const Mqtt::Publish& message, Arrival arrival) {
  if (message.topic == m_topics.Status()) {
    // Another service of the thing has left, or was lost.
    if (message.payload != kOnline) tellOnline();
  } else if (const std::optional<std::string> property = m_topics.PropertyOf(message.topic)) {
    if (message.retain && IsTopicLevel(*property)) m_outbox.ValueFound(*property);
  } else if (!message.retain) {
    // A retained request is ignored: nobody knows whether it was carried out before.
    return takeRequest(message, arrival);
  }
  return Taken::Now;
}

CloudLink::Taken CloudLink::takeRequest(const Mqtt::Publish& message, Arrival arrival) {
  if (arrival != 0 && isClosing()) return Taken::Not;
  if (message.topic == m_topics.Cancel()) {
    m_requests.Cancel(message);
    return Taken::Now;
  }
  const bool isGet = message.topic == m_topics.Get();
  if (!isGet && message.topic != m_topics.Set()) return Taken::Now;
  const Taken taken =
      m_requests.Take(isGet ? RequestKind::Get : RequestKind::Set, message, arrival);
  if (arrival == 0) return taken;
  if (taken == Taken::Later) m_begun.push_back({arrival, Clock::now()});
  if (taken != Taken::Now || !m_outbox.IsCrowded()) return taken;
  m_answered.push_back({arrival, Clock::now()});
  return Taken::Later;
}

void CloudLink::acknowledge() {
  std::vector<RemoteRequests::End> ends;
  {
    LockGuard lock(m_mutex);
    ends.swap(m_ends);
  }
  for (RemoteRequests::End& end : ends) {
    const bool isAcknowledged = !isUnacknowledged(end.arrival);
    if (!m_begun.empty() && m_begun.front().arrival == end.arrival) m_begun.pop_front();
    if (end.isCarriedOut) {
      if (!isAcknowledged) m_client.Acknowledge(end.arrival);
    } else if (isAcknowledged || !m_client.Leave(end.arrival)) {
      // The broker has the acknowledgement already.
      m_lost.Note();
      if (end.answer) sendAnswer(std::move(*end.answer));
    }
  }
  const Clock::time_point now = Clock::now();
  for (; timeToAcknowledge() <= now; m_begun.pop_front()) {
    m_client.Acknowledge(m_begun.front().arrival);
  }
  acknowledgeAnswered(now);
  m_requests.BeginHeld();
}

void CloudLink::acknowledgeAnswered(Clock::time_point now) {
  if (m_answered.empty()) return;
  const bool isRoom = !m_outbox.IsCrowded() || isClosing();
  for (; !m_answered.empty(); m_answered.pop_front()) {
    if (!isRoom && now < m_answered.front().since + kAcknowledgeAfter) return;
    m_client.Acknowledge(m_answered.front().arrival);
  }
}

CloudLink::Clock::time_point CloudLink::timeToAcknowledge() {
  if (m_begun.empty()) {
    m_areMany = false;
    return Clock::time_point::max();
  }
  // Stays set until none is left: acknowledgements keep the order of the requests, so a few old
  // ones would block all others.
  m_areMany = m_areMany || m_begun.size() >= kManyRequests;
  return m_begun.front().since +
         (m_areMany ? kAcknowledgeManyAfter : milliseconds(kAcknowledgeAfter));
}

bool CloudLink::isUnacknowledged(Arrival arrival) const {
  const auto place =
      std::lower_bound(m_begun.begin(), m_begun.end(), arrival,
                       [](const Begun& begun, Arrival other) { return begun.arrival < other; });
  return place != m_begun.end() && place->arrival == arrival;
}

void CloudLink::OnPublished(Token token, std::uint8_t reason, const std::string& reasonText) {
  m_publisher.OnPublished(token, reason, reasonText);
}

void CloudLink::OnForgotten(Token token) {
  m_publisher.OnForgotten(token);
}

void CloudLink::noteEnd(RemoteRequests::End end) {
  const bool mustAnswer = end.answer && (end.isCarriedOut || end.arrival == 0);
  if (mustAnswer) sendAnswer(std::move(*std::exchange(end.answer, std::nullopt)));
  if (end.arrival != 0) {
    LockGuard lock(m_mutex);
    m_ends.push_back(std::move(end));
  }
  m_client.Wake();
}

void CloudLink::sendAnswer(Outbox::Answer answer) {
  if (m_outbox.Add(answer)) return;
  answer.payload = EncodeError(kAnswerLeftOut);
  if (!m_outbox.Add(answer)) m_droppedAnswers.Note();
}

}  // namespace Lumo
