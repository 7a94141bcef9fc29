#include "link/CloudLink.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <exception>
#include <optional>
#include <system_error>
#include <utility>
#include <variant>

#include "dlog.h"
#include "payload/Payload.h"
#include "service/Service.h"

namespace Lumo {
namespace {

using std::chrono::milliseconds;

constexpr const char* kProtocol = "mqtt";
constexpr lumo_protocol_status kStatusConnected = 1;
constexpr lumo_protocol_status kStatusLost = 0;

constexpr std::string_view kOnline = "\"online\"";
constexpr std::string_view kOffline = "\"offline\"";

constexpr int kRequestQos = 2;
// What is on its way to the broker; the rest waits in the outbox, where it takes less memory.
constexpr std::size_t kMaxUnacknowledged = 16;
// No value follows so much, so that an answer never has more than one long value before it.
constexpr std::size_t kMaxBytesBeforeAValue = 65536;
// Nor does an answer follow so much.
constexpr std::size_t kMaxBytesBeforeAnAnswer = std::size_t{4} * 1024 * 1024;
// Instead of an answer for which there is no room.
constexpr const char* kAnswerLeftOut = "too many answers wait for the broker";
// For the broker to accept a connection.
constexpr std::chrono::seconds kAttemptTime{10};
// A connection that was lost sooner does not count as a success.
constexpr std::chrono::seconds kSettlingTime{1};
// For the last packets of a connection to be written.
constexpr milliseconds kWritingTime{500};

// The host's signal handlers run on the host's threads, and a broken connection is an error, not a
// SIGPIPE.
void blockSignals() {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
}

}  // namespace

CloudLink::CloudLink(const BrokerSettings& broker, Service& service)
    : m_broker(broker),
      m_service(service),
      m_topics(broker.thingId, service.Name()),
      m_clientId(broker.thingId + ":" + service.Name()),
      m_requests(
          service, m_topics,
          [this](Outbox::Answer answer) {
            sendAnswer(std::move(answer));
            m_wakeup.Signal();
          },
          [this] { return m_outbox.IsCrowded(); }) {}

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
  m_wakeup.Signal();
}

void CloudLink::ValueChanged(const std::string& property) {
  m_outbox.ValueChanged(property);
  m_wakeup.Signal();
}

void CloudLink::ValueRemoved(const std::string& property) {
  m_outbox.ValueRemoved(property);
  m_wakeup.Signal();
}

void CloudLink::Close() {
  std::unique_lock<std::mutex> lock(m_mutex);
  if (!std::exchange(m_closing, true)) {
    m_closeDeadline = Clock::now() + kFarewellTime;
    // Comes after all that waits.
    m_outbox.StatusChanged(false);
  }
  m_wakeup.Signal();
  m_goodbye.wait_until(lock, m_closeDeadline, [this] { return m_ended || !m_connected; });
}

void CloudLink::Join() {
  if (m_thread.joinable()) m_thread.join();
}

bool CloudLink::isClosing() {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_closing;
}

void CloudLink::tellOnline() {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (!m_closing) m_outbox.StatusChanged(true);
}

void CloudLink::setConnected(bool connected) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_connected = connected;
  m_goodbye.notify_all();
}

void CloudLink::reportConnected(bool connected) {
  if (std::exchange(m_isReported, connected) == connected) return;
  m_service.ReportProtocolStatus(kProtocol, connected ? kStatusConnected : kStatusLost);
}

void CloudLink::run() {
  blockSignals();
  pthread_setname_np(pthread_self(), "lumo-mqtt");
  try {
    while (mustGoOn()) {
      try {
        step();
      } catch (const std::exception& e) {
        recover(e.what());
      }
    }
    // Answers to what came while the broker acknowledged the farewell.
    if (m_connection == Connection::Established) publishWaiting();
    if (m_client) disconnect();
  } catch (const std::exception& e) {
    // Without memory there is nothing better to do than to leave the rest of the process alone.
    dlog_print(6, "LUMO", "the connection to the broker is given up: %s\n", e.what());
  }
  m_client.reset();
  setConnected(false);
  std::lock_guard<std::mutex> lock(m_mutex);
  m_ended = true;
  m_goodbye.notify_all();
}

