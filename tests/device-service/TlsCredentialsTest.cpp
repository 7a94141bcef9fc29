#include "settings/TlsCredentials.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "Certificates.h"
#include "NewProcess.h"
#include "Program.h"
#include "TemporaryFolder.h"
#include "settings/Settings.h"

namespace {

using namespace Lumo;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::StartsWith;

class TlsCredentialsTest : public ::testing::Test {
 protected:
  // Keys take a while to make: once for all tests.
  static void SetUpTestSuite() {
    s_folder = std::make_unique<TemporaryFolder>();
    s_certificates = std::make_unique<Certificates>(s_folder->Path(), "authority");
    s_certificates->Sign("thing", "DNS:thing");
    s_certificates->Sign("other", "DNS:other");
  }
  static void TearDownTestSuite() {
    s_certificates.reset();
    s_folder.reset();
  }

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

  // Empty: they are right.
  static std::string faultOfAuthorities(const std::string& file) {
    return faultOf([&] { EXPECT_NE(LoadAuthorities(file), nullptr); });
  }
  static std::string faultOfCertificate(const std::string& file) {
    return faultOf([&] { EXPECT_NE(LoadCertificate(file, {}), nullptr); });
  }
  static std::string faultOfKey(const std::string& key, const std::string& certificate) {
    return faultOf([&] { EXPECT_NE(LoadCertificate(certificate, key), nullptr); });
  }
  // Of a file as each of the three.
  static std::vector<std::string> faultsOf(const std::string& file) {
    return {faultOfAuthorities(file), faultOfCertificate(file),
            faultOfKey(file, path("thing.crt"))};
  }
  template <typename Load>
  static std::string faultOf(const Load& load) {
    try {
      load();
      return "";
    } catch (const WrongTlsCredentials& wrong) {
      EXPECT_EQ(std::string(wrong.what()).find('\n'), std::string::npos);
      return wrong.what();
    }
  }

  // The error of settings that are only these.
  static std::string errorOfSettings(const std::string& broker, const std::string& authorities) {
    std::string error;
    const auto variable = [&](const char* name) -> const char* {
      if (name == std::string("LUMO_BROKER")) return broker.c_str();
      if (name == std::string("LUMO_BROKER_CA")) return authorities.c_str();
      return name == std::string("LUMO_THING_ID") ? "tv" : nullptr;
    };
    return Settings::Read(variable, error) ? "" : error;
  }

