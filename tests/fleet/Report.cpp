#include "Report.h"

#include <json/json.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <thread>
#include <utility>

namespace Fleet {

namespace {

constexpr std::size_t kQuietSeconds = 10;
const char* const kUnits =
    "Connects, handshakes, CPU, wake-ups, bytes, messages and KiB are of one television: in "
    "\"idle\" "
    "for one minute, elsewhere for the scenario. Messages are TCP segments with data. CPU and KiB "
    "of the broker are without what it takes with no television.";

std::string bar(std::size_t done, std::size_t all) {
  constexpr std::size_t kWidth = 30;
  const std::size_t filled = all == 0 ? 0 : done * kWidth / all;
  return "[" + std::string(filled, '#') + std::string(kWidth - filled, ' ') + "]";
}

Json::Value machine() {
  utsname name{};
  uname(&name);
  const auto pages = static_cast<double>(sysconf(_SC_PHYS_PAGES));
  Json::Value value;
  value["processors"] = std::thread::hardware_concurrency();
  value["memory MiB"] =
      std::round(pages * static_cast<double>(sysconf(_SC_PAGESIZE)) / (1024 * 1024));
  value["kernel"] = static_cast<const char*>(name.release);
  return value;
}

Json::Value toJson(const Outcome& outcome) {
  Json::Value value;
  value["scenario"] = outcome.name;
  value["seconds"] = outcome.seconds;
  value["kept"] = outcome.broken.empty();
  value["broken"] = Json::arrayValue;
  for (const std::string& line : outcome.broken) value["broken"].append(line);
  value["figures"] = Json::objectValue;
  for (const auto& [name, figure] : outcome.figures) value["figures"][name] = figure;
  return value;
}

}  // namespace

Report::Report(Head head)
    : m_head(std::move(head)), m_date(WallClock()), m_isTerminal(isatty(STDOUT_FILENO) != 0) {}

void Report::Show(const Fleet::Second& second) {
  m_seconds.push_back(second);
  if (!m_isTerminal && m_seconds.size() % kQuietSeconds != 0) return;
  const std::string start = second.scenario == "start" && m_isTerminal
                                ? bar(second.online, m_head.televisions) + " "
                                : "";
  std::printf("%s%5.0f s  %-13s %s%zu of %zu online, %zu values/s, %zu answers/s, broker %.0f %%%s",
              m_isTerminal ? "\r" : "", second.time, second.scenario.c_str(), start.c_str(),
              second.online, m_head.televisions, second.values, second.answers, second.brokerCpu,
              m_isTerminal ? "\033[K" : "\n");
  m_hasLine = m_isTerminal;
  static_cast<void>(std::fflush(stdout));
}

void Report::Show(const Outcome& outcome) {
  if (std::exchange(m_hasLine, false)) std::printf("\r\033[K");
  std::printf("%-14s %s (%.1f s)\n", outcome.name.c_str(),
              outcome.broken.empty() ? "kept" : "BROKEN", outcome.seconds);
  for (const std::string& line : outcome.broken) std::printf("  %s\n", line.c_str());
  static_cast<void>(std::fflush(stdout));
  m_outcomes.push_back(outcome);
}

void Report::PrintTable(const std::string& failure) const {
  std::printf("\n%-14s %-44s %12s\n", "scenario", "figure", "value");
  for (const Outcome& outcome : m_outcomes) {
    for (const auto& [name, figure] : outcome.figures) {
      std::printf("%-14s %-44s %12.2f\n", outcome.name.c_str(), name.c_str(), figure);
    }
  }
  std::printf("\n%s\n%zu televisions, %zu workers: %s\n", kUnits, m_head.televisions,
              m_head.workers,
              !failure.empty() ? "not all scenarios were run"
              : AreAllKept()   ? "every promise was kept"
                               : "promises were BROKEN:");
  for (const Outcome& outcome : m_outcomes) {
    for (const std::string& line : outcome.broken) {
      std::printf("  %s: %s\n", outcome.name.c_str(), line.c_str());
    }
  }
}

bool Report::AreAllKept() const {
  for (const Outcome& outcome : m_outcomes) {
    if (!outcome.broken.empty()) return false;
  }
  return !m_outcomes.empty();
}

void Report::Write(const std::filesystem::path& folder, const std::string& failure) const {
  Json::Value value;
  value["date"] = m_date;
  value["command"] = m_head.command;
  value["televisions"] = static_cast<Json::UInt64>(m_head.televisions);
  value["workers"] = static_cast<Json::UInt64>(m_head.workers);
  value["values a second"] = m_head.rate;
  value["seed"] = static_cast<Json::UInt64>(m_head.seed);
  value["tls"] = m_head.usesTls;
  value["machine"] = machine();
  value["units"] = kUnits;
  value["kept"] = AreAllKept() && failure.empty();
  if (!failure.empty()) value["failure"] = failure;
  value["scenarios"] = Json::arrayValue;
  for (const Outcome& outcome : m_outcomes) value["scenarios"].append(toJson(outcome));
  value["seconds"] = Json::arrayValue;
  for (const Fleet::Second& second : m_seconds) {
    Json::Value row;
    row["time"] = second.time;
    row["scenario"] = second.scenario;
    row["online"] = static_cast<Json::UInt64>(second.online);
    row["values"] = static_cast<Json::UInt64>(second.values);
    row["answers"] = static_cast<Json::UInt64>(second.answers);
    row["broker CPU %"] = second.brokerCpu;
    value["seconds"].append(row);
  }
  Json::StreamWriterBuilder builder;
  builder["indentation"] = " ";
  builder["precision"] = 6;
  const std::string text = Json::writeString(builder, value) + "\n";
  std::filesystem::create_directories(folder);
  std::vector<std::string> names{"results.json"};
  if (m_head.isWhole && failure.empty()) {
    names.push_back("results-" + std::to_string(m_head.televisions) + ".json");
  }
  for (const std::string& name : names) {
    std::ofstream file(folder / name);
    file << text;
    if (!file.flush()) throw std::runtime_error("cannot write " + (folder / name).string());
  }
}

}  // namespace Fleet
