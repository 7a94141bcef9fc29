#include "Fault.h"

#include <array>
#include <chrono>
#include <csignal>
#include <cstddef>

#include "DeafListener.h"
#include "FaultyChannel.h"

namespace {

using Kind = Fault::Kind;

constexpr std::chrono::milliseconds kDelay(20);
constexpr int kLargeSets = 100;  // more than the host lets wait for the bus
constexpr std::size_t kLargeSet = std::size_t{100} * 1024;
constexpr int kUnanswerableSets = 2;

struct Exclusion {
  Kind first;
  Kind second;
  const char* reason;
};

constexpr const char* kOneBroker = "the broker is one process, and it is away";
constexpr const char* kOneHost = "the host is one process, and it is away";
constexpr const char* kBrokerTakesAll =
    "the cloud leaves the broker before, and could not hand on its sets";

constexpr std::array<Exclusion, 11> kExclusions{{
    {Kind::BrokerRestarted, Kind::BrokerForgot, kOneBroker},
    {Kind::BrokerForgot, Kind::BrokerRestarted, kOneBroker},
    {Kind::BrokerRestarted, Kind::BrokerStopped, kOneBroker},
    {Kind::BrokerForgot, Kind::BrokerStopped, kOneBroker},
    {Kind::BrokerStopped, Kind::BrokerRestarted, kBrokerTakesAll},
    {Kind::BrokerStopped, Kind::BrokerForgot, kBrokerTakesAll},
    {Kind::HostEnded, Kind::HostKilled, kOneHost},
    {Kind::HostKilled, Kind::HostEnded, kOneHost},
    {Kind::BusKilled, Kind::BusStopped, "the bus is one process, and it is away"},
    {Kind::BusKilled, Kind::ListenerDeaf, "there is no bus to listen to"},
    {Kind::BusStopped, Kind::ListenerDeaf, "the bus lets nobody listen"},
}};

// What needs a host process, which there is none of while the first lasts.
constexpr std::array<Kind, 2> kNeedsHost{Kind::LogUnread, Kind::DescriptorsGone};

}  // namespace

const std::vector<Kind>& Fault::All() {
  static const std::vector<Kind> all {
    Kind::BrokerRestarted, Kind::BrokerForgot, Kind::BrokerStopped, Kind::ConnectionLost,
        Kind::NetworkSilent, Kind::NetworkSlow, Kind::ConnectionsRefused, Kind::ListenerDeaf,
        Kind::BusStopped, Kind::BusKilled, Kind::HostEnded, Kind::HostKilled, Kind::LogUnread,
        Kind::LargeSets, Kind::UnanswerableSets, Kind::SettingsGone,
#if !ADC_SANITIZER_OPENS_FILES
        Kind::DescriptorsGone,
#endif
  };
  return all;
}

const char* Fault::NameOf(Kind kind) {
  switch (kind) {
    case Kind::BrokerRestarted:
      return "BrokerRestarted";
    case Kind::BrokerForgot:
      return "BrokerForgot";
    case Kind::BrokerStopped:
      return "BrokerStopped";
    case Kind::ConnectionLost:
      return "ConnectionLost";
    case Kind::NetworkSilent:
      return "NetworkSilent";
    case Kind::NetworkSlow:
      return "NetworkSlow";
    case Kind::ConnectionsRefused:
      return "ConnectionsRefused";
    case Kind::ListenerDeaf:
      return "ListenerDeaf";
    case Kind::BusStopped:
      return "BusStopped";
    case Kind::BusKilled:
      return "BusKilled";
    case Kind::HostEnded:
      return "HostEnded";
    case Kind::HostKilled:
      return "HostKilled";
    case Kind::LogUnread:
      return "LogUnread";
    case Kind::LargeSets:
      return "LargeSets";
    case Kind::UnanswerableSets:
      return "UnanswerableSets";
    case Kind::SettingsGone:
      return "SettingsGone";
    case Kind::DescriptorsGone:
      return "DescriptorsGone";
  }
  return "";
}

