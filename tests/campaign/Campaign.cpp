#include "Campaign.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include "ShippedPolicy.h"
#include "WaitUntil.h"

namespace {

constexpr const char* kThing = "tv";
constexpr const char* kApp = "qz";
constexpr const char* kStatus = "status";
constexpr const char* kOnline = "\"online\"";
constexpr std::size_t kFewestSets = 20;
constexpr std::size_t kMostSets = 150;

// How often the host has said that it had nobody to send an event to.
std::size_t countUnsent(const std::string& log) {
  std::size_t count = 0;
  std::istringstream lines(log);
  for (std::string line; std::getline(lines, line);) {
    const bool isOfAnEvent = line.find("SendSetRequest") != std::string::npos;
    if (isOfAnEvent && line.find("not initialized") != std::string::npos) ++count;
  }
  return count;
}

}  // namespace

const char* Campaign::NameOf(Fault fault) {
  constexpr std::array<const char*, 6> kNames{"none", "cut", "restart", "forget", "end", "kill"};
  return kNames.at(static_cast<std::size_t>(fault));
}

Campaign::Campaign(const MakeBroker& makeBroker, std::uint32_t seed)
    : m_random(seed),
      m_bus(ShippedPolicyForThisUser()),
      m_broker(makeBroker(m_folder.Path())),
      m_proxy(m_broker->Port()),
      m_cloud(m_broker->Port(), kThing, {m_broker->User(), m_broker->Password()}),
      m_app(m_bus.Address()) {
  startHost();
}

Campaign::~Campaign() = default;

void Campaign::Run(std::size_t sets, const std::vector<Fault>& faults) {
  while (m_ledger.Sent() < sets) {
    const Fault fault = faults[between(0, faults.size())];
    m_first = m_ledger.Sent();
    m_events = 0;
    m_unsent = 0;
    cause(fault, between(kFewestSets, kMostSets));
    settle();
    if (m_cloud.Connections() != m_cloudConnections) {
      throw std::runtime_error("the cloud's own connection was lost");
    }
    Result& result = m_results[fault];
    ++result.rounds;
    result.counts += m_ledger.CountFrom(m_first);
  }
}

std::size_t Campaign::between(std::size_t begin, std::size_t end) {
  return begin + m_random() % (end - begin);
}

void Campaign::startHost() {
  const std::size_t before = countOnline();
  HostProcess::Environment variables{
      {"DBUS_SYSTEM_BUS_ADDRESS", m_bus.Address()},
      {"VCONF_DIR", m_folder.Path().string()},
      {"DLOG_LEVEL", "error"},
      {"LUMO_BROKER", "mqtt://127.0.0.1:" + std::to_string(m_proxy.Port())},
      {"LUMO_THING_ID", kThing}};
  if (!m_broker->User().empty()) {
    const std::filesystem::path passwordFile = m_folder.Path() / "password";
    std::ofstream(passwordFile) << m_broker->Password();
    std::filesystem::permissions(
        passwordFile, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    variables["LUMO_BROKER_USER"] = m_broker->User();
    variables["LUMO_BROKER_PASSWORD_FILE"] = passwordFile.string();
  }
  m_host = std::make_unique<HostProcess>(std::vector<std::string>{ADC_HOST_FILE, ADC_PLUGIN_FILE},
                                         variables);
  if (!m_host->WaitForOutput("qivo-thing: ready\n")) {
    throw std::runtime_error("the host does not start: " + hostLog());
  }
  registerApp();
  waitUntilOnlineAgain(before);
}

void Campaign::registerApp() {
  const Reply reply = m_app.Call("register_app", g_variant_new("(s)", kApp)).get();
  if (reply.value != "(0,)") {
    throw std::runtime_error("the application cannot register: " + reply.value + reply.error);
  }
}

void Campaign::send(std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t number = m_ledger.Send();
    m_requests.push_back(m_cloud.Send("set", R"({"qz": ")" + std::to_string(number) + R"("})"));
  }
}

void Campaign::absorb() {
  for (const Signal& signal : m_app.TakeSignals()) {
    if (signal.member != "send_event") continue;
    const std::string before = std::string("('") + kApp + "', '";
    if (signal.parameters.rfind(before, 0) != 0) continue;
    const std::string number = signal.parameters.substr(before.size());
    if (!m_ledger.Event(std::strtoul(number.c_str(), nullptr, 10))) {
      throw std::runtime_error("an event that nobody has sent: " + signal.parameters);
    }
    ++m_events;
  }
}

bool Campaign::waitUntil(const std::function<bool()>& condition) {
  return WaitUntil([&] {
    absorb();
    return condition();
  });
}

void Campaign::waitForEvents(std::size_t count) {
  if (!waitUntil([&] { return m_events >= count; })) {
    throw std::runtime_error("nothing comes before the fault: " + hostLog());
  }
}

