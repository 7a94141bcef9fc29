#ifndef TESTS_CAMPAIGN_SETLEDGER_H
#define TESTS_CAMPAIGN_SETLEDGER_H

#include <cstddef>
#include <vector>

// What became of numbered sets: which of them were events, how often, and in which order. One
// thread uses it.
class SetLedger {
 public:
  // Why a set that is no event is none.
  enum class Fate {
    Open,
    Refused,       // it was answered with an error, so that who sent it knows
    Unheard,       // it was answered with success when the bus's side had ended already
    BrokerForgot,  // the broker had taken it, and was then killed with all that it remembered
    Lost
  };

  // Returns the new set's number.
  std::size_t Send() {
    m_sets.emplace_back();
    return m_sets.size() - 1;
  }
  // Returns false for a number that was never sent.
  bool Event(std::size_t number) {
    if (number >= m_sets.size()) return false;
    Set& set = m_sets[number];
    if (set.events++ == 0) set.isMisordered = number < m_end;
    if (number >= m_end) m_end = number + 1;
    return true;
  }
  void SetFate(std::size_t number, Fate fate) { m_sets.at(number).fate = fate; }

  std::size_t Sent() const { return m_sets.size(); }
  bool IsEvent(std::size_t number) const { return m_sets.at(number).events > 0; }

  // Of the sets from this number on.
  struct Counts {
    std::size_t sent = 0;
    std::size_t events = 0;  // sets that were events
    std::size_t refused = 0;
    std::size_t unheard = 0;
    std::size_t forgotten = 0;
    std::size_t lost = 0;
    std::size_t doubled = 0;      // sets that were events more than once
    std::size_t repetitions = 0;  // events too many
    std::size_t misordered = 0;   // sets that were first events after a later one was

    Counts& operator+=(const Counts& other) {
      for (auto count :
           {&Counts::sent, &Counts::events, &Counts::refused, &Counts::unheard, &Counts::forgotten,
            &Counts::lost, &Counts::doubled, &Counts::repetitions, &Counts::misordered}) {
        this->*count += other.*count;
      }
      return *this;
    }
  };
  Counts CountFrom(std::size_t first) const {
    Counts counts;
    for (std::size_t number = first; number < m_sets.size(); ++number) {
      const Set& set = m_sets[number];
      ++counts.sent;
      if (set.isMisordered) ++counts.misordered;
      if (set.events > 1) ++counts.doubled;
      if (set.events > 1) counts.repetitions += set.events - 1;
      ++(set.events > 0                   ? counts.events
         : set.fate == Fate::Refused      ? counts.refused
         : set.fate == Fate::Unheard      ? counts.unheard
         : set.fate == Fate::BrokerForgot ? counts.forgotten
                                          : counts.lost);
    }
    return counts;
  }

 private:
  struct Set {
    std::size_t events = 0;
    bool isMisordered = false;
    Fate fate = Fate::Open;
  };

  std::vector<Set> m_sets;
  std::size_t m_end = 0;  // one behind the last set that was an event
};

#endif  // TESTS_CAMPAIGN_SETLEDGER_H