const char* Fault::WhyNot(Kind first, Kind second) {
  if (first == second) return "it is one fault";
  for (const Exclusion& exclusion : kExclusions) {
    if (exclusion.first == first && exclusion.second == second) return exclusion.reason;
  }
  const bool hostIsAway = first == Kind::HostEnded || first == Kind::HostKilled;
  for (const Kind kind : kNeedsHost) {
    if (hostIsAway && second == kind) return kOneHost;
  }
  const bool brokerIsAway = first == Kind::BrokerRestarted || first == Kind::BrokerForgot;
  if (brokerIsAway && (second == Kind::LargeSets || second == Kind::UnanswerableSets)) {
    return "the cloud has no broker to send to";
  }
  return nullptr;
}

Fault::Fault(Kind kind, FaultyChannel& channel) : m_kind(kind), m_channel(channel) {}

Fault::~Fault() = default;

void Fault::Begin() {
  switch (m_kind) {
    case Kind::BrokerRestarted:
      return m_channel.StopBroker();
    case Kind::BrokerForgot:
      return m_channel.KillBroker();
    case Kind::BrokerStopped:
      return m_channel.FreezeBroker();
    case Kind::ConnectionLost:
      return m_channel.Proxy().Cut();
    case Kind::NetworkSilent:
      return m_channel.Proxy().Stall(true);
    case Kind::NetworkSlow:
      return m_channel.Proxy().Delay(kDelay);
    case Kind::ConnectionsRefused:
      m_channel.Proxy().Close();
      return m_channel.Proxy().Cut();
    case Kind::ListenerDeaf:
      m_listener = std::make_unique<DeafListener>(m_channel.BusAddress());
      return;
    case Kind::BusStopped:
      return m_channel.FreezeBus();
    case Kind::BusKilled:
      return m_channel.KillBus();
    case Kind::HostEnded:
      return m_channel.SignalHost(SIGTERM);
    case Kind::HostKilled:
      return m_channel.SignalHost(SIGKILL);
    case Kind::LogUnread:
      return m_channel.StopReadingLog();
    case Kind::LargeSets:
      for (int i = 0; i < kLargeSets; ++i) m_channel.SendSet(kLargeSet);
      return;
    case Kind::UnanswerableSets:
      for (int i = 0; i < kUnanswerableSets; ++i) m_channel.SendUnanswerableSet();
      return;
    case Kind::SettingsGone:
      return m_channel.RemoveSettings();
    case Kind::DescriptorsGone:
      return m_channel.TakeDescriptors();
  }
}

void Fault::End() {
  switch (m_kind) {
    case Kind::BrokerRestarted:
    case Kind::BrokerForgot:
      return m_channel.StartBroker();
    case Kind::BrokerStopped:
      return m_channel.ThawBroker();
    case Kind::ConnectionLost:
      return m_channel.Proxy().Cut();
    case Kind::NetworkSilent:
      return m_channel.Proxy().Stall(false);
    case Kind::NetworkSlow:
      return m_channel.Proxy().Delay(std::chrono::milliseconds(0));
    case Kind::ConnectionsRefused:
      return m_channel.Proxy().Open();
    case Kind::ListenerDeaf:
      return m_listener.reset();
    case Kind::BusStopped:
      return m_channel.ThawBus();
    case Kind::BusKilled:
      return m_channel.StartBus();
    case Kind::HostEnded:
      m_channel.AwaitHostEnd(0);
      return m_channel.StartHost();
    case Kind::HostKilled:
      m_channel.AwaitHostEnd(-SIGKILL);
      return m_channel.StartHost();
    case Kind::LogUnread:
      return m_channel.ReadLog();
    case Kind::LargeSets:
    case Kind::UnanswerableSets:
      return;
    case Kind::SettingsGone:
      return m_channel.PutSettingsBack();
    case Kind::DescriptorsGone:
      return m_channel.GiveDescriptorsBack();
  }
}
