#include "settings/TlsCredentials.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <string_view>
#include <system_error>
#include <utility>

#include "values/Utf8.h"

namespace Lumo {
namespace {

constexpr std::string_view kTokenScheme = "pkcs11:";

bool isOnToken(const std::string& name) {
  return name.compare(0, kTokenScheme.size(), kTokenScheme) == 0;
}

// What follows the question mark of a URI may be a PIN.
std::string quoted(const std::string& name) {
  return "'" + (isOnToken(name) ? name.substr(0, name.find('?')) : name) + "'";
}

WrongTlsCredentials wrong(const std::string& name, const std::string& what, const GError* error) {
  std::string text = quoted(name) + what;
  if (error != nullptr) text.append(": ").append(error->message);
  return WrongTlsCredentials(ToLine(std::move(text)));
}

void checkTls() {
  if (const std::string fault = FaultOfTls(); !fault.empty()) throw WrongTlsCredentials(fault);
}

// Refuses what cannot be read, and pipes: to open one would wait for its writer.
void checkFile(const std::string& file) {
  struct stat status {};
  if (stat(file.c_str(), &status) != 0 || access(file.c_str(), R_OK) != 0) {
    throw WrongTlsCredentials("cannot read " + quoted(file) + ": " +
                              std::generic_category().message(errno));
  }
  if (!S_ISREG(status.st_mode)) {
    throw WrongTlsCredentials(quoted(file) + " is not a regular file");
  }
}

bool isLocked(const std::string& file) {
  std::ifstream stream(file, std::ios::binary);
  const std::string content{std::istreambuf_iterator<char>(stream), {}};
  return content.find("BEGIN ENCRYPTED PRIVATE KEY") != std::string::npos ||
         content.find("Proc-Type: 4,ENCRYPTED") != std::string::npos;
}

ObjectPtr<GTlsCertificate> loadCertificateAlone(const std::string& name) {
  if (!isOnToken(name)) checkFile(name);
  GError* error = nullptr;
  ObjectPtr<GTlsCertificate> certificate(
      isOnToken(name) ? g_tls_certificate_new_from_pkcs11_uris(name.c_str(), nullptr, &error)
                      : g_tls_certificate_new_from_file(name.c_str(), &error));
  const GErrorPtr owner(error);
  if (!certificate) throw wrong(name, " is not a certificate", error);
  return certificate;
}

TextPtr contentOf(const std::string& file) {
  char* content = nullptr;
  GError* error = nullptr;
  const bool isRead = g_file_get_contents(file.c_str(), &content, nullptr, &error) != FALSE;
  TextPtr owner(content);
  const GErrorPtr errorOwner(error);
  if (!isRead) throw wrong(file, " cannot be read", error);
  return owner;
}

// For a certificate or a key on a token. Null, with the error set, when GIO refuses the key.
ObjectPtr<GTlsCertificate> join(GTlsCertificate* certificate, const std::string& key,
                                GError** error) {
  char* pem = nullptr;
  GTlsCertificate* issuer = nullptr;
  g_object_get(certificate, "certificate-pem", &pem, "issuer", &issuer, nullptr);
  const TextPtr pemOwner(pem);
  const ObjectPtr<GTlsCertificate> issuerOwner(issuer);
  TextPtr keyPem;
  if (!isOnToken(key)) keyPem = contentOf(key);
  gpointer joined = g_initable_new(g_tls_backend_get_certificate_type(g_tls_backend_get_default()),
                                   nullptr, error, "certificate-pem", pem, "issuer", issuer,
                                   keyPem ? "private-key-pem" : "private-key-pkcs11-uri",
                                   keyPem ? keyPem.get() : key.c_str(), nullptr);
  return ObjectPtr<GTlsCertificate>(static_cast<GTlsCertificate*>(joined));
}

}  // namespace

std::string FaultOfTls() {
  if (g_tls_backend_supports_tls(g_tls_backend_get_default()) != FALSE) return {};
  return "GIO has no TLS here; install the package glib-networking";
}

ObjectPtr<GTlsDatabase> LoadAuthorities(const std::string& file) {
  checkTls();
  checkFile(file);
  const TextPtr path(g_canonicalize_filename(file.c_str(), nullptr));
  GError* error = nullptr;
  GTlsDatabase* const database = g_tls_file_database_new(path.get(), &error);
  const GErrorPtr owner(error);
  if (database == nullptr) throw wrong(file, " holds no certificates", error);
  return ObjectPtr<GTlsDatabase>(database);
}

ObjectPtr<GTlsCertificate> LoadCertificate(const std::string& certificate, const std::string& key) {
  checkTls();
  if (key.empty()) return loadCertificateAlone(certificate);
  if (!isOnToken(key)) checkFile(key);
  GError* error = nullptr;
  ObjectPtr<GTlsCertificate> both;
  if (isOnToken(certificate) || isOnToken(key)) {
    both = join(loadCertificateAlone(certificate).get(), key, &error);
  } else {
    checkFile(certificate);
    both.reset(g_tls_certificate_new_from_files(certificate.c_str(), key.c_str(), &error));
  }
  const GErrorPtr owner(error);
  if (both) return both;
  if (!isOnToken(key) && isLocked(key)) {
    throw WrongTlsCredentials(quoted(key) + " is locked with a password");
  }
  throw wrong(key, " is not a private key", error);
}

}  // namespace Lumo
