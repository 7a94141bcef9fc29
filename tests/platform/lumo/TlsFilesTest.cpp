#include "settings/TlsFiles.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <sys/stat.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "Broker.h"
#include "Certificates.h"

namespace {

using namespace Lumo;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

class TlsFilesTest : public ::testing::Test {
 protected:
  // Keys take a while to make: once for all tests.
  static void SetUpTestSuite() {
    s_folder = std::make_unique<Folder>();
    s_certificates = std::make_unique<Certificates>(s_folder->Path(), "authority");
    s_certificates->Sign("thing", "DNS:thing");
    s_certificates->Sign("other", "DNS:other");
  }
  static void TearDownTestSuite() {
    s_certificates.reset();
    s_folder.reset();
  }
  // What others look for next must not be an error of ours.
  ~TlsFilesTest() override { EXPECT_EQ(ERR_peek_error(), 0U); }

  static std::string path(const std::string& file) { return s_certificates->Path(file); }
  static std::string quoted(const std::string& file) { return "'" + path(file) + "'"; }
  static std::string contentOf(const std::string& file) {
    std::ifstream stream(path(file), std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
  }
  static std::string write(const std::string& file, const std::string& content) {
    std::ofstream(path(file), std::ios::binary) << content;
    return path(file);
  }

  static std::unique_ptr<Folder> s_folder;
  static std::unique_ptr<Certificates> s_certificates;
};

std::unique_ptr<Folder> TlsFilesTest::s_folder;
std::unique_ptr<Certificates> TlsFilesTest::s_certificates;

TEST_F(TlsFilesTest, RightFilesHaveNoFault) {
  EXPECT_EQ(FaultOfAuthorities(path("ca.crt")), "");
  EXPECT_EQ(FaultOfCertificate(path("thing.crt")), "");
  EXPECT_EQ(FaultOfKey(path("thing.key"), path("thing.crt")), "");
}

TEST_F(TlsFilesTest, SeveralObjectsMayStandInOneFile) {
  EXPECT_EQ(FaultOfAuthorities(write("two.crt", contentOf("ca.crt") + contentOf("other.crt"))), "");
  const std::string all =
      write("all", contentOf("thing.crt") + contentOf("ca.crt") + contentOf("thing.key"));
  EXPECT_EQ(FaultOfCertificate(all), "");
  EXPECT_EQ(FaultOfKey(all, all), "");
}

TEST_F(TlsFilesTest, WhatIsNoPemIsAFault) {
  const std::string begin = "-----BEGIN CERTIFICATE-----\n";
  const std::string end = "-----END CERTIFICATE-----\n";
  for (const std::string& content :
       {std::string(), std::string("garbage\n"), std::string("\0\xFF", 2), begin + "QUJD\n" + end,
        contentOf("thing.crt").substr(0, 200)}) {
    const std::string file = write("wrong", content);
    EXPECT_THAT(FaultOfAuthorities(file), StartsWith(quoted("wrong") + " holds no certificates: "));
    EXPECT_THAT(FaultOfCertificate(file), StartsWith(quoted("wrong") + " is not a certificate: "));
    EXPECT_THAT(FaultOfKey(file, path("thing.crt")),
                StartsWith(quoted("wrong") + " is not a private key: "));
  }
}

TEST_F(TlsFilesTest, AFileOfAnotherKindIsAFault) {
  EXPECT_THAT(FaultOfAuthorities(path("thing.key")), HasSubstr(" holds no certificates"));
  EXPECT_THAT(FaultOfCertificate(path("thing.key")), HasSubstr(" is not a certificate: "));
  EXPECT_THAT(FaultOfKey(path("thing.crt"), path("thing.crt")),
              HasSubstr(" is not a private key: "));
}

TEST_F(TlsFilesTest, AuthoritiesThatAreOnlyAListOfRevokedCertificatesAreAFault) {
  const std::string configuration =
      write("ca.cnf", "[ca]\ndefault_ca=own\n[own]\ndatabase=" + path("index.txt") +
                          "\ndefault_md=sha256\ndefault_crl_days=2\n");
  write("index.txt", "");
  RunToEnd({"openssl", "ca", "-config", configuration, "-gencrl", "-keyfile", path("ca.key"),
            "-cert", path("ca.crt"), "-out", path("ca.crl")});
  EXPECT_EQ(FaultOfAuthorities(path("ca.crl")), quoted("ca.crl") + " holds no certificates");
}

TEST_F(TlsFilesTest, WhatIsNoFileIsAFaultAndNeverWaitedFor) {
  ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
  for (const char* name : {".", "pipe"}) {
    const std::string fault = quoted(name) + " is not a regular file";
    EXPECT_EQ(FaultOfAuthorities(path(name)), fault);
    EXPECT_EQ(FaultOfCertificate(path(name)), fault);
    EXPECT_EQ(FaultOfKey(path(name), path("thing.crt")), fault);
  }
  const std::string fault = "cannot read " + quoted("missing") + ": No such file or directory";
  EXPECT_EQ(FaultOfAuthorities(path("missing")), fault);
  EXPECT_EQ(FaultOfCertificate(path("missing")), fault);
  EXPECT_EQ(FaultOfKey(path("missing"), path("thing.crt")), fault);
}

TEST_F(TlsFilesTest, AKeyOfAnotherCertificateIsAFault) {
  EXPECT_EQ(FaultOfKey(path("other.key"), path("thing.crt")),
            quoted("other.key") + " does not fit the certificate: key values mismatch");
  RunToEnd({"openssl", "genpkey", "-algorithm", "ed25519", "-out", path("ed25519.key")});
  EXPECT_EQ(FaultOfKey(path("ed25519.key"), path("thing.crt")),
            quoted("ed25519.key") + " does not fit the certificate: key type mismatch");
}

TEST_F(TlsFilesTest, AKeyWithAPasswordIsAFault) {
  RunToEnd({"openssl", "ec", "-aes256", "-passout", "pass:secret", "-in", path("thing.key"), "-out",
            path("traditional.key")});
  RunToEnd({"openssl", "pkcs8", "-topk8", "-in", path("thing.key"), "-passout", "pass:secret",
            "-out", path("pkcs8.key")});
  for (const char* name : {"traditional.key", "pkcs8.key"}) {
    EXPECT_EQ(FaultOfKey(path(name), path("thing.crt")),
              quoted(name) + " is locked with a password");
  }
}

TEST_F(TlsFilesTest, ACertificateThatOpenSslFindsTooWeakIsAFault) {
  RunToEnd({"openssl", "req", "-x509", "-newkey", "rsa:1024", "-nodes", "-keyout", path("weak.key"),
            "-out", path("weak.crt"), "-subj", "/CN=weak", "-days", "2"});
  EXPECT_EQ(FaultOfCertificate(path("weak.crt")),
            quoted("weak.crt") + " is not a certificate: ee key too small");
}

TEST_F(TlsFilesTest, ErrorsOfOthersAreNotTakenForItsOwn) {
  ERR_raise_data(ERR_LIB_USER, ERR_R_MALLOC_FAILURE, "left here");
  EXPECT_THAT(FaultOfCertificate(write("wrong", "garbage")), Not(HasSubstr("malloc")));
  ERR_raise_data(ERR_LIB_USER, ERR_R_MALLOC_FAILURE, "left here");
  EXPECT_EQ(FaultOfKey(path("thing.key"), path("thing.crt")), "");
}

}  // namespace
