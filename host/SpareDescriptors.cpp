#include "SpareDescriptors.h"

#include <sys/eventfd.h>
#include <unistd.h>

namespace QivoThing {

void SpareDescriptors::Take() noexcept {
  for (; !IsComplete(); ++m_count) {
    m_descriptors[m_count] = eventfd(0, EFD_CLOEXEC);
    if (m_descriptors[m_count] < 0) return;
  }
}

void SpareDescriptors::Release() noexcept {
  while (m_count != 0) close(m_descriptors[--m_count]);
}

}  // namespace QivoThing
