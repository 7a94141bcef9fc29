#include "settings/TlsFiles.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <stdexcept>
#include <system_error>

namespace Lumo {
namespace {

struct Free {
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
  void operator()(BIO* stream) const { BIO_free_all(stream); }
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};

template <typename Object>
using Owner = std::unique_ptr<Object, Free>;

// OpenSSL's errors of this thread. What others have left there does not count, and they find
// nothing of ours.
class Errors {
 public:
  Errors() { ERR_clear_error(); }
  ~Errors() { ERR_clear_error(); }
  Errors(const Errors&) = delete;
  Errors& operator=(const Errors&) = delete;

  static std::string Last() {
    const unsigned long error = ERR_peek_last_error();
    if (ERR_SYSTEM_ERROR(error)) return std::generic_category().message(ERR_GET_REASON(error));
    const char* const reason = ERR_reason_error_string(error);
    return reason == nullptr ? "unknown reason" : reason;
  }
};

// Instead of OpenSSL's own, which asks on the terminal. Notes that a password was wanted.
int refusePassword(char*, int, int, void* wanted) {
  *static_cast<bool*>(wanted) = true;
  return -1;
}

Owner<SSL_CTX> makeContext() {
  Owner<SSL_CTX> context(SSL_CTX_new(TLS_client_method()));
  if (!context) throw std::runtime_error("TLS: " + Errors::Last());
  return context;
}

std::string quoted(const std::string& file) {
  return "'" + file + "'";
}

// Why it cannot be opened, or would not end. Opening a pipe would wait for its writer.
std::string faultOfFile(const std::string& file) {
  struct stat status {};
  if (stat(file.c_str(), &status) != 0 || access(file.c_str(), R_OK) != 0) {
    return "cannot read " + quoted(file) + ": " + std::generic_category().message(errno);
  }
  return S_ISREG(status.st_mode) ? "" : quoted(file) + " is not a regular file";
}

bool hasCertificate(const SSL_CTX* context) {
  const STACK_OF(X509_OBJECT)* const objects =
      X509_STORE_get0_objects(SSL_CTX_get_cert_store(context));
  for (int i = 0; i < sk_X509_OBJECT_num(objects); ++i) {
    if (X509_OBJECT_get0_X509(sk_X509_OBJECT_value(objects, i)) != nullptr) return true;
  }
  return false;
}

// Loads the certificate into the context; what is wrong with it.
std::string loadCertificate(SSL_CTX* context, const std::string& file) {
  bool passwordWanted = false;
  SSL_CTX_set_default_passwd_cb(context, refusePassword);
  SSL_CTX_set_default_passwd_cb_userdata(context, &passwordWanted);
  const bool loaded = SSL_CTX_use_certificate_chain_file(context, file.c_str()) == 1;
  SSL_CTX_set_default_passwd_cb_userdata(context, nullptr);
  if (loaded) return {};
  return quoted(file) + (passwordWanted ? std::string(" is locked with a password")
                                        : " is not a certificate: " + Errors::Last());
}

}  // namespace

std::string FaultOfAuthorities(const std::string& file) {
  if (std::string fault = faultOfFile(file); !fault.empty()) return fault;
  const Errors errors;
  const Owner<SSL_CTX> context = makeContext();
  if (SSL_CTX_load_verify_locations(context.get(), file.c_str(), nullptr) != 1) {
    return quoted(file) + " holds no certificates: " + Errors::Last();
  }
  if (!hasCertificate(context.get())) return quoted(file) + " holds no certificates";
  return {};
}

std::string FaultOfCertificate(const std::string& file) {
  if (std::string fault = faultOfFile(file); !fault.empty()) return fault;
  const Errors errors;
  const Owner<SSL_CTX> context = makeContext();
  return loadCertificate(context.get(), file);
}

std::string FaultOfKey(const std::string& file, const std::string& certificateFile) {
  if (std::string fault = faultOfFile(file); !fault.empty()) return fault;
  const Errors errors;
  const Owner<SSL_CTX> context = makeContext();
  if (std::string fault = loadCertificate(context.get(), certificateFile); !fault.empty()) {
    return "needs its certificate: " + fault;
  }
  const Owner<BIO> stream(BIO_new_file(file.c_str(), "r"));
  if (!stream) return "cannot read " + quoted(file) + ": " + Errors::Last();
  bool passwordWanted = false;
  const Owner<EVP_PKEY> key(
      PEM_read_bio_PrivateKey(stream.get(), nullptr, refusePassword, &passwordWanted));
  if (passwordWanted) return quoted(file) + " is locked with a password";
  if (!key) return quoted(file) + " is not a private key: " + Errors::Last();
  if (X509_check_private_key(SSL_CTX_get0_certificate(context.get()), key.get()) != 1) {
    return quoted(file) + " does not fit the certificate: " + Errors::Last();
  }
  return {};
}

}  // namespace Lumo
