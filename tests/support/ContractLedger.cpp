#include "ContractLedger.h"

#include <algorithm>
#include <charconv>
#include <exception>
#include <functional>

namespace {

constexpr std::size_t kMaxViolations = 100;
// Of those before, an answer is one to a request that was missed.
constexpr std::size_t kMaxRequests = 200'000;
// No repetition comes so late.
constexpr std::size_t kMaxSequences = 1000;
constexpr std::size_t kShownOfPayload = 200;

std::string show(const Contract::Message& message) {
  std::string shown = std::string(message.topic) + " '";
  for (const char letter : message.payload.substr(0, kShownOfPayload)) {
    const bool isPlain = static_cast<unsigned char>(letter) >= ' ';
    shown += isPlain ? letter : '?';
  }
  return shown + (message.payload.size() > kShownOfPayload ? "…'" : "'");
}

std::string textOr(const std::string* text) {
  return text == nullptr ? std::string() : *text;
}

}  // namespace

void ContractLedger::Take(const Contract::Message& message) {
  try {
    take(message);
  } catch (const std::exception& error) {
    complain(show(message), error.what());
  }
}

void ContractLedger::take(const Contract::Message& message) {
  const Contract::Verdict verdict = m_contract.Judge(message);
  if (verdict.channel.empty()) {
    takeAnswer(message);
    return;
  }
  if (!verdict.message.empty()) ++m_seen[verdict.message];
  if (verdict.isRequest) {
    noteRequest(message, !verdict.message.empty());
    return;
  }
  for (const std::string& fault : verdict.faults) complain(show(message), fault);
  if (verdict.channel == "value") judgeSequence(message);
}

void ContractLedger::TakeBesidesPayload(const std::string& channel, const std::string& name,
                                        const Contract::Message& message) {
  for (const std::string& fault : m_contract.FaultsBesidesPayload(channel, name, message)) {
    complain(show(message), fault);
  }
  if (channel == "value") judgeSequence(message);
}

std::vector<std::string> ContractLedger::TakeViolations() {
  for (const Answer& answer : m_early) judgeUnasked(answer);
  m_early.clear();
  std::vector<std::string> violations = std::exchange(m_violations, {});
  if (m_moreViolations > 0) {
    violations.push_back("and " + std::to_string(std::exchange(m_moreViolations, 0)) + " more");
  }
  return violations;
}

void ContractLedger::noteRequest(const Contract::Message& message, bool fits) {
  if (!message.properties.responseTopic) return;
  const Key key{*message.properties.responseTopic, message.properties.correlationData};
  const auto [place, isNew] = m_requests.try_emplace(key);
  (fits ? place->second.someFit : place->second.someDoNot) = true;
  if (isNew) {
    m_answerTopics.insert(key.first);
    m_requestsInOrder.push_back(key);
    if (m_requestsInOrder.size() > kMaxRequests) {
      m_requests.erase(m_requestsInOrder.front());
      m_requestsInOrder.pop_front();
      m_hasGap = true;
    }
  }
  const auto isTheirs = [&key](const Answer& answer) { return answer.key == key; };
  for (const Answer& answer : m_early) {
    if (isTheirs(answer)) judgeAnswer(answer, place->second);
  }
  m_early.erase(std::remove_if(m_early.begin(), m_early.end(), isTheirs), m_early.end());
}

void ContractLedger::takeAnswer(const Contract::Message& message) {
  const Contract::Verdict verdict = m_contract.JudgeAnswer(message);
  Answer answer{{std::string(message.topic), message.properties.correlationData},
                verdict.message == "result",
                verdict.message == "error" && m_contract.BlamesPayload(message.payload),
                !verdict.message.empty(),
                verdict.faults,
                show(message)};
  if (answer.isAnswer) ++m_seen[verdict.message];
  const auto requests = m_requests.find(answer.key);
  if (requests == m_requests.end()) {
    m_early.push_back(std::move(answer));
  } else {
    judgeAnswer(answer, requests->second);
  }
}

void ContractLedger::judgeAnswer(const Answer& answer, const Requests& requests) {
  for (const std::string& fault : answer.faults) complain(answer.shown, fault);
  if (answer.isResult && !requests.someFit) {
    complain(answer.shown, "a request that the contract does not have is carried out");
  }
  if (answer.blamesPayload && !requests.someDoNot) {
    complain(answer.shown, "a request of the contract is refused");
  }
}

void ContractLedger::judgeUnasked(const Answer& answer) {
  const bool isOfThing = answer.key.first.rfind("things/", 0) == 0;
  const bool mayBeMissed = m_hasGap && answer.isAnswer && !isOfThing;
  if (!mayBeMissed && m_answerTopics.count(answer.key.first) == 0) {
    complain(answer.shown, "a topic that the contract does not have");
    return;
  }
  for (const std::string& fault : answer.faults) complain(answer.shown, fault);
  if (mayBeMissed) {
    ++m_unmatched;
  } else {
    complain(answer.shown, "an answer to no request");
  }
}

void ContractLedger::judgeSequence(const Contract::Message& message) {
  const std::string* const text = message.properties.UserProperty("sequence");
  const std::string* const run = message.properties.UserProperty("run");
  if (text == nullptr || run == nullptr) return;
  std::uint64_t sequence = 0;
  std::from_chars(text->data(), text->data() + text->size(), sequence);
  const std::size_t content = std::hash<std::string>()(
      textOr(message.properties.UserProperty("time")) + std::string(message.payload));
  Sequences& sequences = m_sequences[{std::string(message.topic), *run}];
  const auto same = sequences.find(sequence);
  if (same != sequences.end()) {
    if (same->second != content) complain(show(message), "another value of sequence " + *text);
    return;
  }
  if (!sequences.empty() && sequence < sequences.rbegin()->first) {
    // Older than all that are kept: it may have been seen.
    if (sequences.size() == kMaxSequences && sequence < sequences.begin()->first) return;
    complain(show(message), "the sequence goes back to " + *text);
  }
  sequences.emplace(sequence, content);
  if (sequences.size() > kMaxSequences) sequences.erase(sequences.begin());
}

void ContractLedger::complain(const std::string& shown, const std::string& fault) {
  if (m_violations.size() < kMaxViolations) {
    m_violations.push_back(shown + ": " + fault);
  } else {
    ++m_moreViolations;
  }
}
