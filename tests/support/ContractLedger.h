#ifndef TESTS_SUPPORT_CONTRACTLEDGER_H
#define TESTS_SUPPORT_CONTRACTLEDGER_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Contract.h"

// Holds the messages of a broker, as they come, against the contract: each by itself, answers
// against their requests, and values against those before them.
//
// A request may break the contract. It is then not answered with a result; and one that keeps it is
// not refused as if it did not. An answer may come before its request does, which takes longer at
// QoS 2. Any message may come again. One thread uses it at a time.
class ContractLedger {
 public:
  // The contract lives longer.
  explicit ContractLedger(const Contract& contract) : m_contract(contract) {}

  // What keeps the contract from judging it is a violation, too.
  void Take(const Contract::Message& message);
  // A message of the thing whose payload is not held against a schema, as another service has other
  // ones: what it is, by the names in the contract, and its MQTT properties must fit.
  void TakeBesidesPayload(const std::string& channel, const std::string& name,
                          const Contract::Message& message);
  // Messages may have been missed before this. From now on an answer may have a request that was
  // not seen; it must still be one.
  void NoteGap() { m_hasGap = true; }
  // What was wrong since the last time, a line for each fault. Every answer must have its request
  // now.
  std::vector<std::string> TakeViolations();

  // How often each message was seen, by its name.
  const std::map<std::string, std::size_t>& Seen() const { return m_seen; }
  // Answers whose requests were missed.
  std::size_t Unmatched() const { return m_unmatched; }

 private:
  using Key = std::pair<std::string, std::optional<std::string>>;  // topic and correlation

  // All requests with one key.
  struct Requests {
    bool someFit = false;
    bool someDoNot = false;
  };
  struct Answer {
    Key key;
    bool isResult;
    bool blamesPayload;
    bool isAnswer;  // its payload is one
    std::vector<std::string> faults;
    std::string shown;  // the message, for a line
  };
  // The values of a property in a run: what each sequence number was seen with.
  using Sequences = std::map<std::uint64_t, std::size_t>;

  void take(const Contract::Message& message);
  void noteRequest(const Contract::Message& message, bool fits);
  void takeAnswer(const Contract::Message& message);
  void judgeAnswer(const Answer& answer, const Requests& requests);
  void judgeUnasked(const Answer& answer);
  void judgeSequence(const Contract::Message& message);
  void complain(const std::string& shown, const std::string& fault);

  const Contract& m_contract;
  std::map<Key, Requests> m_requests;
  std::deque<Key> m_requestsInOrder;
  std::set<std::string> m_answerTopics;
  std::deque<Answer> m_early;                                            // without a request so far
  std::map<std::pair<std::string, std::string>, Sequences> m_sequences;  // by topic and run
  std::map<std::string, std::size_t> m_seen;
  std::vector<std::string> m_violations;
  std::size_t m_moreViolations = 0;  // that are not among them
  std::size_t m_unmatched = 0;
  bool m_hasGap = false;
};

#endif  // TESTS_SUPPORT_CONTRACTLEDGER_H
