#include "mqtt/BrokerStream.h"

#include <netinet/in.h>
#include <netinet/tcp.h>

#include <utility>

namespace Lumo::Mqtt {
namespace {

// How much unsent data the kernel accepts.
constexpr int kUnsentBytes = 32 * 1024;

}  // namespace

BrokerStream::BrokerStream(ObjectPtr<GSocketConnection> socket) : m_socket(std::move(socket)) {
  // Errors are ignored: without these options the connection only works less well.
  GSocket* const handle = g_socket_connection_get_socket(m_socket.get());
  g_socket_set_option(handle, IPPROTO_TCP, TCP_NODELAY, 1, nullptr);
  g_socket_set_option(handle, IPPROTO_TCP, TCP_NOTSENT_LOWAT, kUnsentBytes, nullptr);
}

BrokerStream::~BrokerStream() {
  g_io_stream_close(CastObject<GIOStream>(m_socket.get()), nullptr, nullptr);
}

GPollableInputStream* BrokerStream::Input() const {
  return CastObject<GPollableInputStream>(g_io_stream_get_input_stream(stream()));
}

GPollableOutputStream* BrokerStream::Output() const {
  return CastObject<GPollableOutputStream>(g_io_stream_get_output_stream(stream()));
}

GIOStream* BrokerStream::stream() const {
  return m_tls ? CastObject<GIOStream>(m_tls.get()) : CastObject<GIOStream>(m_socket.get());
}

}  // namespace Lumo::Mqtt
