#include "health/HealthFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>
#include <utility>

#include "dlog.h"

namespace Lumo {
namespace {

constexpr mode_t kEverybodyReads = 0644;

class Descriptor {
 public:
  explicit Descriptor(int number) : m_number(number) {}
  ~Descriptor() {
    if (m_number >= 0) close(m_number);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int Number() const { return m_number; }

 private:
  const int m_number;
};

// False, with errno, when not all of it is written.
bool writeAll(int file, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = write(file, text.data(), text.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    text.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

// The same. Whatever is there is removed first: to open a pipe could wait for ever.
bool writeFile(const std::string& path, std::string_view text) {
  unlink(path.c_str());
  constexpr int kNew = O_CREAT | O_EXCL | O_NOFOLLOW;
  const Descriptor file(
      open(path.c_str(), O_WRONLY | kNew | O_NONBLOCK | O_CLOEXEC, kEverybodyReads));
  return file.Number() >= 0 && fchmod(file.Number(), kEverybodyReads) == 0 &&
         writeAll(file.Number(), text);
}

}  // namespace

void HealthFile::Write(std::string_view text) {
  // The collector reads what ends with ".prom".
  const std::string whole = m_path + ".new";
  if (writeFile(whole, text) && std::rename(whole.c_str(), m_path.c_str()) == 0) {
    m_fault.clear();
    return;
  }
  std::string fault = std::generic_category().message(errno);
  unlink(whole.c_str());
  if (fault == m_fault) return;
  m_fault = std::move(fault);
  dlog_print(6, "LUMO", "LUMO_HEALTH_FILE: cannot write '%s': %s\n", m_path.c_str(),
             m_fault.c_str());
}

}  // namespace Lumo
