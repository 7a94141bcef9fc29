#include "FaultyChannel.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "ProcessUse.h"

namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr milliseconds kStep(2);
constexpr milliseconds kBetweenSets(20);
constexpr milliseconds kBetweenProbes(200);
// Sets that were answered while their events were still GDBus's, which writes them on a thread of
// its own: at kBetweenSets, on a machine that is busy.
constexpr std::size_t kMostUnwritten = 2;
constexpr std::size_t kShownOfAnswer = 100;
constexpr rlim_t kPlenty = 256;  // descriptors

// The sum of the numbers before this text, in all lines that have it.
std::size_t sumBefore(std::string_view text, const std::string& log) {
  std::size_t sum = 0;
  for (auto at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) {
    const auto begin = log.find_last_of(' ', at - 1);
    if (at > 0 && begin != std::string::npos) {
      sum += std::strtoul(log.c_str() + begin + 1, nullptr, 10);
    }
  }
  return sum;
}

// How often the host has said that it had nobody to send an event to, or that its bus was lost just
// then.
std::size_t countUnsent(const std::string& log) {
  std::size_t count = CountOf("fail to send data to app", log);
  std::istringstream lines(log);
  for (std::string line; std::getline(lines, line);) {
    const bool isOfAnEvent = line.find("SendSetRequest") != std::string::npos;
    if (isOfAnEvent && line.find("not initialized") != std::string::npos) ++count;
  }
  return count;
}

void limitDescriptors(pid_t process, rlim_t limit) {
  rlimit current{};
  if (prlimit(process, RLIMIT_NOFILE, nullptr, &current) != 0) return;  // it has ended
  current.rlim_cur = limit;
  prlimit(process, RLIMIT_NOFILE, &current, nullptr);
}

}  // namespace

FaultyChannel::FaultyChannel(PrivateBus& bus, Broker& broker, HostProcess::Environment variables)
    : m_bus(bus),
      m_broker(broker),
      m_variables(std::move(variables)),
      m_settings(m_variables.at("VCONF_DIR")),
      m_proxy(broker.Port()),
      m_cloud(broker.Port(), kThing, {}, CloudClient::Session::Lasting),
      m_app(kApp, [this](const std::string& data) { takeEvent(data); }) {
  m_variables["LUMO_BROKER"] = "mqtt://127.0.0.1:" + std::to_string(m_proxy.Port());
  m_variables["LUMO_THING_ID"] = kThing;
  StartHost();
  m_app.Join(m_bus.Address());
}

FaultyChannel::~FaultyChannel() {
  m_bus.Thaw();
  m_broker.Thaw();
}

bool FaultyChannel::WaitUntilHealthy() {
  std::vector<std::size_t> probes;
  auto next = steady_clock::now();
  const bool isHealthy = RunUntil([&] {
    if (m_cloudIsThere && steady_clock::now() >= next) {
      probes.push_back(SendSet());
      next = steady_clock::now() + kBetweenProbes;
    }
    return m_host->HasEnded() ||
           std::any_of(probes.begin(), probes.end(), [this](std::size_t number) {
             return m_ledger.IsEvent(number) && IsAnsweredWithSuccess(number);
           });
  });
  if (m_host->HasEnded()) return false;
  if (m_memoryBefore == 0) m_memoryBefore = ProcessUse::Of(m_host->Pid()).residentKib;
  const std::size_t sent = m_app.Sent();
  return isHealthy && RunUntil([&] {
           if (m_app.Sent() == sent) return false;
           const auto values = m_cloud.Received(std::string("appdatachannel/value/") + kApp);
           return !values.empty() && values.back() == "\"" + m_app.LastSent() + "\"";
         });
}

void FaultyChannel::RunFor(milliseconds duration) {
  const auto end = steady_clock::now() + duration;
  do {
    step();
    std::this_thread::sleep_for(kStep);
  } while (steady_clock::now() < end);
}

bool FaultyChannel::RunUntil(const std::function<bool()>& condition) {
  const auto end = steady_clock::now() + HostProcess::kPatience;
  while (true) {
    step();
    if (condition()) return true;
    if (steady_clock::now() > end) return false;
    std::this_thread::sleep_for(kStep);
  }
}

