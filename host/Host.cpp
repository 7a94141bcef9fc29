#include "Host.h"

#include <glib-unix.h>

#include <algorithm>
#include <csignal>
#include <exception>
#include <stdexcept>
#include <utility>

#include "BusConnection.h"
#include "HostLog.h"
#include "LinkHealth.h"
#include "SettingWatch.h"

namespace QivoThing {

namespace {

gboolean on_endSignal(gpointer loop) {
  g_main_loop_quit(static_cast<GMainLoop*>(loop));
  return G_SOURCE_CONTINUE;
}

// The source keeps the loop and stays as long as the process: GLib restores the default action with
// its removal, and a further signal would then end the process in mid-shutdown.
void quitOnSignal(int number, GMainLoop* loop) {
  g_unix_signal_add_full(G_PRIORITY_DEFAULT, number, &on_endSignal, g_main_loop_ref(loop),
                         [](gpointer kept) { g_main_loop_unref(static_cast<GMainLoop*>(kept)); });
}

}  // namespace

Host::Host(const std::vector<std::string>& files) : m_loop(g_main_loop_new(nullptr, FALSE)) {
  quitOnSignal(SIGINT, m_loop.get());
  quitOnSignal(SIGTERM, m_loop.get());
  for (const std::string& file : files) m_plugins.emplace_back(file);
  // Several plug-ins use the same device service.
  const auto telling = std::find_if(m_plugins.begin(), m_plugins.end(), [](const Plugin& plugin) {
    return plugin.FindInLibraries("lumo_health_read") != nullptr;
  });
  if (telling != m_plugins.end()) m_healthWatch.emplace(*telling, [this] { onHealthChanged(); });
}

Host::~Host() {
  m_healthWatch.reset();
  while (!m_plugins.empty()) m_plugins.pop_back();
}

std::string Host::CheckSettings() const {
  std::string all;
  for (const Plugin& plugin : m_plugins) {
    const std::string settings = plugin.CheckSettings();
    // Several plug-ins may use the same device service.
    if (!settings.empty()) all = settings;
  }
  return all;
}

void Host::Run() {
  m_settings = CheckSettings();
  m_isChecked = true;
  ListenToSetting([this] { onSettingChanged(); });
  m_serviceManager.TellStatus("waiting for the bus");
  const BusConnection bus([this](GDBusConnection* connection) { createPlugins(connection); },
                          [this] { onBusClosed(); });
  g_main_loop_run(m_loop.get());
  ListenToSetting(nullptr);
  m_serviceManager.TellStopping(m_error.empty() ? "stopping" : m_error);
  destroyPlugins();
  if (!m_error.empty()) throw std::runtime_error(m_error);
}

void Host::createPlugins(GDBusConnection* connection) {
  m_spareDescriptors.Take();  // those that the system did not have when the bus closed
  m_serviceManager.TellStatus("starting");
  try {
    // A file that a setting names may have changed while the bus was away.
    if (!std::exchange(m_isChecked, false)) m_settings = CheckSettings();
    for (Plugin& plugin : m_plugins) plugin.Create();
    // No application has registered yet: their calls need the main loop, on this thread.
    const std::optional<lumo_health> health = m_healthWatch ? m_healthWatch->Read() : std::nullopt;
    m_ownProperties = health ? health->properties : 0;
  } catch (const std::exception& e) {
    end(e.what());
    return;
  }
  m_readyCheck.emplace(
      connection,
      ReadyCheck::Findings{[this](const auto& owner) { onNameOwned(owner); },
                           [this] { onStatusNotStored(); }, [this](const auto& why) { end(why); }});
}

void Host::onNameOwned(const std::string& owner) {
  const std::string why = "the name is owned by " + owner;
  LOG_E(LOG_TAG_HOST, "not ready: %s, and waited for", why.c_str());
  m_serviceManager.TellStatus("not ready: " + why);
}

void Host::onStatusNotStored() {
  constexpr const char* kStatus = "up, but the settings store does not take the channel's status";
  LOG_E(LOG_TAG_HOST, "%s: applications are served all the same", kStatus);
  m_serviceManager.TellReady(kStatus);
}

void Host::destroyPlugins() {
  m_isUp = false;
  m_readyCheck.reset();
  m_spareDescriptors.Release();
  for (auto plugin = m_plugins.rbegin(); plugin != m_plugins.rend(); ++plugin) plugin->Destroy();
}

void Host::onBusClosed() {
  m_serviceManager.TellStatus("waiting for the bus");
  destroyPlugins();
  m_spareDescriptors.Take();
}

void Host::onSettingChanged() {
  if (!IsReady()) return;
  m_isUp = true;
  m_serviceManager.TellReady(status());
}

void Host::onHealthChanged() {
  if (m_isUp) m_serviceManager.TellStatus(status());
}

std::string Host::status() const {
  if (m_settings.empty()) return "ready";
  const std::optional<lumo_health> health = m_healthWatch ? m_healthWatch->Read() : std::nullopt;
  return health ? Describe(*health, m_settings, m_ownProperties) : "ready; " + m_settings;
}

void Host::end(const std::string& why) {
  m_error = why;
  g_main_loop_quit(m_loop.get());
}

}  // namespace QivoThing
