#include "Pressure.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <exception>
#include <functional>
#include <future>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "AppConnection.h"
#include "CloudRequester.h"
#include "ProcessUse.h"
#include "SetLog.h"

namespace Soak {
namespace {

using Clock = std::chrono::steady_clock;
using Microseconds = std::chrono::duration<double, std::micro>;

constexpr std::size_t kMaxMemoryKib = std::size_t{64} * 1024;
constexpr std::chrono::seconds kMeasureTime(5);
constexpr std::chrono::milliseconds kMeasureInterval(1);
constexpr double kGoodRatio = 3;
constexpr std::size_t kLongValue = 1 << 20;     // bytes
constexpr std::size_t kLongEvent = 100 * 1024;  // bytes
constexpr int kSetsAtOnce = 10'000;
constexpr int kBystander = 10;  // numbers of requesters
constexpr int kLoader = 11;
constexpr const char* kOther = "qmap";  // the bystander's application
constexpr const char* kLoaded = "qz";
constexpr const char* kBusy = R"({"error":"busy"})";

// A load, which goes on until it is told to stop.
using Load = std::function<void(const std::atomic<bool>& stop)>;

// The load on a thread of its own, stopped with the object.
class Loading {
 public:
  Loading(const Load& load, Tally& tally)
      : m_thread([this, &load, &tally] {
          try {
            load(m_stop);
          } catch (const std::exception& error) {
            tally.Mismatch(std::string("the load ends: ") + error.what());
          }
        }) {}
  ~Loading() {
    m_stop = true;
    m_thread.join();
  }
  Loading(const Loading&) = delete;
  Loading& operator=(const Loading&) = delete;

 private:
  std::atomic<bool> m_stop{false};
  std::thread m_thread;
};

double percentile99(std::vector<double> times) {
  std::sort(times.begin(), times.end());
  return times[(times.size() * 99 + 99) / 100 - 1];
}

// Everybody else: an application and, beside it, somebody in the cloud who reads what it sends.
class Bystander {
 public:
  struct Times {
    // The 99th percentiles, us
    double call;        // of send_data -> reply
    double get;         // of get -> answer
    double bus;         // of a call that the bus itself answers
    double broker;      // of a message that the broker brings back
    std::size_t calls;  // how many of each
    std::size_t gets;
    double longestGet;  // us; one that waits for a whole load is only one among many
    unsigned busy;      // gets that were refused because too many requests waited
  };

  Bystander(Channel& channel, Tally& tally)
      : m_tally(tally),
        m_bus(channel.BusAddress(), kOther, tally),
        m_requester(channel.BrokerPort(), Channel::kThing, kBystander, tally) {
    if (m_bus.Register(kOther) != 0) throw std::runtime_error("the bystander cannot register");
  }
  ~Bystander() {
    try {
      m_bus.Unregister(kOther);
    } catch (const std::exception& error) {
      std::fprintf(stderr, "%s\n", error.what());
    }
  }
  Bystander(const Bystander&) = delete;
  Bystander& operator=(const Bystander&) = delete;

  Times Measure() {
    std::vector<double> calls;
    std::vector<double> gets;
    std::vector<double> buses;
    std::vector<double> brokers;
    unsigned busy = 0;
    sendNext();  // there is a value to get
    const Clock::time_point end = Clock::now() + kMeasureTime;
    auto cloud = std::async(std::launch::async, [&] {
      while (Clock::now() < end) {
        gets.push_back(timeOf([&] { busy += isBusyForGet() ? 1U : 0U; }));
        brokers.push_back(timeOf([this] { askBroker(); }));
        std::this_thread::sleep_for(kMeasureInterval);
      }
    });
    while (Clock::now() < end) {
      calls.push_back(timeOf([this] { sendNext(); }));
      buses.push_back(timeOf([this] { m_bus.CallBus(); }));
      std::this_thread::sleep_for(kMeasureInterval);
    }
    cloud.get();
    const std::size_t numberOfCalls = calls.size();
    const std::size_t numberOfGets = gets.size();
    const double longestGet = *std::max_element(gets.begin(), gets.end());
    return {percentile99(std::move(calls)),
            percentile99(std::move(gets)),
            percentile99(std::move(buses)),
            percentile99(std::move(brokers)),
            numberOfCalls,
            numberOfGets,
            longestGet,
            busy};
  }

 private:
  void sendNext() {
    if (m_bus.SendData(kOther, std::to_string(++m_begun)) != 0) {
      throw std::runtime_error("send_data is refused");
    }
    m_sent = m_begun.load();
  }

  bool isBusyForGet() {
    const unsigned oldest = m_sent;
    const auto number = m_requester.Send("get", std::string("[\"") + kOther + "\"]");
    const auto answer = m_requester.WaitForAnswer(number, HostProcess::kPatience);
    if (answer == kBusy) return true;
    bool isRight = false;
    for (unsigned value = oldest; answer && !isRight && value <= m_begun; ++value) {
      isRight = answer->find("\"" + std::to_string(value) + "\"") != std::string::npos;
    }
    if (!isRight) m_tally.Mismatch("a get is answered with " + answer.value_or("nothing"));
    return false;
  }

