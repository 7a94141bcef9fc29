#include "Pressure.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "AppConnection.h"
#include "CloudRequester.h"
#include "Percentile.h"
#include "ProcessUse.h"
#include "SetLog.h"
#include "Worker.h"

namespace Soak {
namespace {

using Clock = std::chrono::steady_clock;
using Microseconds = std::chrono::duration<double, std::micro>;

constexpr std::size_t kMaxMemoryKib = std::size_t{64} * 1024;
constexpr std::chrono::seconds kMeasureTime(5);
constexpr std::chrono::milliseconds kMeasureInterval(1);
constexpr std::size_t kLongValue = 1 << 20;     // bytes
constexpr std::size_t kLongEvent = 100 * 1024;  // bytes
constexpr int kSetsAtOnce = 10'000;
constexpr int kBystander = 10;  // numbers of requesters
constexpr int kLoader = 11;
constexpr const char* kOther = "qmap";  // the bystander's application
constexpr const char* kLoaded = "qz";
constexpr const char* kBusy = R"({"error":"busy"})";

void callDone(AppConnection& app, const char* method, const std::vector<std::string>& arguments) {
  if (app.Call(method, arguments) != "(0,)")
    throw std::runtime_error(method + (" " + arguments[0]));
}

// Everybody else: an application and, beside it, somebody in the cloud who reads what it sends.
class Bystander {
 public:
  enum What { kCall, kGet, kBus, kBroker };
  struct Times {
    // In microseconds, of send_data -> reply, of get -> answer, of a call that the bus itself
    // answers, and of a message that the broker brings back.
    std::array<std::vector<double>, 4> of;
    unsigned busy = 0;  // gets that were refused because too many requests waited

    double Rare(std::size_t what) const { return Percentile(of[what], 99); }
  };

  Bystander(Channel& channel, Tally& tally)
      : m_tally(tally),
        m_bus(channel.Bus().Address(), kOther, tally),
        m_requester(channel.Broker().CloudPort(), Channel::kThing, kBystander, tally) {
    callDone(m_bus, "register_app", {kOther});
  }

  Times Measure() {
    Times times;
    sendNext();  // there is a value to get
    const Clock::time_point end = Clock::now() + kMeasureTime;
    auto cloud = std::async(std::launch::async, [&] {
      while (Clock::now() < end) {
        times.of[kGet].push_back(timeOf([&] { times.busy += isBusyForGet() ? 1U : 0U; }));
        times.of[kBroker].push_back(timeOf([this] {
          const auto number = m_requester.SendToSelf("to myself");
          if (m_requester.WaitForAnswer(number, HostProcess::kPatience) != "to myself") {
            m_tally.Mismatch("the broker does not bring a message back");
          }
        }));
        std::this_thread::sleep_for(kMeasureInterval);
      }
    });
    while (Clock::now() < end) {
      times.of[kCall].push_back(timeOf([this] { sendNext(); }));
      times.of[kBus].push_back(timeOf([this] { m_bus.CallBus(); }));
      std::this_thread::sleep_for(kMeasureInterval);
    }
    cloud.get();
    return times;
  }

 private:
  void sendNext() {
    callDone(m_bus, "send_data", {kOther, std::to_string(++m_begun)});
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
  AppConnection app(channel.Bus().Address(), kLoaded, tally);
  app.Subscribe(/*toEvents=*/true);
  CloudRequester requester(channel.Broker().CloudPort(), Channel::kThing, kLoader, tally);
  callDone(app, "register_app", {kLoaded});

  const auto sendLongEvents = [&](const std::atomic<bool>& stop) {
    while (!stop) {
      waitForAnswer(requester, requester.Send("set", setOfLoaded(requester, kLongEvent)));
    }
  };
  const auto neverRead = [&](const std::atomic<bool>& stop) {
    HostProcess deaf({"gdbus", "monitor", "--address", channel.Bus().Address(), "--dest",
                      "org.tizen.qivo_thing"});
    if (!deaf.WaitForOutput("is owned by")) throw std::runtime_error(deaf.Errors());
    deaf.Send(SIGSTOP);
    sendLongEvents(stop);
    deaf.End(SIGKILL);
  };
  const auto sendLongValues = [&](const std::atomic<bool>& stop) {
    const std::string value(kLongValue, 'x');
    while (!stop) callDone(app, "send_data", {kLoaded, value});
  };
  const auto sendManySets = [&](const std::atomic<bool>& /*stop*/) {
    std::vector<CloudRequester::Number> requests;
    requests.reserve(kSetsAtOnce);
    for (int i = 0; i < kSetsAtOnce; ++i) {
      requests.push_back(requester.Send("set", setOfLoaded(requester, 0)));
    }
    for (const CloudRequester::Number request : requests) waitForAnswer(requester, request);
  };
  const std::vector<std::pair<const char*, Worker::Work>> loads{
      {"long events", sendLongEvents},
      {"long events, one never reads", neverRead},
      {"10,000 sets at once", sendManySets},
      {"1 MiB values in a loop", sendLongValues},
      {"10,000 sets of a 1 MiB value", sendManySets},  // which the answers carry
  };

  const Bystander::Times quiet = bystander.Measure();
  std::printf("%-29s %18s %18s %18s %18s %14s\n%-29s", "p99 in us", "send_data -> reply",
              "get -> answer", "the bus alone", "the broker alone", "host's peak", "quiet");
  for (std::size_t i = 0; i < quiet.of.size(); ++i) std::printf(" %18.0f", quiet.Rare(i));
  std::printf("\n");
  for (const auto& [name, load] : loads) {
    const std::size_t before = ProcessUse::Of(channel.Host().Pid()).residentKib;
    ProcessUse::ResetPeak(channel.Host().Pid());
    Bystander::Times times;
    {
      const Worker loading(name, load, tally);
      times = bystander.Measure();
    }
    const std::size_t peak = std::max(before, ProcessUse::Of(channel.Host().Pid()).peakKib);
    std::printf("%-29s", name);
    for (std::size_t i = 0; i < times.of.size(); ++i) {
      std::printf(" %8.0f (x %5.1f)", times.Rare(i), times.Rare(i) / quiet.Rare(i));
    }
    std::printf(" %7zu KiB over %zu, %zu calls, %zu gets, longest %.0f, %u of them busy\n",
                peak - before, before, times.of[Bystander::kCall].size(),
                times.of[Bystander::kGet].size(), Percentile(times.of[Bystander::kGet], 100),
                times.busy);
    std::fflush(stdout);
    if (peak > before + kMaxMemoryKib) {
      tally.Mismatch(std::string(name) + ": the host takes more than " +
                     std::to_string(kMaxMemoryKib) + " KiB");
    }
  }
  callDone(app, "unregister_app", {kLoaded});
}

}  // namespace Soak
