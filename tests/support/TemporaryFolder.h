#ifndef TESTS_SUPPORT_TEMPORARYFOLDER_H
#define TESTS_SUPPORT_TEMPORARYFOLDER_H

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <system_error>

// An empty folder among the temporary files, only its owner's; it goes with the object, and with it
// all that is in it then.
class TemporaryFolder {
 public:
  // Throws std::runtime_error.
  TemporaryFolder() {
    std::string path = (std::filesystem::temp_directory_path() / "adc-test-XXXXXX").string();
    if (mkdtemp(path.data()) == nullptr) throw std::runtime_error("no temporary folder");
    m_path = path;
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::filesystem::path& Path() const { return m_path; }
  // Returns the file's path.
  std::string Write(const std::string& name, const std::string& content) const {
    std::ofstream(m_path / name, std::ios::binary) << content;
    return m_path / name;
  }
  // Empty when there is no such file.
  std::string Read(const std::string& name) const {
    std::ifstream file(m_path / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

 private:
  std::filesystem::path m_path;
};

#endif  // TESTS_SUPPORT_TEMPORARYFOLDER_H
