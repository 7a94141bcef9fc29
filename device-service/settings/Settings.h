#ifndef DEVICE_SERVICE_SETTINGS_SETTINGS_H
#define DEVICE_SERVICE_SETTINGS_SETTINGS_H

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace Lumo {

// How to reach the broker, and as which thing.
struct BrokerSettings {
  std::string host;  // a name or an address, without brackets
  int port = 0;
  bool tls = false;
  std::string thingId;
  // Files in PEM; empty: the system's authorities, no certificate of our own. The certificate and
  // the key may also be URIs of a token, "pkcs11:...".
  std::string authorityFile;
  std::string certificateFile;
  std::string keyFile;
  // Empty: none.
  std::string user;
  std::string password;
};

// For the user, when there is no broker.
inline constexpr const char* kNothingGoesOut = "LUMO_BROKER is not set: nothing goes out";

// What the environment variables LUMO_* say. An empty variable counts as unset.
class Settings {
 public:
  // Null for a variable that is not set.
  using Environment = std::function<const char*(const char* name)>;

  // Nothing when a variable is wrong; then `error` names the variable and the fault. It holds no
  // secret.
  static std::optional<Settings> Read(const Environment& environment, std::string& error);

  // The variables LUMO_* that mean nothing: misspelt, or of another version. `environment` is the
  // process's, "NAME=value" and a null at its end; null after clearenv().
  static std::vector<std::string> FindUnknown(const char* const* environment);

  // Nothing: the service runs offline.
  const std::optional<BrokerSettings>& Broker() const { return m_broker; }
  std::chrono::milliseconds RequestTimeout() const { return m_requestTimeout; }
  // For Prometheus; empty: none.
  const std::string& HealthFile() const { return m_healthFile; }
  // The least time between two writes of the health.
  std::chrono::milliseconds HealthInterval() const { return m_healthInterval; }

 private:
  Settings() = default;

  std::optional<BrokerSettings> m_broker;
  std::chrono::milliseconds m_requestTimeout = std::chrono::seconds(10);
  std::string m_healthFile;
  std::chrono::milliseconds m_healthInterval = std::chrono::minutes(1);
};

}  // namespace Lumo

#endif  // DEVICE_SERVICE_SETTINGS_SETTINGS_H
