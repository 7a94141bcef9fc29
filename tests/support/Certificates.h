#ifndef TESTS_SUPPORT_CERTIFICATES_H
#define TESTS_SUPPORT_CERTIFICATES_H

#include <filesystem>
#include <string>
#include <vector>

// A certificate authority of one test and the certificates that it has signed: files in a folder of
// their own, made with openssl and valid for two days. Failures are thrown as std::runtime_error.
class Certificates {
 public:
  // Makes the folder `parent`/`authority` with the authority's ca.key and ca.crt. Who owns the
  // parent removes it all.
  Certificates(const std::filesystem::path& parent, const std::string& authority);

  std::string Path(const std::string& file) const { return m_folder / file; }

  // Makes `name`.key and `name`.crt for addresses and hosts like "IP:127.0.0.1,DNS:localhost".
  // `use`: what alone it is good for, like "clientAuth"; anything when empty. It has expired when
  // the days are negative.
  void Sign(const std::string& name, const std::string& subject, const std::string& use = {},
            int days = 2) const;
  void SignExpired(const std::string& name, const std::string& subject) const {
    Sign(name, subject, {}, -1);
  }
  // The same, signed with its own key instead of the authority's.
  void SelfSign(const std::string& name, const std::string& subject) const;

  // The lines that make a listener of a broker speak TLS, with the certificate `name`.
  std::string ListenerLines(const std::string& name) const;

 private:
  // Runs "openssl req" with a new key for `file`.key.
  void makeKey(const std::string& file, const std::string& subject,
               const std::vector<std::string>& more) const;

  const std::filesystem::path m_folder;
};

#endif  // TESTS_SUPPORT_CERTIFICATES_H
