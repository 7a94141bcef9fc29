#ifndef TESTS_FUZZ_CHANNELMODEL_H
#define TESTS_FUZZ_CHANNELMODEL_H

#include <json/json.h>

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Bus.h"
#include "Platform.h"

namespace fuzz {

// What the channel must do, written down once more and as simply as can be: which applications are
// registered and with what data, what the thing's own properties are, and what follows from that
// for calls and requests. It knows nothing of threads and failures.
class ChannelModel {
 public:
  struct App {
    unsigned count = 0;
    std::string data;

    bool operator==(const App& other) const { return count == other.count && data == other.data; }
  };

  struct Answer {
    lumo_error code = 0;
    std::map<std::string, std::string> properties;
  };

  static bool MayRegister(const std::string& app);

  int Register(const std::string& app);
  int Unregister(const std::string& app);
  int Send(const std::string& app, const std::string& data);
  void Drop(const std::string& app) { m_apps.erase(app); }
  void DropAll() { m_apps.clear(); }
  const std::map<std::string, App>& Apps() const { return m_apps; }

  bool IsConnected() const;
  // Empty when the cloud has set none, or one that D-Bus cannot carry.
  std::string Information() const;

  // The requests' objects, as the properties of a request lead to them.
  static std::vector<Json::Value> ToItems(const std::vector<Property>& properties);

  Answer Get(const std::vector<Json::Value>& items) const;
  // Nothing when a value cannot be converted: then the request is not answered, and what came
  // before has happened. Adds what applications are told.
  std::optional<Answer> Set(const std::vector<Json::Value>& items,
                            std::vector<BusMessage>& signals);

  // The answer as the platform gets it, as long as it refuses nothing.
  static Response ToResponse(bool isSet, const Answer& answer);

 private:
  std::map<std::string, App> m_apps;
  Json::Value m_signinStatus;
  Json::Value m_signupInfo;
};

std::string Show(const ChannelModel::App& app);

}  // namespace fuzz

#endif  // TESTS_FUZZ_CHANNELMODEL_H
