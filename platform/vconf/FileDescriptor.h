#ifndef PLATFORM_VCONF_FILEDESCRIPTOR_H
#define PLATFORM_VCONF_FILEDESCRIPTOR_H

#include <unistd.h>

#include <utility>

// Owns one open file descriptor, or none (-1).
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int descriptor) : m_descriptor(descriptor) {}
  FileDescriptor(FileDescriptor&& other) noexcept
      : m_descriptor(std::exchange(other.m_descriptor, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    std::swap(m_descriptor, other.m_descriptor);
    return *this;
  }
  ~FileDescriptor() { Close(); }

  bool IsOpen() const { return m_descriptor >= 0; }
  int Get() const { return m_descriptor; }

  // False when the system reports a failed write only now.
  bool Close() {
    const int descriptor = std::exchange(m_descriptor, -1);
    return descriptor < 0 || close(descriptor) == 0;
  }

 private:
  int m_descriptor = -1;
};

#endif  // PLATFORM_VCONF_FILEDESCRIPTOR_H