std::size_t FaultyChannel::SendSet(std::size_t bytes) {
  const std::size_t number = m_ledger.Send();
  const std::string text = std::to_string(number) + " " + std::string(bytes, 'x');
  m_requests.push_back(m_cloud.Send("set", R"({"qz": ")" + text + R"("})"));
  return number;
}

void FaultyChannel::SendUnanswerableSet() {
  const std::size_t number = m_ledger.Send();
  m_requests.push_back(
      m_cloud.Send("set", R"({"qz": {"number": )" + std::to_string(number) + "}}"));
}

bool FaultyChannel::IsAnsweredWithSuccess(std::size_t number) {
  return fateOf(number) == SetLedger::Fate::Unheard;
}

void FaultyChannel::Settle() {
  constexpr seconds kGrace(10);
  const auto isSettled = [this](std::size_t number) {
    return m_ledger.IsEvent(number) || fateOf(number) != SetLedger::Fate::Open;
  };
  const auto end = steady_clock::now() + kGrace;
  std::size_t next = 0;
  RunUntil([&] {
    while (next < m_ledger.Sent() && (next < m_forgottenEnd || isSettled(next))) ++next;
    return next == m_ledger.Sent() || steady_clock::now() > end;
  });
  for (std::size_t number = 0; number < m_ledger.Sent(); ++number) {
    if (m_ledger.IsEvent(number)) continue;
    SetLedger::Fate fate = fateOf(number);
    if (fate == SetLedger::Fate::Open) {
      fate = number < m_forgottenEnd ? SetLedger::Fate::BrokerForgot : SetLedger::Fate::Lost;
    }
    m_ledger.SetFate(number, fate);
  }
}

void FaultyChannel::StopBroker() {
  leaveBroker();
  m_broker.Stop();
}

void FaultyChannel::KillBroker() {
  leaveBroker();
  m_broker.Kill();
  m_broker.Forget();
  m_onlineBefore = countOnline();
  m_brokerForgot = true;
}

void FaultyChannel::StartBroker() {
  m_broker.Start();
  m_cloud.ComeBack();
  m_cloudIsThere = true;
  ++m_cloudReturns;
}

void FaultyChannel::FreezeBus() {
  m_bus.Freeze();
}

void FaultyChannel::ThawBus() {
  m_bus.Thaw();
}

void FaultyChannel::KillBus() {
  m_bus.Kill();
  m_busWasKilled = true;
  m_app.Leave();
}

void FaultyChannel::StartBus() {
  m_bus.Start();
  m_app.Join(m_bus.Address());
}

void FaultyChannel::StartHost() {
  m_host = std::make_unique<HostProcess>(std::vector<std::string>{ADC_HOST_FILE, ADC_PLUGIN_FILE},
                                         m_variables);
  if (m_logIsUnread) StopReadingLog();
}

void FaultyChannel::SignalHost(int signal) {
  noteMemory();
  if (signal == SIGKILL) {
    ++m_kills;
    if (m_logIsUnread) ++m_killsUnlogged;
  }
  m_host->Send(signal);
}

void FaultyChannel::AwaitHostEnd(int status) {
  RunUntil([this] { return m_host->HasEnded(); });
  const int actual = m_host->Wait();
  m_log += m_host->Errors();
  m_host.reset();
  if (actual != status) m_wrongEnds += "the host ended with " + std::to_string(actual) + "\n";
}

