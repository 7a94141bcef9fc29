#include "SteadyApp.h"

#include <utility>

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kBetweenData(50);
constexpr milliseconds kBetweenTries(50);
constexpr const char* kDone = "(0,)";
constexpr const char* kNotRegistered = "(-20,)";

}  // namespace

SteadyApp::SteadyApp(std::string name, OnEvent onEvent)
    : m_name(std::move(name)), m_onEvent(std::move(onEvent)) {}

SteadyApp::~SteadyApp() {
  Leave();
}

void SteadyApp::Join(const std::string& address) {
  m_client = std::make_unique<BusClient>(address);
  begin(State::Unregistering);
}

void SteadyApp::Leave() {
  if (!m_client) return;
  // It fails once everything that came before is here.
  m_client->OwnerOf(kBusName);
  absorb();
  m_client->Close();
  if (m_reply.valid()) m_reply.get();
  m_client.reset();
  m_state = State::Absent;
  m_mustRegister = false;
}

void SteadyApp::Step() {
  if (!m_client) return;
  absorb();
  if (m_reply.valid()) {
    if (m_reply.wait_for(milliseconds(0)) != std::future_status::ready) return;
    takeReply(m_reply.get());
    if (m_reply.valid()) return;
  }
  if (m_mustRegister) {
    m_mustRegister = false;
    begin(State::Unregistering);
  } else if (steady_clock::now() >= m_next) {
    begin(m_state == State::Failed ? State::Unregistering : State::Sending);
  }
}

void SteadyApp::absorb() {
  const std::string before = "('" + m_name + "', '";
  for (const Signal& signal : m_client->TakeSignals()) {
    if (signal.member == "dbus_server_ready") m_mustRegister = true;
    if (signal.member != "send_event" || signal.parameters.rfind(before, 0) != 0) continue;
    const std::size_t end = signal.parameters.size() - 2;
    m_onEvent(signal.parameters.substr(before.size(), end - before.size()));
  }
}

void SteadyApp::begin(State state) {
  m_state = state;
  if (state == State::Unregistering) {
    m_reply = m_client->Call("unregister_app", g_variant_new("(s)", m_name.c_str()));
  } else if (state == State::Registering) {
    m_reply = m_client->Call("register_app", g_variant_new("(s)", m_name.c_str()));
  } else if (state == State::Sending) {
    m_data = std::to_string(++m_number);
    m_reply = m_client->Call("send_data", g_variant_new("(ss)", m_name.c_str(), m_data.c_str()));
  }
}

void SteadyApp::takeReply(const Reply& reply) {
  const State state = std::exchange(m_state, State::Failed);
  m_next = steady_clock::now() + kBetweenTries;
  if (state == State::Unregistering && reply.value == kDone) {
    begin(State::Unregistering);
  } else if (state == State::Unregistering && reply.value == kNotRegistered) {
    begin(State::Registering);
  } else if (reply.value == kDone) {
    m_state = State::Registered;
    if (state == State::Sending) {
      m_next = steady_clock::now() + kBetweenData;
      m_lastSent = m_data;
      ++m_sent;
    }
  }
}