  void askBroker() {
    const std::string text = "to myself";
    const auto number = m_requester.SendToSelf(text);
    if (m_requester.WaitForAnswer(number, HostProcess::kPatience) != text) {
      m_tally.Mismatch("the broker does not bring a message back");
    }
  }

  template <typename Work>
  static double timeOf(const Work& work) {
    const Clock::time_point start = Clock::now();
    work();
    return Microseconds(Clock::now() - start).count();
  }

  Tally& m_tally;
  AppConnection m_bus;               // of the thread that measures
  CloudRequester m_requester;        // of the other one
  std::atomic<unsigned> m_begun{0};  // the last value that is being sent
  std::atomic<unsigned> m_sent{0};   // the last one that has been taken
};

std::string setOfLoaded(CloudRequester& requester, std::size_t padding) {
  return std::string("{\"") + kLoaded + "\":\"" +
         std::to_string(SetLog::MakeId(kLoader, requester.NextNumber())) + ":" +
         std::string(padding, 'x') + "\"}";
}

void waitForAnswer(CloudRequester& requester, CloudRequester::Number request) {
  const auto answer = requester.WaitForAnswer(request, HostProcess::kPatience);
  if (!answer) throw std::runtime_error("a set is not answered");
}

}  // namespace

void MeasurePressure(Channel& channel, Tally& tally) {
  Bystander bystander(channel, tally);
  AppConnection app(channel.BusAddress(), kLoaded, tally);
  app.Subscribe(AppConnection::Listening::ToAll);
  CloudRequester requester(channel.BrokerPort(), Channel::kThing, kLoader, tally);
  if (app.Register(kLoaded) != 0) throw std::runtime_error("the loaded one cannot register");

  const auto sendLongEvents = [&](const std::atomic<bool>& stop) {
    while (!stop) {
      waitForAnswer(requester, requester.Send("set", setOfLoaded(requester, kLongEvent)));
    }
  };
  const auto neverRead = [&](const std::atomic<bool>& stop) {
    HostProcess deaf(
        {"gdbus", "monitor", "--address", channel.BusAddress(), "--dest", "org.tizen.qivo_thing"});
    if (!deaf.WaitForOutput("is owned by")) throw std::runtime_error(deaf.Errors());
    deaf.Send(SIGSTOP);
    sendLongEvents(stop);
    deaf.End(SIGKILL);
  };
  const auto sendLongValues = [&](const std::atomic<bool>& stop) {
    const std::string value(kLongValue, 'x');
    while (!stop) {
      if (app.SendData(kLoaded, value) != 0) throw std::runtime_error("send_data is refused");
    }
  };
  const auto sendManySets = [&](const std::atomic<bool>& /*stop*/) {
    std::vector<CloudRequester::Number> requests;
    requests.reserve(kSetsAtOnce);
    for (int i = 0; i < kSetsAtOnce; ++i) {
      requests.push_back(requester.Send("set", setOfLoaded(requester, 0)));
    }
    for (const CloudRequester::Number request : requests) waitForAnswer(requester, request);
  };
  const std::vector<std::pair<const char*, Load>> loads{
      {"long events", sendLongEvents},
      {"long events, one never reads", neverRead},
      {"10,000 sets at once", sendManySets},
      {"1 MiB values in a loop", sendLongValues},
      {"10,000 sets of a 1 MiB value", sendManySets},  // which the answers carry
  };

  const Bystander::Times quiet = bystander.Measure();
  std::printf("%-29s %18s %18s %18s %18s %14s\n", "p99 in us", "send_data -> reply",
              "get -> answer", "the bus alone", "the broker alone", "host's peak");
  std::printf("%-29s %18.0f %18.0f %18.0f %18.0f\n", "quiet", quiet.call, quiet.get, quiet.bus,
              quiet.broker);
  for (const auto& [name, load] : loads) {
    const std::size_t before = ProcessUse::Of(channel.HostPid()).residentKib;
    ProcessUse::ResetPeak(channel.HostPid());
    Bystander::Times times{};
    {
      const Loading loading(load, tally);
      times = bystander.Measure();
    }
    const std::size_t peak = std::max(before, ProcessUse::Of(channel.HostPid()).peakKib);
    const bool isGood =
        times.call <= kGoodRatio * quiet.call && times.get <= kGoodRatio * quiet.get;
    std::printf("%-29s", name);
    for (const auto& [loaded, unloaded] :
         {std::pair(times.call, quiet.call), std::pair(times.get, quiet.get),
          std::pair(times.bus, quiet.bus), std::pair(times.broker, quiet.broker)}) {
      std::printf(" %8.0f (x %5.1f)", loaded, loaded / unloaded);
    }
    std::printf(" %7zu KiB over %zu, %zu calls, %zu gets, longest %.0f, %u of them busy%s\n",
                peak - before, before, times.calls, times.gets, times.longestGet, times.busy,
                isGood ? "" : "  more than three times");
    std::fflush(stdout);
    if (peak > before + kMaxMemoryKib) {
      tally.Mismatch(std::string(name) + ": the host takes more than " +
                     std::to_string(kMaxMemoryKib) + " KiB");
    }
  }
  if (app.Unregister(kLoaded) != 0) tally.Mismatch("the loaded one cannot leave");
}

}  // namespace Soak
