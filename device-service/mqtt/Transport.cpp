#include "mqtt/Transport.h"

#include <algorithm>
#include <utility>

#include "settings/TlsCredentials.h"
#include "values/CatchAll.h"
#include "values/Utf8.h"

namespace Lumo::Mqtt {
namespace {

// After this much, other sources have their turn.
constexpr std::size_t kMaxBytesPerTurn = std::size_t{64} * 1024;
// Read at most after a failed write. The kernel keeps less.
constexpr std::size_t kMaxLastBytes = std::size_t{16} * 1024 * 1024;
constexpr std::size_t kMaxRecordBytes = std::size_t{16} * 1024;  // of TLS

// With TLS it is an error when the broker closes the connection without a goodbye.
bool isEnd(const GError* error) {
  return g_error_matches(error, G_TLS_ERROR, G_TLS_ERROR_EOF) != FALSE;
}

bool isWouldBlock(const GError* error) {
  return g_error_matches(error, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK) != FALSE;
}

constexpr const char* kClosedByBroker = "the broker closed the connection";

}  // namespace

Transport::Transport(const BrokerSettings& broker, GMainContext* context, Listener& listener)
    : m_broker(broker), m_context(context), m_listener(listener), m_buffer(kMaxBytesPerTurn) {}

Transport::~Transport() {
  Close();
}

void Transport::Open() {
  try {
    dial();
  } catch (const WrongTlsCredentials& wrong) {
    failLater(wrong.what());
  }
}

void Transport::dial() {
  Dial::Target target;
  target.host = m_broker.host;
  target.port = m_broker.port;
  target.tls = m_broker.tls;
  if (target.tls && !m_broker.authorityFile.empty()) {
    target.authorities = LoadAuthorities(m_broker.authorityFile);
  }
  if (target.tls && !m_broker.certificateFile.empty()) {
    target.certificate = LoadCertificate(m_broker.certificateFile, m_broker.keyFile);
  }
  m_dials.erase(std::remove_if(m_dials.begin(), m_dials.end(),
                               [](const std::weak_ptr<Dial>& dial) { return dial.expired(); }),
                m_dials.end());
  m_dial = std::make_shared<Dial>(std::move(target), static_cast<Dial::Owner&>(*this));
  m_dials.push_back(m_dial);
  m_dial->Start();
}

std::size_t Transport::Write(std::string_view bytes) {
  std::size_t taken = 0;
  if (!m_broker.tls) {
    taken = send(bytes);
  } else {
    flush();
    while (m_record.empty() && !m_failure && taken < bytes.size()) {
      m_record = bytes.substr(taken, kMaxRecordBytes);
      taken += m_record.size();
      flush();
    }
  }
  if (taken < bytes.size()) m_isWritableOwed = true;
  if (m_isWritableOwed || !m_record.empty()) watchOutput();
  return taken;
}

void Transport::Close() {
  if (m_dial) std::exchange(m_dial, nullptr)->Cancel();
  m_input.reset();
  m_output.reset();
  m_failure.reset();
  m_stream.reset();
  m_why.clear();
  m_record.clear();
  m_recordBytesSent = 0;
  m_isWritableOwed = false;
}

bool Transport::HasEnded() const {
  return std::all_of(m_dials.begin(), m_dials.end(),
                     [](const std::weak_ptr<Dial>& dial) { return dial.expired(); });
}

void Transport::OnDialled(std::unique_ptr<BrokerStream> stream) {
  m_dial.reset();
  m_stream = std::move(stream);
  watchInput();
  m_listener.OnOpened();
}

void Transport::OnDialFailed(const std::string& why) {
  end(ToLine(why));
}

gboolean Transport::onReadable(GPollableInputStream* /*input*/, gpointer self) {
  CatchAll("mqtt", [self] { static_cast<Transport*>(self)->read(kMaxBytesPerTurn); });
  return G_SOURCE_CONTINUE;  // ignored when the source is destroyed
}

gboolean Transport::onSocketReadable(GSocket* /*socket*/, GIOCondition /*condition*/,
                                     gpointer self) {
  return onReadable(nullptr, self);
}

gboolean Transport::onWritable(GPollableOutputStream* /*output*/, gpointer self) {
  CatchAll("mqtt", [self] {
    auto& transport = *static_cast<Transport*>(self);
    transport.m_output.reset();
    transport.flush();
    if (transport.m_failure) return;
    if (!transport.m_record.empty()) {
      transport.watchOutput();
      return;
    }
    if (std::exchange(transport.m_isWritableOwed, false)) transport.m_listener.OnWritable();
  });
  return G_SOURCE_REMOVE;
}

gboolean Transport::onFailure(gpointer self) {
  CatchAll("mqtt", [self] {
    auto& transport = *static_cast<Transport*>(self);
    transport.m_failure.reset();
    const std::string why = std::exchange(transport.m_why, {});
    if (transport.m_stream) {
      // A write has failed. The broker may have sent the reason before it closed the connection.
      transport.read(kMaxLastBytes);
      if (!transport.m_stream) return;
    }
    transport.end(why);
  });
  return G_SOURCE_REMOVE;
}

void Transport::read(std::size_t maxBytes) {
  std::size_t total = 0;
  while (m_stream && total < maxBytes) {
    GError* error = nullptr;
    const gssize result = g_pollable_input_stream_read_nonblocking(
        m_stream->Input(), m_buffer.data(), m_buffer.size(), nullptr, &error);
    const GErrorPtr owner(error);
    if (isWouldBlock(error)) return;
    if (result == 0 || isEnd(error)) return end(kClosedByBroker);
    if (result < 0) return end(ToLine(error->message));
    const auto size = static_cast<std::size_t>(result);
    total += size;
    m_listener.OnBytes({m_buffer.data(), size});
    // A socket that gives less has no more. TLS gives one record at a time.
    if (!m_broker.tls && size < m_buffer.size()) return;
  }
}

std::size_t Transport::send(std::string_view bytes) {
  if (m_failure || bytes.empty()) return 0;
  GError* error = nullptr;
  const gssize result = g_pollable_output_stream_write_nonblocking(m_stream->Output(), bytes.data(),
                                                                   bytes.size(), nullptr, &error);
  const GErrorPtr owner(error);
  if (result >= 0) return static_cast<std::size_t>(result);
  if (!isWouldBlock(error)) failLater(isEnd(error) ? kClosedByBroker : ToLine(error->message));
  return 0;
}

void Transport::flush() {
  while (!m_record.empty()) {
    const std::size_t sent = send(std::string_view(m_record).substr(m_recordBytesSent));
    if (sent == 0) return;
    m_recordBytesSent += sent;
    if (m_recordBytesSent < m_record.size()) continue;
    m_record.clear();
    m_recordBytesSent = 0;
  }
}

void Transport::watchInput() {
  if (m_broker.tls) {
    m_input.reset(g_pollable_input_stream_create_source(m_stream->Input(), nullptr));
    g_source_set_callback(m_input.get(), G_SOURCE_FUNC(&Transport::onReadable), this, nullptr);
  } else {
    // One source, where a pollable stream has one in another.
    GSocket* const socket = g_socket_connection_get_socket(m_stream->Socket());
    m_input.reset(g_socket_create_source(socket, G_IO_IN, nullptr));
    g_source_set_callback(m_input.get(), G_SOURCE_FUNC(&Transport::onSocketReadable), this,
                          nullptr);
  }
  // No callback runs the loop. GLib takes any other source out of the loop for its callback and
  // puts it back, and wakes the loop both times.
  g_source_set_can_recurse(m_input.get(), TRUE);
  g_source_attach(m_input.get(), m_context);
}

void Transport::watchOutput() {
  if (m_output || m_failure) return;
  m_output.reset(g_pollable_output_stream_create_source(m_stream->Output(), nullptr));
  g_source_set_callback(m_output.get(), G_SOURCE_FUNC(&Transport::onWritable), this, nullptr);
  g_source_attach(m_output.get(), m_context);
}

void Transport::failLater(const std::string& why) {
  m_why = why;
  m_failure.reset(g_idle_source_new());
  g_source_set_priority(m_failure.get(), G_PRIORITY_DEFAULT);
  g_source_set_callback(m_failure.get(), &Transport::onFailure, this, nullptr);
  g_source_attach(m_failure.get(), m_context);
}

void Transport::end(const std::string& why) {
  Close();
  m_listener.OnClosed(why);
}

}  // namespace Lumo::Mqtt
