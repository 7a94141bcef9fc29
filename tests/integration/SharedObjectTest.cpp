// What the shared object shows to the linker, read with the tools that built it.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "TemporaryFolder.h"

namespace {

using Lines = std::vector<std::string>;

constexpr bool kInstrumented = ADC_INSTRUMENTED != 0;
constexpr bool kOptimised = ADC_OPTIMISED != 0;
constexpr std::uintmax_t kMaxStrippedSizeBytes = 250 * 1024;

// The lines that the command prints; fails the test when there are none.
Lines Run(const std::string& command) {
  const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
  Lines lines;
  char line[65536];
  while (std::fgets(line, sizeof line, pipe.get()) != nullptr) lines.push_back(line);
  EXPECT_FALSE(lines.empty()) << command;
  return lines;
}

struct Symbol {
  char type = '?';
  std::string name;  // without its version
};

// One line of nm: an address, which may be missing, the type, and the name.
std::vector<Symbol> Symbols(const std::string& options) {
  std::vector<Symbol> symbols;
  for (const std::string& line : Run(ADC_NM " " + options + " '" ADC_PLUGIN_FILE "'")) {
    std::istringstream words(line);
    Symbol symbol;
    std::string type;
    words >> type;
    if (type.size() > 1) words >> type;
    words >> symbol.name;
    symbol.type = type.at(0);
    symbol.name.resize(std::min(symbol.name.find('@'), symbol.name.size()));
    symbols.push_back(symbol);
  }
  return symbols;
}

Lines NeededLibraries() {
  Lines names;
  for (const std::string& line : Run(ADC_READELF " -d '" ADC_PLUGIN_FILE "'")) {
    const auto start = line.find('[');
    if (line.find("(NEEDED)") == std::string::npos || start == std::string::npos) continue;
    names.push_back(line.substr(start + 1, line.find(']') - start - 1));
  }
  return names;
}

bool startsWith(const std::string& text, const std::string& start) {
  return text.rfind(start, 0) == 0;
}

bool isOfThePlatform(const std::string& symbol) {
  return startsWith(symbol, "lumo_") || symbol == "dlog_print" || symbol == "vconf_set_int";
}

TEST(SharedObjectTest, ExportsTheTwoEntryPointsAndNothingElse) {
  Lines exported;
  for (const Symbol& symbol : Symbols("-D --defined-only")) {
    exported.push_back(std::string(1, symbol.type) + " " + symbol.name);
  }
  std::sort(exported.begin(), exported.end());
  EXPECT_EQ((Lines{"T CreatePlugin", "T DestroyPlugin"}), exported);
}

TEST(SharedObjectTest, HasNoUniqueSymbolsThatWouldKeepItLoaded) {
  for (const Symbol& symbol : Symbols("--defined-only")) EXPECT_NE('u', symbol.type) << symbol.name;
  for (const Symbol& symbol : Symbols("-D")) EXPECT_NE('u', symbol.type) << symbol.name;
}

TEST(SharedObjectTest, TakesThePlatformsFunctionsFromOutside) {
  Lines wanted;
  for (const Symbol& symbol : Symbols("-D --undefined-only")) {
    if (isOfThePlatform(symbol.name)) wanted.push_back(symbol.name);
  }
  for (const char* name : {"dlog_print", "vconf_set_int", "lumo_service_create",
                           "lumo_service_destroy", "lumo_service_notify"}) {
    EXPECT_EQ(1, std::count(wanted.begin(), wanted.end(), name)) << name;
  }
  for (const Symbol& symbol : Symbols("--defined-only")) {
    EXPECT_FALSE(isOfThePlatform(symbol.name)) << symbol.name;
  }
}

TEST(SharedObjectTest, NeedsThePlatformsLibrariesAndItsOwnDependenciesOnly) {
  const Lines needed = NeededLibraries();
  for (const char* name : {"liblumo.so", "libdlog.so", "libvconf.so"}) {
    EXPECT_EQ(1, std::count(needed.begin(), needed.end(), name)) << name;
  }
  if (kInstrumented) GTEST_SKIP() << "the runtime of the instrumentation is needed as well";
  const Lines allowed{"liblumo.so",         "libdlog.so",      "libvconf.so",    "libgio-2.0.so.",
                      "libgobject-2.0.so.", "libglib-2.0.so.", "libjsoncpp.so.", "libstdc++.so.",
                      "libgcc_s.so.",       "libm.so.",        "libc.so.",       "ld-linux"};
  for (const std::string& name : needed) {
    EXPECT_TRUE(std::any_of(allowed.begin(), allowed.end(), [&name](const std::string& start) {
      return startsWith(name, start);
    })) << name;
  }
}

TEST(SharedObjectTest, TheRestOfItsUndefinedSymbolsIsOfGLibJsonCppAndTheRuntime) {
  if (kInstrumented) GTEST_SKIP() << "the instrumentation adds symbols of its own";
  std::vector<void*> libraries;
  for (const std::string& name : NeededLibraries()) {
    if (name == "liblumo.so" || name == "libdlog.so" || name == "libvconf.so") continue;
    void* const library = dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, library) << dlerror();
    libraries.push_back(library);
  }
  // Weak ones that the compiler's start files want from every shared object.
  const Lines startFiles{"_ITM_deregisterTMCloneTable", "_ITM_registerTMCloneTable",
                         "__gmon_start__", "__cxa_finalize"};
  for (const Symbol& symbol : Symbols("-D --undefined-only")) {
    if (isOfThePlatform(symbol.name)) continue;
    if (std::count(startFiles.begin(), startFiles.end(), symbol.name) != 0) {
      EXPECT_EQ('w', symbol.type) << symbol.name;
      continue;
    }
    EXPECT_TRUE(std::any_of(libraries.begin(), libraries.end(), [&symbol](void* library) {
      return dlsym(library, symbol.name.c_str()) != nullptr;
    })) << symbol.name;
  }
  for (void* library : libraries) dlclose(library);
}

TEST(SharedObjectTest, IsSmallWhenStripped) {
  if (kInstrumented || !kOptimised) GTEST_SKIP() << "not a release build";
  const TemporaryFolder folder;
  const std::string stripped = folder.Path() / "stripped.so";
  EXPECT_EQ(0, std::system((ADC_STRIP " -o '" + stripped + "' '" ADC_PLUGIN_FILE "'").c_str()));
  std::error_code error;
  const std::uintmax_t size = std::filesystem::file_size(stripped, error);
  EXPECT_FALSE(error) << error.message();
  EXPECT_GT(size, 0U);
  EXPECT_LE(size, kMaxStrippedSizeBytes);
  RecordProperty("StrippedSizeBytes", static_cast<int>(size));
}

}  // namespace
