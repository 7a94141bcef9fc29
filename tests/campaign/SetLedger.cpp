#include "SetLedger.h"

std::size_t SetLedger::Send() {
  m_sets.emplace_back();
  return m_sets.size() - 1;
}

bool SetLedger::Event(std::size_t number) {
  if (number >= m_sets.size()) return false;
  Set& set = m_sets[number];
  if (set.events++ == 0) set.isMisordered = number < m_end;
  if (number >= m_end) m_end = number + 1;
  return true;
}

SetLedger::Counts SetLedger::CountFrom(std::size_t first) const {
  Counts counts;
  for (std::size_t number = first; number < m_sets.size(); ++number) {
    const Set& set = m_sets[number];
    ++counts.sent;
    if (set.isMisordered) ++counts.misordered;
    if (set.events > 1) ++counts.doubled;
    if (set.events > 0) {
      ++counts.events;
      counts.repetitions += set.events - 1;
    } else if (set.fate == Fate::Refused) {
      ++counts.refused;
    } else if (set.fate == Fate::Unheard) {
      ++counts.unheard;
    } else if (set.fate == Fate::BrokerForgot) {
      ++counts.forgotten;
    } else {
      ++counts.lost;
    }
  }
  return counts;
}

SetLedger::Counts& SetLedger::Counts::operator+=(const Counts& other) {
  sent += other.sent;
  events += other.events;
  refused += other.refused;
  unheard += other.unheard;
  forgotten += other.forgotten;
  lost += other.lost;
  doubled += other.doubled;
  repetitions += other.repetitions;
  misordered += other.misordered;
  return *this;
}
