#include "link/Outbox.h"

#include <algorithm>
#include <utility>

namespace Lumo {

bool Outbox::Add(const Answer& answer) {
  const std::size_t bytes = countedBytes(answer);
  std::lock_guard<std::mutex> lock(m_mutex);
  const bool hasBytes = bytes == 0 || m_answerBytes < kMaxAnswerBytes;
  if (m_answers.size() >= kMaxAnswers || !hasBytes) return false;
  m_answers.push_back(answer);
  m_answerBytes += bytes;
  return true;
}

bool Outbox::IsCrowded() {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_answers.size() >= kMaxAnswers / 2 || m_answerBytes >= kMaxAnswerBytes / 2;
}

void Outbox::DescriptionChanged() {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_descriptionWaits = true;
}

void Outbox::ValueChanged(const std::string& property) {
  std::lock_guard<std::mutex> lock(m_mutex);
  addValue(property);
}

void Outbox::ValueRemoved(const std::string& property) {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_retained.count(property) != 0) {
    addValue(property);
    return;
  }
  const auto waiting = std::find(m_values.begin(), m_values.end(), property);
  if (waiting != m_values.end()) m_values.erase(waiting);
}

void Outbox::ValueFound(const std::string& property) {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_retained.size() >= kMaxFoundValues) return;
  m_retained.insert(property);
  addValue(property);
}

void Outbox::StatusChanged(bool online) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_status = online;
}

std::optional<Outbox::Item> Outbox::Next() {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (std::optional<Item> answer = takeAnswer()) return answer;
  if (std::exchange(m_descriptionWaits, false)) return Description{};
  if (!m_values.empty()) {
    std::string property = std::move(m_values.front());
    m_values.pop_front();
    const bool mayBeRetained = !m_retained.insert(property).second;
    return Value{std::move(property), mayBeRetained};
  }
  const std::optional<bool> status = std::exchange(m_status, std::nullopt);
  if (status) return Status{*status};
  return std::nullopt;
}

std::optional<Outbox::Item> Outbox::NextAnswer() {
  std::lock_guard<std::mutex> lock(m_mutex);
  return takeAnswer();
}

void Outbox::ValueDropped(const std::string& property) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_retained.erase(property);
}

void Outbox::PutBack(Item item) {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (auto* answer = std::get_if<Answer>(&item)) {
    m_answerBytes += countedBytes(*answer);
    m_answers.push_front(std::move(*answer));
  } else if (std::holds_alternative<Description>(item)) {
    m_descriptionWaits = true;
  } else if (const auto* value = std::get_if<Value>(&item)) {
    m_retained.insert(value->property);
    addValue(value->property);
  } else if (!m_status) {
    m_status = std::get<Status>(item).online;
  }
}

void Outbox::addValue(const std::string& property) {
  if (std::find(m_values.begin(), m_values.end(), property) != m_values.end()) return;
  m_values.push_back(property);
}

std::optional<Outbox::Item> Outbox::takeAnswer() {
  if (m_answers.empty()) return std::nullopt;
  Answer answer = std::move(m_answers.front());
  m_answers.pop_front();
  m_answerBytes -= countedBytes(answer);
  return answer;
}

std::size_t Outbox::countedBytes(const Answer& answer) {
  return answer.payload.size() <= kMaxShortAnswerBytes ? 0 : answer.payload.size();
}

}  // namespace Lumo
