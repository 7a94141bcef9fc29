#include "ChannelModel.h"

#include <algorithm>
#include <array>
#include <sstream>
#include <string_view>

#include "Require.h"

namespace fuzz {
namespace {

constexpr lumo_error kAnswerFailed = 6;
constexpr int kNotAllowed = -20;

constexpr std::string_view kSigninStatus = "signinStatus";
constexpr std::string_view kSignupInfo = "signupInfo";

// With "diag-menu", as /etc/release is missing.
constexpr std::array<std::string_view, 16> kAllowed = {
    "lanternapp",     "welcome",     "keyringservice",   "qz",
    "galleryapp",     "vexBrowser",  "lantern-pz-agent", "pocketrelay",
    "handset-server", "panelmosaic", "brightroomapp",    "tunerapp",
    "qmap",           "drelservice", "trace-pz-agent",   "diag-menu"};

bool isThingProperty(const std::string& name) {
  return name == kSigninStatus || name == kSignupInfo;
}

// The platform's texts end at the NUL.
std::string upToNul(const std::string& text) {
  return text.c_str();
}

// What could be read of the text; null when nothing could.
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

// Null where a request's property is dropped.
Json::Value toItem(const Property& property) {
  Json::Value item;
  if (!property.name) return item;
  Json::Value& value = item[upToNul(*property.name)];
  switch (property.type) {
    case LUMO_PROPERTY_TYPE_BOOL:
      if (property.unreadable) return Json::Value();
      value = property.number != 0;
      return item;
    case LUMO_PROPERTY_TYPE_INT:
      if (property.unreadable) return Json::Value();
      value = static_cast<int>(property.number);
      return item;
    case LUMO_PROPERTY_TYPE_STRING:
      value = upToNul(property.text.value_or(""));
      return item;
    case LUMO_PROPERTY_TYPE_JSON_STRING:
      if (property.text) value = parse(upToNul(*property.text));
      return item;
    case LUMO_PROPERTY_TYPE_BYTES:
      if (!property.text) return Json::Value();
      value = *property.text;
      return item;
    default:
      return Json::Value();
  }
}

}  // namespace

std::string Show(const ChannelModel::App& app) {
  return Show(app.count) + " " + Show(app.data);
}

bool ChannelModel::MayRegister(const std::string& app) {
  return std::find(kAllowed.begin(), kAllowed.end(), app) != kAllowed.end();
}

int ChannelModel::Register(const std::string& app) {
  if (!MayRegister(app)) return kNotAllowed;
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

bool ChannelModel::IsConnected() const {
  return m_signinStatus == Json::Value(true);
}

std::string ChannelModel::Information() const {
  if (m_signupInfo.isNull()) return {};
  std::string information = m_signupInfo.toStyledString();
  return IsBusText(information) ? information : std::string();
}

std::vector<Json::Value> ChannelModel::ToItems(const std::vector<Property>& properties) {
  std::vector<Json::Value> items;
  for (const Property& property : properties) {
    Json::Value item = toItem(property);
    if (!item.isNull()) items.push_back(std::move(item));
  }
  return items;
}

ChannelModel::Answer ChannelModel::Get(const std::vector<Json::Value>& items) const {
  Answer answer;
  for (const Json::Value& item : items) {
    const std::string name = item.getMemberNames().at(0);
    const auto app = m_apps.find(name);
    if (isThingProperty(name)) {
      answer.properties[name] = "";
    } else if (app != m_apps.end()) {
      answer.properties[name] = app->second.data;
    } else {
      answer.code = kAnswerFailed;
    }
  }
  return answer;
}

std::optional<ChannelModel::Answer> ChannelModel::Set(const std::vector<Json::Value>& items,
                                                      std::vector<BusMessage>& signals) {
  Answer answer;
  for (const Json::Value& item : items) {
    const std::string name = item.getMemberNames().at(0);
    const Json::Value& value = item[name];
    const auto app = m_apps.find(name);
    if (name == kSignupInfo) {
      m_signupInfo = value;
    } else if (name == kSigninStatus) {
      m_signinStatus = value;
      if (!value.isConvertibleTo(Json::booleanValue)) return std::nullopt;
      signals.push_back({"cloud_connection_changed", {value.asBool() ? "true" : "false"}});
    } else if (app != m_apps.end()) {
      if (value.isArray() || value.isObject()) return std::nullopt;
      if (IsBusText(value.asString())) {
        signals.push_back({"send_event", {name, value.asString()}});
      }
      answer.properties[name] = app->second.data;
    } else {
      answer.code = kAnswerFailed;
    }
  }
  return answer;
}

Response ChannelModel::ToResponse(bool isSet, const Answer& answer) {
  Response response;
  response.isSet = isSet;
  response.code = answer.code;
  for (const auto& [name, data] : answer.properties) {
    response.properties.push_back({name, LUMO_PROPERTY_TYPE_STRING, 0, data, false});
  }
  return response;
}

}  // namespace fuzz
