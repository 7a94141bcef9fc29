#include "FaultyChannel.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
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

}  // namespace

FaultyChannel::FaultyChannel(Channel& channel, AnyBroker& broker, HostProcess::Environment changes)
    : m_channel(channel),
      m_broker(broker),
      m_watcher(broker.Port(), broker.User(), broker.Password()),
      m_changes(std::move(changes)),
      m_settings(channel.Variables().at("VCONF_DIR")),
      m_proxy(broker.Port()),
      m_cloud(broker.Port(), Channel::kThing, {broker.User(), broker.Password()},
              CloudClient::Session::Lasting),
      m_app(kApp, [this](const std::string& data) { takeEvent(data); }) {
  m_changes["LUMO_BROKER"] = "mqtt://127.0.0.1:" + std::to_string(m_proxy.Port());
  m_channel.Launch(m_changes);
  m_app.Join(Bus().Address());
}

FaultyChannel::~FaultyChannel() {
  Bus().Thaw();
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
    return host().HasEnded() ||
           std::any_of(probes.begin(), probes.end(), [this](std::size_t number) {
             return m_ledger.IsEvent(number) && IsAnsweredWithSuccess(number);
           });
  });
  if (host().HasEnded()) return false;
  if (m_memoryBefore == 0) m_memoryBefore = ProcessUse::Of(host().Pid()).residentKib;
  const std::size_t sent = m_app.Sent();
  return isHealthy && RunUntil([&] {
           if (m_app.Sent() == sent) return false;
           return m_cloud.Last(std::string("appdatachannel/value/") + kApp) ==
                  '"' + m_app.LastSent() + '"';
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

void FaultyChannel::Settle(std::size_t first) {
  constexpr seconds kGrace(10);
  const auto isSettled = [this](std::size_t number) {
    return m_ledger.IsEvent(number) || fateOf(number) != SetLedger::Fate::Open;
  };
  const auto end = steady_clock::now() + kGrace;
  std::size_t next = first;
  RunUntil([&] {
    while (next < m_ledger.Sent() && (next < m_forgottenEnd || isSettled(next))) ++next;
    return next == m_ledger.Sent() || steady_clock::now() > end;
  });
  // An answer may overtake its event on the way to the application. A later event does not.
  const auto isUnheard = [this](std::size_t number) {
    return !m_ledger.IsEvent(number) && IsAnsweredWithSuccess(number);
  };
  next = first;
  while (next < m_ledger.Sent() && !isUnheard(next)) ++next;
  if (next < m_ledger.Sent()) {
    const std::size_t later = SendSet();
    RunUntil([&] { return isSettled(later) && !isUnheard(later); });
  }
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
  m_broker.KillAndForget();
  m_onlineBefore = countOnline();
  m_brokerForgot = true;
}

void FaultyChannel::StartBroker() {
  m_broker.Start();
  m_watcher.CatchUp();
  m_cloud.ComeBack();
  m_cloudIsThere = true;
  ++m_cloudReturns;
}

std::vector<std::string> FaultyChannel::TakeContractViolations() {
  m_watcher.CatchUp();
  return m_watcher.TakeViolations();
}

void FaultyChannel::KillBus() {
  Bus().Kill();
  m_busWasKilled = true;
  m_app.Leave();
}

void FaultyChannel::StartBus() {
  Bus().Start();
  m_app.Join(Bus().Address());
}

void FaultyChannel::StartHost() {
  m_log += host().Errors();
  m_channel.Launch(m_changes);
  if (m_logIsUnread) StopReadingLog();
}

void FaultyChannel::SignalHost(int signal) {
  m_memoryMost = std::max(m_memoryMost, ProcessUse::Of(host().Pid()).peakKib);
  if (signal == SIGKILL) {
    ++m_kills;
    if (m_logIsUnread) ++m_killsUnlogged;
  }
  host().Send(signal);
}

void FaultyChannel::AwaitHostEnd(int status) {
  RunUntil([this] { return host().HasEnded(); });
  const int actual = host().Wait();
  if (actual != status) m_wrongEnds += "the host ended with " + std::to_string(actual) + "\n";
}

void FaultyChannel::StopReadingLog() {
  m_logIsUnread = true;
  // Before it is the host's program, its standard error is this process's.
  RunUntil([this] {
    std::error_code ignored;
    return host().HasEnded() ||
           fs::equivalent("/proc/" + std::to_string(host().Pid()) + "/exe", ADC_HOST_FILE, ignored);
  });
  host().ReadErrors(false);
  // The pipe is filled as long as its reader takes a last piece.
  const std::string pipe = "/proc/" + std::to_string(host().Pid()) + "/fd/2";
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
  host().ReadErrors(true);
}

void FaultyChannel::RemoveSettings() {
  fs::create_directories(m_settings);
  fs::rename(m_settings, m_settings + ".away");
  std::ofstream(m_settings) << "no folder";
}

void FaultyChannel::PutSettingsBack() {
  fs::remove(m_settings);
  fs::rename(m_settings + ".away", m_settings);
}

void FaultyChannel::TakeDescriptors() {
  ProcessUse::TakeDescriptors(host().Pid());
}

void FaultyChannel::GiveDescriptorsBack() {
  if (host().IsWaitedFor()) return;
  ProcessUse::LimitDescriptors(host().Pid(), ProcessUse::kPlentyOfDescriptors);
}

std::size_t FaultyChannel::UnheardByLog() const {
  const std::string log = Log();
  const std::size_t emitted = CountOf("success to emit signal: send_event", log);
  std::size_t unheard = CountOf("fail to send data to app", log) + CountUnsent(log) +
                        sumBefore(" log lines were dropped", log);
  if ((m_busWasKilled || m_kills > 0) && emitted > m_events.size()) {
    unheard += emitted - m_events.size();
  }
  return unheard + m_killsUnlogged * kMostUnwritten;
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
  return static_cast<std::size_t>(std::count(statuses.begin(), statuses.end(), kOnline));
}
