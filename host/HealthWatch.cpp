#include "HealthWatch.h"

#include <utility>

namespace QivoThing {

HealthWatch::HealthWatch(const Plugin& plugin, std::function<void()> onChange)
    : m_onChange(std::move(onChange)) {
  // NOLINTBEGIN(cppcoreguidelines-pro-type-reinterpret-cast): dlsym gives nothing else
  m_read = reinterpret_cast<decltype(m_read)>(plugin.FindInLibraries("lumo_health_read"));
  m_listen = reinterpret_cast<decltype(m_listen)>(plugin.FindInLibraries("lumo_health_listen"));
  // NOLINTEND(cppcoreguidelines-pro-type-reinterpret-cast)
  if (m_listen != nullptr) m_listen(&HealthWatch::on_changed, this);
}

HealthWatch::~HealthWatch() {
  if (m_listen != nullptr) m_listen(nullptr, nullptr);
  // Nobody posts any more.
  if (m_isPosted) g_idle_remove_by_data(this);
}

std::optional<lumo_health> HealthWatch::Read() const {
  lumo_health health{};
  if (m_read == nullptr || !m_read(&health, sizeof health)) return std::nullopt;
  return health;
}

void HealthWatch::on_changed(void* watch) {
  auto* const self = static_cast<HealthWatch*>(watch);
  if (!self->m_isPosted.exchange(true)) {
    g_idle_add_full(G_PRIORITY_DEFAULT, &HealthWatch::on_main_loop, watch, nullptr);
  }
}

gboolean HealthWatch::on_main_loop(gpointer watch) {
  auto* const self = static_cast<HealthWatch*>(watch);
  self->m_isPosted = false;
  self->m_onChange();
  return G_SOURCE_REMOVE;
}

}  // namespace QivoThing
