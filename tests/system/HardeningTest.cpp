// What compiler and linker have put around everything that is installed, as readelf shows it.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "HostProcess.h"
#include "TemporaryFolder.h"

namespace {

namespace fs = std::filesystem;

using Lines = std::vector<std::string>;

// One installed program or library.
struct Binary {
  Lines headers;                  // of the file, its segments and its dynamic section
  std::set<std::string> imports;  // without versions
};

bool has(const std::string& line, const std::string& part) {
  return line.find(part) != std::string::npos;
}

bool anyHas(const Lines& lines, const std::string& part) {
  return std::any_of(lines.begin(), lines.end(),
                     [&part](const std::string& line) { return has(line, part); });
}

class HardeningTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const fs::path& prefix = m_folder.Path();
    Run({ADC_CMAKE, "--install", ADC_BUILD_FOLDER, "--prefix", prefix});
    for (const auto& entry : fs::recursive_directory_iterator(prefix)) {
      std::string start(4, '\0');
      std::ifstream(entry.path(), std::ios::binary).read(start.data(), 4);
      if (start == "\177ELF") binaries[fs::relative(entry.path(), prefix)] = Read(entry.path());
    }
    Lines names;
    for (const auto& [name, binary] : binaries) names.push_back(name);
    ASSERT_EQ((Lines{"bin/qivo-thing", "bin/vconf", "lib/qivo-thing/libdlog.so",
                     "lib/qivo-thing/liblumo.so", "lib/qivo-thing/libvconf.so",
                     "lib/qivo-thing/plugins/libappdatachannel.so"}),
              names);
  }

  std::map<std::string, Binary> binaries;  // by the file below the prefix

 private:
  static Lines Run(const Lines& command) {
    const CommandResult result = RunCommand(command);
    EXPECT_EQ(0, result.status) << result.output << result.errors;
    Lines lines;
    std::istringstream stream(result.output);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
  }

  static Binary Read(const fs::path& path) {
    Binary binary;
    binary.headers = Run({ADC_READELF, "-hldW", path});
    for (const std::string& line : Run({ADC_READELF, "--dyn-syms", "-W", path})) {
      std::istringstream words(line);
      Lines columns(8);  // number, value, size, type, binding, visibility, section, name
      for (std::string& column : columns) words >> column;
      if (columns[6] == "UND") binary.imports.insert(columns[7].substr(0, columns[7].find('@')));
    }
    return binary;
  }

  const TemporaryFolder m_folder;
};

TEST_F(HardeningTest, WhatTheLoaderWritesIsReadOnlyBeforeTheFirstInstruction) {
  for (const auto& [file, binary] : binaries) {
    EXPECT_TRUE(anyHas(binary.headers, "GNU_RELRO")) << file;
    EXPECT_TRUE(anyHas(binary.headers, "BIND_NOW")) << file;
  }
}

TEST_F(HardeningTest, NothingCanBeWrittenAndExecuted) {
  for (const auto& [file, binary] : binaries) {
    EXPECT_FALSE(anyHas(binary.headers, "TEXTREL")) << file;
    unsigned stacks = 0;
    for (const std::string& line : binary.headers) {
      std::istringstream words(line);
      std::string type;
      words >> type;
      if (type != "LOAD" && type != "GNU_STACK") continue;
      stacks += type == "GNU_STACK" ? 1U : 0U;
      const bool executable = has(line, "E 0x");  // the flags stand before the alignment
      EXPECT_FALSE(has(line, " RW") && executable) << file << line;
    }
    EXPECT_EQ(1U, stacks) << file << ": without this header the stack is executable";
  }
}

TEST_F(HardeningTest, EverythingIsLoadedAtAnAddressThatNobodyKnows) {
  for (const auto& [file, binary] : binaries) {
    EXPECT_TRUE(anyHas(binary.headers, "DYN (")) << file;
    const bool pie = std::any_of(
        binary.headers.begin(), binary.headers.end(),
        [](const std::string& line) { return has(line, "(FLAGS_1)") && has(line, " PIE"); });
    EXPECT_EQ(file.rfind("bin/", 0) == 0, pie) << file;
  }
}

TEST_F(HardeningTest, AnOverwrittenStackEndsTheProcess) {
  for (const auto& [file, binary] : binaries) {
    EXPECT_EQ(1U, binary.imports.count("__stack_chk_fail")) << file;
  }
}

TEST_F(HardeningTest, TheCLibraryChecksBuffersAndFormats) {
  if (!ADC_FORTIFIED) GTEST_SKIP() << "it does so in optimised code only";
  // A call is left unchecked only when the compiler has proved it right, which it cannot for these.
  for (const auto& [file, binary] : binaries) {
    for (const char* function : {"printf", "fprintf", "vprintf", "vfprintf", "sprintf", "vsprintf",
                                 "strcpy", "strcat", "gets"}) {
      EXPECT_EQ(0U, binary.imports.count(function)) << file << ": " << function;
    }
  }
  EXPECT_EQ(1U, binaries["bin/vconf"].imports.count("__fprintf_chk"));
  EXPECT_EQ(1U, binaries["lib/qivo-thing/libdlog.so"].imports.count("__vsnprintf_chk"));
}

TEST_F(HardeningTest, NothingStartsAnotherProgram) {
  for (const auto& [file, binary] : binaries) {
    for (const char* function :
         {"system", "popen", "fork", "vfork", "execl", "execle", "execlp", "execv", "execve",
          "execvp", "execvpe", "fexecve", "posix_spawn", "posix_spawnp", "g_spawn_async",
          "g_spawn_sync", "g_spawn_command_line_sync", "g_subprocess_new", "g_subprocess_newv"}) {
      EXPECT_EQ(0U, binary.imports.count(function)) << file << ": " << function;
    }
  }
}

TEST_F(HardeningTest, LibrariesAreLookedForInTheInstalledFoldersOnly) {
  for (const auto& [file, binary] : binaries) {
    EXPECT_FALSE(anyHas(binary.headers, "(RPATH)")) << file;
    for (const std::string& line : binary.headers) {
      if (!has(line, "(RUNPATH)")) continue;
      const auto start = line.find('[') + 1;
      const std::string path = line.substr(start, line.find(']') - start);
      // One element: an empty one beside it would be the working folder.
      EXPECT_EQ(0U, path.find("$ORIGIN")) << file << path;
      EXPECT_FALSE(has(path, ":")) << file << path;
    }
  }
}

}  // namespace