bool CloudLink::mustGoOn() {
  if (!isClosing()) return true;
  if (m_connection != Connection::Established || Clock::now() >= m_closeDeadline) return false;
  return !m_farewellAcknowledged || m_client->IsMessageHalfway();
}

void CloudLink::step() {
  if (m_connection == Connection::None && Clock::now() >= m_nextAttempt) connect();
  const short events = waitForEvents();
  if (m_connection != Connection::None) work(events);
  if (m_connection != Connection::Established) return;
  publishWaiting();
  // At once, not after another poll. A connection can be lost by that, too.
  if (m_client->WantsToWrite()) work(POLLOUT);
}

void CloudLink::recover(const char* error) {
  const milliseconds wait = m_backoff.Next();
  dlog_print(6, "LUMO", "no connection to %s:%d: %s; next attempt in %d ms\n",
             m_broker.host.c_str(), m_broker.port, error, static_cast<int>(wait.count()));
  m_connection = Connection::None;
  dropClient();
  m_nextAttempt = Clock::now() + wait;
  setConnected(false);
  reportConnected(false);
}

void CloudLink::connect() {
  if (!m_client) {
    m_client = std::make_unique<MqttClient>(m_broker, m_clientId, m_topics.Status(), kOffline,
                                            static_cast<MqttClient::Listener&>(*this));
  }
  m_connection = Connection::Beginning;
  m_attemptEnds = Clock::now() + kAttemptTime;
  m_client->Connect(m_family);
  if (m_client->Socket() < 0) noteLoss();
}

CloudLink::Clock::time_point CloudLink::timeOfNextStep() {
  Clock::time_point next = Clock::now() + MqttClient::kWorkInterval;
  if (m_connection == Connection::None) next = m_nextAttempt;
  if (m_connection == Connection::Beginning) next = std::min(next, m_attemptEnds);
  if (isClosing()) next = std::min(next, m_closeDeadline);
  return next;
}

short CloudLink::waitForEvents() {
  const bool hasSocket = m_connection != Connection::None;
  const int socket = hasSocket ? m_client->Socket() : -1;
  const int socketEvents = hasSocket && m_client->WantsToWrite() ? POLLIN | POLLOUT : POLLIN;
  std::array<pollfd, 2> descriptors{
      {{m_wakeup.Descriptor(), POLLIN, 0}, {socket, static_cast<short>(socketEvents), 0}}};
  const auto wait = std::chrono::ceil<milliseconds>(timeOfNextStep() - Clock::now());
  const int timeout = static_cast<int>(std::max(wait, milliseconds(0)).count());
  if (poll(descriptors.data(), descriptors.size(), timeout) < 0 && errno != EINTR) {
    throw std::system_error(errno, std::generic_category(), "poll");
  }
  if (descriptors[0].revents != 0) m_wakeup.Clear();
  return descriptors[1].revents;
}

void CloudLink::work(short events) {
  m_client->Work(events);
  const bool tookTooLong = m_connection == Connection::Beginning && Clock::now() >= m_attemptEnds;
  if (m_client->Socket() < 0 || tookTooLong || m_clientIsVoid) {
    noteLoss();
  } else if (m_connection == Connection::Accepted) {
    noteConnection();
  }
}

void CloudLink::noteConnection() {
  m_connection = Connection::Established;
  m_connectedAt = Clock::now();
  dlog_print(4, "LUMO", "connected to %s:%d as %s\n", m_broker.host.c_str(), m_broker.port,
             m_clientId.c_str());
  subscribe();
  m_outbox.DescriptionChanged();
  if (std::exchange(m_valuesAreLost, false)) {
    for (const std::string& name : m_service.NotifiedNames()) m_outbox.ValueChanged(name);
  }
  tellOnline();
  setConnected(true);  // the plug-in hears of it once the broker sends us requests
}

