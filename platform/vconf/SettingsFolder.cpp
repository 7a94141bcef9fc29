#include "SettingsFolder.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <utility>

#include "FileDescriptor.h"

namespace {

constexpr mode_t kFolderMode = 0700;
constexpr mode_t kFileMode = 0600;
constexpr int kTemporaryNameAttempts = 100;
constexpr std::size_t kMaxReadBytes = 4096;

bool isValidKey(std::string_view key) {
  while (true) {
    const std::size_t slash = key.find('/');
    const std::string_view name = key.substr(0, slash);
    if (name.empty() || name == "." || name == ".." || name.size() > NAME_MAX) return false;
    if (slash == std::string_view::npos) return true;
    key.remove_prefix(slash + 1);
  }
}

enum class Missing { kCreate, kFail };

// Opens the folder that the relative path names below `from`.
FileDescriptor openFolder(FileDescriptor from, std::string_view path, int extraFlags,
                          Missing missing) {
  while (from.IsOpen() && !path.empty()) {
    const std::size_t slash = path.find('/');
    const std::string name(path.substr(0, slash));
    path.remove_prefix(slash == std::string_view::npos ? path.size() : slash + 1);
    if (name.empty()) continue;
    if (missing == Missing::kCreate && mkdirat(from.Get(), name.c_str(), kFolderMode) != 0 &&
        errno != EEXIST) {
      return {};
    }
    from = FileDescriptor(
        openat(from.Get(), name.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC | extraFlags));
  }
  return from;
}

// Where a valid key's file is.
struct KeyFile {
  FileDescriptor folder;  // not open when the system refuses
  std::string name;
};

KeyFile openKeyFolder(const std::string& path, std::string_view key, Missing missing) {
  const std::size_t slash = key.rfind('/');
  const bool nested = slash != std::string_view::npos;

  const char* start = path[0] == '/' ? "/" : ".";
  FileDescriptor folder(open(start, O_PATH | O_DIRECTORY | O_CLOEXEC));
  folder = openFolder(std::move(folder), path, 0, missing);
  folder = openFolder(std::move(folder), nested ? key.substr(0, slash) : "", O_NOFOLLOW, missing);
  return {std::move(folder), std::string(nested ? key.substr(slash + 1) : key)};
}

// A new file in a folder, removed again unless it takes its final name.
class TemporaryFile {
 public:
  // `folder` outlives the object.
  explicit TemporaryFile(const FileDescriptor& folder) : m_folder(folder) {
    static std::atomic<unsigned> counter{0};
    for (int attempt = 0; attempt < kTemporaryNameAttempts; ++attempt) {
      // A file of this name can be left from a process that was killed.
      m_name = "." + std::to_string(getpid()) + "." + std::to_string(counter++) + ".tmp";
      m_file = FileDescriptor(openat(m_folder.Get(), m_name.c_str(),
                                     O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kFileMode));
      if (m_file.IsOpen() || errno != EEXIST) break;
    }
    m_exists = m_file.IsOpen();
  }
  ~TemporaryFile() {
    if (m_exists) unlinkat(m_folder.Get(), m_name.c_str(), 0);
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  bool Write(std::string_view text) {
    while (m_exists && !text.empty()) {
      const ssize_t count = write(m_file.Get(), text.data(), text.size());
      if (count < 0 && errno == EINTR) continue;
      if (count <= 0) return false;
      text.remove_prefix(static_cast<std::size_t>(count));
    }
    return m_exists && m_file.Close();
  }

  bool RenameTo(const std::string& name) {
    if (renameat(m_folder.Get(), m_name.c_str(), m_folder.Get(), name.c_str()) != 0) return false;
    m_exists = false;
    return true;
  }

 private:
  const FileDescriptor& m_folder;
  std::string m_name;
  FileDescriptor m_file;
  bool m_exists = false;
};

}  // namespace

SettingsFolder SettingsFolder::FromEnvironment() {
  const char* folder = std::getenv("VCONF_DIR");
  if (folder != nullptr && folder[0] != '\0') return SettingsFolder(folder);

  // A runtime directory that is not an absolute path is to be ignored.
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (runtime != nullptr && runtime[0] == '/') {
    return SettingsFolder(std::string(runtime) + "/vconf");
  }
  return SettingsFolder("/run/user/" + std::to_string(getuid()) + "/vconf");
}

bool SettingsFolder::Write(std::string_view key, std::string_view text) const {
  if (!isValidKey(key)) return false;
  const KeyFile target = openKeyFolder(m_path, key, Missing::kCreate);
  if (!target.folder.IsOpen()) return false;

  // Settings last as long as the runtime directory does, so nothing is synced to a disk.
  TemporaryFile file(target.folder);
  return file.Write(text) && file.RenameTo(target.name);
}

std::optional<std::string> SettingsFolder::Read(std::string_view key) const {
  if (!isValidKey(key)) return std::nullopt;
  const KeyFile source = openKeyFolder(m_path, key, Missing::kFail);
  if (!source.folder.IsOpen()) return std::nullopt;
  const FileDescriptor file(openat(source.folder.Get(), source.name.c_str(),
                                   O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file.IsOpen()) return std::nullopt;

  std::string text;
  std::array<char, 256> buffer{};
  while (text.size() <= kMaxReadBytes) {
    const ssize_t count = read(file.Get(), buffer.data(), buffer.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return std::nullopt;
    if (count == 0) return text;
    text.append(buffer.data(), static_cast<std::size_t>(count));
  }
  return std::nullopt;
}