void Campaign::cause(Fault fault, std::size_t sets) {
  switch (fault) {
    case Fault::None:
      return send(sets);
    case Fault::Cut:
      return cut(sets);
    case Fault::Restart:
    case Fault::Forget:
      send(sets);
      // Its connection ends before the broker does, and may lose nothing.
      if (!m_cloud.WaitUntilSent()) throw std::runtime_error("the broker takes no sets");
      waitForEvents(between(0, sets / 2));
      return restartBroker(fault == Fault::Restart);
    case Fault::End:
    case Fault::Kill:
      send(sets);
      waitForEvents(between(0, sets));
      return endHost(fault == Fault::End ? SIGTERM : SIGKILL);
  }
}

void Campaign::cut(std::size_t sets) {
  constexpr double kMostBytes = 6000;
  // As often below 80 bytes as above.
  const double exponent = static_cast<double>(between(0, 1001)) / 1000;
  const auto bytes = static_cast<std::size_t>(std::pow(kMostBytes, exponent));
  const auto direction = between(0, 2) == 0 ? TcpProxy::kToServer : TcpProxy::kToClient;
  const std::size_t cuts = m_proxy.Cuts();
  m_proxy.CutAfter(direction, bytes);
  send(sets);
  std::size_t round = sets;
  while (m_proxy.Cuts() == cuts) {
    if (!waitUntil([&] { return m_events >= round || m_proxy.Cuts() > cuts; })) return;
    if (m_proxy.Cuts() > cuts) return;
    send(1);
    ++round;
  }
}

void Campaign::restartBroker(bool remembers) {
  const std::size_t before = countOnline();
  m_cloud.Leave();
  if (remembers) {
    m_broker->Stop();
  } else {
    m_broker->KillAndForget();
  }
  m_broker->Start();
  m_cloud.ComeBack();
  ++m_cloudConnections;
  if (remembers) return;
  // Until the host is there again, the broker has nobody to keep a set for.
  waitUntilOnlineAgain(before);
  // What comes before this one is what the broker had handed on.
  const std::size_t end = m_ledger.Sent();
  send(1);
  if (!waitUntil([&] { return m_ledger.IsEvent(end); })) return;
  for (std::size_t number = m_first; number < end; ++number) {
    if (!m_ledger.IsEvent(number)) m_ledger.SetFate(number, SetLedger::Fate::BrokerForgot);
  }
}

void Campaign::waitUntilOnlineAgain(std::size_t before) {
  if (!waitUntil([&] { return countOnline() > before; }) || !m_cloud.WaitFor(kStatus, kOnline) ||
      !m_cloud.WaitForProperty(kApp)) {
    throw std::runtime_error("the host does not come to the broker: " + hostLog());
  }
}

void Campaign::endHost(int signal) {
  const int status = m_host->End(signal);
  if (status != (signal == SIGTERM ? 0 : -signal)) {
    throw std::runtime_error("the host ends with " + std::to_string(status) + ": " + hostLog());
  }
  m_unsent += countUnsent(m_host->Errors());
  startHost();
}

void Campaign::settle() {
  const auto isSettled = [this](std::size_t number) {
    if (m_ledger.IsEvent(number) || m_ledger.FateOf(number) != SetLedger::Fate::Open) return true;
    const SetLedger::Fate fate = fateOf(number);
    if (fate == SetLedger::Fate::Unheard && m_unsent > 0)
      --m_unsent;
    else if (fate != SetLedger::Fate::Refused)
      return false;
    m_ledger.SetFate(number, fate);
    return true;
  };
  // When this one is an event, the others should have been, or be answered by then.
  constexpr std::chrono::seconds kGrace(3);
  send(1);
  const std::size_t last = m_ledger.Sent() - 1;
  std::chrono::steady_clock::time_point lastCame;
  std::size_t next = m_first;
  waitUntil([&] {
    while (next <= last && isSettled(next)) ++next;
    const auto now = std::chrono::steady_clock::now();
    if (!m_ledger.IsEvent(last)) lastCame = now;
    return next > last || now - lastCame > kGrace;
  });
  for (std::size_t number = next; number < m_ledger.Sent(); ++number) {
    if (!isSettled(number)) m_ledger.SetFate(number, SetLedger::Fate::Lost);
  }
}

SetLedger::Fate Campaign::fateOf(std::size_t number) {
  const std::vector<std::string> answers = m_cloud.AnswersTo(m_requests[number]);
  if (answers.empty()) return SetLedger::Fate::Open;
  const Json::Value answer = ParseJson(answers.front());
  const bool succeeded = answer.isMember("result") && answer["result"] == 0;
  return succeeded ? SetLedger::Fate::Unheard : SetLedger::Fate::Refused;
}

std::string Campaign::hostLog() const {
  constexpr std::size_t kLastBytes = 2000;
  const std::string log = m_host->Errors();
  return log.substr(log.size() - std::min(log.size(), kLastBytes));
}

std::size_t Campaign::countOnline() {
  const std::vector<std::string> statuses = m_cloud.Received(kStatus);
  return static_cast<std::size_t>(std::count(statuses.begin(), statuses.end(), kOnline));
}
