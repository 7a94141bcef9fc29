#include "Host.h"

#include <glib-unix.h>

#include <csignal>
#include <exception>
#include <stdexcept>

#include "BusConnection.h"
#include "HostLog.h"
#include "SettingWatch.h"

namespace QivoThing {
namespace {

constexpr guint kTimeToBeReadyS = 5;

}  // namespace

Host::EndSignal::EndSignal(int number, GMainLoop* loop)
    : m_source(g_unix_signal_add(number, &EndSignal::on_signal, loop)) {}

Host::EndSignal::~EndSignal() {
  g_source_remove(m_source);
}

gboolean Host::EndSignal::on_signal(gpointer loop) {
  g_main_loop_quit(static_cast<GMainLoop*>(loop));
  return G_SOURCE_CONTINUE;
}

Host::ReadyCheck::ReadyCheck()
    : m_source(g_timeout_add_seconds(kTimeToBeReadyS, &ReadyCheck::on_time, this)) {}

Host::ReadyCheck::~ReadyCheck() {
  if (m_source != 0) g_source_remove(m_source);
}

gboolean Host::ReadyCheck::on_time(gpointer check) {
  static_cast<ReadyCheck*>(check)->m_source = 0;
  if (!IsReady()) {
    LOG_E(LOG_TAG_HOST, "not ready after %u s: the lines above say what is missing",
          kTimeToBeReadyS);
  }
  return G_SOURCE_REMOVE;
}

Host::Host(const std::vector<std::string>& files)
    : m_loop(g_main_loop_new(nullptr, FALSE)),
      m_interrupt(SIGINT, m_loop.get()),
      m_terminate(SIGTERM, m_loop.get()) {
  for (const std::string& file : files) m_plugins.emplace_back(file);
}

Host::~Host() {
  while (!m_plugins.empty()) m_plugins.pop_back();
}

void Host::Run() {
  const BusConnection bus([this] { createPlugins(); }, [this] { onBusClosed(); });
  g_main_loop_run(m_loop.get());
  destroyPlugins();
  if (!m_error.empty()) throw std::runtime_error(m_error);
}

void Host::createPlugins() {
  m_spareDescriptors.Take();  // those that the system did not have when the bus closed
  try {
    for (Plugin& plugin : m_plugins) plugin.Create();
    m_readyCheck.emplace();
  } catch (const std::exception& e) {
    m_error = e.what();
    g_main_loop_quit(m_loop.get());
  }
}

void Host::destroyPlugins() {
  m_readyCheck.reset();
  m_spareDescriptors.Release();
  for (auto plugin = m_plugins.rbegin(); plugin != m_plugins.rend(); ++plugin) plugin->Destroy();
}

void Host::onBusClosed() {
  destroyPlugins();
  m_spareDescriptors.Take();
}

}  // namespace QivoThing
