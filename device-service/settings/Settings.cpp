#include "settings/Settings.h"

#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstddef>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include "settings/TlsCredentials.h"
#include "values/GLibHandle.h"

namespace Lumo {
namespace {

constexpr const char* kBroker = "LUMO_BROKER";
constexpr const char* kThingId = "LUMO_THING_ID";
constexpr const char* kAuthorityFile = "LUMO_BROKER_CA";
constexpr const char* kCertificateFile = "LUMO_BROKER_CERT";
constexpr const char* kKeyFile = "LUMO_BROKER_KEY";
constexpr const char* kUser = "LUMO_BROKER_USER";
constexpr const char* kPasswordFile = "LUMO_BROKER_PASSWORD_FILE";
constexpr const char* kRequestTimeout = "LUMO_REQUEST_TIMEOUT_MS";
constexpr const char* kHealthFile = "LUMO_HEALTH_FILE";
constexpr const char* kHealthInterval = "LUMO_HEALTH_INTERVAL_MS";
constexpr const char* kAllowPlaintext = "LUMO_ALLOW_PLAINTEXT";
constexpr std::array<std::string_view, 11> kVariables{
    kBroker,       kThingId,        kAuthorityFile, kCertificateFile, kKeyFile,       kUser,
    kPasswordFile, kRequestTimeout, kHealthFile,    kHealthInterval,  kAllowPlaintext};
constexpr std::string_view kPrefix = "LUMO_";

constexpr std::string_view kLettersAndDigits =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
constexpr std::size_t kMaxThingIdLength = 64;
constexpr std::size_t kMaxCredentialBytes = 65535;  // what the protocol can carry
constexpr int kMinTimeoutMs = 100;
constexpr int kMaxTimeoutMs = 600'000;
constexpr int kMinHealthIntervalMs = 100;
constexpr int kMaxHealthIntervalMs = 86'400'000;
constexpr std::string_view kHealthFileEnd = ".prom";  // the collector reads no others
constexpr int kPlainPort = 1883;
constexpr int kTlsPort = 8883;

// What is wrong with a variable; caught in Read.
class WrongSetting : public std::runtime_error {
 public:
  WrongSetting(const char* variable, const std::string& what)
      : std::runtime_error(std::string(variable) + ": " + what) {}
};

bool consistsOf(std::string_view text, std::string_view punctuation) {
  return std::all_of(text.begin(), text.end(), [punctuation](char character) {
    return kLettersAndDigits.find(character) != std::string_view::npos ||
           punctuation.find(character) != std::string_view::npos;
  });
}

std::optional<int> toInteger(std::string_view text, int min, int max) {
  int number = 0;
  const char* const end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, number);
  if (result.ec != std::errc() || result.ptr != end || number < min || number > max) {
    return std::nullopt;
  }
  return number;
}

bool isIpv6(const std::string& host) {
  const ObjectPtr<GInetAddress> address(g_inet_address_new_from_string(host.c_str()));
  return address && g_inet_address_get_family(address.get()) == G_SOCKET_FAMILY_IPV6;
}

bool isLoopback(const std::string& host) {
  if (strcasecmp(host.c_str(), "localhost") == 0) return true;
  const ObjectPtr<GInetAddress> address(g_inet_address_new_from_string(host.c_str()));
  return address && g_inet_address_get_is_loopback(address.get()) != FALSE;
}

// Removes the prefix from the text; false when it has none.
bool takePrefix(std::string_view& text, std::string_view prefix) {
  if (text.substr(0, prefix.size()) != prefix) return false;
  text.remove_prefix(prefix.size());
  return true;
}

// Removes the host from the front of the text and returns it; nothing when it is not a host.
std::optional<std::string> takeHost(std::string_view& text) {
  const bool bracketed = takePrefix(text, "[");
  const std::size_t end = std::min(text.find(bracketed ? ']' : ':'), text.size());
  std::string host(text.substr(0, end));
  text.remove_prefix(end);
  if (bracketed) {
    if (!isIpv6(host) || !takePrefix(text, "]")) return std::nullopt;
  } else if (host.empty() || !consistsOf(host, ".-_")) {
    return std::nullopt;
  }
  return host;
}

BrokerSettings parseBroker(const std::string& url) {
  // The URL may contain a password, so it must not appear in a log.
  if (url.find('@') != std::string::npos) {
    throw WrongSetting(kBroker, std::string("takes no user and no password; use ") + kUser +
                                    " and " + kPasswordFile);
  }
  const auto wrong = [&url] {
    return WrongSetting(kBroker, "'" + url + "' is not mqtt://host[:port] or mqtts://host[:port]");
  };
  BrokerSettings broker;
  std::string_view rest = url;
  broker.tls = takePrefix(rest, "mqtts://");
  if (!broker.tls && !takePrefix(rest, "mqtt://")) throw wrong();
  std::optional<std::string> host = takeHost(rest);
  if (!host) throw wrong();
  broker.host = std::move(*host);
  broker.port = broker.tls ? kTlsPort : kPlainPort;
  if (!rest.empty()) {
    const std::optional<int> port =
        takePrefix(rest, ":") ? toInteger(rest, 1, UINT16_MAX) : std::nullopt;
    if (!port) throw wrong();
    broker.port = *port;
  }
  return broker;
}

bool isThingId(const std::string& id) {
  return !id.empty() && id.size() <= kMaxThingIdLength && consistsOf(id, "._-");
}

std::string hostName() {
  std::array<char, HOST_NAME_MAX + 1> name{};
  return gethostname(name.data(), name.size()) == 0 ? name.data() : "";
}

std::string readPassword(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::string password(kMaxCredentialBytes + 2, '\0');  // one more than fits, and the line feed
  if (file) file.read(password.data(), static_cast<std::streamsize>(password.size()));
  if (!file && !file.eof()) {
    throw WrongSetting(kPasswordFile,
                       "cannot read '" + path + "': " + std::generic_category().message(errno));
  }
  password.resize(static_cast<std::size_t>(file.gcount()));
  if (!password.empty() && password.back() == '\n') password.pop_back();
  if (password.empty()) throw WrongSetting(kPasswordFile, "'" + path + "' is empty");
  if (password.size() > kMaxCredentialBytes || password.find('\0') != std::string::npos) {
    throw WrongSetting(kPasswordFile, "what '" + path + "' holds is no password");
  }
  return password;
}

// Reads the variables one by one.
class Reader {
 public:
  explicit Reader(const Settings::Environment& environment) : m_environment(environment) {}

