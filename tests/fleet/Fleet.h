#ifndef TESTS_FLEET_FLEET_H
#define TESTS_FLEET_FLEET_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "Broker.h"
#include "Certificates.h"
#include "Costs.h"
#include "Helper.h"
#include "Television.h"

namespace Fleet {

// A signal asks the runner to end.
struct Interrupted : std::runtime_error {
  Interrupted() : std::runtime_error("interrupted") {}
};

// Many televisions, one broker, the applications on the televisions, and the cloud: an observer,
// which sees everything that is published, and workers. All but the class itself are processes,
// which end with the object and with the thread that made it. Everything happens in Step, on that
// thread. Failures of what is around the channel are thrown as std::exception.
class Fleet {
 public:
  struct Options {
    std::size_t televisions = 1000;
    std::size_t workers = 4;
    bool usesTls = false;
    std::filesystem::path folder;   // empty, and for the fleet alone
    std::filesystem::path log;      // for what the processes print
    std::filesystem::path helpers;  // the folder with fleet-apps and fleet-worker
    std::string host;
    std::string plugin;
  };
  // A set that was sent, and what came of it.
  struct Set {
    std::size_t television;
    std::size_t worker;
    std::int64_t sentAt = 0;      // in ns; 0: the worker has not sent it yet
    std::int64_t answeredAt = 0;  // the first answer
    std::size_t events = 0;
    std::size_t answers = 0;
    std::size_t refusals = 0;  // answers that are not the result 0
    bool mayBeLost = false;    // nothing is promised of it
    bool mayRepeat = false;    // its worker was killed: its answer may come twice
  };
  // What came of values, at the observer.
  struct Values {
    std::size_t sent = 0;       // by the applications
    std::size_t delivered = 0;  // each once
    std::size_t repeated = 0;
    std::size_t skipped = 0;      // numbers that a gap in the sequence leaves out
    std::size_t backwards = 0;    // an older one after a newer one
    std::size_t misnumbered = 0;  // the sequence is not the application's own number
    std::vector<double> delaysMs{};
  };
  // One value at one worker, by the shared subscription.
  struct Share {
    std::size_t television;
    std::string run;
    std::size_t sequence;
    std::size_t worker;
    std::int64_t at;
  };
  // One second of the fleet's life.
  struct Second {
    double time = 0;  // since the start
    std::string scenario;
    std::size_t online = 0;
    std::size_t values = 0;   // delivered in this second
    std::size_t answers = 0;  // in this second
    double brokerCpu = 0;     // of one processor, in percent
  };

  // Starts the broker, the applications' process and the cloud; all televisions are off.
  explicit Fleet(Options options);
  ~Fleet();
  Fleet(const Fleet&) = delete;
  Fleet& operator=(const Fleet&) = delete;

  // Does what there is to do, for some milliseconds. Throws Interrupted.
  void Step();
  // False when the condition does not come true within so many seconds.
  bool RunUntil(const std::function<bool()>& condition, double seconds);
  void RunFor(double seconds);

  // Who wants to know of each second, and of the name of what runs.
  std::function<void(const Second&)> onSecond;
  std::string scenario;

  bool UsesTls() const { return m_options.usesTls; }

  // --- Televisions
  std::size_t Size() const { return m_televisions.size(); }
  Television& At(std::size_t index) { return *m_televisions.at(index); }
  const Television& At(std::size_t index) const { return *m_televisions.at(index); }
  // They are started in Step, some at a time.
  void Want(std::size_t index) { At(index).isWanted = true; }
  void PowerOff(std::size_t index);  // without a warning
  // Restarts the host, which from now on connects to that port.
  void MoveTo(std::size_t index, int port);
  // Whether the observer has seen all that holds now: the television online, the application in
  // its properties, and the application's last value.
  bool IsRight(std::size_t index) const;
  std::size_t CountRight() const;
  std::size_t CountOnline() const;
  // The application comes to a television that runs without one.
  void InstallApp(std::size_t index);
  // The observer forgets all that it has seen; from now on, only what televisions say after this
  // moment shows that they are online.
  void ForgetStatus();
  // Why a television is not right; for people.
  std::string WhatIsWrongWith(std::size_t index) const;

  // --- What the applications do
  void SendValue(std::size_t index);
  Values TakeValues();
  std::vector<std::string> TakeErrors();

