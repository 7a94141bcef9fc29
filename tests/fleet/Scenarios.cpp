#include "Scenarios.h"

#include <algorithm>
#include <cmath>
#include <csignal>
#include <ctime>
#include <map>
#include <memory>
#include <set>
#include <tuple>

#include "Percentile.h"
#include "Protocol.h"
#include "TcpProxy.h"

namespace Fleet {

namespace {

constexpr double kNsPerSecond = 1e9;
constexpr double kNsPerMs = 1e6;
// The longest window of the retry delays is 30 s; the rest is for what comes after a connect.
constexpr double kBackWithin = 35;
// A television that says nothing else sends a ping after three quarters of its keep alive, 30 s.
constexpr double kPingEvery = 22.5;

double secondsSince(std::int64_t time) {
  return static_cast<double>(Now() - time) / kNsPerSecond;
}

std::string count(std::size_t number, std::size_t all, const std::string& what) {
  return std::to_string(number) + " of " + std::to_string(all) + " " + what;
}

void expectNone(Outcome& outcome, std::size_t number, std::size_t all, const std::string& what) {
  if (number != 0) outcome.broken.push_back(count(number, all, what));
}

std::size_t mostInASecond(const std::map<std::int64_t, std::size_t>& connects) {
  std::size_t most = 0;
  for (const auto& second : connects) most = std::max(most, second.second);
  return most;
}

std::size_t sum(const std::map<std::int64_t, std::size_t>& connects) {
  std::size_t all = 0;
  for (const auto& second : connects) all += second.second;
  return all;
}

}  // namespace

const std::vector<std::string>& Scenarios::Names() {
  static const std::vector<std::string> names{"start",   "idle",          "values", "sets",
                                              "workers", "broker-killed", "churn",  "network"};
  return names;
}

Outcome Scenarios::Run(const std::string& name) {
  Outcome outcome;
  outcome.name = name;
  m_fleet.scenario = name;
  const std::int64_t begin = Now();
  using Scenario = void (Scenarios::*)(Outcome&);
  static const std::map<std::string, Scenario> scenarios{
      {"start", &Scenarios::start},     {"idle", &Scenarios::idle},
      {"values", &Scenarios::values},   {"sets", &Scenarios::sets},
      {"workers", &Scenarios::workers}, {"broker-killed", &Scenarios::brokerKilled},
      {"churn", &Scenarios::churn},     {"network", &Scenarios::network}};
  (this->*scenarios.at(name))(outcome);
  const std::vector<std::string> errors = m_fleet.TakeErrors();
  constexpr std::size_t kShown = 3;
  for (std::size_t i = 0; i < std::min(kShown, errors.size()); ++i) {
    outcome.broken.push_back(errors[i]);
  }
  if (errors.size() > kShown) {
    outcome.broken.push_back("and " + std::to_string(errors.size() - kShown) + " more like these");
  }
  outcome.seconds = secondsSince(begin);
  return outcome;
}

void Scenarios::start(Outcome& outcome) {
  const std::int64_t second = std::time(nullptr);
  const std::int64_t begin = Now();
  const Fleet::Use before = m_fleet.Measure();
  for (std::size_t i = 0; i < m_fleet.Size(); ++i) m_fleet.Want(i);
  expectRight(outcome, patience(), "after the start");
  outcome.Add("seconds until all are online", secondsSince(begin));
  const auto connects = m_fleet.ConnectsSince(second);
  outcome.Add("peak connects a second", static_cast<double>(mostInASecond(connects)));
  outcome.Add(m_fleet.UsesTls() ? "TLS handshakes" : "connects",
              perTelevision(static_cast<std::int64_t>(sum(connects))));
  if (sum(connects) != m_fleet.Size()) {
    outcome.broken.push_back(std::to_string(m_fleet.Size()) + " televisions connected " +
                             std::to_string(sum(connects)) + " times");
  }
  m_fleet.RunFor(1);
  addUse(outcome, before, m_fleet.Measure(), 0);
  addMemory(outcome);
  expectRetained(outcome);
  m_fleet.TakeValues();
}

void Scenarios::idle(Outcome& outcome) {
  m_fleet.RunFor(2);  // what the scenario before has set off
  const std::int64_t second = std::time(nullptr) + 1;
  std::size_t statusBefore = 0;
  for (std::size_t i = 0; i < m_fleet.Size(); ++i) {
    statusBefore += m_fleet.At(i).seen.statusMessages;
  }
  m_fleet.TakeValues();
  const Fleet::Use before = m_fleet.Measure();
  m_fleet.RunFor(length(3 * kPingEvery));
  const Fleet::Use after = m_fleet.Measure();
  addUse(outcome, before, after, 60);
  addMemory(outcome);
  std::size_t status = 0;
  for (std::size_t i = 0; i < m_fleet.Size(); ++i) status += m_fleet.At(i).seen.statusMessages;
  expectNone(outcome, status - statusBefore, m_fleet.Size(), "televisions published a status");
  expectNone(outcome, m_fleet.TakeValues().delivered, m_fleet.Size(),
             "televisions published a value");
  expectNone(outcome, sum(m_fleet.ConnectsSince(second)), m_fleet.Size(),
             "televisions connected again");
  const double seconds = static_cast<double>(after.at - before.at) / kNsPerSecond;
  const Traffic traffic = after.traffic - before.traffic;
  // A ping has 2 bytes, and a record of TLS 22 more.
  const double pingBytes = m_fleet.UsesTls() ? 24 : 2;
  const double pings = seconds / kPingEvery + 1;
  if (perTelevision(traffic.segmentsIn) > pings ||
      perTelevision(traffic.bytesIn) > pings * pingBytes) {
    outcome.broken.push_back("televisions sent more than the pings of their keep alive");
  }
  expectRight(outcome, 0, "at the end");
}

void Scenarios::values(Outcome& outcome) {
  m_fleet.TakeValues();
  const Fleet::Use before = m_fleet.Measure();
  sendValues(length(20));
  expectRight(outcome, patience(), "after the last value");
  addUse(outcome, before, m_fleet.Measure(), 0);
  expectValues(outcome, Network::Sound);
}

void Scenarios::sets(Outcome& outcome) {
  const Fleet::Use before = m_fleet.Measure();
  const std::size_t first = m_fleet.Sets();
  for (std::size_t i = 0; i < m_fleet.Size(); ++i) m_fleet.SendSet(i);
  expectSets(outcome, first);
  expectRight(outcome, patience(), "after the sets");
  addUse(outcome, before, m_fleet.Measure(), 0);
  std::int64_t begin = 0;
  std::int64_t end = 0;
  std::vector<double> times;
  for (std::size_t i = first; i < m_fleet.Sets(); ++i) {
    const Fleet::Set& set = m_fleet.SetAt(i);
    if (set.answeredAt == 0) continue;
    begin = begin == 0 ? set.sentAt : std::min(begin, set.sentAt);
    end = std::max(end, set.answeredAt);
    times.push_back(static_cast<double>(set.answeredAt - set.sentAt) / kNsPerMs);
  }
  if (times.empty()) return;
  outcome.Add("ms until the last answer", static_cast<double>(end - begin) / kNsPerMs);
  outcome.Add("answer p50 ms", Percentile(times, 50));
  outcome.Add("answer p99 ms", Percentile(times, 99));
}

// A worker is killed in the middle of values and answers, and comes back with its session.
void Scenarios::workers(Outcome& outcome) {
  const double seconds = length(20);
  const std::size_t victim = m_fleet.Workers() - 1;
  const std::size_t first = m_fleet.Sets();
  std::int64_t killedAt = 0;
  bool isBack = false;
  std::size_t sent = 0;
  std::size_t openAtKill = 0;
  m_fleet.shares.clear();
  m_fleet.keepsShares = true;
  m_fleet.TakeValues();
  struct Range {
    std::string run;
    std::size_t before;
  };
  std::vector<Range> ranges;
  for (std::size_t i = 0; i < m_fleet.Size(); ++i) {
    ranges.push_back({m_fleet.At(i).seen.valueRun, m_fleet.At(i).seen.sequence});
  }
  sendValues(seconds, [&](double elapsed) {
    // Each television is set twice, by its own worker.
    const auto due =
        static_cast<std::size_t>(elapsed / seconds * 2 * static_cast<double>(m_fleet.Size()));
    for (; sent < std::min(due, 2 * m_fleet.Size()); ++sent) {
      const std::size_t television = sent % m_fleet.Size();
      const std::size_t own = television % m_fleet.Workers();
      if (own != victim || killedAt == 0 || m_fleet.ViewOf(victim).isUp) {
        m_fleet.SendSet(television, own);
      }
    }
    if (killedAt == 0 && elapsed > seconds / 3) {
      // The broker has all that the worker has sent. Half of its televisions answer before the
      // kill, or at that moment, the others while it is away.
      std::vector<std::size_t> silent;
      for (std::size_t i = victim; i < m_fleet.Size(); i += m_fleet.Workers()) {
        if (i / m_fleet.Workers() % 2 == 0) silent.push_back(i);
      }
      for (const std::size_t i : silent) m_fleet.At(i).SignalHost(SIGSTOP);
      for (std::size_t i = victim; i < m_fleet.Size(); i += m_fleet.Workers()) {
        m_fleet.SendSet(i, victim);
      }
      if (!m_fleet.Settle(patience())) outcome.broken.push_back("the broker does not take sets");
      killedAt = Now();
      m_fleet.KillWorker(victim);
      for (const std::size_t i : silent) m_fleet.At(i).SignalHost(SIGCONT);
      for (std::size_t i = first; i < m_fleet.Sets(); ++i) {
        Fleet::Set& set = m_fleet.SetAt(i);
        if (set.worker != victim) continue;
        set.mayRepeat = true;
        openAtKill += set.answers == 0 ? 1U : 0U;
      }
    }
    if (killedAt != 0 && !isBack && elapsed > seconds / 2) {
      m_fleet.StartWorker(victim);
      isBack = true;
    }
  });
  expectSets(outcome, first);
  expectRight(outcome, patience(), "after the last value");
  const auto hasAll = [&] {
    const Fleet::WorkerView& view = m_fleet.ViewOf(victim);
    return view.isUp && view.retainedStatus.size() == m_fleet.Size();
  };
  m_fleet.RunUntil(hasAll, patience());
  m_fleet.keepsShares = false;
  expectValues(outcome, Network::Sound);

  const Fleet::WorkerView& view = m_fleet.ViewOf(victim);
  if (!view.hadSession) outcome.broken.push_back("the killed worker's session is gone");
  expectNone(outcome, m_fleet.Size() - view.retainedStatus.size(), m_fleet.Size(),
             "states did not come to the worker that came back");
  // docs/cloud.md says this of the broker. Whoever shares values has to know.
  if (view.retainedByShare != m_fleet.Size()) {
    outcome.broken.push_back(count(view.retainedByShare, m_fleet.Size(),
                                   "retained values came to the worker that joined its group"));
  }
  for (std::size_t i = 0; i < m_fleet.Workers(); ++i) {
    expectNone(outcome, m_fleet.ViewOf(i).answersToOthers, m_fleet.Sets() - first,
               "answers came to another worker than the one that asked");
  }
  std::map<std::tuple<std::size_t, std::string, std::size_t>, std::vector<Fleet::Share>> shared;
  for (const Fleet::Share& share : m_fleet.shares) {
    shared[{share.television, share.run, share.sequence}].push_back(share);
  }
  std::size_t values = 0;
  std::size_t doubled = 0;
  std::size_t missed = 0;
  std::set<std::size_t> busy;
  for (const auto& [key, deliveries] : shared) {
    if (deliveries.size() > 1) ++doubled;
    for (const Fleet::Share& share : deliveries) busy.insert(share.worker);
  }
  for (std::size_t i = 0; i < m_fleet.Size(); ++i) {
    const std::size_t last = m_fleet.At(i).seen.sequence;
    for (std::size_t sequence = ranges[i].before + 1; sequence <= last; ++sequence) {
      ++values;
      if (shared.count({i, ranges[i].run, sequence}) == 0) ++missed;
    }
  }
  m_fleet.shares.clear();
  std::size_t repeated = 0;
  for (std::size_t i = first; i < m_fleet.Sets(); ++i) {
    repeated += m_fleet.SetAt(i).answers > 1 ? 1U : 0U;
  }
  expectNone(outcome, doubled, values, "values came to two workers");
  // Those that the broker had handed to the killed worker, which had not taken them: at most what
  // may be in flight to it.
  constexpr std::size_t kInFlight = 32;
  if (missed > kInFlight) {
    outcome.broken.push_back(count(missed, values, "values came to no worker; at most ") +
                             std::to_string(kInFlight) + " were in flight to the killed one");
  }
  if (busy.size() < m_fleet.Workers()) {
    outcome.broken.push_back(
        count(m_fleet.Workers() - busy.size(), m_fleet.Workers(), "workers got no values"));
  }
  outcome.Add("answers that waited for the killed worker", static_cast<double>(openAtKill));
  outcome.Add("answers that came twice", static_cast<double>(repeated));
  outcome.Add("values that were lost with the worker", static_cast<double>(missed));
  outcome.Add("retained values at the worker's join", static_cast<double>(view.retainedByShare));
}

void Scenarios::brokerKilled(Outcome& outcome) {
  killBroker(outcome, true);
  killBroker(outcome, false);
}

void Scenarios::killBroker(Outcome& outcome, bool withMemory) {
  const std::string name = withMemory ? "with its memory: " : "without: ";
  const std::size_t brokenBefore = outcome.broken.size();
  const double outage = std::min(length(5), 5.0);
  const std::size_t first = m_fleet.Sets();
  // A third of the televisions have nothing new to say: what is retained of them must come again.
  std::vector<std::size_t> busy;
  for (std::size_t i = 0; i < m_fleet.Size(); ++i) {
    if (i % 3 != 2) busy.push_back(i);
  }
  // Carried out and answered before the kill.
  for (std::size_t i = 0; i < m_fleet.Size(); ++i) m_fleet.SendSet(i);
  expectSets(outcome, first);
  expectRight(outcome, patience(), "before the kill");
  // In flight at the kill: the broker has sent them, and no television has read them.
  for (std::size_t i = 0; i < m_fleet.Size(); ++i) m_fleet.At(i).SignalHost(SIGSTOP);
  const std::size_t inFlight = m_fleet.Sets();
  for (const std::size_t i : busy) m_fleet.SendSet(i);
  if (!m_fleet.Settle(patience())) outcome.broken.push_back("the broker does not take sets");
  if (withMemory) m_fleet.Broker().Save();
  m_fleet.Broker().Kill();
  if (!withMemory) m_fleet.Broker().Forget();
  const std::int64_t killedAt = Now();
  m_fleet.ForgetStatus();
  for (std::size_t i = 0; i < m_fleet.Size(); ++i) m_fleet.At(i).SignalHost(SIGCONT);
  for (const std::size_t i : busy) m_fleet.SendValue(i);
  const std::size_t whileAway = m_fleet.Sets();
  if (withMemory) {
    for (const std::size_t i : busy) m_fleet.SendSet(i);
  }
  m_fleet.RunFor(outage);
  const std::int64_t second = std::time(nullptr);
  m_fleet.Broker().Start();
  const std::int64_t startedAt = Now();
  const double away = static_cast<double>(startedAt - killedAt) / kNsPerSecond;
  m_fleet.RunUntil([this] { return m_fleet.CountOnline() == m_fleet.Size(); }, kBackWithin);
  const double back = secondsSince(startedAt);
  expectNone(outcome, m_fleet.Size() - m_fleet.CountOnline(), m_fleet.Size(),
             "televisions were not back within 35 s");
  if (!withMemory) {
    m_fleet.RunUntil([this] { return m_fleet.CountOnline() == m_fleet.Size(); }, patience());
    // A broker without their sessions would drop what comes before them.
    for (const std::size_t i : busy) m_fleet.SendSet(i);
    for (std::size_t i = inFlight; i < whileAway; ++i) m_fleet.SetAt(i).mayBeLost = true;
  }
  for (std::size_t i = first; i < m_fleet.Sets(); ++i) m_fleet.SetAt(i).mayRepeat = true;
  expectSets(outcome, first);
  expectRight(outcome, patience(), "after the broker's restart");
  expectRetained(outcome);

  const auto connects = m_fleet.ConnectsSince(second);
  const std::size_t most = mostConnects(away);
  if (mostInASecond(connects) > most) {
    outcome.broken.push_back(std::to_string(mostInASecond(connects)) +
                             " connects in a second; random delays lead to at most " +
                             std::to_string(most));
  }
  std::size_t forgotten = 0;
  std::size_t repeated = 0;
  for (std::size_t i = first; i < m_fleet.Sets(); ++i) {
    forgotten += m_fleet.SetAt(i).events == 0 ? 1U : 0U;
    repeated += m_fleet.SetAt(i).answers > 1 ? 1U : 0U;
  }
  outcome.Add(name + "seconds until all are back", back);
  outcome.Add(name + "connects", perTelevision(static_cast<std::int64_t>(sum(connects))));
  outcome.Add(name + "peak connects a second", static_cast<double>(mostInASecond(connects)));
  outcome.Add(name + "most connects allowed", static_cast<double>(most));
  outcome.Add(name + "answers that came twice", static_cast<double>(repeated));
  if (!withMemory)
    outcome.Add(name + "sets that the broker forgot", static_cast<double>(forgotten));
  m_fleet.TakeValues();  // what is retained came to the observer once more
  for (std::size_t i = brokenBefore; i < outcome.broken.size(); ++i) {
    outcome.broken[i] = name + outcome.broken[i];
  }
}

void Scenarios::churn(Outcome& outcome) {
  struct Off {
    std::int64_t until;
    bool isSeen;
  };
  const double seconds = length(120);
  const std::size_t most = std::max<std::size_t>(1, m_fleet.Size() / 5);
  const double killsPerSecond = std::clamp(static_cast<double>(m_fleet.Size()) / 20, 0.5, 8.0);
  constexpr double kSeenWithin = 10;
  std::map<std::size_t, Off> off;
  std::size_t kills = 0;
  std::size_t unseen = 0;
  const std::int64_t begin = Now();
  const auto check = [&] {
    for (auto& [index, state] : off) {
      if (state.isSeen) continue;
      const Television& television = m_fleet.At(index);
      const Television::Seen& seen = television.seen;
      if (seen.status == "\"offline\"" && seen.statusTime.empty()) {
        state.isSeen = true;
      } else if (secondsSince(television.changedAt) > kSeenWithin) {
        state.isSeen = true;
        ++unseen;
      }
    }
  };
  while (secondsSince(begin) < seconds) {
    m_fleet.Step();
    check();
    for (auto entry = off.begin(); entry != off.end();) {
      const bool isOver = entry->second.isSeen && Now() > entry->second.until;
      if (isOver) m_fleet.Want(entry->first);
      entry = isOver ? off.erase(entry) : std::next(entry);
    }
    if (static_cast<double>(kills) > secondsSince(begin) * killsPerSecond || off.size() >= most) {
      continue;
    }
    const std::size_t index = between(0, m_fleet.Size());
    if (m_fleet.At(index).stage == Television::Stage::kOff) continue;
    m_fleet.PowerOff(index);
    ++kills;
    off[index] = {Now() + static_cast<std::int64_t>(between(500, 8000)) * 1'000'000, false};
  }
  if (off.empty()) {
    m_fleet.PowerOff(0);
    off[0] = {0, false};
    ++kills;
  }
  // Those that are off now stay so until a new client has seen them offline.
  const auto isSettled = [&] {
    check();
    for (std::size_t i = 0; i < m_fleet.Size(); ++i) {
      const auto entry = off.find(i);
      if (entry == off.end() ? !m_fleet.IsRight(i) : !entry->second.isSeen) return false;
    }
    return true;
  };
  m_fleet.RunUntil(isSettled, patience());
  expectRetained(outcome);
  // They come back without their application: nothing of it may be left.
  for (const auto& entry : off) {
    m_fleet.At(entry.first).hasApp = false;
    m_fleet.Want(entry.first);
  }
  expectRight(outcome, patience(), "after the last start");
  expectRetained(outcome);
  for (const auto& entry : off) m_fleet.InstallApp(entry.first);
  expectRight(outcome, patience(), "with their applications again");
  expectNone(outcome, unseen, kills, "power cuts were not \"offline\" at the broker within 10 s");
  const std::int64_t connections = m_fleet.TelevisionTraffic().connections;
  if (connections != static_cast<std::int64_t>(m_fleet.Size())) {
    outcome.broken.push_back(std::to_string(connections) + " connections of " +
                             std::to_string(m_fleet.Size()) + " televisions");
  }
  m_fleet.TakeValues();
  outcome.Add("power cuts", static_cast<double>(kills));
}

void Scenarios::network(Outcome& outcome) {
  constexpr std::size_t kProxies = 4;
  constexpr std::size_t kMovedAtOnce = 16;
  constexpr std::chrono::milliseconds kDelay(50);
  const double seconds = length(20);
  const auto isBehind = [](std::size_t index) { return index % 2 == 1; };
  std::vector<std::unique_ptr<TcpProxy>> proxies;
  for (std::size_t i = 0; i < kProxies; ++i) {
    proxies.push_back(std::make_unique<TcpProxy>(m_fleet.TelevisionPort()));
  }
  const auto move = [&](const std::function<int(std::size_t)>& portOf) {
    std::vector<std::size_t> moved;
    for (std::size_t i = 0; i < m_fleet.Size(); ++i) {
      if (isBehind(i)) moved.push_back(i);
    }
    for (std::size_t begin = 0; begin < moved.size(); begin += kMovedAtOnce) {
      const std::size_t end = std::min(begin + kMovedAtOnce, moved.size());
      for (std::size_t i = begin; i < end; ++i) m_fleet.At(moved[i]).SignalHost(SIGTERM);
      for (std::size_t i = begin; i < end; ++i) m_fleet.MoveTo(moved[i], portOf(moved[i]));
      const auto areRight = [&] {
        for (std::size_t i = begin; i < end; ++i) {
          if (!m_fleet.IsRight(moved[i])) return false;
        }
        return true;
      };
      m_fleet.RunUntil(areRight, patience());
    }
    expectRight(outcome, patience(), "after hosts were moved");
  };
  move([&](std::size_t index) { return proxies[index / 2 % kProxies]->Port(); });

  std::size_t statusBefore = 0;
  const auto countDirect = [&] {
    std::size_t messages = 0;
    for (std::size_t i = 0; i < m_fleet.Size(); ++i) {
      if (!isBehind(i)) messages += m_fleet.At(i).seen.statusMessages;
    }
    return messages;
  };
  statusBefore = countDirect();
  m_fleet.TakeValues();
  const std::int64_t second = std::time(nullptr) + 1;
  for (const auto& proxy : proxies) proxy->Delay(kDelay);
  const std::size_t first = m_fleet.Sets();
  std::size_t sent = 0;
  std::size_t cuts = 0;
  double nextCut = 1;
  sendValues(seconds, [&](double elapsed) {
    const auto due =
        static_cast<std::size_t>(elapsed / seconds * 3 * static_cast<double>(m_fleet.Size()));
    for (; sent < std::min(due, 3 * m_fleet.Size()); ++sent) {
      m_fleet.SendSet(sent % m_fleet.Size());
    }
    if (elapsed < nextCut) return;
    nextCut = elapsed + static_cast<double>(between(200, 1500)) / 1000;
    TcpProxy& proxy = *proxies[between(0, kProxies)];
    // All of a proxy's connections at once, or one after some bytes.
    if (between(0, 3) == 0) {
      proxy.Cut();
    } else {
      proxy.CutAfter(between(0, 2) == 0 ? TcpProxy::kToServer : TcpProxy::kToClient,
                     between(1, 3000));
    }
    ++cuts;
  });
  // At last all of them at once.
  const std::string cutTime = WallClock();
  const std::int64_t healedAt = Now();
  for (const auto& proxy : proxies) {
    proxy->Delay(std::chrono::milliseconds(0));
    proxy->Cut();
  }
  const auto countAway = [&] {
    std::size_t away = 0;
    for (std::size_t i = 0; i < m_fleet.Size(); ++i) {
      const Television::Seen& seen = m_fleet.At(i).seen;
      const bool isBack = seen.status == "\"online\"" && seen.statusTime > cutTime;
      away += isBehind(i) && !isBack ? 1U : 0U;
    }
    return away;
  };
  m_fleet.RunUntil([&] { return countAway() == 0; }, kBackWithin);
  expectNone(outcome, countAway(), m_fleet.Size(), "televisions were not back within 35 s");
  outcome.Add("seconds until all are back", secondsSince(healedAt));
  // An answer that was cut off comes again.
  for (std::size_t i = first; i < m_fleet.Sets(); ++i) {
    if (isBehind(m_fleet.SetAt(i).television)) m_fleet.SetAt(i).mayRepeat = true;
  }
  expectSets(outcome, first);
  expectRight(outcome, patience(), "after the last cut");
  // What the broker had not acknowledged before a cut comes again, in its order.
  expectValues(outcome, Network::Broken);
  expectNone(outcome, countDirect() - statusBefore, m_fleet.Size(),
             "statuses came of televisions that were not behind a proxy");
  expectRetained(outcome);
  outcome.Add("cuts", static_cast<double>(cuts));
  outcome.Add("connects again", static_cast<double>(sum(m_fleet.ConnectsSince(second))));
  move([this](std::size_t) { return m_fleet.TelevisionPort(); });
  m_fleet.TakeValues();
}

void Scenarios::addMemory(Outcome& outcome) const {
  const Fleet::Memory memory = m_fleet.MeasureMemory();
  outcome.Add("host KiB", perTelevision(memory.hosts));
  outcome.Add("bus KiB", perTelevision(memory.buses));
  outcome.Add("host own KiB", perTelevision(memory.hostsOwn));
  outcome.Add("bus own KiB", perTelevision(memory.busesOwn));
  outcome.Add("broker KiB", perTelevision(memory.broker - m_fleet.BrokerMemoryAlone()));
}

// Per television, and in so many seconds, or in all when 0.
void Scenarios::addUse(Outcome& outcome, const Fleet::Use& before, const Fleet::Use& after,
                       double perSeconds) const {
  const double seconds = static_cast<double>(after.at - before.at) / kNsPerSecond;
  const double factor = perSeconds > 0 ? perSeconds / seconds : 1;
  const Traffic traffic = after.traffic - before.traffic;
  const auto add = [&](const char* name, std::int64_t value) {
    outcome.Add(name, perTelevision(value) * factor);
  };
  outcome.Add("host CPU ms", perTelevision(after.hostCpu - before.hostCpu) * factor / kNsPerMs);
  outcome.Add("bus CPU ms", perTelevision(after.busCpu - before.busCpu) * factor / kNsPerMs);
  const double brokerCpu =
      static_cast<double>(after.brokerCpu - before.brokerCpu) - seconds * m_fleet.BrokerCpuAlone();
  outcome.Add("broker CPU ms", brokerCpu / static_cast<double>(m_fleet.Size()) * factor / kNsPerMs);
  add("host wake-ups", after.hostWakeUps - before.hostWakeUps);
  add("bus wake-ups", after.busWakeUps - before.busWakeUps);
  add("bytes up", traffic.bytesIn);
  add("bytes down", traffic.bytesOut);
  add("messages up", traffic.segmentsIn);
  add("messages down", traffic.segmentsOut);
}

void Scenarios::sendValues(double seconds, const std::function<void(double elapsed)>& also) {
  const double perSecond = m_settings.rate * static_cast<double>(m_fleet.Size());
  const std::int64_t begin = Now();
  std::size_t sent = 0;
  for (double elapsed = 0; elapsed < seconds; elapsed = secondsSince(begin)) {
    const auto due = static_cast<std::size_t>(elapsed * perSecond);
    for (; sent < due; ++sent) m_fleet.SendValue(sent % m_fleet.Size());
    if (also) also(elapsed);
    m_fleet.Step();
  }
}

void Scenarios::expectRight(Outcome& outcome, double seconds, const std::string& when) {
  if (m_fleet.RunUntil([this] { return m_fleet.CountRight() == m_fleet.Size(); }, seconds)) return;
  const std::size_t right = m_fleet.CountRight();
  for (std::size_t i = 0; i < m_fleet.Size(); ++i) {
    if (m_fleet.IsRight(i)) continue;
    outcome.broken.push_back(count(m_fleet.Size() - right, m_fleet.Size(),
                                   "televisions are not right " + when + ", such as ") +
                             m_fleet.WhatIsWrongWith(i));
    return;
  }
}

void Scenarios::expectValues(Outcome& outcome, Network network) {
  // Faster than this, a machine may be too busy to send each value before the next one.
  constexpr double kSlowRate = 2;
  const Fleet::Values values = m_fleet.TakeValues();
  if (network == Network::Sound) {
    expectNone(outcome, values.backwards, values.sent, "values came after a newer one");
    // For chance: a value that an application sends at once after another.
    if (m_settings.rate <= kSlowRate && 100 * values.skipped > values.sent) {
      outcome.broken.push_back(
          count(values.skipped, values.sent,
                "values were replaced by newer ones, and nothing held them up"));
    }
  }
  expectNone(outcome, values.misnumbered, values.sent,
             "values have another sequence than their number");
  if (values.delivered + values.skipped != values.sent) {
    outcome.broken.push_back(std::to_string(values.sent) + " values sent, " +
                             std::to_string(values.delivered) + " delivered, and gaps for " +
                             std::to_string(values.skipped));
  }
  outcome.Add("values sent", static_cast<double>(values.sent));
  outcome.Add("values delivered", static_cast<double>(values.delivered));
  outcome.Add("values replaced by newer ones", static_cast<double>(values.skipped));
  outcome.Add("values repeated", static_cast<double>(values.repeated + values.backwards));
  if (values.delaysMs.empty()) return;
  outcome.Add("value p50 ms", Percentile(values.delaysMs, 50));
  outcome.Add("value p99 ms", Percentile(values.delaysMs, 99));
}

void Scenarios::expectSets(Outcome& outcome, std::size_t first) {
  const auto isDone = [&] {
    for (std::size_t i = first; i < m_fleet.Sets(); ++i) {
      const Fleet::Set& set = m_fleet.SetAt(i);
      if (!set.mayBeLost && (set.events == 0 || set.answers == 0)) return false;
    }
    return true;
  };
  m_fleet.RunUntil(isDone, patience());
  m_fleet.RunFor(1);  // for what comes twice
  std::size_t lost = 0;
  std::size_t doubled = 0;
  std::size_t unanswered = 0;
  std::size_t answeredTwice = 0;
  for (std::size_t i = first; i < m_fleet.Sets(); ++i) {
    const Fleet::Set& set = m_fleet.SetAt(i);
    lost += !set.mayBeLost && set.events == 0 ? 1U : 0U;
    doubled += set.events > 1 ? 1U : 0U;
    unanswered += !set.mayBeLost && set.answers == 0 ? 1U : 0U;
    answeredTwice += !set.mayRepeat && set.answers > 1 ? 1U : 0U;
  }
  const std::size_t all = m_fleet.Sets() - first;
  expectNone(outcome, lost, all, "sets were lost");
  expectNone(outcome, doubled, all, "sets were doubled");
  expectNone(outcome, unanswered, all, "sets were not answered");
  expectNone(outcome, answeredTwice, all, "sets were answered twice");
}

void Scenarios::expectRetained(Outcome& outcome) {
  std::map<std::string, std::string> retained = m_fleet.Snapshot();
  std::size_t wrong = 0;
  std::string example;
  const auto expect = [&](const std::string& topic, const std::string& payload) {
    const auto entry = retained.find(topic);
    const std::string found = entry == retained.end() ? "nothing" : entry->second;
    if (entry != retained.end()) retained.erase(entry);
    if (found == payload) return;
    ++wrong;
    example = topic + " is " + found + " and should be " + payload;
  };
  for (std::size_t i = 0; i < m_fleet.Size(); ++i) {
    const Television& television = m_fleet.At(i);
    const std::string thing = "things/" + television.Id();
    const std::string service = thing + "/appdatachannel/";
    const std::string value = service + "value/" + kApp;
    retained.erase(thing + "/health");  // it is what the television counted when it had news
    if (television.stage == Television::Stage::kOff) {
      expect(thing + "/status", "\"offline\"");
      retained.erase(service + "properties");  // they stay as they were
      retained.erase(value);
    } else {
      const std::string app = "\"" + std::string(kApp) + "\":{\"type\":\"string\"},";
      expect(thing + "/status", "\"online\"");
      if (television.hasApp) expect(value, "\"" + television.appData + "\"");
      expect(service + "properties",
             "{" + (television.hasApp ? app : std::string()) +
                 "\"signinStatus\":{\"type\":\"bool\"},\"signupInfo\":{\"type\":\"json\"}}");
    }
  }
  const std::size_t all = 3 * m_fleet.Size();
  if (wrong > 0) {
    outcome.broken.push_back(count(wrong, all, "retained messages are wrong, such as: ") + example);
  }
  if (!retained.empty()) {
    outcome.broken.push_back(
        count(retained.size(), all, "retained messages are left over, such as ") +
        retained.begin()->first);
  }
}

std::size_t Scenarios::mostConnects(double outage) {
  constexpr int kTries = 50;
  constexpr double kFirstWindow = 1;
  constexpr double kLastWindow = 30;
  // For chance, and for a machine that is busy with all of them.
  constexpr double kMargin = 1.5;
  constexpr double kMore = 5;
  std::size_t most = 0;
  for (int i = 0; i < kTries; ++i) {
    std::vector<double> connects;
    for (std::size_t client = 0; client < m_fleet.Size(); ++client) {
      double time = 0;
      for (double window = kFirstWindow; time < outage;
           window = std::min(2 * window, kLastWindow)) {
        time += std::uniform_real_distribution<double>(0, window)(m_random);
      }
      connects.push_back(time);
    }
    std::sort(connects.begin(), connects.end());
    std::size_t begin = 0;
    for (std::size_t end = 0; end < connects.size(); ++end) {
      while (connects[end] - connects[begin] > 1) ++begin;
      most = std::max(most, end - begin + 1);
    }
  }
  const auto bound =
      static_cast<std::size_t>(std::ceil(kMargin * static_cast<double>(most) + kMore));
  // With few televisions the margin is all of them. From so many on, most of them in the same
  // second are no chance.
  constexpr std::size_t kEnough = 15;
  const std::size_t size = m_fleet.Size();
  return size < kEnough ? bound : std::min(bound, size - size / 5);
}

}  // namespace Fleet