  static inline std::unique_ptr<TemporaryFolder> s_folder;
  static inline std::unique_ptr<Certificates> s_certificates;
};

TEST_F(TlsCredentialsTest, RightFilesHaveNoFaultAlsoNamedFromTheFolderOfTheProcess) {
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(s_certificates->Path(""));
  for (const std::string& folder : {path(""), std::string()}) {
    EXPECT_EQ(faultOfAuthorities(folder + "ca.crt"), "");
    EXPECT_EQ(faultOfCertificate(folder + "thing.crt"), "");
    EXPECT_EQ(faultOfKey(folder + "thing.key", folder + "thing.crt"), "");
  }
  std::filesystem::current_path(before);
}

TEST_F(TlsCredentialsTest, SeveralObjectsMayStandInOneFile) {
  EXPECT_EQ(faultOfAuthorities(write("two.crt", contentOf("ca.crt") + contentOf("other.crt"))), "");
  const std::string all =
      write("all", contentOf("thing.crt") + contentOf("ca.crt") + contentOf("thing.key"));
  EXPECT_EQ(faultOfCertificate(all), "");
  EXPECT_EQ(faultOfKey(all, all), "");
}

TEST_F(TlsCredentialsTest, WhatIsNoPemOrOfAnotherKindIsAFault) {
  const std::string begin = "-----BEGIN CERTIFICATE-----\n";
  const std::string end = "-----END CERTIFICATE-----\n";
  const std::string authorities = quoted("wrong") + " holds no certificates: ";
  const std::string certificate = quoted("wrong") + " is not a certificate: ";
  const std::string key = quoted("wrong") + " is not a private key: ";
  for (const std::string& content :
       {std::string(), std::string("garbage\n"), std::string("\0\xFF", 2), begin + "QUJD\n" + end,
        contentOf("thing.crt").substr(0, 200)}) {
    EXPECT_THAT(faultsOf(write("wrong", content)),
                ElementsAre(StartsWith(authorities), StartsWith(certificate), StartsWith(key)));
  }
  EXPECT_THAT(faultsOf(write("wrong", contentOf("thing.key"))),
              ElementsAre(StartsWith(authorities), StartsWith(certificate), ""));
  EXPECT_THAT(faultsOf(write("wrong", contentOf("thing.crt"))),
              ElementsAre("", "", StartsWith(key)));
}

TEST_F(TlsCredentialsTest, AuthoritiesThatAreOnlyAListOfRevokedCertificatesAreAFault) {
  const std::string configuration =
      write("ca.cnf", "[ca]\ndefault_ca=own\n[own]\ndatabase=" + path("index.txt") +
                          "\ndefault_md=sha256\ndefault_crl_days=2\n");
  write("index.txt", "");
  RunToEnd({"openssl", "ca", "-config", configuration, "-gencrl", "-keyfile", path("ca.key"),
            "-cert", path("ca.crt"), "-out", path("ca.crl")});
  EXPECT_THAT(faultOfAuthorities(path("ca.crl")),
              StartsWith(quoted("ca.crl") + " holds no certificates"));
}

TEST_F(TlsCredentialsTest, WhatIsNoFileIsAFaultAndNeverWaitedFor) {
  std::filesystem::remove(path("pipe"));
  ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
  for (const char* name : {".", "pipe"}) {
    EXPECT_THAT(faultsOf(path(name)), Each(quoted(name) + " is not a regular file"));
  }
  EXPECT_THAT(faultsOf(path("missing")),
              Each("cannot read " + quoted("missing") + ": No such file or directory"));
}

TEST_F(TlsCredentialsTest, AKeyWithAPasswordIsAFault) {
  RunToEnd({"openssl", "ec", "-aes256", "-passout", "pass:secret", "-in", path("thing.key"), "-out",
            path("traditional.key")});
  RunToEnd({"openssl", "pkcs8", "-topk8", "-in", path("thing.key"), "-passout", "pass:secret",
            "-out", path("pkcs8.key")});
  for (const char* name : {"traditional.key", "pkcs8.key"}) {
    EXPECT_EQ(faultOfKey(path(name), path("thing.crt")),
              quoted(name) + " is locked with a password");
  }
}

TEST_F(TlsCredentialsTest, ATokenThatIsNotThereIsAFaultWhichDoesNotShowThePin) {
  const std::string uri = "pkcs11:token=nowhere;object=key";
  EXPECT_THAT(faultOfCertificate(uri + "?pin-value=secret"),
              StartsWith("'" + uri + "' is not a certificate: "));
  EXPECT_THAT(faultOfKey(path("thing.key"), uri + "?pin-value=secret"),
              StartsWith("'" + uri + "' is not a certificate: "));
}

TEST_F(TlsCredentialsTest, WithoutTlsInGioTlsSettingsAreOneErrorThatNamesThePackage) {
  const std::string fault = "GIO has no TLS here; install the package glib-networking";
  ExpectInNewProcess(
      [] {
        setenv("GIO_USE_TLS", "dummy", 1);
        return errorOfSettings("mqtts://localhost", "") + "\n" +
               errorOfSettings("", path("ca.crt")) + "\n" + errorOfSettings("mqtt://localhost", "");
      },
      TearDownTestSuite, "LUMO_BROKER: " + fault + "\nLUMO_BROKER_CA: " + fault + "\n");
}

TEST_F(TlsCredentialsTest, TlsIsLoadedForTlsSettingsOnly) {
  ExpectInNewProcess(
      [] {
        const auto isLoaded = [] {
          std::ifstream maps("/proc/self/maps");
          const std::string text{std::istreambuf_iterator<char>(maps), {}};
          return text.find("gnutls") == std::string::npos ? "no" : "yes";
        };
        std::string found;
        for (const char* broker : {"mqtt://localhost", "mqtts://localhost"}) {
          found += errorOfSettings(broker, "");
          found += isLoaded();
        }
        return found;
      },
      TearDownTestSuite, "noyes");
}

}  // namespace
