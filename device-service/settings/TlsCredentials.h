#ifndef DEVICE_SERVICE_SETTINGS_TLSCREDENTIALS_H
#define DEVICE_SERVICE_SETTINGS_TLSCREDENTIALS_H

#include <stdexcept>
#include <string>

#include "values/GLibHandle.h"

// What a TLS connection needs besides the broker's address, loaded from files in PEM or from a
// token. Settings loads it once to check it, and each connection loads it again, so that renewed
// files need no restart. Dates are not checked here: a television's clock may be wrong when it
// starts, and each connection checks them.
//
// Any thread. Never prompts for a password. No message contains a secret.
namespace Lumo {

// One line, which names the file.
class WrongTlsCredentials : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Empty when GIO has TLS; otherwise what is missing. GIO loads its modules at the first call.
std::string FaultOfTls();

// The following throw WrongTlsCredentials.

ObjectPtr<GTlsDatabase> LoadAuthorities(const std::string& file);

// The certificate comes first in its file; those that lead to its authority may follow. Both may
// also be URIs of a token, "pkcs11:...". Without a key (empty), only the certificate is loaded.
// Only the connection shows whether the key fits the certificate.
ObjectPtr<GTlsCertificate> LoadCertificate(const std::string& certificate, const std::string& key);

}  // namespace Lumo

#endif  // DEVICE_SERVICE_SETTINGS_TLSCREDENTIALS_H
