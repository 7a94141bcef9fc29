#ifndef TESTS_FUZZ_CHANNELMODEL_H
#define TESTS_FUZZ_CHANNELMODEL_H

#include <json/json.h>

#include <map>
#include <optional>
#include <ostream>
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

  int Register(const std::string& app);
  int Unregister(const std::string& app);
  int Send(const std::string& app, const std::string& data);
  void Drop(const std::string& app) { m_apps.erase(app); }
  void DropAll() { m_apps.clear(); }
  const std::map<std::string, App>& Apps() const { return m_apps; }

  // The replies to the calls that ask for these. The information is empty when the cloud has set
  // none, or one that D-Bus cannot carry.
  BusMessage Connection() const;
  BusMessage Information() const;

  // The answer to a get or set, as the platform gets it unless it refuses something. Nothing when a
  // value cannot be converted: then the request is not answered, and what came before has happened.
  // Adds what applications are told.
  std::optional<Response> Request(bool isSet, const std::vector<Property>& properties,
                                  std::vector<BusMessage>& signals);

 private:
  bool set(const std::string& name, const Json::Value& value, std::vector<BusMessage>& signals);

  std::map<std::string, App> m_apps;
  Json::Value m_signinStatus;
  Json::Value m_signupInfo;
};

std::ostream& operator<<(std::ostream& out, const ChannelModel::App& app);

// A reply that is a code.
BusMessage CodeReply(int code);

// The thing's own properties, as the cloud sets them.
Property SigninStatus(bool isSignedIn);
Property SignupInfo(const std::string& json);

}  // namespace fuzz

#endif  // TESTS_FUZZ_CHANNELMODEL_H