  // Empty when it is not set.
  std::string Text(const char* variable) const {
    const char* const value = m_environment(variable);
    return value == nullptr ? "" : value;
  }

  std::chrono::milliseconds RequestTimeout(std::chrono::milliseconds standard) const {
    return readTime(kRequestTimeout, standard, kMinTimeoutMs, kMaxTimeoutMs);
  }

  std::chrono::milliseconds HealthInterval(std::chrono::milliseconds standard) const {
    return readTime(kHealthInterval, standard, kMinHealthIntervalMs, kMaxHealthIntervalMs);
  }

  // Whether it can be written shows when it is: what watches the service must not stop it.
  std::string HealthFile() const {
    std::string path = Text(kHealthFile);
    const std::size_t end = kHealthFileEnd.size();
    const bool isRight = path.empty() || (path.front() == '/' && path.size() > end &&
                                          path.substr(path.size() - end) == kHealthFileEnd);
    if (!isRight) {
      throw WrongSetting(kHealthFile,
                         "'" + path + "' is not a path that begins with / and ends with .prom");
    }
    return path;
  }

  std::optional<BrokerSettings> Broker() const {
    // Checks every variable, so that a mistake shows before the broker is set.
    const std::string url = Text(kBroker);
    BrokerSettings broker = url.empty() ? BrokerSettings() : parseBroker(url);
    readThingId(broker, !url.empty());
    readFiles(broker, !url.empty());
    readCredentials(broker);
    checkPlaintext(broker, !url.empty());
    if (url.empty()) return std::nullopt;
    return broker;
  }

 private:
  std::chrono::milliseconds readTime(const char* variable, std::chrono::milliseconds standard,
                                     int minMs, int maxMs) const {
    const std::string text = Text(variable);
    if (text.empty()) return standard;
    const std::optional<int> number = toInteger(text, minMs, maxMs);
    if (!number) {
      throw WrongSetting(variable, "'" + text + "' is not a number of milliseconds from " +
                                       std::to_string(minMs) + " to " + std::to_string(maxMs));
    }
    return std::chrono::milliseconds(*number);
  }

