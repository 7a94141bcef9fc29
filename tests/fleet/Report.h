#ifndef TESTS_FLEET_REPORT_H
#define TESTS_FLEET_REPORT_H

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

#include "Fleet.h"
#include "Scenarios.h"

namespace Fleet {

// What a run shows while it goes on, its table, and its file. One thread uses it.
class Report {
 public:
  struct Head {
    std::string command;
    std::size_t televisions = 0;
    std::size_t workers = 0;
    double rate = 0;
    std::size_t seed = 0;
    bool usesTls = false;
    bool isWhole = false;  // all scenarios
  };

  explicit Report(Head head);

  // The line of this second: one that stays in its place on a terminal, where a start also has a
  // bar; elsewhere there is one for ten seconds.
  void Show(const Fleet::Second& second);
  // Ends the line, and says whether the promises were kept.
  void Show(const Outcome& outcome);
  // All figures of all scenarios. `failure`: why the run ended early, or empty.
  void PrintTable(const std::string& failure) const;
  bool AreAllKept() const;
  // Writes results.json; after all scenarios the same as results-<televisions>.json, so that fleets
  // of several sizes can be compared. Throws std::exception.
  void Write(const std::filesystem::path& folder, const std::string& failure) const;

 private:
  const Head m_head;
  const std::string m_date;
  const bool m_isTerminal;
  bool m_hasLine = false;
  std::vector<Fleet::Second> m_seconds;
  std::vector<Outcome> m_outcomes;
};

}  // namespace Fleet

#endif  // TESTS_FLEET_REPORT_H
