#ifndef DEVICE_SERVICE_LINK_OUTBOX_H
#define DEVICE_SERVICE_LINK_OUTBOX_H

#include <chrono>
#include <cstddef>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <unordered_set>
#include <variant>

#include "values/Mutex.h"

namespace Lumo {

// What waits to be published. Of a value it keeps only the property's name, so that a value that
// changes faster than it can be sent takes no memory: whoever takes the item out asks for the
// value then. Any thread.
class Outbox {
 public:
  using Clock = std::chrono::steady_clock;

  // The answer to a request.
  struct Answer {
    std::string topic;
    std::string correlation;
    std::string payload;
    unsigned refusals = 0;  // by the broker, for now
  };
  // The list of the registered properties.
  struct Description {
    unsigned refusals = 0;
  };
  // The value of a property, or that it has none any more.
  struct Value {
    std::string property;
    bool mayBeRetained;  // the broker may hold a value of it
    unsigned refusals = 0;
  };
  struct Status {
    bool online;
    unsigned refusals = 0;
  };
  // The figures of the moment when it is sent.
  struct Health {
    unsigned refusals = 0;
  };
  using Item = std::variant<Answer, Description, Value, Status, Health>;

  static constexpr std::size_t kMaxAnswers = 1024;
  // Of whole answers: topics, Correlation Data, payloads, and what an answer takes by itself.
  static constexpr std::size_t kMaxAnswerBytes = std::size_t{16} * 1024 * 1024;
  // Answers with a short payload are limited by their bytes alone and have more room, so that each
  // request can be refused even if the broker sends tens of thousands at once.
  static constexpr std::size_t kMaxShortPayloadBytes = 256;
  static constexpr std::size_t kRoomForShortAnswers = std::size_t{1024} * 1024;
  static constexpr std::size_t kMaxFoundValues = 1000;

  // False when too many answers wait, or too much in them, without this one; it is not taken then.
  bool Add(const Answer& answer);
  // Those that wait, the delayed ones, too.
  std::size_t CountAnswers();
  // Half of the room for answers is taken: whoever can do without another one should.
  bool IsCrowded();
  void DescriptionChanged();
  void ValueChanged(const std::string& property);
  // The property is registered no longer. Does nothing when the broker cannot hold a value of it.
  void ValueRemoved(const std::string& property);
  // The broker holds a value of the property, from an earlier run of the service; it waits from
  // now on. Ignored when there are too many of them.
  void ValueFound(const std::string& property);
  // Does nothing while one is delayed: that will have the figures of then.
  void HealthChanged();
  void StatusChanged(bool online);

  // Takes out what comes next: answers, then the description, then values in the order of their
  // changes, the health, and then the status, which says that all before it is there. From here on
  // the broker is expected to hold a value of the property.
  std::optional<Item> Next();
  // The next answer, whatever else waits.
  std::optional<Item> NextAnswer();
  // The broker was told to drop the property's value, or never got one.
  void ValueDropped(const std::string& property);
  // What was taken out may not have reached the broker; it comes next again.
  void PutBack(Item item);
  // The same, but it comes again at `due` only.
  void Delay(Item item, Clock::time_point due);
  // Has the items that are due by `now` come again; returns when the next one will be due, or the
  // end of time.
  Clock::time_point ReleaseDelayed(Clock::time_point now);

 private:
  void addValue(const std::string& property, unsigned refusals) REQUIRES(m_mutex);
  void putBack(Item item) REQUIRES(m_mutex);
  std::optional<Item> takeAnswer() REQUIRES(m_mutex);
  static std::size_t countedBytes(const Answer& answer);

  struct WaitingValue {
    std::string property;
    unsigned refusals;
  };

  Mutex m_mutex;
  std::deque<Answer> m_answers GUARDED_BY(m_mutex);
  std::size_t m_answerCount GUARDED_BY(m_mutex) = 0;  // the delayed ones, too
  std::size_t m_answerBytes GUARDED_BY(m_mutex) = 0;  // of those
  std::optional<Description> m_description GUARDED_BY(m_mutex);
  std::deque<WaitingValue> m_values GUARDED_BY(m_mutex);  // each property once
  // Properties that the broker may hold a value of.
  std::unordered_set<std::string> m_retained GUARDED_BY(m_mutex);
  std::optional<Health> m_health GUARDED_BY(m_mutex);  // none while one is delayed
  bool m_isHealthDelayed GUARDED_BY(m_mutex) = false;
  std::optional<Status> m_status GUARDED_BY(m_mutex);
  std::multimap<Clock::time_point, Item> m_delayed GUARDED_BY(m_mutex);  // by due time
};

}  // namespace Lumo

#endif  // DEVICE_SERVICE_LINK_OUTBOX_H