  void readThingId(BrokerSettings& broker, bool needed) const {
    const std::string rule =
        "is not 1 to " + std::to_string(kMaxThingIdLength) + " letters, digits, '.', '_' and '-'";
    broker.thingId = Text(kThingId);
    if (!broker.thingId.empty()) {
      if (!isThingId(broker.thingId))
        throw WrongSetting(kThingId, "'" + broker.thingId + "' " + rule);
    } else if (needed) {
      broker.thingId = hostName();
      if (!isThingId(broker.thingId)) {
        throw WrongSetting(kThingId,
                           "is not set, and the host name '" + broker.thingId + "' " + rule);
      }
    }
  }

  void readFiles(BrokerSettings& broker, bool brokerIsSet) const {
    broker.authorityFile = Text(kAuthorityFile);
    broker.certificateFile = Text(kCertificateFile);
    broker.keyFile = Text(kKeyFile);
    if (!broker.authorityFile.empty()) {
      check(kAuthorityFile, [&] { LoadAuthorities(broker.authorityFile); });
    }
    if (broker.certificateFile.empty() != broker.keyFile.empty()) {
      const bool keyIsMissing = broker.keyFile.empty();
      throw WrongSetting(keyIsMissing ? kCertificateFile : kKeyFile,
                         std::string("needs ") + (keyIsMissing ? kKeyFile : kCertificateFile));
    }
    if (!broker.certificateFile.empty()) {
      check(kCertificateFile, [&] { LoadCertificate(broker.certificateFile, {}); });
      check(kKeyFile, [&] { LoadCertificate(broker.certificateFile, broker.keyFile); });
    }
    if (broker.tls) {
      if (const std::string fault = FaultOfTls(); !fault.empty())
        throw WrongSetting(kBroker, fault);
    }
    if (!brokerIsSet || broker.tls) return;
    if (!broker.authorityFile.empty()) throw WrongSetting(kAuthorityFile, "needs mqtts://");
    if (!broker.certificateFile.empty()) throw WrongSetting(kCertificateFile, "needs mqtts://");
  }

  template <typename Load>
  static void check(const char* variable, const Load& load) {
    try {
      load();
    } catch (const WrongTlsCredentials& fault) {
      throw WrongSetting(variable, fault.what());
    }
  }

  void readCredentials(BrokerSettings& broker) const {
    broker.user = Text(kUser);
    if (broker.user.size() > kMaxCredentialBytes) throw WrongSetting(kUser, "is too long");
    const std::string path = Text(kPasswordFile);
    if (path.empty()) return;
    if (broker.user.empty()) throw WrongSetting(kPasswordFile, std::string("needs ") + kUser);
    broker.password = readPassword(path);
  }

  void checkPlaintext(const BrokerSettings& broker, bool brokerIsSet) const {
    const std::string allowed = Text(kAllowPlaintext);
    if (!allowed.empty() && allowed != "0" && allowed != "1") {
      throw WrongSetting(kAllowPlaintext, "'" + allowed + "' is neither 0 nor 1");
    }
    if (brokerIsSet && !broker.tls && allowed != "1" && !isLoopback(broker.host)) {
      throw WrongSetting(kBroker, "mqtt:// to '" + broker.host +
                                      "' would go over the network in plain text; use mqtts://, or "
                                      "set " +
                                      kAllowPlaintext + "=1");
    }
  }

  const Settings::Environment& m_environment;
};

}  // namespace

std::optional<Settings> Settings::Read(const Environment& environment, std::string& error) {
  try {
    const Reader reader(environment);
    Settings settings;
    settings.m_broker = reader.Broker();
    settings.m_requestTimeout = reader.RequestTimeout(settings.m_requestTimeout);
    settings.m_healthFile = reader.HealthFile();
    settings.m_healthInterval = reader.HealthInterval(settings.m_healthInterval);
    return settings;
  } catch (const WrongSetting& wrong) {
    error = wrong.what();
    return std::nullopt;
  }
}

std::vector<std::string> Settings::FindUnknown(const char* const* environment) {
  std::vector<std::string> unknown;
  for (; environment != nullptr && *environment != nullptr; ++environment) {
    const std::string_view variable(*environment);
    const std::string_view name = variable.substr(0, variable.find('='));
    if (name.substr(0, kPrefix.size()) != kPrefix) continue;
    if (std::find(kVariables.begin(), kVariables.end(), name) == kVariables.end()) {
      unknown.emplace_back(name);
    }
  }
  return unknown;
}

}  // namespace Lumo
