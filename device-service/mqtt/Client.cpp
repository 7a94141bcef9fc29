#include "mqtt/Client.h"

#include <algorithm>
#include <utility>

#include "dlog.h"

namespace Lumo::Mqtt {
namespace {

using std::chrono::milliseconds;

// For the lookup, the connection, TLS and the broker's acceptance together.
constexpr std::chrono::seconds kAttemptTime{10};
// A connection that was lost sooner does not count as a success.
constexpr std::chrono::seconds kSettlingTime{5};
// Two clients with one identifier take the session from each other, and not every broker gives the
// reason. They are suspected when connections are closed as soon as this, so often in a row.
constexpr std::chrono::seconds kShortTime{60};
constexpr int kSuspiciouslyOften = 3;
constexpr const char* kHint = " again: is LUMO_THING_ID unique?";

}  // namespace

Client::Client(const BrokerSettings& broker, Session::Settings settings, Listener& listener)
    : m_broker(broker),
      m_listener(listener),
      m_session(std::move(settings), *this),
      m_transport(m_broker, m_loop.Context(), *this) {}

Client::~Client() = default;

void Client::Shutdown() {
  m_isAttempting = false;
  m_isConnected = false;
  m_transport.Close();
  for (Clock::time_point latest = Clock::now(); !m_transport.HasEnded(); m_loop.Wait(latest)) {
    // The same time until it has passed: a wait for another one does not wait.
    if (latest <= Clock::now()) latest += milliseconds(100);
  }
}

void Client::Wait(Clock::time_point latest) {
  m_loop.Wait(std::min(latest, nextTime()));
  rethrow();
  const Clock::time_point now = Clock::now();
  m_session.CheckTime(now);
  endWhatMustEnd(now);
  if (!m_isAttempting && !m_isConnected && now >= m_nextAttempt) attempt();
}

void Client::Drop(const std::string& why) {
  if (m_isAttempting || m_isConnected) lose({std::nullopt, false, why});
}

void Client::Flush() {
  writeOutput();
  rethrow();
}

Client::Token Client::Publish(Publication publication) {
  m_session.Publish(++m_lastToken, std::move(publication));
  return m_lastToken;
}

Client::Token Client::Subscribe(const Subscription& subscription) {
  m_session.Subscribe(++m_lastToken, subscription);
  return m_lastToken;
}

Client::Token Client::Unsubscribe(const std::string& filter) {
  m_session.Unsubscribe(++m_lastToken, filter);
  return m_lastToken;
}

void Client::Disconnect(milliseconds limit) {
  if (!m_isConnected) return;
  m_session.Disconnect();
  const Clock::time_point end = Clock::now() + limit;
  writeOutput();
  while (m_transport.IsOpen() && !m_closed && !m_session.Output().empty() && Clock::now() < end) {
    m_loop.Wait(end);
    writeOutput();
  }
  m_isConnected = false;
  m_transport.Close();
  m_session.Lose();
}

void Client::OnOpened() {
  guard([this] {
    m_session.Begin(Clock::now());
    writeOutput();
  });
}

void Client::OnBytes(std::string_view bytes) {
  guard([this, bytes] { m_session.TakeBytes(bytes, Clock::now()); });
}

void Client::OnWritable() {
  guard([this] { writeOutput(); });
}

void Client::OnClosed(const std::string& why) {
  guard([this, &why] { m_closed = why; });
}

void Client::OnAccepted(bool sessionPresent) {
  m_isAttempting = false;
  m_isConnected = true;
  m_connectedAt = Clock::now();
  // Whoever reads the errors also reads that they are over.
  dlog_print(std::exchange(m_hasTrouble, false) ? 5 : 4, "LUMO", "connected to %s:%d as %s\n",
             m_broker.host.c_str(), m_broker.port, m_session.ClientId().c_str());
  m_listener.OnConnected(sessionPresent);
}

void Client::rethrow() {
  if (m_exception) std::rethrow_exception(std::exchange(m_exception, nullptr));
}

void Client::attempt() {
  m_isAttempting = true;
  m_closed.reset();
  m_attemptEnds = Clock::now() + kAttemptTime;
  m_transport.Open();
}

void Client::writeOutput() {
  while (m_transport.IsOpen() && !m_closed) {
    const std::string_view output = m_session.Output();
    if (output.empty()) return;
    const std::size_t taken = m_transport.Write(output);
    const bool isAll = taken == output.size();
    m_session.Written(taken, Clock::now());
    if (!isAll) return;
  }
}

void Client::endWhatMustEnd(Clock::time_point now) {
  if (!m_isAttempting && !m_isConnected) return;
  if (const std::optional<Session::End> end = m_session.GetEnd()) {
    writeOutput();  // a DISCONNECT that says why, if the network takes it
    lose({end->brokerReason, false, end->why});
  } else if (const std::optional<std::string> why = std::exchange(m_closed, std::nullopt)) {
    lose({std::nullopt, true, *why});
  } else if (m_isAttempting && now >= m_attemptEnds) {
    lose({std::nullopt, false, "no answer"});
  }
}

void Client::lose(Loss loss) {
  const Clock::time_point now = Clock::now();
  const bool wasConnected = std::exchange(m_isConnected, false);
  m_isAttempting = false;
  m_closed.reset();
  m_exception = nullptr;
  m_transport.Close();
  m_session.Lose();
  if (wasConnected && now - m_connectedAt >= kSettlingTime) m_backoff.Reset();
  if (wasConnected) noteClosed(loss.byPeer && now - m_connectedAt < kShortTime);
  if (wasConnected && m_closedInARow >= kSuspiciouslyOften) loss.why += kHint;
  m_hasTrouble = true;
  const milliseconds wait = m_backoff.Next();
  m_nextAttempt = now + wait;
  dlog_print(6, "LUMO", "%s %s:%d: %s; next attempt in %d ms\n",
             wasConnected ? "lost the connection to" : "cannot connect to", m_broker.host.c_str(),
             m_broker.port, loss.why.c_str(), static_cast<int>(wait.count()));
  if (wasConnected) {
    m_listener.OnLost(loss);
  } else {
    m_listener.OnNotConnected(loss.why);
  }
}

void Client::noteClosed(bool soon) {
  m_closedInARow = soon ? std::min(m_closedInARow + 1, kSuspiciouslyOften) : 0;
}

Client::Clock::time_point Client::nextTime() const {
  if (m_isConnected) return m_session.NextCheck();
  return m_isAttempting ? m_attemptEnds : m_nextAttempt;
}

}  // namespace Lumo::Mqtt
