// What compiler and linker have put around everything that is installed, as readelf shows it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "HostProcess.h"
#include "TemporaryFolder.h"

namespace {

namespace fs = std::filesystem;

using Lines = std::vector<std::string>;

constexpr bool kFortified = ADC_FORTIFIED != 0;

// One installed program or library.
struct Binary {
  fs::path file;  // below the prefix
  Lines header;
  Lines segments;
  Lines dynamic;
  Lines imports;  // without versions
};

bool has(const std::string& line, const std::string& part) {
  return line.find(part) != std::string::npos;
}

bool anyHas(const Lines& lines, const std::string& part) {
  return std::any_of(lines.begin(), lines.end(),
                     [&part](const std::string& line) { return has(line, part); });
}

bool imports(const Binary& binary, const std::string& function) {
  return std::count(binary.imports.begin(), binary.imports.end(), function) != 0;
}

class HardeningTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Run({ADC_CMAKE, "--install", ADC_BUILD_FOLDER, "--prefix", m_prefix.string()});
    for (const auto& entry : fs::recursive_directory_iterator(m_prefix)) {
      if (entry.is_regular_file() && isElf(entry.path())) binaries.push_back(Read(entry.path()));
    }
    Lines names;
    for (const Binary& binary : binaries) names.push_back(binary.file);
    std::sort(names.begin(), names.end());
    ASSERT_EQ((Lines{"bin/qivo-thing", "bin/vconf", "lib/qivo-thing/libdlog.so",
                     "lib/qivo-thing/liblumo.so", "lib/qivo-thing/libvconf.so",
                     "lib/qivo-thing/plugins/libappdatachannel.so"}),
              names);
  }

  // The one that is installed there.
  const Binary& Of(const std::string& file) const {
    return *std::find_if(binaries.begin(), binaries.end(),
                         [&file](const Binary& binary) { return binary.file == file; });
  }

  std::vector<Binary> binaries;

 private:
  static bool isElf(const fs::path& path) {
    std::string start(4, '\0');
    std::ifstream(path, std::ios::binary).read(start.data(), 4);
    return start == "\177ELF";
  }

  static Lines Run(const Lines& command) {
    const CommandResult result = RunCommand(command);
    EXPECT_EQ(0, result.status) << result.output << result.errors;
    Lines lines;
    std::istringstream stream(result.output);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
  }

  Binary Read(const fs::path& path) const {
    Binary binary;
    binary.file = fs::relative(path, m_prefix);
    binary.header = Run({ADC_READELF, "-hW", path});
    binary.segments = Run({ADC_READELF, "-lW", path});
    binary.dynamic = Run({ADC_READELF, "-dW", path});
    for (const std::string& line : Run({ADC_READELF, "--dyn-syms", "-W", path})) {
      std::istringstream words(line);
      Lines columns(8);  // number, value, size, type, binding, visibility, section, name
      for (std::string& column : columns) words >> column;
      if (columns[6] == "UND") {
        binary.imports.push_back(columns[7].substr(0, columns[7].find('@')));
      }
    }
    return binary;
  }

  const TemporaryFolder m_folder;
  const fs::path& m_prefix = m_folder.Path();
};

TEST_F(HardeningTest, WhatTheLoaderWritesIsReadOnlyBeforeTheFirstInstruction) {
  for (const Binary& binary : binaries) {
    EXPECT_TRUE(anyHas(binary.segments, "GNU_RELRO")) << binary.file;
    EXPECT_TRUE(anyHas(binary.dynamic, "BIND_NOW")) << binary.file;
  }
}

TEST_F(HardeningTest, NothingCanBeWrittenAndExecuted) {
  for (const Binary& binary : binaries) {
    EXPECT_FALSE(anyHas(binary.dynamic, "TEXTREL")) << binary.file;
    unsigned stacks = 0;
    for (const std::string& line : binary.segments) {
      std::istringstream words(line);
      std::string type;
      words >> type;
      if (type != "LOAD" && type != "GNU_STACK") continue;
      stacks += type == "GNU_STACK" ? 1U : 0U;
      const bool writable = has(line, " RW");
      const bool executable = has(line, "E 0x");  // the flags stand before the alignment
      EXPECT_FALSE(writable && executable) << binary.file << line;
    }
    EXPECT_EQ(1U, stacks) << binary.file << ": without this header the stack is executable";
  }
}

TEST_F(HardeningTest, EverythingIsLoadedAtAnAddressThatNobodyKnows) {
  for (const Binary& binary : binaries) {
    EXPECT_TRUE(anyHas(binary.header, "DYN (")) << binary.file;
    const bool program = *binary.file.begin() == "bin";
    const bool pie = std::any_of(
        binary.dynamic.begin(), binary.dynamic.end(),
        [](const std::string& line) { return has(line, "(FLAGS_1)") && has(line, " PIE"); });
    EXPECT_EQ(program, pie) << binary.file;
  }
}

TEST_F(HardeningTest, AnOverwrittenStackEndsTheProcess) {
  for (const Binary& binary : binaries) {
    EXPECT_TRUE(imports(binary, "__stack_chk_fail")) << binary.file;
  }
}

TEST_F(HardeningTest, TheCLibraryChecksBuffersAndFormats) {
  if (!kFortified) GTEST_SKIP() << "it does so in optimised code only";
  // A call is left unchecked only when the compiler has proved it right, which it cannot for these.
  for (const Binary& binary : binaries) {
    for (const char* function : {"printf", "fprintf", "vprintf", "vfprintf", "sprintf", "vsprintf",
                                 "strcpy", "strcat", "gets"}) {
      EXPECT_FALSE(imports(binary, function)) << binary.file << ": " << function;
    }
  }
  EXPECT_TRUE(imports(Of("bin/vconf"), "__fprintf_chk"));
  EXPECT_TRUE(imports(Of("lib/qivo-thing/libdlog.so"), "__vsnprintf_chk"));
}

TEST_F(HardeningTest, NothingStartsAnotherProgram) {
  for (const Binary& binary : binaries) {
    for (const char* function :
         {"system", "popen", "fork", "vfork", "execl", "execle", "execlp", "execv", "execve",
          "execvp", "execvpe", "fexecve", "posix_spawn", "posix_spawnp", "g_spawn_async",
          "g_spawn_sync", "g_spawn_command_line_sync", "g_subprocess_new", "g_subprocess_newv"}) {
      EXPECT_FALSE(imports(binary, function)) << binary.file << ": " << function;
    }
  }
}

TEST_F(HardeningTest, LibrariesAreLookedForInTheInstalledFoldersOnly) {
  for (const Binary& binary : binaries) {
    EXPECT_FALSE(anyHas(binary.dynamic, "(RPATH)")) << binary.file;
    for (const std::string& line : binary.dynamic) {
      if (!has(line, "(RUNPATH)")) continue;
      const auto start = line.find('[') + 1;
      const std::string path = line.substr(start, line.find(']') - start);
      // One element: an empty one beside it would be the working folder.
      EXPECT_EQ(0U, path.find("$ORIGIN")) << binary.file << path;
      EXPECT_FALSE(has(path, ":")) << binary.file << path;
    }
  }
}

}  // namespace
