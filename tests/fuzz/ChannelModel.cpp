#include "ChannelModel.h"

#include <set>
#include <sstream>
#include <string_view>
#include <utility>

#include "Require.h"

namespace fuzz {
namespace {

constexpr lumo_error kAnswerFailed = 6;
constexpr int kNotAllowed = -20;

constexpr std::string_view kSigninStatus = "signinStatus";
constexpr std::string_view kSignupInfo = "signupInfo";

bool mayRegister(const std::string& app) {
  // With "diag-menu", as /etc/release is missing.
  static const std::set<std::string> kAllowed = {
      "lanternapp",     "welcome",     "keyringservice",   "qz",
      "galleryapp",     "vexBrowser",  "lantern-pz-agent", "pocketrelay",
      "handset-server", "panelmosaic", "brightroomapp",    "tunerapp",
      "qmap",           "drelservice", "trace-pz-agent",   "diag-menu"};
  return kAllowed.count(app) != 0;
}

// What could be read of the JSON; null when nothing could.
Json::Value parse(const std::string& text) {
  Json::Value value;
  std::istringstream stream(text);
  try {
    stream >> value;
  } catch (const Json::Exception&) {
    // What was read before stays.
  }
  return value;
}

// Nothing where a request's property is dropped. The platform's strings end at the NUL.
std::optional<Json::Value> valueOf(const Property& property) {
  if (!property.name || property.unreadable) return std::nullopt;
  switch (property.type) {
    case LUMO_PROPERTY_TYPE_BOOL:
      return property.number != 0;
    case LUMO_PROPERTY_TYPE_INT:
      return static_cast<int>(property.number);
    case LUMO_PROPERTY_TYPE_STRING:
      return property.text.value_or("").c_str();
    case LUMO_PROPERTY_TYPE_JSON_STRING:
      return property.text ? parse(property.text->c_str()) : Json::Value();
    case LUMO_PROPERTY_TYPE_BYTES:
      if (property.text) return *property.text;
      return std::nullopt;
    default:
      return std::nullopt;
  }
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const ChannelModel::App& app) {
  return out << app.count << " " << Show(app.data);
}

BusMessage CodeReply(int code) {
  return {"", {std::to_string(code)}};
}

Property SigninStatus(bool isSignedIn) {
  return {"signinStatus", LUMO_PROPERTY_TYPE_BOOL, isSignedIn ? 1.0 : 0.0, std::nullopt, false};
}

Property SignupInfo(const std::string& json) {
  return {"signupInfo", LUMO_PROPERTY_TYPE_JSON_STRING, 0, json, false};
}

int ChannelModel::Register(const std::string& app) {
  if (!mayRegister(app)) return kNotAllowed;
  ++m_apps[app].count;
  return 0;
}

int ChannelModel::Unregister(const std::string& app) {
  const auto found = m_apps.find(app);
  if (found == m_apps.end()) return kNotAllowed;
  if (--found->second.count == 0) m_apps.erase(found);
  return 0;
}

int ChannelModel::Send(const std::string& app, const std::string& data) {
  const auto found = m_apps.find(app);
  if (found == m_apps.end()) return kNotAllowed;
  found->second.data = data;
  return 0;
}

BusMessage ChannelModel::Connection() const {
  return {"", {m_signinStatus == Json::Value(true) ? "true" : "false"}};
}

BusMessage ChannelModel::Information() const {
  const std::string information = m_signupInfo.isNull() ? "" : m_signupInfo.toStyledString();
  return {"", {IsBusText(information) ? information : ""}};
}

std::optional<Response> ChannelModel::Request(bool isSet, const std::vector<Property>& properties,
                                              std::vector<BusMessage>& signals) {
  Response response;
  response.isSet = isSet;
  std::map<std::string, std::string> answer;
  for (const Property& property : properties) {
    const std::optional<Json::Value> value = valueOf(property);
    if (!value) continue;
    const std::string name = property.name->c_str();
    if (isSet && !set(name, *value, signals)) return std::nullopt;
    const auto app = m_apps.find(name);
    if (name == kSigninStatus || name == kSignupInfo) {
      if (!isSet) answer[name] = "";
    } else if (app != m_apps.end()) {
      answer[name] = app->second.data;
    } else {
      response.code = kAnswerFailed;
    }
  }
  for (const auto& [name, data] : answer) response.properties.push_back(StringProperty(name, data));
  return response;
}

// False when the value cannot be converted.
bool ChannelModel::set(const std::string& name, const Json::Value& value,
                       std::vector<BusMessage>& signals) {
  if (name == kSignupInfo) {
    m_signupInfo = value;
  } else if (name == kSigninStatus) {
    m_signinStatus = value;
    if (!value.isConvertibleTo(Json::booleanValue)) return false;
    signals.push_back({"cloud_connection_changed", {value.asBool() ? "true" : "false"}});
  } else if (m_apps.count(name) != 0) {
    if (value.isArray() || value.isObject()) return false;
    if (IsBusText(value.asString())) signals.push_back({"send_event", {name, value.asString()}});
  }
  return true;
}

}  // namespace fuzz
