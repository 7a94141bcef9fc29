// A process that has unloaded a library keeps nothing of it.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>

#include "WaitUntil.h"
#include "dlog.h"
#include "lumo.h"
#include "vconf.h"

namespace {

class LoadedLibrary {
 public:
  explicit LoadedLibrary(const char* path)
      : m_path(path), m_handle(dlopen(path, RTLD_NOW | RTLD_LOCAL)) {
    EXPECT_NE(m_handle, nullptr) << dlerror();
  }

  template <typename Function>
  Function* Find(const char* name) const {
    void* symbol = dlsym(m_handle, name);
    EXPECT_NE(symbol, nullptr) << name;
    return reinterpret_cast<Function*>(symbol);
  }

  // True when the library is no longer part of the process.
  bool Unload() const {
    EXPECT_EQ(dlclose(m_handle), 0);
    std::ostringstream maps;
    maps << std::ifstream("/proc/self/maps").rdbuf();
    return maps.str().find(m_path) == std::string::npos;
  }

 private:
  std::string m_path;
  void* m_handle;
};

std::ptrdiff_t countThreads() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return std::distance(begin(tasks), end(tasks));
}

void ignoreStatus(void*, lumo_string, lumo_protocol_status, void*) {}
void ignoreRequest(void*, void*, void*, void*) {}
void ignoreCancel(void*, void*, void*) {}

TEST(UnloadTest, TheLogCanBeUnloaded) {
  const LoadedLibrary library(DLOG_LIBRARY);
  EXPECT_GE(library.Find<decltype(dlog_print)>("dlog_print")(4, "T", "%2000d", 1), 0);
  EXPECT_TRUE(library.Unload());
}

TEST(UnloadTest, TheSettingsStoreCanBeUnloaded) {
  const LoadedLibrary library(VCONF_LIBRARY);
  EXPECT_NE(library.Find<decltype(vconf_set_int)>("vconf_set_int")("", 1), 0);
  EXPECT_TRUE(library.Unload());
}

TEST(UnloadTest, TheDeviceServiceCanBeUnloadedWithAServiceAndAListAlive) {
  std::thread([] {}).join();  // a sanitizer starts a thread of its own with the first one
  const auto threads = countThreads();
  const LoadedLibrary library(LUMO_LIBRARY);
  const lumo_string name{"name", 4};
  const auto create = library.Find<decltype(lumo_service_create)>("lumo_service_create");
  const auto destroy = library.Find<decltype(lumo_service_destroy)>("lumo_service_destroy");
  const auto createService = [&] {
    return create(name, name, ignoreStatus, ignoreRequest, ignoreRequest, ignoreCancel, nullptr);
  };
  EXPECT_EQ(destroy(createService()), 0);
  EXPECT_NE(createService(), nullptr);
  EXPECT_GT(countThreads(), threads);
  EXPECT_NE(library.Find<decltype(lumo_property_list_create)>("lumo_property_list_create")(),
            nullptr);
  EXPECT_TRUE(library.Unload());

  // A thread that was joined can be listed a moment longer.
  EXPECT_TRUE(WaitUntil([&] { return countThreads() <= threads; }));
  EXPECT_EQ(countThreads(), threads);
}

}  // namespace
