#include "mqtt/Dial.h"

#include <array>
#include <cstdint>
#include <string_view>
#include <utility>

#include "mqtt/CertificateUse.h"
#include "values/CatchAll.h"

namespace Lumo::Mqtt {
namespace {

constexpr const char* kCutOff =
    "the broker ended the TLS handshake: it may refuse this thing's certificate, or want one";
constexpr const char* kRefused = "the broker's certificate is refused: ";

// Why a certificate is refused, in words.
std::string describe(GTlsCertificateFlags flags) {
  struct Reason {
    GTlsCertificateFlags flag;
    const char* text;
  };
  constexpr std::array kReasons{
      Reason{G_TLS_CERTIFICATE_UNKNOWN_CA, "no known authority has signed it"},
      Reason{G_TLS_CERTIFICATE_BAD_IDENTITY, "it is for another host"},
      Reason{G_TLS_CERTIFICATE_NOT_ACTIVATED, "it is not valid yet"},
      Reason{G_TLS_CERTIFICATE_EXPIRED, "it has expired"},
      Reason{G_TLS_CERTIFICATE_REVOKED, "it has been revoked"},
      Reason{G_TLS_CERTIFICATE_INSECURE, "its algorithm is not secure"},
      Reason{G_TLS_CERTIFICATE_GENERIC_ERROR, "it cannot be verified"},
  };
  std::string text;
  for (const Reason& reason : kReasons) {
    if ((flags & reason.flag) == 0) continue;
    if (!text.empty()) text += ", ";
    text += reason.text;
  }
  return text;
}

// A broker refuses the thing's certificate with an alert, and closes the connection. With TLS 1.3
// the thing may still be writing then: GIO fails at that and never reads the alert.
std::string describeHandshake(const GError* error, bool hasBrokersCertificate) {
  const bool isCutOff = g_error_matches(error, G_TLS_ERROR, G_TLS_ERROR_NOT_TLS) ||
                        g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CONNECTION_CLOSED);
  if (!hasBrokersCertificate || !isCutOff) return error->message;
  return kCutOff + (" (" + std::string(error->message) + ")");
}

// Verified against these authorities, or the system's (null).
ObjectPtr<GTlsConnection> newTlsConnection(GSocketConnection* socket, GSocketConnectable* identity,
                                           GTlsDatabase* authorities, GError** error) {
  // A connection that is created without a database loads the system's, all of it, for the rest of
  // the process, even if it is given another one at once. A null name ends the properties. A null
  // database would not be the system's, but one that trusts nobody.
  const char* const database = authorities == nullptr ? nullptr : "database";
  gpointer connection = g_initable_new(
      g_tls_backend_get_client_connection_type(g_tls_backend_get_default()), nullptr, error,
      "base-io-stream", socket, "server-identity", identity, database, authorities, nullptr);
  return ObjectPtr<GTlsConnection>(static_cast<GTlsConnection*>(connection));
}

bool isForServers(GTlsCertificate* certificate) {
  GByteArray* der = nullptr;
  g_object_get(certificate, "certificate", &der, nullptr);
  const ByteArrayPtr owner(der);
  return der != nullptr &&
         IsGoodForServers(std::string_view(CastObject<const char>(der->data), der->len));
}

}  // namespace

Dial::Dial(Target target, Owner& owner)
    : m_target(std::move(target)), m_owner(&owner), m_cancellable(g_cancellable_new()) {}

void Dial::Start() {
  const ObjectPtr<GSocketClient> client(g_socket_client_new());
  g_socket_client_set_enable_proxy(client.get(), FALSE);
  const ObjectPtr<GSocketConnectable> address(
      g_network_address_new(m_target.host.c_str(), static_cast<std::uint16_t>(m_target.port)));
  // GIO calls back as soon as one address has answered. Attempts at others end after that, and each
  // refers to the client until then.
  g_object_weak_ref(CastObject<GObject>(client.get()), &Dial::onClientGone, share());
  g_socket_client_connect_async(client.get(), address.get(), m_cancellable.get(),
                                &Dial::onConnected, share());
}

void Dial::Cancel() {
  m_owner = nullptr;
  g_cancellable_cancel(m_cancellable.get());
}

gpointer Dial::share() {
  return std::make_unique<Self>(shared_from_this()).release();
}

Dial::Self Dial::take(gpointer shared) {
  return *std::unique_ptr<Self>(static_cast<Self*>(shared));
}

void Dial::onClientGone(gpointer shared, GObject* /*client*/) {
  take(shared);
}

void Dial::onConnected(GObject* client, GAsyncResult* result, gpointer shared) {
  const Self self = take(shared);
  CatchAll("mqtt", [&] { self->finishConnect(CastObject<GSocketClient>(client), result); });
}

void Dial::onHandshake(GObject* /*connection*/, GAsyncResult* result, gpointer shared) {
  const Self self = take(shared);
  CatchAll("mqtt", [&] { self->finishTls(result); });
}

void Dial::finishConnect(GSocketClient* client, GAsyncResult* result) {
  GError* error = nullptr;
  ObjectPtr<GSocketConnection> socket(g_socket_client_connect_finish(client, result, &error));
  const GErrorPtr owner(error);
  if (socket) m_stream = std::make_unique<BrokerStream>(std::move(socket));
  if (m_owner == nullptr) {
    m_stream.reset();
  } else if (!m_stream) {
    fail(error->message);
  } else if (m_target.tls) {
    startTls();
  } else {
    succeed();
  }
}

void Dial::startTls() {
  const ObjectPtr<GSocketConnectable> identity(
      g_network_address_new(m_target.host.c_str(), static_cast<std::uint16_t>(m_target.port)));
  GError* error = nullptr;
  ObjectPtr<GTlsConnection> tls =
      newTlsConnection(m_stream->Socket(), identity.get(), m_target.authorities.get(), &error);
  const GErrorPtr owner(error);
  if (!tls) return fail(error->message);
  if (m_target.certificate) g_tls_connection_set_certificate(tls.get(), m_target.certificate.get());
  m_stream->SetTls(std::move(tls));
  g_tls_connection_handshake_async(m_stream->Tls(), G_PRIORITY_DEFAULT, m_cancellable.get(),
                                   &Dial::onHandshake, share());
}

void Dial::finishTls(GAsyncResult* result) {
  GTlsConnection* const tls = m_stream->Tls();
  GError* error = nullptr;
  const bool isDone = g_tls_connection_handshake_finish(tls, result, &error) != FALSE;
  const GErrorPtr owner(error);
  if (m_owner == nullptr) {
    m_stream.reset();
    return;
  }
  const std::string faults = describe(g_tls_connection_get_peer_certificate_errors(tls));
  GTlsCertificate* const certificate = g_tls_connection_get_peer_certificate(tls);
  if (!faults.empty()) {
    fail(kRefused + faults);
  } else if (!isDone) {
    fail(describeHandshake(error, certificate != nullptr));
  } else if (g_tls_connection_get_protocol_version(tls) < G_TLS_PROTOCOL_VERSION_TLS_1_2) {
    fail("the broker speaks an old version of TLS only, below 1.2");
  } else if (certificate == nullptr || !isForServers(certificate)) {
    fail(std::string(kRefused) + "it is not for servers");
  } else {
    succeed();
  }
}

void Dial::succeed() {
  std::exchange(m_owner, nullptr)->OnDialled(std::move(m_stream));
}

void Dial::fail(const std::string& why) {
  m_stream.reset();
  std::exchange(m_owner, nullptr)->OnDialFailed(why);
}

}  // namespace Lumo::Mqtt
