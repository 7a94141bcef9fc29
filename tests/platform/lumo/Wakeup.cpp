#include "Wakeup.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace Lumo {

Wakeup::Wakeup() : m_descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (m_descriptor < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
}

Wakeup::~Wakeup() {
  close(m_descriptor);
}

// Neither can fail in a way that matters: the counter is full when a signal is already there, and
// empty when there is none.
void Wakeup::Signal() noexcept {
  const eventfd_t one = 1;
  static_cast<void>(eventfd_write(m_descriptor, one));
}

void Wakeup::Clear() noexcept {
  eventfd_t count = 0;
  static_cast<void>(eventfd_read(m_descriptor, &count));
}

}  // namespace Lumo
