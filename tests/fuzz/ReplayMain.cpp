// Runs a fuzz target over files, for compilers and builds without a fuzzer:
//
//   fuzz-TARGET FILE-OR-FOLDER...
//
// A broken rule or a sanitizer's finding ends the process; the name of its input stands before it.
// Exit status: 0; 1 when there was no file; 2 when a file cannot be read.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "Input.h"
#include "Require.h"

namespace {

std::vector<std::filesystem::path> filesBelow(const std::filesystem::path& path) {
  if (!std::filesystem::is_directory(path)) return {path};
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(path)) {
    if (entry.is_regular_file()) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

bool run(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  const std::vector<char> bytes{std::istreambuf_iterator<char>(file),
                                std::istreambuf_iterator<char>()};
  if (!file) return false;
  const fuzz::ExactBytes input({bytes.data(), bytes.size()});
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.View().data()), bytes.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::size_t count = 0;
  for (int i = 1; i < argc; ++i) {
    for (const auto& path : filesBelow(argv[i])) {
      std::printf("%s\n", path.c_str());
      std::fflush(stdout);
      if (!run(path)) {
        std::fprintf(stderr, "cannot read %s\n", path.c_str());
        return 2;
      }
      ++count;
    }
  }
  std::printf("%zu inputs\n", count);
  return count > 0 ? 0 : 1;
}