  // --- What the cloud does
  std::size_t Workers() const { return m_workers.size(); }
  std::size_t SendSet(std::size_t television, std::size_t worker);
  std::size_t SendSet(std::size_t television) {
    return SendSet(television, television % Workers());
  }
  Set& SetAt(std::size_t number) { return m_sets.at(number); }
  std::size_t Sets() const { return m_sets.size(); }
  std::size_t CountAnswered(std::size_t first) const;
  // Whether the broker has taken all sets of all workers; asks them, and waits.
  bool Settle(double seconds);
  void KillWorker(std::size_t worker);
  void StartWorker(std::size_t worker);
  // What a worker has got since it was started.
  struct WorkerView {
    bool isUp = false;
    bool hadSession = false;
    std::set<std::string> retainedStatus{};  // televisions
    std::size_t retainedByShare = 0;
    std::size_t answersToOthers = 0;
  };
  const WorkerView& ViewOf(std::size_t worker) const { return m_workers.at(worker).view; }
  std::vector<Share> shares;
  bool keepsShares = false;
  // All that is retained at the broker below things/, as a new client gets it: topic and payload.
  std::map<std::string, std::string> Snapshot();

  // --- The broker
  ::Broker& Broker() { return m_broker; }
  int TelevisionPort() const { return m_broker.GuardedPort(); }
  Traffic TelevisionTraffic() const { return TrafficAt(TelevisionPort()); }
  // Connections to the televisions' port that the broker has accepted, by the second (of the wall
  // clock) in which it did, from this second on.
  std::map<std::int64_t, std::size_t> ConnectsSince(std::int64_t second) const;

  // --- Costs
  struct Use {
    std::int64_t at = 0;  // in ns
    std::int64_t hostCpu = 0;
    std::int64_t busCpu = 0;
    std::int64_t brokerCpu = 0;
    std::int64_t hostWakeUps = 0;
    std::int64_t busWakeUps = 0;
    Traffic traffic;
  };
  Use Measure() const;
  struct Memory {
    std::int64_t hosts = 0;  // KiB, as MemoryOf
    std::int64_t buses = 0;
    std::int64_t hostsOwn = 0;  // KiB, as OwnMemoryOf
    std::int64_t busesOwn = 0;
    std::int64_t broker = 0;  // its own
  };
  Memory MeasureMemory() const;
  // Before there was any television: KiB of its own, and CPU ns a second.
  std::int64_t BrokerMemoryAlone() const { return m_brokerMemoryAlone; }
  double BrokerCpuAlone() const { return m_brokerCpuAlone; }

 private:
  struct Worker {
    std::unique_ptr<Helper> helper;
    WorkerView view;
    std::set<std::string> settled{};
    bool isKilled = false;
  };

  std::unique_ptr<Helper> startHelper(std::vector<std::string> command);
  std::unique_ptr<Helper> startObserver();
  void advance(std::size_t index);
  void joinApp(std::size_t index);
  void bringUp();
  void takeLines();
  void takeAppLine(const std::vector<std::string>& words);
  void takeObserverLine(const std::vector<std::string>& words);
  void takeWorkerLine(std::size_t worker, const std::vector<std::string>& words);
  void takeValue(Television& television, const std::vector<std::string>& words);
  void takeAnswer(std::size_t worker, const std::vector<std::string>& words);
  // Null for another topic than things/<television>/...; sets what follows.
  Television* televisionOf(const std::string& topic, std::string& rest);
  void tellSecond();
  std::string addressAt(int port) const;

  const Options m_options;
  const std::int64_t m_startedAt;
  int m_log = -1;
  ::Broker m_broker;
  std::unique_ptr<Certificates> m_certificates;  // null without TLS
  Television::Place m_place;
  std::vector<std::unique_ptr<Television>> m_televisions;
  std::map<std::string, std::size_t> m_indexes;  // by id
  std::unique_ptr<Helper> m_apps;
  std::unique_ptr<Helper> m_observer;
  std::vector<Worker> m_workers;
  std::deque<Set> m_sets;
  Values m_values;
  std::vector<std::string> m_errors;
  std::string m_statusSince;  // a status that was made before does not count
  bool m_areAppsUp = false;
  bool m_isObserverUp = false;
  std::int64_t m_brokerMemoryAlone = 0;
  double m_brokerCpuAlone = 0;
  std::size_t m_settleToken = 0;
  // For the live line.
  std::int64_t m_nextSecond = 0;
  std::int64_t m_lastBrokerCpu = 0;
  std::size_t m_valuesInSecond = 0;
  std::size_t m_answersInSecond = 0;
};

// The wall clock as televisions write it: "2026-11-22T11:12:31.123Z".
std::string WallClock();

// What SIGINT, SIGTERM and SIGHUP do.
void InstallInterrupts();

}  // namespace Fleet

#endif  // TESTS_FLEET_FLEET_H
