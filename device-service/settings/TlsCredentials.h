#ifndef DEVICE_SERVICE_SETTINGS_TLSCREDENTIALS_H
#define DEVICE_SERVICE_SETTINGS_TLSCREDENTIALS_H

#include <stdexcept>
#include <string>

#include "values/GLibHandle.h"

// What a TLS connection needs besides the broker's address, loaded from files in PEM or from a
// token. Settings loads it once to judge it, and each connection again, so that renewed files need
// no restart. Dates are not judged here: the clock of a television that starts may be wrong, and
// each connection judges them.
//
// Any thread. Nobody is ever asked for a password. No text holds a secret.
namespace Lumo {

// One line, which names the file.
class WrongTlsCredentials : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Nothing when TLS can be had; else what is missing. GIO loads its modules at the first call.
std::string FaultOfTls();

// The following throw WrongTlsCredentials.

ObjectPtr<GTlsDatabase> LoadAuthorities(const std::string& file);

// The certificate comes first in its file; those that lead to its authority may follow. Both may
// also be URIs of a token, "pkcs11:...". Without a key (empty), the certificate alone is loaded.
// Whether the key fits the certificate shows at the connection only.
ObjectPtr<GTlsCertificate> LoadCertificate(const std::string& certificate, const std::string& key);

}  // namespace Lumo

#endif  // DEVICE_SERVICE_SETTINGS_TLSCREDENTIALS_H
