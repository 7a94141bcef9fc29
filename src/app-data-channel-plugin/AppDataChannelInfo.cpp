#include "AppDataChannelInfo.h"

#include <unistd.h>

#include "Log.h"
#include "PluginConstants.h"

namespace AppDataChannel {
namespace {

using ThingCommon::LOG_TAG_PLUGIN;

constexpr const char* kAllowedApps[] = {
    "lanternapp",     "welcome",     "keyringservice",   "qz",
    "galleryapp",     "vexBrowser",  "lantern-pz-agent", "pocketrelay",
    "handset-server", "panelmosaic", "brightroomapp",    "tunerapp",
    "qmap",           "drelservice", "trace-pz-agent"};
constexpr const char* kDiagnosticsApp = "diag-menu";
constexpr const char* kReleaseFile = "/etc/release";

}  // namespace

AppDataChannelInfo::AppDataChannelInfo() {
  initAppList();
}

AppDataChannelInfo::~AppDataChannelInfo() {
  clear();
}

bool AppDataChannelInfo::IsValidAppName(const std::string& name) {
  const std::lock_guard<std::recursive_mutex> lock(m_mutex);
  return m_appList.count(name) != 0;
}

int AppDataChannelInfo::RegisterApp(const std::string& name, bool& alreadyRegistered) {
  if (!IsValidAppName(name)) {
    LOG_E(LOG_TAG_PLUGIN, "[%s] invalid", name.c_str());
    return RESULT_CODE_INVALID_APP;
  }

  const std::lock_guard<std::recursive_mutex> lock(m_mutex);
  const auto found = m_appDataMap.find(name);
  if (found != m_appDataMap.end()) {
    AppData& app = found->second;
    ++app.count;
    alreadyRegistered = true;
    LOG_E(LOG_TAG_PLUGIN, "[%s] is already registered (count: %u)", name.c_str(), app.count);
    return RESULT_CODE_SUCCESS;
  }
  m_appDataMap[name].count = 1;
  alreadyRegistered = false;
  LOG_E(LOG_TAG_PLUGIN, "[%s] is registered now", name.c_str());
  return RESULT_CODE_SUCCESS;
}

int AppDataChannelInfo::UnregisterApp(const std::string& name) {
  const std::lock_guard<std::recursive_mutex> lock(m_mutex);
  const auto found = m_appDataMap.find(name);
  if (found == m_appDataMap.end()) {
    LOG_E(LOG_TAG_PLUGIN, "[%s] not registered", name.c_str());
    return RESULT_CODE_INVALID_APP;
  }
  const std::uint32_t count = --found->second.count;
  if (count != 0) {
    LOG_E(LOG_TAG_PLUGIN, "[%s] is unregistered (count: %u)", name.c_str(), count);
    return RESULT_CODE_SUCCESS;
  }
  m_appDataMap.erase(found);
  LOG_E(LOG_TAG_PLUGIN, "[%s] is unregistered now", name.c_str());
  return RESULT_CODE_SUCCESS;
}

bool AppDataChannelInfo::IsRegisteredApp(const std::string& name) {
  const std::lock_guard<std::recursive_mutex> lock(m_mutex);
  return m_appDataMap.count(name) != 0;
}

std::string AppDataChannelInfo::GetAppData(const std::string& name) {
  const std::lock_guard<std::recursive_mutex> lock(m_mutex);
  const auto found = m_appDataMap.find(name);
  if (found == m_appDataMap.end()) {
    LOG_E(LOG_TAG_PLUGIN, "[%s] not registered", name.c_str());
    return std::string();
  }
  return found->second.data;
}

bool AppDataChannelInfo::SetAppData(const std::string& name, const std::string& data) {
  const std::lock_guard<std::recursive_mutex> lock(m_mutex);
  const auto found = m_appDataMap.find(name);
  if (found == m_appDataMap.end()) {
    LOG_E(LOG_TAG_PLUGIN, "[%s] not registered", name.c_str());
    return false;
  }
  found->second.data = data;
  return true;
}

void AppDataChannelInfo::UnregisterAll() {
  const std::lock_guard<std::recursive_mutex> lock(m_mutex);
  m_appDataMap.clear();
}

void AppDataChannelInfo::Reset() {
  UnregisterAll();
}

void AppDataChannelInfo::clear() {
  m_appDataMap.clear();
  m_appList.clear();
}

void AppDataChannelInfo::initAppList() {
  for (const char* name : kAllowedApps) m_appList.insert(name);
  // The diagnostics menu is for devices without the file only.
  if (access(kReleaseFile, F_OK) != 0) m_appList.insert(kDiagnosticsApp);
}

ThingInfo::ThingInfo() {
  init();
}

ThingInfo::~ThingInfo() {
  deinit();
}

bool ThingInfo::IsThingProperty(const std::string& name) {
  const std::lock_guard<std::recursive_mutex> lock(m_mutex);
  return isValidPropertyName(name);
}

ThingInfo::JsonValueAdaptor ThingInfo::GetThingProperty(const std::string& name) {
  const std::lock_guard<std::recursive_mutex> lock(m_mutex);
  if (!isValidPropertyName(name)) return JsonValueAdaptor();
  const auto found = m_properties.find(name);
  return found != m_properties.end() ? found->second : JsonValueAdaptor();
}

void ThingInfo::SetThingProperty(const std::string& name, const JsonValueAdaptor& value) {
  const std::lock_guard<std::recursive_mutex> lock(m_mutex);
  if (!isValidPropertyName(name)) return;
  m_properties[name] = value;
}

std::map<std::string, ThingInfo::JsonValueAdaptor::_Type> ThingInfo::GetThingPropertyTypeList() {
  const std::lock_guard<std::recursive_mutex> lock(m_mutex);
  return m_propertyTypes;
}

ThingInfo::JsonValueAdaptor::_Type ThingInfo::getPropertyType(const std::string& name) const {
  const auto found = m_propertyTypes.find(name);
  return found != m_propertyTypes.end() ? found->second : JsonValueAdaptor::TYPE_NULL;
}

void ThingInfo::init() {
  m_propertyTypes["signinStatus"] = JsonValueAdaptor::TYPE_BOOL;
  m_propertyTypes["signupInfo"] = JsonValueAdaptor::TYPE_OBJECT;
}

void ThingInfo::deinit() {
  m_properties.clear();
  m_propertyTypes.clear();
}

bool ThingInfo::isValidPropertyName(const std::string& name) const {
  return m_propertyTypes.count(name) != 0;
}

}  // namespace AppDataChannel
