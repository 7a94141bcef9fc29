#include "Certificates.h"

#include <fstream>

#include "Program.h"

Certificates::Certificates(const std::filesystem::path& parent, const std::string& authority)
    : m_folder(parent / authority) {
  std::filesystem::create_directory(m_folder);
  makeKey("ca", authority, {"-x509", "-out", Path("ca.crt"), "-days", "2"});
}

void Certificates::Sign(const std::string& name, const std::string& subject, const std::string& use,
                        int days) const {
  makeKey(name, name, {"-out", Path(name + ".csr")});
  std::ofstream(Path(name + ".ext"))
      << "subjectAltName=" << subject << (use.empty() ? "" : "\nextendedKeyUsage=" + use) << "\n";
  RunToEnd({"openssl", "x509", "-req", "-in", Path(name + ".csr"), "-CA", Path("ca.crt"), "-CAkey",
            Path("ca.key"), "-CAcreateserial", "-out", Path(name + ".crt"), "-days",
            std::to_string(days), "-extfile", Path(name + ".ext")});
}

void Certificates::SelfSign(const std::string& name, const std::string& subject) const {
  makeKey(
      name, name,
      {"-x509", "-out", Path(name + ".crt"), "-addext", "subjectAltName=" + subject, "-days", "2"});
}

std::string Certificates::ListenerLines(const std::string& name) const {
  return "cafile " + Path("ca.crt") + "\ncertfile " + Path(name + ".crt") + "\nkeyfile " +
         Path(name + ".key") + "\n";
}

void Certificates::makeKey(const std::string& file, const std::string& subject,
                           const std::vector<std::string>& more) const {
  std::vector<std::string> command{"openssl", "req",           "-newkey",
                                   "ec",      "-pkeyopt",      "ec_paramgen_curve:P-256",
                                   "-nodes",  "-keyout",       Path(file + ".key"),
                                   "-subj",   "/CN=" + subject};
  command.insert(command.end(), more.begin(), more.end());
  RunToEnd(command);
}