void CloudLink::noteLoss() {
  const Clock::time_point now = Clock::now();
  const bool wasEstablished = m_connection == Connection::Established;
  const bool clientIsVoid = m_clientIsVoid || (m_sessionResumed && m_client->ProtocolFailed());
  if (clientIsVoid) {
    dlog_print(4, "LUMO", "connecting to %s:%d anew\n", m_broker.host.c_str(), m_broker.port);
    disconnect();
    dropClient();
    m_nextAttempt = now;
  } else {
    if (wasEstablished && now - m_connectedAt >= kSettlingTime) m_backoff.Reset();
    const milliseconds wait = m_backoff.Next();
    const std::string& error = m_client->LastError();
    dlog_print(6, "LUMO", "%s %s:%d: %s; next attempt in %d ms\n",
               wasEstablished ? "lost the connection to" : "cannot connect to",
               m_broker.host.c_str(), m_broker.port, error.empty() ? "no answer" : error.c_str(),
               static_cast<int>(wait.count()));
    m_nextAttempt = now + wait;
    if (!wasEstablished) tryOtherFamily();
  }
  m_connection = Connection::None;
  setConnected(false);
  reportConnected(false);
}

void CloudLink::tryOtherFamily() {
  const bool isIpv6Address = m_broker.host.find(':') != std::string::npos;
  if (isIpv6Address) return;
  m_family =
      m_family == MqttClient::Family::Any ? MqttClient::Family::Ipv4 : MqttClient::Family::Any;
}

void CloudLink::subscribe() {
  m_unansweredSubscriptions = 0;
  for (const std::string& filter : {m_topics.Get(), m_topics.Set(), m_topics.Cancel()}) {
    if (m_client->Subscribe(filter, kRequestQos)) ++m_unansweredSubscriptions;
  }
  m_client->Subscribe(m_topics.Status(), 0);
  if (m_earlierLifeIsOver) return;
  // Only what is retained now is of interest.
  m_client->Subscribe(m_topics.AllValues(), 0, true);
  m_client->Unsubscribe(m_topics.AllValues());
}

void CloudLink::sendAnswer(Outbox::Answer answer) {
  if (m_outbox.Add(answer)) return;
  answer.payload = EncodeError(kAnswerLeftOut);
  if (m_outbox.Add(answer)) return;
  dlog_print(6, "LUMO", "too many answers wait for the broker: one is dropped\n");
}

void CloudLink::publishWaiting() {
  while (m_unacknowledged.size() < kMaxUnacknowledged &&
         m_unacknowledgedBytes < kMaxBytesBeforeAnAnswer) {
    const bool mayBeValue = m_unacknowledgedBytes < kMaxBytesBeforeAValue;
    std::optional<Outbox::Item> item = mayBeValue ? m_outbox.Next() : m_outbox.NextAnswer();
    if (!item) return;
    publish(std::move(*item));
  }
}

void CloudLink::publish(Outbox::Item item) {
  if (const auto* answer = std::get_if<Outbox::Answer>(&item)) {
    send({answer->topic, answer->payload, false, answer->correlation}, std::move(item));
  } else if (auto* value = std::get_if<Outbox::Value>(&item)) {
    publishValue(std::move(*value));
  } else if (const auto* status = std::get_if<Outbox::Status>(&item)) {
    send({m_topics.Status(), status->online ? kOnline : kOffline, true, {}}, std::move(item));
  } else {
    const std::string description = EncodeDescription(m_service.RegisteredTypes());
    send({m_topics.Description(), description, true, {}}, std::move(item));
  }
}

