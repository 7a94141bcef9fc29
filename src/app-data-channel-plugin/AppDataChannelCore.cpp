#include "AppDataChannelCore.h"

#include <vconf.h>

#include "CleanUp.h"
#include "Log.h"
#include "PluginConstants.h"

using ThingCommon::CleanUp;
using ThingCommon::LOG_TAG_PLUGIN;
using ThingCommon::LogScope;

namespace AppDataChannel {

AppDataChannelCore& AppDataChannelCore::GetInstance() {
  static AppDataChannelCore core;
  return core;
}

AppDataChannelCore::AppDataChannelCore() = default;

AppDataChannelCore::~AppDataChannelCore() {
  {
    const LogScope scope(LOG_TAG_PLUGIN, LOG_SITE());
    const std::lock_guard<std::recursive_mutex> lock(m_mutex);
    Deinitialize();
  }
  // Calls and handlers that are still running want the core's lock, the server and the tables: they
  // must have ended before the members go.
  m_dbus_server.Shutdown();
  m_control.Shutdown();
}

void AppDataChannelCore::Initialize() {
  const std::lock_guard<std::recursive_mutex> lock(m_mutex);
  if (IsInitialized()) {
    LOG_I(LOG_TAG_PLUGIN, "IsInitialized: true\n");
    return;
  }
  // The cloud side first, so that no application call finds a control that does not exist yet.
  if (!m_control.Create()) {
    LOG_I(LOG_TAG_PLUGIN, "m_control.Create: false\n");
    return;
  }
  bool serverStarted = false;
  try {
    serverStarted = m_dbus_server.Init();
  } catch (...) {
    // As after a failure, so that a later start begins from nothing.
    CleanUp().Run([this] { m_control.Destroy(); });
    throw;
  }
  if (!serverStarted) {
    LOG_I(LOG_TAG_PLUGIN, "m_dbus_server.Init: false\n");
    m_control.Destroy();
    return;
  }
  m_initialized = true;
}

void AppDataChannelCore::Deinitialize() {
  const std::lock_guard<std::recursive_mutex> lock(m_mutex);
  m_initialized = false;
  CleanUp cleanUp;
  cleanUp.Run([this] { m_dbus_server.Deinit(); });
  cleanUp.Run([this] { m_control.Destroy(); });
  cleanUp.RethrowFirst();
}

bool AppDataChannelCore::IsInitialized() {
  const std::lock_guard<std::recursive_mutex> lock(m_mutex);
  return m_initialized;
}

AppDataChannelControl& AppDataChannelCore::GetControl() {
  const std::lock_guard<std::recursive_mutex> lock(m_mutex);
  return m_control;
}

DBusServer& AppDataChannelCore::GetDbusServer() {
  const std::lock_guard<std::recursive_mutex> lock(m_mutex);
  return m_dbus_server;
}

}  // namespace AppDataChannel

namespace {

using AppDataChannel::AppDataChannelCore;

const char* const kPluginName = "appdatachannel";

}  // namespace

bool CreatePlugin() {
  const LogScope scope(LOG_TAG_PLUGIN, LOG_SITE());
  AppDataChannelCore& core = AppDataChannelCore::GetInstance();
  if (core.IsInitialized()) {
    LOG_E(LOG_TAG_PLUGIN, "ALREADY created plugin: %s\n", kPluginName);
    return false;
  }
  vconf_set_int(AppDataChannel::THING_STATUS_KEY, AppDataChannel::THING_STATUS_STOPPED);
  core.Initialize();
  LOG_I(LOG_TAG_PLUGIN, "[%s] Initialize: %s\n", kPluginName,
        core.IsInitialized() ? "true" : "false");
  return true;
}

bool DestroyPlugin() {
  const LogScope scope(LOG_TAG_PLUGIN, LOG_SITE());
  AppDataChannelCore& core = AppDataChannelCore::GetInstance();
  if (!core.IsInitialized()) {
    LOG_E(LOG_TAG_PLUGIN, "NOT created plugin: %s\n", kPluginName);
    return false;
  }
  LOG_I(LOG_TAG_PLUGIN, "[%s] begin Deinitialize\n", kPluginName);
  core.Deinitialize();
  LOG_I(LOG_TAG_PLUGIN, "[%s] end Deinitialize\n", kPluginName);
  return true;
}