void FaultyChannel::StopReadingLog() {
  m_logIsUnread = true;
  // Before it is the host's program, its standard error is this process's.
  RunUntil([this] {
    std::error_code ignored;
    return m_host->HasEnded() || fs::equivalent("/proc/" + std::to_string(m_host->Pid()) + "/exe",
                                                ADC_HOST_FILE, ignored);
  });
  m_host->ReadErrors(false);
  // The pipe is filled as long as its reader takes a last piece.
  const std::string pipe = "/proc/" + std::to_string(m_host->Pid()) + "/fd/2";
  const int descriptor = open(pipe.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  if (descriptor < 0) return;  // it has ended
  std::array<char, 4096> lines{};
  lines.fill('\n');
  for (int i = 0; i < 2; ++i) {
    while (write(descriptor, lines.data(), lines.size()) > 0) {
    }
    RunFor(milliseconds(10));
  }
  close(descriptor);
}

void FaultyChannel::ReadLog() {
  m_logIsUnread = false;
  if (m_host) m_host->ReadErrors(true);
}

void FaultyChannel::RemoveSettings() {
  fs::create_directories(m_settings);
  fs::rename(m_settings, m_settings.string() + ".away");
  std::ofstream(m_settings) << "no folder";
}

void FaultyChannel::PutSettingsBack() {
  fs::remove(m_settings);
  fs::rename(m_settings.string() + ".away", m_settings);
}

void FaultyChannel::TakeDescriptors() {
  const std::string folder = "/proc/" + std::to_string(m_host->Pid()) + "/fd/";
  rlim_t number = 0;
  while (fs::is_symlink(fs::symlink_status(folder + std::to_string(number)))) ++number;
  limitDescriptors(m_host->Pid(), number);
}

void FaultyChannel::GiveDescriptorsBack() {
  if (m_host) limitDescriptors(m_host->Pid(), kPlenty);
}

std::size_t FaultyChannel::UnheardByLog() const {
  const std::string log = Log();
  const std::size_t emitted = CountOf("success to emit signal: send_event", log);
  std::size_t unheard = countUnsent(log) + sumBefore(" log lines were dropped", log);
  if ((m_busWasKilled || m_kills > 0) && emitted > m_events.size()) {
    unheard += emitted - m_events.size();
  }
  return unheard + m_killsUnlogged * kMostUnwritten;
}

std::string FaultyChannel::Log() const {
  return m_host ? m_log + m_host->Errors() : m_log;
}

std::string FaultyChannel::Account() {
  std::ostringstream account;
  for (std::size_t number = 0; number < m_ledger.Sent(); ++number) {
    const auto events = std::count(m_events.begin(), m_events.end(), number);
    if (events == 1) continue;
    account << "set " << number << ": " << events << " events";
    for (const std::string& answer : m_cloud.AnswersTo(m_requests[number])) {
      account << ", " << answer.substr(0, kShownOfAnswer);
    }
    account << (number < m_forgottenEnd ? ", sent before the broker forgot\n" : "\n");
  }
  return account.str();
}

void FaultyChannel::step() {
  m_app.Step();
  if (m_brokerForgot) {
    m_forgottenEnd = m_ledger.Sent();
    m_brokerForgot = countOnline() <= m_onlineBefore;
  }
  if (m_sendsSets && m_cloudIsThere && steady_clock::now() >= m_nextSet) {
    SendSet();
    m_nextSet = steady_clock::now() + kBetweenSets;
  }
}

void FaultyChannel::takeEvent(const std::string& data) {
  m_events.push_back(std::strtoul(data.c_str(), nullptr, 10));
  if (!m_ledger.Event(m_events.back())) {
    throw std::runtime_error("an event that nobody has sent: " + data);
  }
}

void FaultyChannel::noteMemory() {
  m_memoryMost = std::max(m_memoryMost, ProcessUse::Of(m_host->Pid()).peakKib);
}

void FaultyChannel::leaveBroker() {
  // What it has not sent goes with its connection.
  if (!m_cloud.WaitUntilSent()) throw std::runtime_error("the broker takes no sets");
  m_cloud.Leave();
  m_cloudIsThere = false;
}

SetLedger::Fate FaultyChannel::fateOf(std::size_t number) {
  const std::vector<std::string> answers = m_cloud.AnswersTo(m_requests[number]);
  if (answers.empty()) return SetLedger::Fate::Open;
  const Json::Value answer = ParseJson(answers.front());
  const bool succeeded = answer.isMember("result") && answer["result"] == 0;
  return succeeded ? SetLedger::Fate::Unheard : SetLedger::Fate::Refused;
}

std::size_t FaultyChannel::countOnline() {
  const std::vector<std::string> statuses = m_cloud.Received("status");
  return static_cast<std::size_t>(std::count(statuses.begin(), statuses.end(), "\"online\""));
}
