#include "values/Handle.h"

#include <atomic>
#include <cstdint>

namespace Lumo {

void* NewHandle() {
  static std::atomic<std::uintptr_t> next{1};
  // No object lies at this address.
  // NOLINTNEXTLINE(performance-no-int-to-ptr,cppcoreguidelines-pro-type-reinterpret-cast)
  return reinterpret_cast<void*>(next.fetch_add(2));
}

}  // namespace Lumo
