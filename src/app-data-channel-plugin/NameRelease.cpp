#include "NameRelease.h"

#include <utility>

namespace AppDataChannel {

using ThingCommon::CallGate;

void NameRelease::Prepare() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  MainContextPtr context(g_main_context_ref_thread_default());
  if (m_context && m_context != context) giveUpAll();
  m_context = std::move(context);
  giveUpIfLoopIsOurs();
  m_owners.reserve(m_owners.size() + 1);
}

void NameRelease::GiveUp(guint owner) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_owners.push_back(owner);
  if (giveUpIfLoopIsOurs() || m_source) return;
  m_source.reset(g_idle_source_new());
  g_source_set_priority(m_source.get(), G_PRIORITY_HIGH);
  g_source_set_callback(m_source.get(), &NameRelease::on_release, this, nullptr);
  g_source_attach(m_source.get(), m_context.get());
}

void NameRelease::Wait(std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(m_mutex);
  if (m_owners.empty()) return;
  m_changed.wait_for(lock, limit, [this] { return m_owners.empty() || m_calls != 0; });
  if (m_calls != 0) {
    giveUpAll();
  } else {
    giveUpIfLoopIsOurs();  // it may have ended meanwhile
  }
}

void NameRelease::GiveUpNow() {
  const std::unique_lock<std::mutex> lock(m_mutex, std::try_to_lock);
  if (lock) giveUpAll();
}

bool NameRelease::giveUpIfLoopIsOurs() {
  if (!g_main_context_acquire(m_context.get())) return false;
  giveUpAll();
  g_main_context_release(m_context.get());
  return true;
}

void NameRelease::giveUpAll() {
  if (m_source) g_source_destroy(m_source.get());
  m_source.reset();
  for (const guint owner : m_owners) g_bus_unown_name(owner);
  m_owners.clear();  // keeps its room, which Prepare has made
  m_changed.notify_all();
}

gboolean NameRelease::on_release(gpointer userData) {
  auto* const names = static_cast<NameRelease*>(userData);
  const CallGate::Pass pass(&names->m_gate, __func__);
  const std::lock_guard<std::mutex> lock(names->m_mutex);
  names->giveUpAll();
  return G_SOURCE_REMOVE;
}

NameRelease::LoopCall::LoopCall(NameRelease& names) : m_names(&names) {
  const std::lock_guard<std::mutex> lock(names.m_mutex);
  if (!names.m_context || g_main_context_is_owner(names.m_context.get()) == FALSE) {
    m_names = nullptr;
    return;
  }
  ++names.m_calls;
  if (!names.m_owners.empty()) names.m_changed.notify_all();
}

NameRelease::LoopCall::~LoopCall() {
  if (m_names == nullptr) return;
  const std::lock_guard<std::mutex> lock(m_names->m_mutex);
  --m_names->m_calls;
}

}  // namespace AppDataChannel
