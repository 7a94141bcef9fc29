#include "SpareDescriptors.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>

namespace QivoThing {
namespace {

constexpr std::size_t kCount = 8;

}  // namespace

SpareDescriptors::SpareDescriptors() {
  m_descriptors.reserve(kCount);
  Take();
}

SpareDescriptors::~SpareDescriptors() {
  Release();
}

void SpareDescriptors::Take() noexcept {
  while (m_descriptors.size() < kCount) {
    const int descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) return;
    m_descriptors.push_back(descriptor);
  }
}

void SpareDescriptors::Release() noexcept {
  for (const int descriptor : m_descriptors) close(descriptor);
  m_descriptors.clear();
}

}  // namespace QivoThing
