#include "Fleet.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <fstream>
#include <sstream>
#include <system_error>
#include <utility>

#include "Protocol.h"

namespace Fleet {

namespace {

constexpr std::size_t kStartedAtOnce = 16;
constexpr int kStepMs = 5;
constexpr double kHelperPatience = 60;
constexpr double kNsPerSecond = 1e9;

volatile std::sig_atomic_t isInterrupted = 0;

int openLog(const std::filesystem::path& path) {
  const int descriptor =
      open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
  if (descriptor < 0) throw std::system_error(errno, std::generic_category(), path);
  return descriptor;
}

bool isWholeNumber(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// The text of a JSON string that has nothing to escape.
std::string textOf(const std::string& json) {
  return json.size() >= 2 ? json.substr(1, json.size() - 2) : std::string();
}

}  // namespace

std::string WallClock() {
  timeval now{};
  gettimeofday(&now, nullptr);
  tm parts{};
  gmtime_r(&now.tv_sec, &parts);
  std::array<char, 32> text{};
  std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts);
  std::array<char, 8> fraction{};
  std::snprintf(fraction.data(), fraction.size(), ".%03dZ", static_cast<int>(now.tv_usec / 1000));
  return std::string(text.data()) + fraction.data();
}

void InstallInterrupts() {
  struct sigaction action {};
  action.sa_handler = [](int) { isInterrupted = 1; };
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaction(signal, &action, nullptr);
}

Fleet::Fleet(Options options)
    : m_options(std::move(options)),
      m_startedAt(Now()),
      m_log(openLog(m_options.log)),
      m_broker("allow_anonymous true\nsys_interval 0\nmax_inflight_messages 32\n"),
      m_place{m_options.folder, m_options.host, m_options.plugin, m_log} {
  if (m_options.usesTls) {
    m_certificates = std::make_unique<Certificates>(m_options.folder, "authority");
    m_certificates->Sign("broker", "IP:127.0.0.1");
    m_certificates->Sign(Television::kCertificate, "DNS:television", "clientAuth");
  }
  // Televisions have a port of their own, so that what they cost is apart from the cloud.
  m_broker.Guard("allow_anonymous true\n" +
                 (m_certificates
                      ? "require_certificate true\n" + m_certificates->ListenerLines("broker")
                      : std::string()));
  for (std::size_t i = 0; i < m_options.televisions; ++i) {
    m_televisions.push_back(std::make_unique<Television>(i, m_place));
    m_televisions.back()->port = TelevisionPort();
    m_indexes[m_televisions.back()->Id()] = i;
  }
  m_apps = startHelper({m_options.helpers / "fleet-apps"});
  m_observer = startObserver();
  m_workers.resize(m_options.workers);
  for (std::size_t i = 0; i < m_workers.size(); ++i) StartWorker(i);
  const auto areUp = [this] {
    return m_areAppsUp && m_isObserverUp &&
           std::all_of(m_workers.begin(), m_workers.end(),
                       [](const Worker& worker) { return worker.view.isUp; });
  };
  if (!RunUntil(areUp, kHelperPatience)) throw std::runtime_error("the helpers do not start");
  m_brokerMemoryAlone = OwnMemoryOf(m_broker.Pid());
  constexpr double kAlone = 3;
  const std::int64_t cpu = CpuOf(m_broker.Pid());
  RunFor(kAlone);
  m_brokerCpuAlone = static_cast<double>(CpuOf(m_broker.Pid()) - cpu) / kAlone;
}

Fleet::~Fleet() {
  // All of them first: they end at the same time.
  for (const auto& television : m_televisions) {
    television->SignalHost(SIGKILL);
    if (television->Bus() != 0) kill(television->Bus(), SIGKILL);
  }
  m_televisions.clear();
  close(m_log);
}

std::unique_ptr<Helper> Fleet::startHelper(std::vector<std::string> command) {
  return std::make_unique<Helper>(std::move(command), m_log);
}

std::unique_ptr<Helper> Fleet::startObserver() {
  return startHelper({m_options.helpers / "fleet-worker", std::to_string(m_broker.Port()),
                      "observer", "things/+/status", "things/+/appdatachannel/properties",
                      "things/+/appdatachannel/value/+"});
}

void Fleet::StartWorker(std::size_t worker) {
  Worker& started = m_workers.at(worker);
  started.view = WorkerView();
  started.isKilled = false;
  started.helper = startHelper({m_options.helpers / "fleet-worker", std::to_string(m_broker.Port()),
                                "worker" + std::to_string(worker), "things/+/status",
                                "things/+/appdatachannel/properties",
                                "$share/workers/things/+/appdatachannel/value/+"});
}

void Fleet::KillWorker(std::size_t worker) {
  Worker& killed = m_workers.at(worker);
  if (!killed.helper) return;
  killed.isKilled = true;
  killed.helper->Kill();
  // What it has said before belongs to it.
  while (!killed.helper->HasEnded()) takeLines();
  killed.helper.reset();
  killed.view.isUp = false;
}

void Fleet::Step() {
  if (isInterrupted != 0) throw Interrupted();
  std::vector<pollfd> polled;
  const auto poll1 = [&polled](const Helper* helper) {
    if (helper == nullptr) return;
    polled.push_back({helper->Descriptor(),
                      static_cast<short>(POLLIN | (helper->HasWaiting() ? POLLOUT : 0)), 0});
  };
  poll1(m_apps.get());
  poll1(m_observer.get());
  for (const Worker& worker : m_workers) poll1(worker.helper.get());
  poll(polled.data(), polled.size(), kStepMs);
  takeLines();
  bringUp();
  if (Now() >= m_nextSecond) tellSecond();
}

bool Fleet::RunUntil(const std::function<bool()>& condition, double seconds) {
  const std::int64_t deadline = Now() + static_cast<std::int64_t>(seconds * kNsPerSecond);
  while (!condition()) {
    if (Now() > deadline) return false;
    Step();
  }
  return true;
}

void Fleet::RunFor(double seconds) {
  RunUntil([] { return false; }, seconds);
}

void Fleet::takeLines() {
  const auto take = [](Helper* helper, const char* name, auto&& onLine) {
    if (helper == nullptr) return;
    helper->Flush();
    const std::vector<std::string> lines = helper->Receive();
    for (const std::string& line : lines) onLine(Split(line, '\t'));
    if (helper->HasEnded() && name != nullptr) {
      throw std::runtime_error(std::string(name) + " has ended; the log may say why");
    }
  };
  take(m_apps.get(), "the applications' process",
       [this](const std::vector<std::string>& words) { takeAppLine(words); });
  take(m_observer.get(), "the observer",
       [this](const std::vector<std::string>& words) { takeObserverLine(words); });
  for (std::size_t i = 0; i < m_workers.size(); ++i) {
    take(m_workers[i].helper.get(), m_workers[i].isKilled ? nullptr : "a worker",
         [this, i](const std::vector<std::string>& words) { takeWorkerLine(i, words); });
  }
}

void Fleet::takeAppLine(const std::vector<std::string>& words) {
  if (words[0] == "up") {
    m_areAppsUp = true;
    return;
  }
  Television& television = At(std::stoul(words.at(1)));
  if (words[0] == "ready") {
    television.isAppReady = true;
  } else if (words[0] == "sending") {
    television.appCount = std::stoul(words.at(2));
    television.appData = words.at(2) + ":" + words.at(3);
    ++m_values.sent;
  } else if (words[0] == "event") {
    const std::string& data = words.at(2);
    const std::string number = data.empty() ? data : data.substr(1);
    if (!isWholeNumber(number) || std::stoul(number) >= m_sets.size() ||
        &At(m_sets[std::stoul(number)].television) != &television) {
      m_errors.push_back(television.Id() + ": an event that nobody sent to it: " + data);
    } else {
      ++m_sets[std::stoul(number)].events;
      if (std::stoul(number) < television.lastEvent) {
        m_errors.push_back(television.Id() + ": an event out of order: " + data);
      }
      television.lastEvent = std::stoul(number);
    }
  } else if (words[0] == "error") {
    m_errors.push_back(television.Id() + ": " + words.at(2));
  }
}

Television* Fleet::televisionOf(const std::string& topic, std::string& rest) {
  static const std::string kThings = "things/";
  if (topic.rfind(kThings, 0) != 0) return nullptr;
  const auto end = topic.find('/', kThings.size());
  const auto index = m_indexes.find(topic.substr(kThings.size(), end - kThings.size()));
  if (end == std::string::npos || index == m_indexes.end()) return nullptr;
  rest = topic.substr(end + 1);
  return &At(index->second);
}

// TIME FLAGS TOPIC CORRELATION RUN SEQUENCE MADE PAYLOAD follow the first word.
void Fleet::takeObserverLine(const std::vector<std::string>& words) {
  if (words[0] == "up") m_isObserverUp = true;
  if (words[0] != "message") return;
  std::string rest;
  Television* const television = televisionOf(words.at(3), rest);
  if (television == nullptr) {
    m_errors.push_back("a message of nobody's: " + words[3]);
    return;
  }
  Television::Seen& seen = television->seen;
  const std::string& payload = words.at(8);
  if (rest == "status") {
    ++seen.statusMessages;
    seen.status = payload;
    seen.statusRun = words[5];
    seen.statusTime = words[7];
    seen.statusAt = std::stoll(words[1]);
  } else if (rest == "appdatachannel/properties") {
    seen.propertiesRun = words[5];
    seen.hasApp = payload.find("\"" + std::string(kApp) + "\":") != std::string::npos;
  } else if (rest == std::string("appdatachannel/value/") + kApp) {
    takeValue(*television, words);
  } else {
    m_errors.push_back("a message of no application: " + words[3]);
  }
}

void Fleet::takeValue(Television& television, const std::vector<std::string>& words) {
  Television::Seen& seen = television.seen;
  const std::string& payload = words[8];
  if (payload.empty()) {
    seen.value.clear();
    seen.valueRun.clear();
    seen.sequence = 0;
    return;
  }
  const std::string data = textOf(payload);
  const auto parts = Split(data, ':');
  const bool isRetained = words[2].find('r') != std::string::npos;
  if (!isWholeNumber(words[6]) || parts.at(0) != words[6]) {
    ++m_values.misnumbered;
    return;
  }
  const std::size_t sequence = std::stoul(words[6]);
  const bool isSameRun = words[5] == seen.valueRun;
  if (isSameRun && sequence <= seen.sequence) {
    if (isRetained || sequence == seen.sequence) {
      ++m_values.repeated;
    } else {
      ++m_values.backwards;
    }
    return;
  }
  if (isSameRun) m_values.skipped += sequence - seen.sequence - 1;
  ++m_values.delivered;
  ++m_valuesInSecond;
  if (parts.size() == 3 && parts[1] == "v" && !isRetained && isWholeNumber(parts[2])) {
    m_values.delaysMs.push_back(static_cast<double>(std::stoll(words[1]) - std::stoll(parts[2])) /
                                1e6);
  }
  seen.value = data;
  seen.valueRun = words[5];
  seen.sequence = sequence;
}

void Fleet::takeWorkerLine(std::size_t worker, const std::vector<std::string>& words) {
  Worker& from = m_workers[worker];
  const std::string& kind = words[0];
  if (kind == "up") from.view.isUp = true;
  if (kind == "connected") from.view.hadSession = words.at(1) == "1";
  if (kind == "published") m_sets.at(std::stoul(words.at(2))).sentAt = std::stoll(words[1]);
  if (kind == "settled") from.settled.insert(words.at(1));
  if (kind != "message") return;
  const std::string& flags = words.at(2);
  const std::string& topic = words.at(3);
  const bool isShared = flags.find('s') != std::string::npos;
  const bool isRetained = flags.find('r') != std::string::npos;
  if (topic.rfind("answers/", 0) == 0) {
    takeAnswer(worker, words);
  } else if (isShared && isRetained) {
    ++from.view.retainedByShare;
  } else if (isShared && keepsShares && isWholeNumber(words[6])) {
    std::string rest;
    const Television* const television = televisionOf(topic, rest);
    if (television == nullptr) return;
    shares.push_back({m_indexes[television->Id()], words[5], std::stoul(words[6]), worker,
                      std::stoll(words[1])});
  } else if (isRetained) {
    std::string rest;
    const Television* const television = televisionOf(topic, rest);
    if (television != nullptr && rest == "status") {
      from.view.retainedStatus.insert(television->Id());
    }
  }
}

void Fleet::takeAnswer(std::size_t worker, const std::vector<std::string>& words) {
  const std::string& number = words.at(4);
  if (!isWholeNumber(number) || std::stoul(number) >= m_sets.size()) {
    m_errors.push_back("an answer to no set: " + number);
    return;
  }
  Set& set = m_sets[std::stoul(number)];
  if (set.worker != worker) ++m_workers[worker].view.answersToOthers;
  ++set.answers;
  ++m_answersInSecond;
  if (set.answeredAt == 0) set.answeredAt = std::stoll(words[1]);
  if (words.at(8).rfind("{\"result\":0,", 0) != 0) {
    ++set.refusals;
    m_errors.push_back(At(set.television).Id() + ": a set is answered with " + words[8]);
  }
}

void Fleet::bringUp() {
  std::size_t starting = 0;
  for (std::size_t i = 0; i < Size(); ++i) {
    Television& television = At(i);
    using Stage = Television::Stage;
    if (television.stage == Stage::kBus || television.stage == Stage::kHost) {
      advance(i);
      if (television.stage != Stage::kUp) ++starting;
    }
    if (television.stage != Stage::kOff && television.HasFailed()) {
      throw std::runtime_error("a process of " + television.Id() + " has ended by itself");
    }
  }
  if (!m_broker.IsRunning()) return;
  for (std::size_t i = 0; i < Size() && starting < kStartedAtOnce; ++i) {
    Television& television = At(i);
    if (television.stage != Television::Stage::kOff || !television.isWanted) continue;
    television.StartBus();
    television.stage = Television::Stage::kBus;
    television.changedAt = Now();
    ++starting;
  }
}

void Fleet::advance(std::size_t index) {
  Television& television = At(index);
  if (television.stage == Television::Stage::kBus && television.HasBus()) {
    television.StartHost(addressAt(television.port), m_certificates.get());
    if (television.hasApp) joinApp(index);
    television.stage = Television::Stage::kHost;
  }
  if (television.stage == Television::Stage::kHost && IsRight(index)) {
    television.stage = Television::Stage::kUp;
  }
}

std::string Fleet::addressAt(int port) const {
  return (m_certificates ? "mqtts://127.0.0.1:" : "mqtt://127.0.0.1:") + std::to_string(port);
}

void Fleet::joinApp(std::size_t index) {
  m_apps->Send("join\t" + std::to_string(index) + "\t" + At(index).BusAddress());
}

void Fleet::InstallApp(std::size_t index) {
  At(index).hasApp = true;
  joinApp(index);
}

void Fleet::PowerOff(std::size_t index) {
  Television& television = At(index);
  television.Kill();
  television.stage = Television::Stage::kOff;
  television.isWanted = false;
  television.changedAt = Now();
  television.isAppReady = false;
  m_apps->Send("leave\t" + std::to_string(index));
}

void Fleet::MoveTo(std::size_t index, int port) {
  Television& television = At(index);
  television.EndHost();
  television.isAppReady = false;
  television.port = port;
  // The bus goes on, and the application stays.
  television.StartHost(addressAt(port), m_certificates.get());
  television.stage = Television::Stage::kHost;
  television.changedAt = Now();
}

bool Fleet::IsRight(std::size_t index) const {
  const Television& television = At(index);
  const Television::Seen& seen = television.seen;
  const bool isOnline = seen.status == "\"online\"" && seen.statusTime > m_statusSince &&
                        seen.propertiesRun == seen.statusRun;
  if (!television.hasApp) return isOnline && !seen.hasApp && seen.value.empty();
  return isOnline && television.isAppReady && seen.hasApp && seen.valueRun == seen.statusRun &&
         seen.value == television.appData;
}

std::string Fleet::WhatIsWrongWith(std::size_t index) const {
  const Television& television = At(index);
  const Television::Seen& seen = television.seen;
  std::ostringstream text;
  text << television.Id() << ": status " << seen.status << " of " << seen.statusTime << " (run "
       << seen.statusRun << "), properties of run " << seen.propertiesRun
       << (seen.hasApp ? "" : " without the application") << ", value " << seen.value << " (run "
       << seen.valueRun << "), the application's last is " << television.appData
       << (television.isAppReady ? "" : ", and it is not registered");
  return text.str();
}

std::size_t Fleet::CountRight() const {
  std::size_t count = 0;
  for (std::size_t i = 0; i < Size(); ++i) count += IsRight(i) ? 1U : 0U;
  return count;
}

std::size_t Fleet::CountOnline() const {
  return static_cast<std::size_t>(
      std::count_if(m_televisions.begin(), m_televisions.end(), [this](const auto& television) {
        const Television::Seen& seen = television->seen;
        return seen.status == "\"online\"" && seen.statusTime > m_statusSince;
      }));
}

void Fleet::ForgetStatus() {
  m_statusSince = WallClock();
  for (const auto& television : m_televisions) {
    const std::size_t messages = television->seen.statusMessages;
    television->seen = {};
    television->seen.statusMessages = messages;
  }
}

void Fleet::SendValue(std::size_t index) {
  m_apps->Send("send\t" + std::to_string(index) + "\tv:" + std::to_string(Now()));
}

Fleet::Values Fleet::TakeValues() {
  return std::exchange(m_values, {});
}

std::vector<std::string> Fleet::TakeErrors() {
  return std::exchange(m_errors, {});
}

std::size_t Fleet::SendSet(std::size_t television, std::size_t worker) {
  const std::size_t number = m_sets.size();
  m_sets.push_back({television, worker});
  m_workers.at(worker).helper->Send("set\t" + std::to_string(number) + "\t" + At(television).Id());
  return number;
}

std::size_t Fleet::CountAnswered(std::size_t first) const {
  std::size_t count = 0;
  for (std::size_t i = first; i < m_sets.size(); ++i) count += m_sets[i].answers > 0 ? 1U : 0U;
  return count;
}

bool Fleet::Settle(double seconds) {
  const std::string token = std::to_string(++m_settleToken);
  for (Worker& worker : m_workers) {
    if (worker.helper) worker.helper->Send("settle\t" + token);
  }
  return RunUntil(
      [&] {
        return std::all_of(m_workers.begin(), m_workers.end(), [&](const Worker& worker) {
          return !worker.helper || worker.settled.count(token) > 0;
        });
      },
      seconds);
}

std::map<std::string, std::string> Fleet::Snapshot() {
  Helper client(
      {m_options.helpers / "fleet-worker", std::to_string(m_broker.Port()), "", "things/#"}, m_log);
  std::map<std::string, std::string> retained;
  bool isWhole = false;
  const auto hasAll = [&] {
    for (const std::string& line : client.Receive()) {
      const auto words = Split(line, '\t');
      if (words[0] == "up") client.Send("mark");
      if (words[0] == "marked") isWhole = true;
      if (words[0] == "message" && words.at(2).find('r') != std::string::npos) {
        retained[words.at(3)] = words.at(8);
      }
    }
    return isWhole || client.HasEnded();
  };
  if (!RunUntil(hasAll, kHelperPatience) || !isWhole) {
    throw std::runtime_error("a new client does not get what is retained");
  }
  return retained;
}

std::map<std::int64_t, std::size_t> Fleet::ConnectsSince(std::int64_t second) const {
  std::map<std::int64_t, std::size_t> counts;
  std::istringstream log(m_broker.Log());
  const std::string end = " on port " + std::to_string(TelevisionPort()) + ".";
  for (std::string line; std::getline(log, line);) {
    if (line.find(": New connection from ") == std::string::npos) continue;
    if (line.find(end) == std::string::npos) continue;
    const std::int64_t at = std::stoll(line);
    if (at >= second) ++counts[at];
  }
  return counts;
}

Fleet::Use Fleet::Measure() const {
  Use use;
  for (const auto& television : m_televisions) {
    use.hostCpu += CpuOf(television->Host());
    use.busCpu += CpuOf(television->Bus());
  }
  use.brokerCpu = CpuOf(m_broker.Pid());
  use.traffic = TelevisionTraffic();
  use.at = Now();
  for (const auto& television : m_televisions) {
    use.hostWakeUps += WakeUpsOf(television->Host());
    use.busWakeUps += WakeUpsOf(television->Bus());
  }
  return use;
}

Fleet::Memory Fleet::MeasureMemory() const {
  Memory memory;
  for (const auto& television : m_televisions) {
    memory.hosts += MemoryOf(television->Host());
    memory.buses += MemoryOf(television->Bus());
    memory.hostsOwn += OwnMemoryOf(television->Host());
    memory.busesOwn += OwnMemoryOf(television->Bus());
  }
  memory.broker = OwnMemoryOf(m_broker.Pid());
  return memory;
}

void Fleet::tellSecond() {
  if (m_broker.HasFailed()) throw std::runtime_error("the broker has ended by itself");
  for (const auto& television : m_televisions) {
    if (television->HasFailed()) {
      throw std::runtime_error("a process of " + television->Id() + " has ended by itself");
    }
  }
  const std::int64_t now = Now();
  const std::int64_t cpu = CpuOf(m_broker.Pid());
  const double passed = static_cast<double>(now - (m_nextSecond - 1'000'000'000));
  Second second;
  second.time = static_cast<double>(now - m_startedAt) / kNsPerSecond;
  second.scenario = scenario;
  second.online = CountOnline();
  second.values = std::exchange(m_valuesInSecond, 0);
  second.answers = std::exchange(m_answersInSecond, 0);
  if (cpu > m_lastBrokerCpu && m_nextSecond != 0) {
    second.brokerCpu = 100 * static_cast<double>(cpu - m_lastBrokerCpu) / passed;
  }
  m_lastBrokerCpu = cpu;
  m_nextSecond = now + 1'000'000'000;
  if (onSecond) onSecond(second);
}

}  // namespace Fleet
