#ifndef DEVICE_SERVICE_SETTINGS_TLSFILES_H
#define DEVICE_SERVICE_SETTINGS_TLSFILES_H

#include <string>

// What is wrong with the files of a TLS connection, in PEM: one line, or nothing when they are
// right. They are loaded as the connection will load them, and not kept. Dates are not looked at:
// the clock of a television that starts may be wrong, and each connection looks at them.
//
// Any thread. Nobody is ever asked for a password. Throw std::runtime_error when TLS itself cannot
// be had.
namespace Lumo {

std::string FaultOfAuthorities(const std::string& file);

// The certificate comes first in its file; those that lead to its authority may follow.
std::string FaultOfCertificate(const std::string& file);

// The certificate's file is right. What the key's file holds is never quoted.
std::string FaultOfKey(const std::string& file, const std::string& certificateFile);

}  // namespace Lumo

#endif  // DEVICE_SERVICE_SETTINGS_TLSFILES_H
