#include "AppDataChannelControl.h"

#include <chrono>
#include <functional>
#include <optional>

#include "AppDataChannelCore.h"
#include "CleanUp.h"
#include "DBusServer.h"
#include "Log.h"
#include "PluginConstants.h"

namespace AppDataChannel {
namespace {

using ThingCommon::CallGate;
using ThingCommon::CleanUp;
using ThingCommon::LOG_TAG_PLUGIN;
using ThingCommon::LogScope;
using ThingCommon::RESULT_FAIL;
using ThingCommon::RESULT_SUCCESS;

const char* const kServiceName = "appdatachannel";
const char* const kServiceDescription =
    "appdatachannel service plugin for qivo-thing mapi. support ocf thing /zun/tv/appdata/* "
    "resources";

// For a handler to answer after its event was sent: usually microseconds.
constexpr std::chrono::milliseconds kMaxWaitForAnswer(250);

const char* const kSigninStatus = "signinStatus";
const char* const kSignupInfo = "signupInfo";

// A view of `string`, valid as long as `string`, which saves a copy of what may be some MiB. A
// string with a NUL is copied: a view would end there.
Json::Value viewOf(const std::string& string) {
  const bool hasNul = string.find('\0') != std::string::npos;
  return hasNul ? Json::Value(string) : Json::Value(Json::StaticString(string.c_str()));
}

}  // namespace

AppDataChannelControl::AppDataChannelControl() = default;

AppDataChannelControl::~AppDataChannelControl() = default;

bool AppDataChannelControl::Create() {
  const LogScope scope(LOG_TAG_PLUGIN, LOG_SITE());
  const std::lock_guard<std::recursive_mutex> lock(m_mutex);
  if (m_created) {
    LOG_E(LOG_TAG_PLUGIN, "already created\n");
    return false;
  }
  if (!createLumo()) {
    LOG_E(LOG_TAG_PLUGIN, "fail to createLumo\n");
    return false;
  }
  try {
    registerThingProperties();
  } catch (...) {
    // Leaves no service behind that a later Create would not know of.
    CleanUp().Run([this] { destroyLumo(); });
    throw;
  }
  m_created = true;
  LOG_E(LOG_TAG_PLUGIN, "created\n");
  return true;
}

void AppDataChannelControl::Destroy() {
  const LogScope scope(LOG_TAG_PLUGIN, LOG_SITE());
  const std::lock_guard<std::recursive_mutex> lock(m_mutex);
  if (!m_created) return;
  // A set whose event was sent, but not its answer, would come again at the next start.
  m_sent_events.WaitUntilEmpty(kMaxWaitForAnswer);
  // Every step, whatever is thrown: the core has forgotten by now that it was started.
  CleanUp cleanUp;
  cleanUp.Run([this] { unregisterThingProperties(); });
  cleanUp.Run([this] { destroyLumo(); });
  cleanUp.Run([this] { m_app_info.Reset(); });
  m_created = false;
  cleanUp.RethrowFirst();
}

bool AppDataChannelControl::IsCreated() {
  const std::lock_guard<std::recursive_mutex> lock(m_mutex);
  return m_created;
}

void AppDataChannelControl::Shutdown() {
  m_lumo_api.Shutdown();
}

int AppDataChannelControl::RegisterApp(const std::string& name) {
  const LogScope scope(LOG_TAG_PLUGIN, LOG_SITE());
  bool alreadyRegistered = false;
  const int code = m_app_info.RegisterApp(name, alreadyRegistered);
  if (code != RESULT_CODE_SUCCESS) {
    LOG_E(LOG_TAG_PLUGIN, "[%s] fail to register: %d\n", name.c_str(), code);
    return code;
  }
  if (alreadyRegistered) {
    LOG_I(LOG_TAG_PLUGIN, "[%s] already registered: %d\n", name.c_str(), RESULT_CODE_SUCCESS);
    return RESULT_CODE_SUCCESS;
  }
  bool hasProperty = false;
  try {
    hasProperty = m_lumo_api.RegisterProperty(name, JsonValueAdaptor::TYPE_STRING, 0, 0, "");
  } catch (...) {
    CleanUp().Run([&] { m_app_info.UnregisterApp(name); });
    throw;
  }
  if (!hasProperty) {
    LOG_E(LOG_TAG_PLUGIN, "[%s] fail to m_lumo_api.RegisterProperty\n", name.c_str());
    m_app_info.UnregisterApp(name);
    return RESULT_CODE_FAILED;
  }
  LOG_I(LOG_TAG_PLUGIN, "[%s] register: %d\n", name.c_str(), RESULT_CODE_SUCCESS);
  return RESULT_CODE_SUCCESS;
}

int AppDataChannelControl::UnregisterApp(const std::string& name) {
  const int code = m_app_info.UnregisterApp(name);
  if (code == RESULT_CODE_SUCCESS && !m_lumo_api.UnregisterProperty(name)) {
    LOG_E(LOG_TAG_PLUGIN, "[%s] fail to m_lumo_api.UnregisterProperty\n", name.c_str());
  }
  LOG_I(LOG_TAG_PLUGIN, "[%s] unregister: %d\n", name.c_str(), code);
  return code;
}

int AppDataChannelControl::NotifyData(const std::string& name, const std::string& data) {
  if (!m_app_info.SetAppData(name, data)) {
    LOG_E(LOG_TAG_PLUGIN, "[%s] not registered\n", name.c_str());
    return RESULT_CODE_INVALID_APP;
  }
  JsonValueAdaptor value(JsonValueAdaptor::TYPE_OBJECT);
  value[name] = viewOf(data);
  m_lumo_api.NotifyProperty(name, value);
  LOG_I(LOG_TAG_PLUGIN, "[%s] sent\n", name.c_str());
  return RESULT_CODE_SUCCESS;
}

int AppDataChannelControl::GetCloudConnection(bool& connected) {
  const JsonValueAdaptor status = m_thing_info.GetThingProperty(kSigninStatus);
  connected = status.isBool() && status.asBool();
  return RESULT_CODE_SUCCESS;
}

int AppDataChannelControl::GetThingInfo(std::string& info) {
  const JsonValueAdaptor signupInfo = m_thing_info.GetThingProperty(kSignupInfo);
  if (signupInfo.isNull()) {
    LOG_E(LOG_TAG_PLUGIN, "signup info is not initialized\n");
    return RESULT_CODE_FAILED;
  }
  info = signupInfo.toStyledString();
  return RESULT_CODE_SUCCESS;
}

bool AppDataChannelControl::createLumo() {
  using std::placeholders::_1;
  using std::placeholders::_2;
  ThingCommon::_ServiceInfo info;
  info.name = kServiceName;
  info.description = kServiceDescription;
  info.get_handler = std::bind(&AppDataChannelControl::getHandler, this, _1, _2);
  info.set_handler = std::bind(&AppDataChannelControl::setHandler, this, _1, _2);
  info.cancel_handler = std::bind(&AppDataChannelControl::cancelHandler, this, _1);
  const bool created = m_lumo_api.Create(info);
  if (!created) {
    LOG_E(LOG_TAG_PLUGIN, "fail to m_lumo_api.Create\n");
  }
  return created;
}

void AppDataChannelControl::destroyLumo() {
  m_lumo_api.Destroy();
}

void AppDataChannelControl::registerThingProperties() {
  for (const auto& [name, type] : m_thing_info.GetThingPropertyTypeList()) {
    m_lumo_api.RegisterProperty(name, type, 0, 0, "");
  }
}

void AppDataChannelControl::unregisterThingProperties() {
  for (const auto& [name, type] : m_thing_info.GetThingPropertyTypeList()) {
    m_lumo_api.UnregisterProperty(name);
  }
}

void AppDataChannelControl::getHandler(void* request,
                                       const std::vector<JsonValueAdaptor>& properties) {
  const LogScope scope(LOG_TAG_PLUGIN, LOG_SITE());
  try {
    JsonValueAdaptor response;
    bool ok = true;
    for (const JsonValueAdaptor& item : properties) {
      for (const std::string& name : item.getMemberNames()) {
        if (m_thing_info.IsThingProperty(name)) {
          response[name] = "";  // the cloud set the value and knows it
        } else if (m_app_info.IsRegisteredApp(name)) {
          response[name] = m_app_info.GetAppData(name);
        } else {
          ok = false;
        }
      }
    }
    m_lumo_api.SendGetResponse(request, ok ? RESULT_SUCCESS : RESULT_FAIL, response);
  } catch (...) {
    LOG_E(LOG_TAG_PLUGIN, "occurred exception\n");
  }
}

void AppDataChannelControl::setHandler(void* request,
                                       const std::vector<JsonValueAdaptor>& properties) {
  const LogScope scope(LOG_TAG_PLUGIN, LOG_SITE());
  try {
    bool ok = true;
    std::vector<std::string> forwarded;
    std::optional<CallGate::Pass> sentEvent;
    for (const JsonValueAdaptor& item : properties) {
      for (const std::string& name : item.getMemberNames()) {
        const Json::Value& value = item[name];
        if (m_thing_info.IsThingProperty(name)) {
          LOG_I(LOG_TAG_PLUGIN, "thing property: %s\n", item.toStyledString().c_str());
          m_thing_info.SetThingProperty(name, JsonValueAdaptor(value));
          if (name == kSigninStatus) {
            sentEvent.reset();  // as below
            AppDataChannelCore::GetInstance().GetDbusServer().SendCloudConnectionChange(
                value.asBool());
          }
        } else if (m_app_info.IsRegisteredApp(name)) {
          sentEvent.reset();  // a stop waits for it, and has the lock that the core wants here
          DBusServer& server = AppDataChannelCore::GetInstance().GetDbusServer();
          sentEvent.emplace(&m_sent_events);
          server.SendSetRequest(name, value.asString());
          forwarded.push_back(name);
        } else {
          LOG_E(LOG_TAG_PLUGIN, "unregistered. app name: %s\n", name.c_str());
          ok = false;
        }
      }
    }
    // What the application has sent so far: it confirms the new value by sending its data.
    JsonValueAdaptor response;
    for (const std::string& name : forwarded) response[name] = m_app_info.GetAppData(name);
    m_lumo_api.SendSetResponse(request, ok ? RESULT_SUCCESS : RESULT_FAIL, response);
  } catch (...) {
    LOG_E(LOG_TAG_PLUGIN, "occurred exception\n");
  }
}

void AppDataChannelControl::cancelHandler(void* request) {
  const LogScope scope(LOG_TAG_PLUGIN, LOG_SITE());
  LOG_E(LOG_TAG_PLUGIN, "cancel: %p\n", request);
}

}  // namespace AppDataChannel
