#include "Plugin.h"

#include <dlfcn.h>

#include <array>
#include <exception>
#include <stdexcept>

#include "HostLog.h"
#include "lumo_check.h"

namespace QivoThing {
namespace {

// dlopen searches the system's folders for a name without a slash.
std::string toPath(const std::string& file) {
  return file.find('/') == std::string::npos ? "./" + file : file;
}

std::string linkerError() {
  const char* const text = dlerror();
  return text == nullptr ? "unknown error of the dynamic linker" : text;
}

}  // namespace

Plugin::Plugin(const std::string& file)
    : m_file(toPath(file)), m_library(dlopen(m_file.c_str(), RTLD_NOW | RTLD_LOCAL)) {
  if (!m_library) throw std::runtime_error(linkerError());
  m_create = find("CreatePlugin");
  m_destroy = find("DestroyPlugin");
}

Plugin::~Plugin() {
  Destroy();
}

std::string Plugin::CheckSettings() const {
  void* const symbol = FindInLibraries("lumo_check_settings");
  if (symbol == nullptr) return {};
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): dlsym gives nothing else
  const auto check = reinterpret_cast<decltype(&lumo_check_settings)>(symbol);
  std::array<char, 1024> text{};
  if (check(text.data(), text.size()) == LUMO_SETTINGS_WRONG) {
    throw std::runtime_error(text.data());
  }
  return text.data();
}

void* Plugin::FindInLibraries(const char* name) const {
  return dlsym(m_library.get(), name);
}

void Plugin::Create() {
  bool created = false;
  try {
    created = m_create();
  } catch (const std::exception& e) {
    throw std::runtime_error(m_file + ": CreatePlugin threw: " + e.what());
  } catch (...) {
    throw std::runtime_error(m_file + ": CreatePlugin threw");
  }
  if (!created) throw std::runtime_error(m_file + ": CreatePlugin returned false");
  m_created = true;
  LOG_I(LOG_TAG_HOST, "[%s] created", m_file.c_str());
}

void Plugin::Destroy() noexcept {
  if (!m_created) return;
  m_created = false;
  try {
    if (m_destroy()) {
      LOG_I(LOG_TAG_HOST, "[%s] destroyed", m_file.c_str());
    } else {
      // A plug-in may notice only after CreatePlugin that it cannot start.
      LOG_E(LOG_TAG_HOST, "[%s] DestroyPlugin returned false", m_file.c_str());
    }
  } catch (const std::exception& e) {
    LOG_E(LOG_TAG_HOST, "[%s] DestroyPlugin threw: %s", m_file.c_str(), e.what());
  } catch (...) {
    LOG_E(LOG_TAG_HOST, "[%s] DestroyPlugin threw", m_file.c_str());
  }
}

Plugin::EntryPoint Plugin::find(const char* name) const {
  void* const symbol = dlsym(m_library.get(), name);
  if (symbol == nullptr) throw std::runtime_error(linkerError());
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): dlsym gives nothing else
  return reinterpret_cast<EntryPoint>(symbol);
}

void Plugin::Unload::operator()(void* library) const noexcept {
  dlclose(library);
}

}  // namespace QivoThing