void CloudLink::publishValue(Outbox::Value item) {
  const std::optional<Property> notified = m_service.FindNotified(item.property);
  const std::string topic = m_topics.Value(item.property);
  if (notified) {
    send({topic, EncodeValue(notified->value), true, {}}, std::move(item));
    return;
  }
  m_outbox.ValueDropped(item.property);
  if (item.mayBeRetained) send({topic, {}, true, {}}, std::move(item));
}

void CloudLink::send(const MqttClient::Publication& publication, Outbox::Item&& item) {
  const int id = m_client->Publish(publication);
  if (id < 0) return;
  const std::size_t bytes = publication.payload.size();
  m_unacknowledged.emplace(id, Unacknowledged{std::move(item), bytes});
  m_unacknowledgedBytes += bytes;
}

void CloudLink::dropClient() {
  m_client.reset();
  m_clientIsUsed = false;
  m_sessionResumed = false;
  m_clientIsVoid = false;
  // It would have sent these again.
  for (auto it = m_unacknowledged.rbegin(); it != m_unacknowledged.rend(); ++it) {
    m_outbox.PutBack(std::move(it->second.item));
  }
  m_unacknowledged.clear();
  m_unacknowledgedBytes = 0;
}

void CloudLink::disconnect() {
  if (m_connection != Connection::Accepted && m_connection != Connection::Established) return;
  if (m_client->Socket() < 0) return;
  m_client->Disconnect();
  const Clock::time_point end = Clock::now() + kWritingTime;
  while (m_client->Socket() >= 0 && m_client->WantsToWrite() && Clock::now() < end) {
    pollfd descriptor{m_client->Socket(), POLLOUT, 0};
    if (poll(&descriptor, 1, static_cast<int>(kWritingTime.count())) > 0) {
      m_client->Work(static_cast<short>(descriptor.revents & POLLOUT));
    }
  }
}

void CloudLink::OnConnected(bool sessionPresent) {
  if (sessionPresent && !m_clientIsUsed) m_service.DeliverOnceStarted();
  m_connection = Connection::Accepted;
  m_valuesAreLost = m_valuesAreLost || !sessionPresent;
  m_sessionResumed = m_clientIsUsed && sessionPresent;
  m_clientIsVoid = m_clientIsUsed && !sessionPresent;
  m_clientIsUsed = true;
}

void CloudLink::OnMessage(const MqttClient::Message& message) {
  if (message.topic == m_topics.Get()) {
    m_requests.Take(RequestKind::Get, message);
  } else if (message.topic == m_topics.Set()) {
    m_requests.Take(RequestKind::Set, message);
  } else if (message.topic == m_topics.Cancel()) {
    m_requests.Cancel(message);
  } else if (message.topic == m_topics.Status()) {
    // Another service of the thing has left, or was lost.
    if (message.payload != kOnline) tellOnline();
  } else if (message.retained) {
    const std::optional<std::string> property = m_topics.PropertyOf(message.topic);
    if (property && Topics::IsLevel(*property)) m_outbox.ValueFound(*property);
  }
}

void CloudLink::OnAcknowledged(int id, const char* refusal) {
  const auto found = m_unacknowledged.find(id);
  if (found == m_unacknowledged.end()) return;
  const auto* status = std::get_if<Outbox::Status>(&found->second.item);
  if (refusal != nullptr) {
    dlog_print(6, "LUMO", "the broker refuses a publication of %s: %s\n", m_clientId.c_str(),
               refusal);
  }
  m_farewellAcknowledged = m_farewellAcknowledged || (status != nullptr && !status->online);
  m_unacknowledgedBytes -= found->second.bytes;
  m_unacknowledged.erase(found);
}

void CloudLink::OnSubscribed() {
  if (m_unansweredSubscriptions > 0 && --m_unansweredSubscriptions == 0) reportConnected(true);
}

void CloudLink::OnUnsubscribed() {
  m_earlierLifeIsOver = true;
}

}  // namespace Lumo
