#include "link/Publisher.h"

#include <algorithm>
#include <limits>
#include <utility>
#include <variant>

#include "dlog.h"
#include "health/HealthText.h"
#include "mqtt/Reasons.h"
#include "payload/Payload.h"
#include "service/LinkedService.h"

namespace Lumo {
namespace {

using std::chrono::milliseconds;

// At most so many are in flight; the rest waits in the outbox, where it takes less memory.
constexpr std::size_t kMaxSent = 16;
// With more bytes in flight no value is sent, so that at most one long value is ahead of an answer.
constexpr std::size_t kMaxBytesBeforeAValue = 65536;
// With more bytes in flight no answer is sent either.
constexpr std::size_t kMaxBytesBeforeAnAnswer = std::size_t{4} * 1024 * 1024;

constexpr const char* kAnswerTooLarge = "the answer is larger than the broker takes";

// A broker may end the connection over a packet that is too large without giving the reason. A
// packet above this size that was in flight at so many losses in a row counts as too large.
constexpr std::size_t kSuspectBytes = 16384;
constexpr unsigned kMaxSuspicions = 3;
// A learnt limit is forgotten after this: brokers are reconfigured.
constexpr std::chrono::hours kLearntLimitLasts{24};

// The delay after a temporary refusal, doubled each time.
constexpr milliseconds kFirstRetry{1000};
constexpr milliseconds kLastRetry{30'000};
// By then nobody waits for the answer any more.
constexpr unsigned kMaxRefusalsOfAnAnswer = 8;

bool isTemporary(std::uint8_t reason) {
  switch (reason) {
    case Mqtt::kReasonUnspecified:
    case Mqtt::kReasonImplementationSpecific:
    case Mqtt::kReasonServerUnavailable:
    case Mqtt::kReasonServerBusy:
    case Mqtt::kReasonPacketIdInUse:
    case Mqtt::kReasonReceiveMaximumExceeded:
    case Mqtt::kReasonQuotaExceeded:
      return true;
    default:
      return false;
  }
}

milliseconds delayAfter(unsigned refusals) {
  constexpr unsigned kMaxDoublings = 5;
  return std::min(kLastRetry, kFirstRetry * (1 << std::min(refusals - 1, kMaxDoublings)));
}

std::string describe(std::uint8_t reason, const std::string& text) {
  const std::string words = Mqtt::DescribeReason(reason);
  return text.empty() ? words : words + " (" + text + ")";
}

}  // namespace

Publisher::Publisher(Mqtt::Client& client, Outbox& outbox, const Topics& topics,
                     const MessageLabels& labels, LinkedService& service)
    : m_client(client), m_outbox(outbox), m_topics(topics), m_labels(labels), m_service(service) {}

Publisher::Clock::time_point Publisher::PublishWaiting(Clock::time_point now) {
  const Clock::time_point due = m_outbox.ReleaseDelayed(now);
  while (m_sent.size() < kMaxSent && m_sentBytes < kMaxBytesBeforeAnAnswer) {
    const bool mayBeValue = m_sentBytes < kMaxBytesBeforeAValue;
    std::optional<Outbox::Item> item = mayBeValue ? m_outbox.Next() : m_outbox.NextAnswer();
    if (!item) break;
    try {
      publish(*item);
    } catch (...) {
      m_outbox.PutBack(std::move(*item));
      throw;
    }
  }
  return due;
}

void Publisher::publish(Outbox::Item& item) {
  if (std::holds_alternative<Outbox::Value>(item)) {
    publishValue(item);
    return;
  }
  Mqtt::Publication publication;
  if (const auto* answer = std::get_if<Outbox::Answer>(&item)) {
    publication = {answer->topic, answer->payload, false, answer->correlation,
                   MessageLabels::Answer()};
  } else {
    publication.retain = true;
    publication.labels = m_labels.State(std::chrono::system_clock::now());
    if (const auto* status = std::get_if<Outbox::Status>(&item)) {
      publication.topic = m_topics.Status();
      publication.payload = status->online ? kOnline : kOffline;
    } else if (std::holds_alternative<Outbox::Health>(item)) {
      publication.topic = m_topics.Health();
      publication.payload = EncodeHealth(m_service.ReadHealth());
    } else {
      publication.topic = m_topics.Description();
      publication.payload = EncodeDescription(m_service.RegisteredTypes());
    }
  }
  send(std::move(publication), item);
}

void Publisher::publishValue(Outbox::Item& item) {
  const Outbox::Value& value = std::get<Outbox::Value>(item);
  const std::optional<Notified> notified = m_service.FindNotified(value.property);
  std::string topic = m_topics.Value(value.property);
  if (notified) {
    send({std::move(topic), EncodeValue(notified->value), true, {}, m_labels.Value(*notified)},
         item);
    return;
  }
  Mqtt::Publication clearing{std::move(topic), {}, true, {}, {}};
  const bool fits = Mqtt::Session::PacketBytes(clearing) <= limit();
  // A broker that cannot take even the empty message keeps the value; one that can removes it
  // later.
  if (fits || !value.mayBeRetained) m_outbox.ValueDropped(value.property);
  if (value.mayBeRetained) send(std::move(clearing), item);
}

void Publisher::send(Mqtt::Publication publication, Outbox::Item& item) {
  if (Mqtt::Session::PacketBytes(publication) > limit()) {
    sendInstead(publication, item);
  } else {
    handOver(std::move(publication), item);
  }
}

void Publisher::sendInstead(const Mqtt::Publication& publication, Outbox::Item& item) {
  const bool mustBeLogged = isNews(item, publication.topic);
  if (mustBeLogged) {
    dlog_print(6, "LUMO", "%s: %zu bytes are more than the broker takes (%zu)\n",
               publication.topic.c_str(), Mqtt::Session::PacketBytes(publication), limit());
  }
  Mqtt::Publication instead{publication.topic, {}, publication.retain, publication.correlation, {}};
  if (auto* answer = std::get_if<Outbox::Answer>(&item)) {
    answer->payload = EncodeError(kAnswerTooLarge);
    instead.payload = answer->payload;
    instead.labels = MessageLabels::Answer();
  } else if (const auto* value = std::get_if<Outbox::Value>(&item)) {
    m_tooLarge.insert(value->property);
    countTooLarge(value->property);
  }
  if (Mqtt::Session::PacketBytes(instead) > limit()) {
    if (mustBeLogged) {
      dlog_print(6, "LUMO", "%s: nothing at all fits\n", publication.topic.c_str());
    }
    noteFarewell(item);
    return;
  }
  handOver(std::move(instead), item, true);
}

void Publisher::countTooLarge(const std::string& property) {
  const std::optional<Notified> notified = m_service.FindNotified(property);
  if (!notified) return;
  std::uint64_t& counted = m_countedTooLarge[property];
  if (std::exchange(counted, notified->sequence) == notified->sequence) return;
  m_service.Record().Count(Counted::ValuesTooLarge);
}

void Publisher::handOver(Mqtt::Publication publication, Outbox::Item& item, bool isReplaced) {
  Sent sent{{}, Mqtt::Session::PacketBytes(publication), publication.topic, isReplaced};
  Sent& kept = m_sent[m_client.Publish(std::move(publication))];
  kept = std::move(sent);
  kept.item = std::move(item);
  m_sentBytes += kept.bytes;
}

void Publisher::OnConnected() {
  if (m_learntLimit && Clock::now() - m_learntAt >= kLearntLimitLasts) m_learntLimit.reset();
  m_largestTaken = 0;
  withdrawTooLarge();
  m_refusedTopics.clear();
  showRefusal();
  // The broker, or another one in its place, may take more now.
  for (const std::string& property : std::exchange(m_tooLarge, {})) m_outbox.ValueChanged(property);
}

void Publisher::OnLost(const Mqtt::Client::Loss& loss) {
  const std::optional<Token> largest = findLargestSent();
  if (!largest) return;
  const std::size_t bytes = m_sent.at(*largest).bytes;
  if (bytes <= m_largestTaken) return;
  if (loss.brokerReason == Mqtt::kReasonPacketTooLarge) {
    learnLimit(bytes);
  } else if (loss.byPeer && bytes >= kSuspectBytes) {
    m_suspicions = m_suspect == largest ? m_suspicions + 1 : 1;
    m_suspect = largest;
    if (m_suspicions >= kMaxSuspicions) learnLimit(bytes);
  }
}

void Publisher::OnPublished(Token token, std::uint8_t reason, const std::string& reasonText) {
  std::optional<Sent> sent = take(token);
  if (!sent) return;
  if (std::holds_alternative<Outbox::Answer>(sent->item)) m_service.Record().Changed();
  if (reason < Mqtt::kFirstFailure) {
    m_largestTaken = std::max(m_largestTaken, sent->bytes);
    if (!sent->isReplaced) m_troubledTopics.erase(sent->topic);
    noteTaken(sent->topic);
    noteFarewell(sent->item);
  } else if (reason == Mqtt::kReasonPacketTooLarge) {
    learnLimit(sent->bytes);
    m_outbox.PutBack(std::move(sent->item));
  } else if (isTemporary(reason)) {
    tryAgainLater(std::move(*sent), describe(reason, reasonText));
  } else {
    giveUp(*sent, describe(reason, reasonText));
  }
}

void Publisher::OnForgotten(Token token) {
  if (std::optional<Sent> sent = take(token)) m_outbox.PutBack(std::move(sent->item));
}

void Publisher::tryAgainLater(Sent sent, const std::string& reason) {
  const unsigned refusals =
      ++std::visit([](auto& item) -> unsigned& { return item.refusals; }, sent.item);
  if (std::holds_alternative<Outbox::Answer>(sent.item) && refusals > kMaxRefusalsOfAnAnswer) {
    giveUp(sent, reason);
    return;
  }
  if (refusals == 1 && isNews(sent.item, sent.topic)) {
    dlog_print(6, "LUMO", "the broker refuses %s for now: %s; tried again until it takes it\n",
               sent.topic.c_str(), reason.c_str());
  }
  m_outbox.Delay(std::move(sent.item), Clock::now() + delayAfter(refusals));
}

void Publisher::giveUp(const Sent& sent, const std::string& reason) {
  noteFarewell(sent.item);
  const std::string what = "the broker refuses " + sent.topic + ": " + reason;
  if (!std::holds_alternative<Outbox::Answer>(sent.item)) noteRefused(sent.topic, what);
  if (isNews(sent.item, sent.topic)) dlog_print(6, "LUMO", "%s\n", what.c_str());
}

void Publisher::noteRefused(const std::string& topic, const std::string& what) {
  m_refusedTopics.insert_or_assign(topic, what);
  showRefusal();
}

void Publisher::noteTaken(const std::string& topic) {
  if (m_refusedTopics.erase(topic) != 0) showRefusal();
}

void Publisher::showRefusal() {
  std::string text = m_refusedTopics.empty() ? std::string() : m_refusedTopics.begin()->second;
  if (text == m_shownRefusal) return;
  m_service.Record().NoteRefusal(text);
  m_shownRefusal = std::move(text);
}

void Publisher::noteFarewell(const Outbox::Item& item) {
  const auto* status = std::get_if<Outbox::Status>(&item);
  m_isFarewellTaken = m_isFarewellTaken || (status != nullptr && !status->online);
}

bool Publisher::isNews(const Outbox::Item& item, const std::string& topic) {
  return std::holds_alternative<Outbox::Answer>(item) || m_troubledTopics.insert(topic).second;
}

std::optional<Publisher::Sent> Publisher::take(Token token) {
  const auto found = m_sent.find(token);
  if (found == m_sent.end()) return std::nullopt;
  Sent sent = std::move(found->second);
  m_sent.erase(found);
  m_sentBytes -= sent.bytes;
  if (m_suspect == token) m_suspect.reset();
  return sent;
}

std::size_t Publisher::limit() const {
  const std::size_t announced =
      m_client.Limits().maximumPacketSize.value_or(std::numeric_limits<std::uint32_t>::max());
  return m_learntLimit ? std::min(*m_learntLimit, announced) : announced;
}

void Publisher::learnLimit(std::size_t bytes) {
  if (bytes == 0 || bytes > limit()) return;
  m_learntLimit = bytes - 1;
  m_learntAt = Clock::now();
  dlog_print(6, "LUMO", "the broker takes less than %zu bytes at a time\n", bytes);
}

void Publisher::withdrawTooLarge() {
  for (auto it = m_sent.begin(); it != m_sent.end();) {
    const auto current = it++;
    if (current->second.bytes <= limit()) continue;
    m_client.Abandon(current->first);
    m_outbox.PutBack(take(current->first)->item);
  }
}

std::optional<Publisher::Token> Publisher::findLargestSent() const {
  std::optional<Token> largest;
  std::size_t most = 0;
  for (const Mqtt::Session::InFlight& publication : m_client.Unacknowledged()) {
    if (!publication.isSent || publication.bytes < most) continue;
    if (m_sent.count(publication.token) == 0) continue;
    largest = publication.token;
    most = publication.bytes;
  }
  return largest;
}

}  // namespace Lumo
