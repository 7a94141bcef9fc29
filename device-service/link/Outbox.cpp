#include "link/Outbox.h"

#include <algorithm>
#include <utility>

namespace Lumo {

bool Outbox::Add(const Answer& answer) {
  const bool isShort = answer.payload.size() <= kMaxShortPayloadBytes;
  const std::size_t room = kMaxAnswerBytes + (isShort ? kRoomForShortAnswers : 0);
  LockGuard lock(m_mutex);
  if (m_answerBytes >= room || (!isShort && m_answerCount >= kMaxAnswers)) return false;
  m_answers.push_back(answer);
  ++m_answerCount;
  m_answerBytes += countedBytes(answer);
  return true;
}

std::size_t Outbox::CountAnswers() {
  LockGuard lock(m_mutex);
  return m_answerCount;
}

bool Outbox::IsCrowded() {
  LockGuard lock(m_mutex);
  return m_answerCount >= kMaxAnswers / 2 || m_answerBytes >= kMaxAnswerBytes / 2;
}

void Outbox::DescriptionChanged() {
  LockGuard lock(m_mutex);
  m_description = Description{};
}

void Outbox::ValueChanged(const std::string& property) {
  LockGuard lock(m_mutex);
  addValue(property, 0);
}

void Outbox::ValueRemoved(const std::string& property) {
  LockGuard lock(m_mutex);
  if (m_retained.count(property) != 0) {
    addValue(property, 0);
    return;
  }
  const auto waiting =
      std::find_if(m_values.begin(), m_values.end(),
                   [&property](const WaitingValue& value) { return value.property == property; });
  if (waiting != m_values.end()) m_values.erase(waiting);
}

void Outbox::ValueFound(const std::string& property) {
  LockGuard lock(m_mutex);
  if (m_retained.size() >= kMaxFoundValues) return;
  m_retained.insert(property);
  addValue(property, 0);
}

void Outbox::HealthChanged() {
  LockGuard lock(m_mutex);
  if (!m_isHealthDelayed) m_health = Health{};
}

void Outbox::StatusChanged(bool online) {
  LockGuard lock(m_mutex);
  m_status = Status{online};
}

std::optional<Outbox::Item> Outbox::Next() {
  LockGuard lock(m_mutex);
  if (std::optional<Item> answer = takeAnswer()) return answer;
  if (m_description) return *std::exchange(m_description, std::nullopt);
  if (!m_values.empty()) {
    WaitingValue value = std::move(m_values.front());
    m_values.pop_front();
    const bool mayBeRetained = !m_retained.insert(value.property).second;
    return Value{std::move(value.property), mayBeRetained, value.refusals};
  }
  if (m_health) return *std::exchange(m_health, std::nullopt);
  if (m_status) return *std::exchange(m_status, std::nullopt);
  return std::nullopt;
}

std::optional<Outbox::Item> Outbox::NextAnswer() {
  LockGuard lock(m_mutex);
  return takeAnswer();
}

void Outbox::ValueDropped(const std::string& property) {
  LockGuard lock(m_mutex);
  m_retained.erase(property);
}

void Outbox::PutBack(Item item) {
  LockGuard lock(m_mutex);
  if (const auto* answer = std::get_if<Answer>(&item)) {
    ++m_answerCount;
    m_answerBytes += countedBytes(*answer);
  }
  putBack(std::move(item));
}

void Outbox::Delay(Item item, Clock::time_point due) {
  LockGuard lock(m_mutex);
  if (const auto* answer = std::get_if<Answer>(&item)) {
    ++m_answerCount;
    m_answerBytes += countedBytes(*answer);
  }
  if (std::holds_alternative<Health>(item)) {
    if (std::exchange(m_isHealthDelayed, true)) return;
    m_health.reset();
  }
  m_delayed.emplace(due, std::move(item));
}

Outbox::Clock::time_point Outbox::ReleaseDelayed(Clock::time_point now) {
  LockGuard lock(m_mutex);
  while (!m_delayed.empty() && m_delayed.begin()->first <= now) {
    Item item = std::move(m_delayed.begin()->second);
    m_delayed.erase(m_delayed.begin());
    if (std::holds_alternative<Health>(item)) m_isHealthDelayed = false;
    putBack(std::move(item));
  }
  return m_delayed.empty() ? Clock::time_point::max() : m_delayed.begin()->first;
}

void Outbox::putBack(Item item) {
  if (auto* answer = std::get_if<Answer>(&item)) {
    m_answers.push_front(std::move(*answer));
  } else if (const auto* description = std::get_if<Description>(&item)) {
    if (!m_description) m_description = *description;
  } else if (const auto* value = std::get_if<Value>(&item)) {
    m_retained.insert(value->property);
    addValue(value->property, value->refusals);
  } else if (const auto* health = std::get_if<Health>(&item)) {
    if (!m_health && !m_isHealthDelayed) m_health = *health;
  } else if (!m_status) {
    m_status = std::get<Status>(item);
  }
}

void Outbox::addValue(const std::string& property, unsigned refusals) {
  const auto isIt = [&property](const WaitingValue& value) { return value.property == property; };
  if (std::any_of(m_values.begin(), m_values.end(), isIt)) return;
  m_values.push_back({property, refusals});
}

std::optional<Outbox::Item> Outbox::takeAnswer() {
  if (m_answers.empty()) return std::nullopt;
  Answer answer = std::move(m_answers.front());
  m_answers.pop_front();
  --m_answerCount;
  m_answerBytes -= countedBytes(answer);
  return answer;
}

std::size_t Outbox::countedBytes(const Answer& answer) {
  return sizeof(Answer) + answer.topic.size() + answer.correlation.size() + answer.payload.size();
}

}  // namespace Lumo
