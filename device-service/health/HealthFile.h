#ifndef DEVICE_SERVICE_HEALTH_HEALTHFILE_H
#define DEVICE_SERVICE_HEALTH_HEALTHFILE_H

#include <string>
#include <string_view>

namespace Lumo {

// A file that others read while it is written: they see the old text or the new one, whole. One
// thread at a time.
class HealthFile {
 public:
  // Empty: there is none.
  explicit HealthFile(std::string path) : m_path(std::move(path)) {}

  bool IsWanted() const { return !m_path.empty(); }
  // Everybody may read it, whatever the umask: the collector is another user. What goes wrong is
  // logged, and not again until something else goes wrong or the file can be written.
  void Write(std::string_view text);

 private:
  const std::string m_path;
  std::string m_fault;  // that was logged
};

}  // namespace Lumo

#endif  // DEVICE_SERVICE_HEALTH_HEALTHFILE_H
