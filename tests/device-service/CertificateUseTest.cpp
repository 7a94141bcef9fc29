#include "mqtt/CertificateUse.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "Certificates.h"
#include "Program.h"
#include "TemporaryFolder.h"

namespace {

using Lumo::Mqtt::IsGoodForServers;

class CertificateUseTest : public ::testing::Test {
 protected:
  CertificateUseTest() : m_certificates(m_folder.Path(), "authority") {}

  std::string make(const std::string& use) const {
    m_certificates.Sign("one", "DNS:one", use);
    const std::string file = m_certificates.Path("one.der");
    RunToEnd({"openssl", "x509", "-in", m_certificates.Path("one.crt"), "-outform", "DER", "-out",
              file});
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
  }

  const TemporaryFolder m_folder;
  const Certificates m_certificates;
};

TEST_F(CertificateUseTest, ACertificateIsGoodForServersUnlessItSaysOtherwise) {
  for (const char* use : {"", "serverAuth", "clientAuth,serverAuth", "serverAuth,clientAuth",
                          "anyExtendedKeyUsage", "critical,serverAuth"}) {
    EXPECT_TRUE(IsGoodForServers(make(use))) << use;
  }
  for (const char* use : {"clientAuth", "critical,clientAuth", "emailProtection,codeSigning",
                          "1.3.6.1.5.5.7.3.1.1", "1.3.6.1.5.5.7.3"}) {
    EXPECT_FALSE(IsGoodForServers(make(use))) << use;
  }
}

TEST_F(CertificateUseTest, WhatIsCutOffOrNoCertificateIsNotGood) {
  const std::string certificate = make("serverAuth");
  for (std::size_t size = 0; size < certificate.size(); ++size) {
    // In a buffer of its own, for AddressSanitizer.
    const std::vector<char> start(certificate.begin(),
                                  certificate.begin() + static_cast<std::ptrdiff_t>(size));
    EXPECT_FALSE(IsGoodForServers({start.data(), start.size()})) << size;
  }
  EXPECT_FALSE(IsGoodForServers("garbage"));
}

TEST_F(CertificateUseTest, ReadsNothingBeyondACertificateWithAWrongByte) {
  const std::string certificate = make("serverAuth");
  for (std::size_t at = 0; at < certificate.size(); ++at) {
    for (const char wrong : {'\x00', '\x7F', '\x80', '\x84', '\xFF'}) {
      std::vector<char> copy(certificate.begin(), certificate.end());
      copy[at] = wrong;
      IsGoodForServers({copy.data(), copy.size()});
    }
  }
}

}  // namespace
