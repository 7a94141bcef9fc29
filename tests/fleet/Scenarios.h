#ifndef TESTS_FLEET_SCENARIOS_H
#define TESTS_FLEET_SCENARIOS_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "Fleet.h"

namespace Fleet {

// What came of a scenario.
struct Outcome {
  std::string name;
  double seconds = 0;
  std::vector<std::string> broken;  // promises that were not kept, a line each
  std::vector<std::pair<std::string, double>> figures;

  void Add(const std::string& figure, double value) { figures.emplace_back(figure, value); }
};

// What a fleet is put through. A scenario leaves all televisions online and right, or says so. One
// thread uses it: the fleet's.
class Scenarios {
 public:
  struct Settings {
    std::optional<double> seconds;  // how long those last that have no end of their own
    double rate = 1;                // values a second of each television
    std::uint32_t seed = 1;
  };

  Scenarios(Fleet& fleet, const Settings& settings)
      : m_fleet(fleet), m_settings(settings), m_random(settings.seed) {}

  // In the order in which one fleet goes through all of them.
  static const std::vector<std::string>& Names();
  // Throws what the fleet throws.
  Outcome Run(const std::string& name);

 private:
  void start(Outcome& outcome);
  void idle(Outcome& outcome);
  void values(Outcome& outcome);
  void sets(Outcome& outcome);
  void workers(Outcome& outcome);
  void brokerKilled(Outcome& outcome);
  void killBroker(Outcome& outcome, bool withMemory);
  void churn(Outcome& outcome);
  void network(Outcome& outcome);

  double length(double usual) const { return m_settings.seconds.value_or(usual); }
  // For what has no limit of its own: far more than enough.
  double patience() const { return 60 + 0.3 * static_cast<double>(m_fleet.Size()); }
  double perTelevision(std::int64_t sum) const {
    return static_cast<double>(sum) / static_cast<double>(m_fleet.Size());
  }
  std::size_t between(std::size_t begin, std::size_t end) {  // begins at `begin`, ends before `end`
    return begin + m_random() % (end - begin);
  }

  void addMemory(Outcome& outcome) const;
  void addUse(Outcome& outcome, const Fleet::Use& before, const Fleet::Use& after,
              double perSeconds) const;
  // Values at the rate, of televisions that are up; calls `also` all the time.
  void sendValues(double seconds, const std::function<void(double elapsed)>& also = {});
  // Waits until everything is right.
  void expectRight(Outcome& outcome, double seconds, const std::string& when);
  // All that were sent were delivered, or a gap says so. What a connection that broke had not
  // acknowledged comes again, also after a newer one; without that few may be replaced.
  enum class Network { Sound, Broken };
  void expectValues(Outcome& outcome, Network network);
  // From this set on: exactly once, and answered.
  void expectSets(Outcome& outcome, std::size_t first);
  // What a new client gets is what should be.
  void expectRetained(Outcome& outcome);
  // The most connects in a second that random delays within the windows lead to.
  std::size_t mostConnects(double outage);

  Fleet& m_fleet;
  const Settings m_settings;
  std::mt19937 m_random;
};

}  // namespace Fleet

#endif  // TESTS_FLEET_SCENARIOS_H
